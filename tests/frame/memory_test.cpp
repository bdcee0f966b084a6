// How much memory the library takes, and what it does without. operator new counts, and refuses on demand.
#include <malloc.h>

#include <atomic>
#include <new>

#include "config.h"
#include "log_system.h"
#include "tests/support/support.h"
#include "util/clock.h"

static std::atomic<std::size_t> g_used;
static std::atomic<std::size_t> g_most;
static std::atomic<long> g_left{-1};  // allocations that still succeed; below 0: all

void* operator new(std::size_t size)
{
    void* memory = g_left == 0 ? nullptr : std::malloc(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    g_left -= g_left > 0 ? 1 : 0;
    g_used += malloc_usable_size(memory);
    g_most = std::max(g_most.load(), g_used.load());
    return memory;
}
void operator delete(void* memory) noexcept
{
    g_used -= malloc_usable_size(memory);
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept
{
    operator delete(memory);
}

// A file of line feeds alone took seventy times its size.
TEST(MemoryTest, AConfigurationTakesNoMoreThanItsFileAndItsEntries)
{
    const TempDir dir;
    const std::size_t size = 17U << 20;
    for (const std::string& content : {std::string(size, '\n'), "k=" + std::string(size - 2, 'v')}) {
        Write(dir / "large", content);
        const std::size_t before = g_used;
        g_most = before;
        EXPECT_TRUE(Config::ParseConfigByFile(dir / "large", false, {}));
        EXPECT_LE(g_most - before, 2 * size + 65536);
    }
}

// A record that finds no memory is lost; it must not end the agent that watches the host.
TEST(MemoryTest, WithoutItRecordsAreLostAndNothingElse)
{
    const TempDir dir;
    const std::string path = dir / "a.log";
    Write(path, "old");
    ASSERT_TRUE(LogSystem::Register(std::make_shared<LogSystem::LogFile>(path, DEBUG, 1, 2), kNormalLog, "a", &Echo));
    for (long most = 0; most < 40; ++most) {
        g_left = most;
        NE_LOG(INFO, "x");
        g_left = -1;
        Clock::monotonicOffsetNs += 61 * Clock::kNsPerSecond;
    }
    EXPECT_EQ(Unzipped(path + ".1.gz"), "old");
    EXPECT_TRUE(Contains(Read(path), "x\nx\n"));
}
