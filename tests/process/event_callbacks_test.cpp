#include "process/event_callbacks.h"

#include "tests/support/support.h"

static EventCallbacks g_callbacks;
static proc_event g_event;
static std::atomic<int> g_counts[2];
static std::atomic<bool> g_inside;

template <int Number>
static void Count(proc_event*)
{
    ++g_counts[Number];
}

static void ChangesAll(proc_event*)
{
    g_callbacks.Remove(&ChangesAll);
    g_callbacks.Remove(&Count<0>);
    g_callbacks.Add(&Count<1>);
}

static void TakesItsTime(proc_event*)
{
    g_inside = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    g_inside = false;
    throw std::runtime_error("from a callback");
}

TEST(EventCallbacksTest, HeldOnceAndChangedFromWithin)
{
    g_callbacks.Add(&Count<0>);
    g_callbacks.Add(&Count<0>);
    g_callbacks.Dispatch(g_event);
    EXPECT_EQ(g_counts[0], 1);
    g_callbacks.Add(&ChangesAll);
    g_callbacks.Dispatch(g_event);
    const int before = g_counts[0];  // called before its removal or not, by the order of the pointers
    g_callbacks.Dispatch(g_event);
    EXPECT_EQ(g_counts[0], before);
    EXPECT_EQ(g_counts[1], 1);  // from the next event on
}

// The code of a removed callback may be unloaded next: a call still inside it would crash the agent.
TEST(EventCallbacksTest, RemovalWaitsForTheCallUnderWay)
{
    g_callbacks.Add(&TakesItsTime);
    const std::jthread dispatcher([] { EXPECT_THROW(g_callbacks.Dispatch(g_event), std::runtime_error); });
    EXPECT_TRUE(Eventually([] { return g_inside.load(); }));
    g_callbacks.Remove(&TakesItsTime);
    EXPECT_FALSE(g_inside);
}
