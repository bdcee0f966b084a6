#include "task.h"

#include <cstdlib>
#include <memory>
#include <new>

#include "logger.h"
#include "sched/launch.h"
#include "thread_pool.h"

namespace NEUtils {

namespace {

constexpr long long kMaxUsecApart = 999999;

// Broken down once a second on each thread: localtime_r takes the time zone's lock, and a tick asks for every
// task.
const struct tm& LocalTime(time_t second)
{
    thread_local time_t known = -1;
    thread_local struct tm broken = {};
    if (second != known) {
        known = localtime_r(&second, &broken) == nullptr ? -1 : second;
    }
    return broken;
}

}  // namespace

Task::Task(std::uint32_t id, TASKTYPE type, const TASK_CONDITION& condition, void* (*func)(void*), void* arg,
           const std::string& memo, ThreadPool* pool)
    : memo_(memo), taskId_(id), type_(type), condition_(condition), func_(func), arg_(arg), pool_(pool)
{
}

bool Task::NeedToCreateThread()
{
    const std::lock_guard<std::mutex> lock(stateLock_);
    return condition_.createThread;
}

void Task::LaunchMeOnce()
{
    const std::lock_guard<std::mutex> lock(stateLock_);
    launchOnce_ = true;
}

void Task::SetTaskCondition(TASKTYPE type, const TASK_CONDITION& condition)
{
    const std::lock_guard<std::mutex> lock(stateLock_);
    if (!cancelled_) {
        type_ = type;
        condition_ = condition;
    }
}

bool Task::IsLaunchConditionMatched(timeval& now)
{
    const Match match = MatchCondition(now);
    if (match == kInvalidType) {
        LogInvalidType();
    }
    return match == kYes;
}

void Task::LogInvalidType() const
{
    NE_LOG(ERROR, "Invalid task type.[type=%d]", static_cast<int>(GetType()));
}

Task::Match Task::MatchCondition(const timeval& now)
{
    if (paused_ || cancelled_) {
        return kNo;
    }
    const std::int64_t nowMs = std::int64_t{now.tv_sec} * 1000 + now.tv_usec / 1000;
    const std::lock_guard<std::mutex> lock(stateLock_);
    if (launchOnce_) {
        launchOnce_ = false;
        return kYes;
    }
    switch (GetType()) {
    case TASK_ONE_SHOT:
        return MatchOneShot(nowMs) ? kYes : kNo;
    case TASK_FIXED_INTERVAL:
        return MatchFixedInterval(nowMs) ? kYes : kNo;
    case TASK_FIXED_EVERYDAY:
    case TASK_FIXED_WEEKDAY:
    case TASK_FIXED_MONTHDAY:
        return MatchFixedTime(now) ? kYes : kNo;
    case TASK_ON_DEMAND:
        return kNo;
    }
    return kInvalidType;
}

bool Task::MatchOneShot(std::int64_t nowMs)
{
    if (condition_.firstLaunchTime < 0) {
        return false;
    }
    const std::int64_t remaining = condition_.firstLaunchTime - nowMs;
    if (remaining < 0) {
        condition_.firstLaunchTime = -1;
        return true;
    }
    if (condition_.firstDelayMs < remaining) {  // the wall clock went back
        condition_.firstLaunchTime = nowMs + condition_.firstDelayMs;
        // Kept because callers store and compare timetables: the interval gets the same value, though a one-shot
        // task does not use it.
        condition_.intervalMs = condition_.firstLaunchTime;
    }
    return false;
}

bool Task::MatchFixedInterval(std::int64_t nowMs)
{
    if (condition_.nextLaunchTime < 0) {
        return false;
    }
    const std::int64_t remaining = condition_.nextLaunchTime - nowMs;
    if (remaining < 0) {
        // Periods that were missed are not made up.
        const std::int64_t next = condition_.nextLaunchTime + condition_.intervalMs;
        condition_.nextLaunchTime = next < nowMs ? nowMs + condition_.intervalMs : next;
        firstLaunchPending_ = false;
        return true;
    }
    if (!firstLaunchPending_) {
        if (condition_.intervalMs < remaining) {  // the wall clock went back
            condition_.nextLaunchTime = nowMs + condition_.intervalMs;
        }
    } else if (condition_.firstDelayMs < remaining) {
        condition_.nextLaunchTime = nowMs + condition_.firstDelayMs;
        condition_.firstLaunchTime = condition_.nextLaunchTime;
    }
    return false;
}

// Kept because callers rely on a launch inside its second or not at all: a tick that skips the second misses
// the day, and two ticks inside it launch twice.
bool Task::MatchFixedTime(const timeval& now) const
{
    const struct tm& local = LocalTime(now.tv_sec);
    const struct tm& wanted = condition_.launchTime;
    const TASKTYPE type = GetType();
    return local.tm_hour == wanted.tm_hour && local.tm_min == wanted.tm_min && local.tm_sec == wanted.tm_sec &&
           (type != TASK_FIXED_WEEKDAY || local.tm_wday == wanted.tm_wday) &&
           (type != TASK_FIXED_MONTHDAY || local.tm_mday == wanted.tm_mday) &&
           std::llabs(static_cast<long long>(now.tv_usec) - condition_.launchUsec) <= kMaxUsecApart;
}

void Task::RunTask()
{
    if (paused_ || cancelled_) {
        return;
    }
    bool overlap;
    bool createThread;
    {
        const std::lock_guard<std::mutex> lock(stateLock_);
        overlap = condition_.allowOverlap;
        createThread = condition_.createThread;
    }
    // Whether this launch holds the lock travels with it: the timetable may change before it runs.
    bool holdsRunLock = !overlap;
    if (holdsRunLock && runLock_.exchange(true)) {
        return;
    }
    if (!createThread) {
        Run(holdsRunLock);
    } else if (!HandToPool(holdsRunLock)) {
        if (holdsRunLock) {
            runLock_ = false;
        }
        NE_LOG(ERROR, "Task launch is lost.[taskId=%u memo=%s]", taskId_, memo_.c_str());
    }
}

// Takes the run lock over, where it gets as far as that.
bool Task::HandToPool(bool& holdsRunLock)
{
    try {
        const auto launch = std::make_shared<Launch>(shared_from_this(), holdsRunLock);
        holdsRunLock = false;
        return pool_ != nullptr && pool_->AddThread(&Launch::RunInPool, launch.get(), memo_.c_str(), launch);
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void* Task::TaskThread(void* task)
{
    static_cast<Task*>(task)->Run(false);
    return nullptr;
}

void Task::Run(bool holdsRunLock)
{
    // Given back also when the job throws.
    struct Running {
        Running(Task& owner, bool holdsLock) : task(owner), holds(holdsLock) { ++task.runningCount_; }
        ~Running()
        {
            if (holds) {
                task.runLock_ = false;
            }
            --task.runningCount_;
        }
        Running(const Running&) = delete;
        Running& operator=(const Running&) = delete;
        Task& task;
        const bool holds;
    };
    const Running running(*this, holdsRunLock);
    if (!cancelled_ && !paused_) {
        TaskProc();
    }
}

void Task::TaskProc()
{
    // A one-shot is done also when its job throws.
    struct Done {
        explicit Done(Task& owner) : task(owner) {}
        ~Done()
        {
            if (task.GetType() == TASK_ONE_SHOT) {
                task.needClean_ = true;
            }
        }
        Done(const Done&) = delete;
        Done& operator=(const Done&) = delete;
        Task& task;
    };
    const Done done(*this);
    if (!paused_ && !cancelled_ && func_ != nullptr) {
        func_(arg_);
    }
}

}  // namespace NEUtils
