// What the tests of the process tracer share.
#pragma once

#include <fcntl.h>
#include <linux/bpf.h>
#include <linux/capability.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <map>
#include <mutex>

#include "process_tracer.h"
#include "tests/process/children.h"
#include "util/unique_fd.h"

// A tracer with everything that it hands over, by process.
struct Traced {
    bool Start(ProcessTracer::Source source, std::size_t ringSize = std::size_t{4} << 20, int wakeMs = 20)
    {
        ProcessTracer::Settings settings;
        settings.source = source;
        settings.ringSize = ringSize;
        settings.wakeMs = wakeMs;
        return tracer.Start(
            settings,
            [this](const ProcessRecord& record) {
                onRecord(record);
                const std::lock_guard<std::mutex> lock(mutex);
                records[record.pid].push_back(record);
            },
            [this](const ProcessTracer::Counts::Kinds& lost) { lostExecs = lost.execs; });
    }

    std::vector<ProcessRecord> Of(int pid, ProcessRecord::Kind kind) const
    {
        const std::lock_guard<std::mutex> lock(mutex);
        std::vector<ProcessRecord> found;
        const auto at = records.find(pid);
        if (at != records.end()) {
            std::ranges::copy_if(at->second, std::back_inserter(found),
                                 [=](const ProcessRecord& record) { return record.kind == kind; });
        }
        return found;
    }

    bool SawEnd(int pid, int seconds = 20) const
    {
        return Eventually([&] { return !Of(pid, ProcessRecord::kExit).empty(); }, seconds);
    }

    mutable std::mutex mutex;
    std::map<int, std::vector<ProcessRecord>> records;
    std::atomic<std::uint64_t> lostExecs{0};
    std::function<void(const ProcessRecord&)> onRecord = [](const ProcessRecord&) {};
    ProcessTracer tracer;
};

// Gives up all rights but those of a mask.
inline bool KeepRights(std::uint64_t mask)
{
    __user_cap_header_struct head = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2] = {};
    for (const int i : {0, 1}) {
        data[i].effective = data[i].permitted = static_cast<std::uint32_t>(mask >> (32 * i));
    }
    return syscall(SYS_capset, &head, data) == 0;
}

// How many programs, maps and links the kernel has.
inline std::size_t CountLoaded()
{
    std::size_t count = 0;
    for (const bpf_cmd command : {BPF_PROG_GET_NEXT_ID, BPF_MAP_GET_NEXT_ID, BPF_LINK_GET_NEXT_ID}) {
        bpf_attr attr = {};
        for (; syscall(SYS_bpf, command, &attr, sizeof(attr)) == 0; ++count) {
            attr.start_id = attr.next_id;
        }
    }
    return count;
}

// After some work there are as many descriptors, threads and loaded programs as before it.
inline void ExpectNothingLeftOf(const std::function<void()>& work)
{
    constexpr std::size_t kOfOthers = 30;  // which load programs at the same time; what leaks each time is many more
    const auto count = [](const char* directory) {
        return std::distance(fs::directory_iterator(directory), fs::directory_iterator());
    };
    const auto own = [&] { return std::pair(count("/proc/self/fd"), count("/proc/self/task")); };
    const auto ownBefore = own();
    const std::size_t loaded = CountLoaded();
    work();
    EXPECT_TRUE(Eventually([&] { return own() == ownBefore; }));
    EXPECT_TRUE(Eventually([&] { return CountLoaded() <= loaded + kOfOthers; }));
}

// Runs checks in a child, so that they may change its rights and mounts.
inline void InChild(const std::function<void()>& checks)
{
    EXPECT_EQ(Wait(Fork([&] {
                  checks();
                  return testing::Test::HasFailure() ? 1 : 0;
              })),
              0);
}

struct TracerTest : testing::Test {
    void SetUp() override
    {
        if (geteuid() != 0) {
            GTEST_SKIP() << "trace programs and the process connector need rights";
        }
    }

    const Records log_;
};
