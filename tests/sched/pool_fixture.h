// What the tests of the thread pool and of those that use it share: a guard, a pool, and a job that counts its runs.
#pragma once

#include "hips_guard.h"
#include "tests/support/support.h"
#include "thread_pool.h"

struct PoolTest : testing::Test {
    PoolTest()
    {
        runs = 0;
        InitHipsGuard(0, 0, 0);
    }
    ~PoolTest() override
    {
        hold = false;
        pool_.Stop();
        UninitHipsGuard();
    }
    // Gives the name of its thread where asked for it; ends once it is not held.
    static void* Job(void* name)
    {
        if (name != nullptr) {
            *static_cast<std::string*>(name) = ThreadPool::GetCurrentThreadName();
        }
        ++runs;
        while (hold) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return nullptr;
    }
    static bool Runs(int count)
    {
        return Eventually([count] { return runs == count; });
    }

    static inline std::atomic<int> runs{0};
    static inline std::atomic<bool> hold{false};
    const Records records_;
    ThreadPool pool_;
};
