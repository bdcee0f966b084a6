#include "task_manager.h"

#include <algorithm>
#include <iterator>
#include <new>
#include <utility>

#include "hips_guard.h"
#include "logger.h"
#include "sched/launch.h"
#include "sched/task_ids.h"
#include "thread_pool.h"
#include "util/clock.h"

namespace NEUtils {

namespace {

constexpr int kTickUs = 1000000;
constexpr char kThreadName[] = "TaskManager";
constexpr std::size_t kInlineLimit = 100;
constexpr std::uint32_t kTicksPerClean = 4;

std::atomic<std::uint32_t> g_ticks{0};  // of all managers

// Kept because callers hold tasks beyond a manager that was never stopped: what is left of one goes here, and
// is never destroyed.
struct LeftTasks {
    std::mutex mutex;
    std::multimap<std::uint32_t, std::shared_ptr<Task>> tasks;
    std::list<std::shared_ptr<Task>> unregistered;
};

LeftTasks& Left()
{
    static auto& left = *new LeftTasks;
    return left;
}

}  // namespace

TaskManager::TaskManager()
{
    Left();  // takes its memory here: the destructor must not fail for want of it
}

TaskManager::~TaskManager()
{
    if (!running_) {
        return;
    }
    running_ = false;
    StopAllThreads();
    LeftTasks& left = Left();
    const std::lock_guard<std::mutex> lock(left.mutex);
    left.tasks.merge(tasks_);
    left.unregistered.splice(left.unregistered.end(), cleanList_);
}

bool TaskManager::Start(ThreadPool* pool)
{
    if (scheduleThread_ != 0) {
        return true;
    }
    {
        const std::lock_guard<std::mutex> lock(inlineLock_);
        inlineLimit_ = kInlineLimit;
        inlineDiscard_ = 0;
    }
    pool_ = pool;
    // Kept set after a failure because callers register their tasks all the same.
    running_ = true;
    scheduleThread_ = CreateHipsThreadEx(&TaskManager::ScheduleThread, this, kTickUs, kThreadName);
    if (scheduleThread_ == 0) {
        NE_LOG(ERROR, "Create thread failed.[name=TaskManager]");
        StopAllThreads();
        return false;
    }
    return true;
}

void TaskManager::Stop()
{
    if (!running_) {
        return;
    }
    std::map<std::uint32_t, TaskPtr> tasks;
    {
        const std::lock_guard<std::mutex> lock(taskLock_);
        running_ = false;  // under the lock, so that no registration is left behind
        tasks.swap(tasks_);
    }
    for (const auto& [id, task] : tasks) {
        task->CancelTask();  // a launch that waits in the pool does not run any more
    }
    tasks.clear();
    std::list<std::unique_ptr<Task::Launch>> waiting;
    {
        const std::lock_guard<std::mutex> lock(inlineLock_);
        waiting.swap(inlineQueue_);
    }
    {
        const std::lock_guard<std::mutex> lock(cleanLock_);
        for (const TaskPtr& task : cleanList_) {
            task->CancelTask();
        }
    }
    CleanTask();
    StopAllThreads();
}

void TaskManager::StopAllThreads()
{
    NE_LOG(INFO, "Stop all task manager thread.");
    const std::uintptr_t handle = scheduleThread_.exchange(0);
    if (handle != 0) {
        StopHipsThreadEx(handle);
        CloseHipsThreadHandleEx(handle);
    }
}

std::uint32_t TaskManager::RegisterTask(TASKTYPE type, TASK_CONDITION condition, void* (*func)(void*), void* arg,
                                        const std::string& memo)
{
    if (!running_) {
        NE_LOG(ERROR, "Task manager is not running.");
        return 0;
    }
    const std::uint32_t id = GenerateId();
    if (id == 0) {
        NE_LOG(ERROR, "No available taskId.");
        return 0;
    }
    bool running;
    try {
        const auto task = std::make_shared<Task>(id, type, condition, func, arg, memo, pool_);
        const std::lock_guard<std::mutex> lock(taskLock_);
        running = running_;
        if (running) {
            tasks_[id] = task;
        }
    } catch (const std::bad_alloc&) {
        NE_LOG(ERROR, "New task failed.[memo=%s]", memo.c_str());
        return 0;
    }
    if (!running) {  // stopped meanwhile
        NE_LOG(ERROR, "Task manager is not running.");
        return 0;
    }
    // Kept as it is spelled because log readers search for it. One-shot tasks are frequent, so one level lower.
    LoggerWriteLog(kNormalLog, type == TASK_ONE_SHOT ? DEBUG : INFO, NEUTILS_FILE_NAME, __LINE__,
                   "Register task succecss.[taskId=%u type=%d memo=%s]", id, static_cast<int>(type), memo.c_str());
    return id;
}

std::uint32_t TaskManager::GenerateId()
{
    const std::lock_guard<std::mutex> lock(taskLock_);
    const std::uint32_t first = TaskIds::Next();
    std::uint32_t id = first;
    while (tasks_.count(id) != 0) {
        id = TaskIds::Next();
        if (id == first) {
            return 0;
        }
    }
    return id;
}

Task* TaskManager::GetTask(std::uint32_t id)
{
    const auto found = tasks_.find(id);
    return found == tasks_.end() ? nullptr : found->second.get();
}

std::vector<std::shared_ptr<Task>> TaskManager::GetTasks()
{
    std::vector<TaskPtr> tasks;
    const std::lock_guard<std::mutex> lock(taskLock_);
    for (const auto& entry : tasks_) {
        tasks.push_back(entry.second);
    }
    return tasks;
}

bool TaskManager::MakeTaskLaunch(std::uint32_t id)
{
    const std::lock_guard<std::mutex> lock(taskLock_);
    Task* task = GetTask(id);
    if (task == nullptr) {
        return false;
    }
    task->LaunchMeOnce();
    return true;
}

void TaskManager::PauseAndWaitForEnd(std::uint32_t id)
{
    while (id != 0 && running_) {
        {
            const std::lock_guard<std::mutex> lock(taskLock_);
            const TaskPtr done = FindDoneTask(id);
            Task* task = done != nullptr ? done.get() : GetTask(id);
            if (task == nullptr) {
                return;
            }
            task->Pause();
            if (task->GetRunningCount() <= 0) {
                return;
            }
        }
        Clock::SleepNs(Clock::kNsPerSecond);
        KeepCurrentThreadAlive();
    }
}

void TaskManager::UnregisterTask(std::uint32_t id)
{
    std::list<TaskPtr> entry;  // of the clean list: its memory first
    try {
        entry.emplace_back();
    } catch (const std::bad_alloc&) {
        NE_LOG(ERROR, "Unregister task failed, not enough memory.[taskId=%u]", id);
        return;
    }
    {
        const std::lock_guard<std::mutex> lock(taskLock_);
        const auto found = tasks_.find(id);
        if (found == tasks_.end()) {
            if (const TaskPtr done = FindDoneTask(id); done != nullptr) {
                done->CancelTask();
            }
            return;
        }
        found->second->CancelTask();
        entry.front() = std::move(found->second);
        tasks_.erase(found);
    }
    const std::lock_guard<std::mutex> lock(cleanLock_);
    cleanList_.splice(cleanList_.end(), entry);
}

void TaskManager::PushTaskToCleanList(std::shared_ptr<Task> task)
{
    const std::lock_guard<std::mutex> lock(cleanLock_);
    cleanList_.push_back(std::move(task));
}

// A one-shot whose run is over, but which another launch may still wait for: on the clean list, and not unregistered.
std::shared_ptr<Task> TaskManager::FindDoneTask(std::uint32_t id)
{
    const std::lock_guard<std::mutex> lock(cleanLock_);
    const auto found = std::find_if(cleanList_.begin(), cleanList_.end(),
                                    [id](const TaskPtr& task) { return task->GetTaskid() == id && !task->cancelled_; });
    return found == cleanList_.end() ? nullptr : *found;
}

std::uint32_t TaskManager::CleanTask()
{
    std::list<TaskPtr> done;
    std::uint32_t stayed = 0;
    {
        const std::lock_guard<std::mutex> lock(cleanLock_);
        for (auto entry = cleanList_.begin(); entry != cleanList_.end();) {
            const auto current = entry++;
            const Task& task = **current;
            // A launch that waits keeps a done task here, where PauseAndWaitForEnd finds it.
            if (task.GetRunningCount() != 0 || (!task.cancelled_ && task.launches_ != 0)) {
                ++stayed;
            } else {
                done.splice(done.end(), cleanList_, current);
            }
        }
    }
    for (const TaskPtr& task : done) {
        LoggerWriteLog(kNormalLog, task->GetType() == TASK_ONE_SHOT ? DEBUG : INFO, NEUTILS_FILE_NAME, __LINE__,
                       "Unregister task succecss.[taskId=%u, type=%d, memo=%s]", task->GetTaskid(),
                       static_cast<int>(task->GetType()), task->GetMemo().c_str());
    }
    return stayed;
}

int TaskManager::ScheduleThread(void* manager)
{
    return manager == nullptr ? -1 : static_cast<TaskManager*>(manager)->ScheduleProc();
}

int TaskManager::ScheduleProc()
{
    if (!running_) {
        NE_LOG(INFO, "Schedule thread exit.");
        return -1;
    }
    if (++g_ticks > kTicksPerClean) {
        CleanTask();
        g_ticks = 0;
    }
    DoSchedule();
    if (ThreadPool* pool = pool_; pool != nullptr) {
        pool->CleanThread();
    }
    LinerProc();
    return 0;
}

void TaskManager::DoSchedule()
{
    const timeval now = Clock::WallTime();
    std::vector<TaskPtr> due;
    std::vector<TaskPtr> invalid;
    {
        const std::lock_guard<std::mutex> lock(taskLock_);
        for (auto entry = tasks_.begin(); entry != tasks_.end();) {
            const auto current = entry++;
            Task& task = *current->second;
            if (task.NeedToClean()) {
                PushTaskToCleanList(current->second);
                tasks_.erase(current);
                continue;
            }
            const Task::Match match = task.MatchCondition(now);
            if (match == Task::kInvalidType) {
                invalid.push_back(current->second);
            } else if (match == Task::kYes) {
                if (task.NeedToCreateThread()) {
                    due.push_back(current->second);
                } else {
                    QueueInline(current->second);
                }
            }
        }
    }
    for (const TaskPtr& task : invalid) {
        task->LogInvalidType();
    }
    for (const TaskPtr& task : due) {
        task->RunTask();
    }
}

// Kept because a task that is due too often must not fill the log: with a discard count of 0, a launch that
// finds the queue full is dropped without a record.
void TaskManager::QueueInline(const TaskPtr& task)
{
    const std::lock_guard<std::mutex> lock(inlineLock_);
    if (inlineQueue_.size() >= inlineLimit_) {
        if (inlineDiscard_ == 0) {
            return;
        }
        const auto count = static_cast<std::ptrdiff_t>(std::min(inlineDiscard_, inlineQueue_.size()));
        inlineQueue_.erase(inlineQueue_.begin(), std::next(inlineQueue_.begin(), count));
    }
    inlineQueue_.push_back(std::make_unique<Task::Launch>(task));
}

// Kept because the schedule thread must not be late: one inline run a tick.
int TaskManager::LinerProc()
{
    std::unique_ptr<Task::Launch> launch;
    {
        const std::lock_guard<std::mutex> lock(inlineLock_);
        if (!inlineQueue_.empty()) {
            launch = std::move(inlineQueue_.front());
            inlineQueue_.pop_front();
        }
    }
    if (launch != nullptr) {
        launch->task->RunTask();
    }
    return 0;
}

}  // namespace NEUtils
