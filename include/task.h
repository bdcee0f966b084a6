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

// When a task is launched by itself. The numbers are fixed: callers store and compare them.
enum TASKTYPE : std::int32_t {
    TASK_ONE_SHOT = 0,        // once, when the wall clock passes the launch time; then it is removed
    TASK_FIXED_INTERVAL = 1,  // after a first delay, then every interval
    TASK_FIXED_EVERYDAY = 2,  // at hour:minute:second
    TASK_FIXED_WEEKDAY = 3,   // the same on one day of the week
    TASK_FIXED_MONTHDAY = 4,  // the same on one day of the month
    TASK_ON_DEMAND = 5,       // only when MakeTaskLaunch asks for it
};

#ifdef __clang__
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wnested-anon-types"  // which __extension__ does not quiet there
#endif

// A timetable. Its first part is read in one of two ways; the type of the task decides.
struct TASK_CONDITION {
    union {
        // Types 0 and 1, in milliseconds. The caller sets the last two to now + firstDelayMs; they count from
        // the Unix epoch on the wall clock. A negative one means that the task is not launched (again).
        __extension__ struct {
            std::int64_t firstDelayMs;
            std::int64_t intervalMs;
            std::int64_t firstLaunchTime;
            std::int64_t nextLaunchTime;
        };
        // Types 2 to 4: a local time as localtime_r gives it. Read are tm_hour, tm_min and tm_sec, for type 3
        // also tm_wday (0: Sunday), and for type 4 also tm_mday.
        __extension__ struct {
            struct tm launchTime;
            std::int32_t launchUsec;
        };
    };
    bool createThread;  // runs on a pool thread, otherwise on the schedule thread
    bool allowOverlap;  // false: a launch is skipped while an earlier run is in progress
};

#ifdef __clang__
#pragma clang diagnostic pop
#endif

// One registered job: its timetable, its function and the state of its runs.
//
// Threads  any. A launch that waits in the pool or the inline queue, and a run, keep the task alive.
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

    // Replaces type and timetable, unless the task is cancelled. The state of its runs stays.
    void SetTaskCondition(TASKTYPE type, const TASK_CONDITION& condition);

    // True when the task is due. Sets the next launch, so that each launch is due once.
    bool IsLaunchConditionMatched(timeval& now);

    // Runs the job here or on the pool. A launch that may not overlap with the run in progress is skipped.
    void RunTask();
    static void* TaskThread(void* task);
    void TaskProc();

private:
    friend class TaskManager;
    enum Match { kNo, kYes, kInvalidType };
    struct Launch;

    Match MatchCondition(const timeval& now);
    bool MatchOneShot(std::int64_t nowMs);
    bool MatchFixedInterval(std::int64_t nowMs);
    bool MatchFixedTime(const timeval& now) const;
    void LogInvalidType() const;
    bool HandToPool(bool& holdsRunLock);
    void Run(bool holdsRunLock);

    const std::string memo_;
    const std::uint32_t taskId_;
    std::atomic<TASKTYPE> type_;  // written under the state lock, read without it
    TASK_CONDITION condition_;
    void* (*const func_)(void*);
    void* const arg_;
    std::mutex stateLock_;              // type, condition, launchOnce_, firstLaunchPending_
    std::atomic<bool> runLock_{false};  // taken by the launching thread, released by the running one
    std::atomic<bool> paused_{false};
    std::atomic<std::int32_t> runningCount_{0};
    std::atomic<std::int32_t> launches_{0};  // that wait or run
    std::atomic<bool> needClean_{false};
    std::atomic<bool> cancelled_{false};
    bool launchOnce_ = false;
    bool firstLaunchPending_ = true;
    ThreadPool* const pool_;
};

}  // namespace NEUtils
