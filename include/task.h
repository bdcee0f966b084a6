#pragma once

#include <sys/time.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>

#include "neutils_api.h"

namespace NEUtils {

class ThreadPool;

// When a task runs by itself. The numbers are fixed: they are stored and compared.
enum TASKTYPE : std::int32_t {
    TASK_ONE_SHOT = 0,        // once, when the wall clock passes the launch time; then it is removed
    TASK_FIXED_INTERVAL = 1,  // after a first delay, then every interval
    TASK_FIXED_EVERYDAY = 2,  // at hour:minute:second
    TASK_FIXED_WEEKDAY = 3,   // the same on one day of the week
    TASK_FIXED_MONTHDAY = 4,  // the same on one day of the month
    TASK_ON_DEMAND = 5,       // only when it is asked for
};

#ifdef __clang__
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wnested-anon-types"  // which __extension__ does not quiet there
#endif

// A timetable. The first part is read in one of two ways, by the type of the task.
struct TASK_CONDITION {
    union {
        // Types 0 and 1, milliseconds; the last two count from the Unix epoch on the wall clock and are
        // filled in by the caller as now + firstDelayMs. A negative one: not launched (again).
        __extension__ struct {
            std::int64_t firstDelayMs;
            std::int64_t intervalMs;
            std::int64_t firstLaunchTime;
            std::int64_t nextLaunchTime;
        };
        // Types 2 to 4: local time as localtime_r gives it; of it tm_hour, tm_min and tm_sec count, for
        // type 3 tm_wday (0: Sunday) and for type 4 tm_mday as well.
        __extension__ struct {
            struct tm launchTime;
            std::int32_t launchUsec;
        };
    };
    bool createThread;  // run on a pool thread, otherwise on the schedule thread
    bool allowOverlap;  // otherwise a launch is skipped while an earlier run is under way
};

#ifdef __clang__
#pragma clang diagnostic pop
#endif

// One registered job: its timetable, its function and what it is doing.
//
// Threads  any. A launch that is waiting in the pool or the inline queue, and a run, keep the task alive.
// Owns     neither the argument nor the pool.
class NEUTILS_API Task : public std::enable_shared_from_this<Task> {
public:
    Task(std::uint32_t id, TASKTYPE type, const TASK_CONDITION& condition, void* (*func)(void*), void* arg,
         const std::string& memo, ThreadPool* pool);
    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;

    std::string GetMemo() const { return memo_; }
    std::uint32_t GetTaskid() const { return taskId_; }
    TASKTYPE GetType() const { return type_; }
    std::int32_t GetRunningCount() const { return runningCount_; }
    bool IsPaused() const { return paused_; }
    bool NeedToClean() const { return needClean_; }
    bool NeedToCreateThread();

    void Pause() { paused_ = true; }  // for good
    void CancelTask() { cancelled_ = true; }
    void LaunchMeOnce();

    // Replaces type and timetable, unless the task is cancelled; what it is doing stays.
    void SetTaskCondition(TASKTYPE type, const TASK_CONDITION& condition);

    // The task is due now. Moves the timetable on: a launch is announced once.
    bool IsLaunchConditionMatched(timeval& now);

    // Runs the job here or on the pool; a launch that may not overlap with the run under way is lost.
    void RunTask();
    static void* TaskThread(void* task);
    void TaskProc();

private:
    friend class TaskManager;
    enum Match { kNo, kYes, kInvalidType };

    Match MatchCondition(const timeval& now);
    bool MatchOneShot(std::int64_t nowMs);
    bool MatchFixedInterval(std::int64_t nowMs);
    bool MatchFixedTime(const timeval& now) const;
    void LogInvalidType() const;
    void Run(bool holdsRunLock);
    static void* LockedTaskThread(void* task);

    const std::string memo_;
    const std::uint32_t taskId_;
    std::atomic<TASKTYPE> type_;  // written under the state lock, read without
    TASK_CONDITION condition_;
    void* (*const func_)(void*);
    void* const arg_;
    std::mutex stateLock_;              // type, condition, launchOnce_, firstLaunchPending_
    std::atomic<bool> runLock_{false};  // taken by the launching thread, released by the running one
    std::atomic<bool> paused_{false};
    std::atomic<std::int32_t> runningCount_{0};
    std::atomic<bool> needClean_{false};
    std::atomic<bool> cancelled_{false};
    bool launchOnce_ = false;
    bool firstLaunchPending_ = true;
    ThreadPool* const pool_;
};

}  // namespace NEUtils
