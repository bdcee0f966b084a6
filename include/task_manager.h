#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "neutils_api.h"
#include "task.h"

namespace NEUtils {

// Runs registered jobs on a timetable: once, at an interval, at a time of day, or when asked.
//
// A guarded thread, "TaskManager", looks about once a second for tasks that are due (a tick). A due task with
// createThread goes to the pool. The others wait in a queue of at most 100 launches, of which each tick runs
// one on the schedule thread: a long inline job delays the next tick, and one that takes more than a minute
// calls KeepCurrentThreadAlive().
//
// Use      Start, RegisterTask; to remove a task PauseAndWaitForEnd, then UnregisterTask; Stop last.
// Threads  any may register, launch, pause and unregister; Start, Stop and the destructor are the owner's.
// Locks    task lock, then a task's state lock or the inline queue's. Nothing runs or is logged under them.
// Blocks   PauseAndWaitForEnd looks once a second until the task's runs have ended: a task that waits for
//          itself waits for ever. Stop waits for the tick in progress (at most a second and one inline job),
//          but not for runs on the pool. From an inline job it does not wait, and the manager must then
//          outlive that tick.
// Errors   0 or false, with a record, also when memory has run out.
class NEUTILS_API TaskManager {
public:
    TaskManager();
    // Ends the schedule thread. Tasks that are still registered are neither cancelled nor destroyed: call Stop
    // first.
    ~TaskManager();
    TaskManager(const TaskManager&) = delete;
    TaskManager& operator=(const TaskManager&) = delete;

    // The pool is used until Stop and must outlive it. After a failure tasks can be registered but none runs.
    bool Start(ThreadPool* pool);
    void Stop();

    // Gives the task's id, 0 on failure. Ids start with 2 and are the process's, not the manager's.
    std::uint32_t RegisterTask(TASKTYPE type, TASK_CONDITION condition, void* (*func)(void*), void* arg,
                               const std::string& memo);

    // Launches a task at the next tick, whatever its timetable, unless it is paused. False if unknown. A one-shot
    // task stays registered until the last of its launches is over.
    bool MakeTaskLaunch(std::uint32_t id);

    // Ends the task's launches for good and waits for its runs.
    void PauseAndWaitForEnd(std::uint32_t id);

    // Forgets the task, also those of its launches that wait. It is destroyed once it does not run.
    void UnregisterTask(std::uint32_t id);

    // Destroys the unregistered tasks that do not run, and gives the number of those that do.
    std::uint32_t CleanTask();
    std::uint32_t CleanRegisterTask() { return CleanTask(); }

    std::uint32_t GenerateId();
    Task* GetTask(std::uint32_t id);                // without the task lock: for a caller that is the only one
    std::vector<std::shared_ptr<Task>> GetTasks();  // throws std::bad_alloc
    void PushTaskToCleanList(std::shared_ptr<Task> task);
    std::shared_ptr<Task> FindDoneTask(std::uint32_t id);

    // One tick and its two halves.
    static int ScheduleThread(void* manager);
    int ScheduleProc();
    void DoSchedule();
    int LinerProc();

    void StopAllThreads();

private:
    using TaskPtr = std::shared_ptr<Task>;

    void QueueInline(const TaskPtr& task);

    std::atomic<ThreadPool*> pool_{nullptr};
    std::mutex taskLock_;
    std::map<std::uint32_t, TaskPtr> tasks_;
    std::atomic<std::uintptr_t> scheduleThread_{0};
    std::mutex cleanLock_;
    std::list<TaskPtr> cleanList_;
    std::mutex inlineLock_;
    std::list<std::unique_ptr<Task::Launch>> inlineQueue_;
    std::size_t inlineLimit_ = 0;
    std::size_t inlineDiscard_ = 0;
    std::atomic<bool> running_{false};
};

}  // namespace NEUtils
