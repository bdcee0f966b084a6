// The feature libraries in a directory of their own, as an agent loads them.
#pragma once

#include <sys/stat.h>

#include "feature_counters.h"
#include "hips_guard.h"
#include "module_manager.h"
#include "monitor.h"
#include "tests/support/support.h"
#include "thread_pool.h"

struct FeaturesFixture : testing::Test {
    FeaturesFixture()
    {
        fs::permissions(dir_.Path(), fs::perms(0755));
        for (const char* feature : {"process_watch", "file_integrity", "file_access", "network_watch"}) {
            const std::string name = std::string("lib") + feature + ".so";
            fs::copy_file(FEATURE_DIR + name, dir_ / name);
            fs::permissions(dir_ / name, fs::perms(0755));
        }
    }
    void SetUp() override
    {
        if (geteuid() != 0) {
            GTEST_SKIP() << "trace programs, the process connector, fanotify and mounts need rights";
        }
    }
    ~FeaturesFixture() override
    {
        manager_.StopAndDeinitAllModule();
        Monitor::DeInitFileMonitor();
        ThreadPool::GetInstance().Stop();
        UninitHipsGuard();
    }

    // Starts what the features share, with its threads.
    void Begin()
    {
        InitHipsGuard(0, 0, 0);
        ThreadPool::GetInstance().Start(1, 3);
        Monitor::InitFileMonitor();
        manager_.SetModulePrefix(dir_ / "");
    }
    bool SetPolicy(const std::string& feature, const std::string& policy)
    {
        manager_.UpdateModulePolicy({{feature, {true, policy, ""}}});
        return manager_.IsRunable(feature);
    }

    const TempDir dir_;
    Manager::ModuleManager manager_;
};
