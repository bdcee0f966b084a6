#include "task_manager.h"

#include "sched/task_ids.h"
#include "tests/sched/pool_fixture.h"
#include "util/clock.h"

namespace {

TASK_CONDITION After(std::int64_t delayMs, std::int64_t intervalMs = 0)
{
    TASK_CONDITION condition = {};
    condition.firstDelayMs = delayMs;
    condition.intervalMs = intervalMs;
    condition.firstLaunchTime = condition.nextLaunchTime = Clock::WallMs() + delayMs;
    return condition;
}

TASK_CONDITION OnWorker(bool allowOverlap, TASK_CONDITION condition = {})
{
    condition.createThread = true;
    condition.allowOverlap = allowOverlap;
    return condition;
}

// Ticks are called by hand; the schedule thread's own come a second apart and must not take a run away.
struct TaskManagerTest : PoolTest {
    TaskManagerTest()
    {
        EXPECT_TRUE(pool_.Start(1, 4));
        EXPECT_TRUE(manager_.Start(&pool_));
        manager_.StopAllThreads();
    }
    ~TaskManagerTest() override
    {
        hold = false;
        Clock::wallOffsetMs = 0;
        manager_.Stop();
        pool_.Stop();  // before what its last job may still use
    }
    int RunsAfterTick()
    {
        const int before = runs;
        manager_.DoSchedule();
        manager_.LinerProc();
        return runs - before;
    }
    std::uint32_t Register(TASKTYPE type, const TASK_CONDITION& condition)
    {
        return manager_.RegisterTask(type, condition, &Job, nullptr, "memo");
    }
    void Launch(std::uint32_t id)
    {
        manager_.MakeTaskLaunch(id);
        manager_.DoSchedule();
    }

    TaskManager manager_;
};

}  // namespace

// Kept because callers know the first id as 2, and one-shot tasks are frequent: these log one level lower.
TEST_F(TaskManagerTest, OneShotRunsOnceAndIsGoneATickLaterAndItsIdMayComeAgain)
{
    const std::uint32_t id = Register(TASK_ONE_SHOT, After(-1));
    EXPECT_EQ(id, 2U);
    EXPECT_EQ(records_.FileOf("DEBUG Register task succecss.[taskId=2 type=0 memo=memo]"), "task_manager.cpp");
    EXPECT_EQ(RunsAfterTick(), 1);
    EXPECT_NE(manager_.GetTask(id), nullptr);
    EXPECT_EQ(RunsAfterTick(), 0);
    EXPECT_EQ(manager_.GetTask(id), nullptr);
    EXPECT_EQ(manager_.CleanTask(), 0U);
    EXPECT_TRUE(records_.Has("DEBUG Unregister task succecss.[taskId=2, type=0, memo=memo]"));
    const auto broken = [](void*) -> void* { throw std::runtime_error("broken"); };
    const std::uint32_t thrown = manager_.RegisterTask(TASK_ONE_SHOT, After(-1), broken, nullptr, "throws");
    EXPECT_THROW(RunsAfterTick(), std::runtime_error);
    RunsAfterTick();
    EXPECT_EQ(manager_.GetTask(thrown), nullptr);  // done all the same
    const std::uint32_t used = Register(TASK_ON_DEMAND, {});
    TaskIds::last = used - 1;
    EXPECT_EQ(Register(TASK_ON_DEMAND, {}), used + 1);
    TaskIds::last = 0xFFFFFFFFU;
    EXPECT_EQ(Register(TASK_ON_DEMAND, {}), 1U);
    EXPECT_EQ(TaskManager().RegisterTask(TASK_ON_DEMAND, {}, &Job, nullptr, ""), 0U);
    EXPECT_TRUE(records_.Has("ERROR Task manager is not running."));
}

// A stepped clock must neither hold a task for the whole step nor make up for missed runs.
TEST_F(TaskManagerTest, ClockStepsForwardAndBack)
{
    Register(TASK_FIXED_INTERVAL, After(5000, 10000));
    std::string ran;
    const auto step = [&](int ms) {
        Clock::wallOffsetMs += ms;
        ran += std::to_string(RunsAfterTick());
    };
    // Before the first launch the delay counts again, after it the interval.
    for (const int ms : {0, -3600000, 5100, 3600000, 0, -7200000, 8000, 2100}) {
        step(ms);
    }
    Register(TASK_ONE_SHOT, After(2000));
    for (const int ms : {-3600000, 2100, 0}) {
        step(ms);
    }
    EXPECT_EQ(ran, "00110001010");
}

// A launch is due once its time is past, not at it.
TEST_F(TaskManagerTest, AnIntervalBeginsWhereTheOneBeforeEnded)
{
    TASK_CONDITION condition = {};
    condition.intervalMs = 10;
    condition.nextLaunchTime = condition.firstLaunchTime = 5000;
    std::string due;
    for (const TASKTYPE type : {TASK_FIXED_INTERVAL, TASK_ONE_SHOT}) {
        Task task(1, type, condition, &Job, nullptr, "", nullptr);
        for (const int ms : {0, 1, 10, 11, 12}) {
            timeval at = {5, ms * 1000};
            due += task.IsLaunchConditionMatched(at) ? 'x' : '-';
        }
    }
    EXPECT_EQ(due, "-x-x--x---");
}

TEST_F(TaskManagerTest, FixedTimesMatchTheirSecondOnly)
{
    const timeval now = Clock::WallTime();
    struct tm local = {};
    localtime_r(&now.tv_sec, &local);
    for (const TASKTYPE type : {TASK_FIXED_EVERYDAY, TASK_FIXED_WEEKDAY, TASK_FIXED_MONTHDAY}) {
        TASK_CONDITION condition = {};
        condition.launchTime = local;
        const auto matches = [&](int days, int seconds) {
            Task task(1, type, condition, &Job, nullptr, "", nullptr);
            timeval at = {now.tv_sec + 86400 * days + seconds, 500000};
            return task.IsLaunchConditionMatched(at);
        };
        EXPECT_TRUE(matches(0, 0));
        EXPECT_FALSE(matches(0, 1) || matches(0, -1));
        EXPECT_EQ(matches(1, 0), type == TASK_FIXED_EVERYDAY);
        EXPECT_EQ(matches(7, 0), type != TASK_FIXED_MONTHDAY);
        condition.launchUsec = 1500001;
        EXPECT_FALSE(matches(0, 0));
    }
    Task odd(1, static_cast<TASKTYPE>(9), {}, &Job, nullptr, "", nullptr);
    timeval at = now;
    EXPECT_FALSE(odd.IsLaunchConditionMatched(at));
    EXPECT_TRUE(records_.Has("ERROR Invalid task type.[type=9]"));
}

// Kept because the schedule thread must not be late: one inline run a tick, and the launch after 100 that wait dropped.
TEST_F(TaskManagerTest, InlineLaunchesWaitTheirTurn)
{
    std::vector<std::uint32_t> ids;
    for (int i = 0; i < 101; ++i) {
        ids.push_back(Register(TASK_ON_DEMAND, {}));
        EXPECT_TRUE(manager_.MakeTaskLaunch(ids.back()));
    }
    EXPECT_FALSE(manager_.MakeTaskLaunch(4000000000U));
    EXPECT_EQ(RunsAfterTick(), 1);
    manager_.PauseAndWaitForEnd(ids[1]);
    EXPECT_TRUE(manager_.MakeTaskLaunch(ids[1]));
    manager_.UnregisterTask(ids[2]);
    EXPECT_EQ(manager_.CleanTask(), 0U);  // waiting in the queue, so its memory must stay
    for (int i = 0; i < 120; ++i) {
        RunsAfterTick();
    }
    EXPECT_EQ(runs, 98);
}

TEST_F(TaskManagerTest, RunsThatMayNotOverlapAreSkippedAndUnregisteringWaitsForTheRun)
{
    const std::uint32_t id = Register(TASK_ON_DEMAND, OnWorker(false));
    hold = true;
    Launch(id);
    ASSERT_TRUE(Runs(1));
    Launch(id);
    // The first run gives back what it took, not what the new timetable says.
    manager_.GetTask(id)->SetTaskCondition(TASK_ON_DEMAND, OnWorker(true));
    std::jthread waiter([&] {
        manager_.PauseAndWaitForEnd(id);
        EXPECT_FALSE(hold);  // the run is over
        manager_.MakeTaskLaunch(id);
    });
    const std::uint32_t other = Register(TASK_ON_DEMAND, OnWorker(true));
    Launch(other);
    ASSERT_TRUE(Runs(2));
    manager_.UnregisterTask(other);
    EXPECT_EQ(manager_.GetTask(other), nullptr);
    EXPECT_EQ(manager_.CleanTask(), 1U);
    hold = false;
    waiter.join();
    EXPECT_TRUE(Eventually([this] { return manager_.CleanTask() == 0; }));
    EXPECT_EQ(RunsAfterTick(), 0);  // a pause is final
}

// A launch that was asked for must run, also where the one before has ended the task.
TEST_F(TaskManagerTest, FurtherLaunchesOfADoneOneShotRunOutsideTheMapUnlessPausedOrUnregistered)
{
    for (const bool createThread : {true, false}) {
        pool_.Start(1, 1);
        runs = 0;
        TASK_CONDITION condition = OnWorker(true, After(3600000));
        condition.createThread = createThread;
        const std::uint32_t id = Register(TASK_ONE_SHOT, condition);
        for (int i = 0; i < 3; ++i) {
            Launch(id);
        }
        EXPECT_TRUE(Eventually([&] { return manager_.LinerProc() == 0 && runs >= 1; }));
        EXPECT_TRUE(Eventually([&] { return manager_.DoSchedule(), manager_.GetTask(id) == nullptr; }));
        EXPECT_TRUE(createThread || (runs == 1 && manager_.CleanTask() == 1));
        EXPECT_TRUE(Eventually([&] { return manager_.LinerProc() == 0 && runs == 3; })) << createThread;
        EXPECT_TRUE(Eventually([&] { return manager_.CleanTask() == 0; }));
    }
    for (const auto remove : {&TaskManager::PauseAndWaitForEnd, &TaskManager::UnregisterTask}) {
        const std::uint32_t id = Register(TASK_ONE_SHOT, After(3600000));
        Launch(id);
        manager_.MakeTaskLaunch(id);
        EXPECT_EQ(RunsAfterTick(), 1);
        manager_.DoSchedule();
        (manager_.*remove)(id);
        EXPECT_EQ(RunsAfterTick(), 0);
    }
}

// A launch that the pool drops must not keep the task from ever running again.
TEST_F(TaskManagerTest, DroppedLaunchGivesItsRunLockBack)
{
    const std::uint32_t id = Register(TASK_ON_DEMAND, OnWorker(false));
    pool_.Stop();
    Launch(id);  // queued where nobody takes it
    pool_.Start(1, 1);
    Launch(id);
    EXPECT_TRUE(Runs(1));
}

// Kept because callers hold tasks beyond their manager: its destructor leaves tasks and launches, a stop leaves none.
TEST_F(TaskManagerTest, StopDestroysTasksTheDestructorDoesNot)
{
    for (const bool stop : {true, false}) {
        auto manager = std::make_unique<TaskManager>();
        manager->Start(&pool_);
        manager->StopAllThreads();
        manager->MakeTaskLaunch(manager->RegisterTask(TASK_ON_DEMAND, {}, &Job, nullptr, "inline"));
        manager->DoSchedule();  // waits in the inline queue
        const std::weak_ptr<Task> task = manager->GetTasks()[0];
        if (stop) {
            manager->Stop();
            EXPECT_TRUE(task.expired());
        }
        manager.reset();
        EXPECT_EQ(task.expired(), stop);
    }
}

TEST_F(TaskManagerTest, RegistersLaunchesAndUnregistersFromManyThreadsUntilStopped)
{
    std::atomic<bool> stop{false};
    InThreads(4, [&](int i) {
        while (i < 3 && !stop) {
            const std::uint32_t id =
                Register(i == 1 ? TASK_ONE_SHOT : TASK_ON_DEMAND, i == 0 ? OnWorker(false, After(-1)) : After(-1));
            manager_.MakeTaskLaunch(id);
            std::this_thread::yield();
            manager_.UnregisterTask(id);
        }
        for (int tick = 0; i == 3 && tick < 200; ++tick) {
            manager_.ScheduleProc();
        }
        if (i == 3) {
            manager_.Stop();
            stop = true;
        }
    });
    for (std::uint32_t id = 1; id < 100000; ++id) {
        ASSERT_EQ(manager_.GetTask(id), nullptr);  // none registered beside the stop is left behind
    }
    EXPECT_TRUE(records_.Has("INFO Stop all task manager thread."));
    EXPECT_EQ(manager_.ScheduleProc(), -1);
    EXPECT_TRUE(records_.Has("INFO Schedule thread exit."));
}

TEST_F(TaskManagerTest, StopMayComeFromAnInlineJob)
{
    EXPECT_TRUE(manager_.Start(&pool_));
    manager_.RegisterTask(
        TASK_ONE_SHOT, After(-1),
        [](void* manager) -> void* {
            static_cast<TaskManager*>(manager)->Stop();
            ++runs;
            return nullptr;
        },
        &manager_, "stops");
    EXPECT_TRUE(Runs(1));
    UninitHipsGuard();  // waits for the tick that it came from
}

// Kept because callers register their tasks all the same: a failed start leaves the manager running.
TEST(TaskManagerStartTest, FailedStartLeavesItRunning)
{
    const Records records;
    TaskManager manager;
    EXPECT_FALSE(manager.Start(nullptr));  // no guard
    EXPECT_TRUE(records.Has("ERROR Create thread failed.[name=TaskManager]"));
    const std::uint32_t id = manager.RegisterTask(TASK_ON_DEMAND, {}, &PoolTest::Job, nullptr, "memo");
    ASSERT_NE(id, 0U);
    // The clean list is swept at every fifth tick. Without a schedule thread no tick but these is counted.
    manager.UnregisterTask(id);
    for (int tick = 1; tick <= 5; ++tick) {
        EXPECT_EQ(manager.ScheduleProc(), 0);
        EXPECT_EQ(records.Has("INFO Unregister task succecss.[taskId=2, type=5, memo=memo]"), tick == 5) << tick;
    }
    // A launch that the pool refuses is logged, and gives back the run lock that it took.
    ThreadPool stopped;
    const auto task =
        std::make_shared<Task>(1, TASK_ON_DEMAND, OnWorker(false), &PoolTest::Job, nullptr, "lost", &stopped);
    task->RunTask();
    task->RunTask();
    EXPECT_EQ(records.Count("ERROR Task launch is lost.[taskId=1 memo=lost]"), 2);
}
