// How much memory the library takes, and what it does without.
#include "config.h"
#include "log_system.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/support.h"
#include "util/clock.h"

// A file of line feeds alone took seventy times its size.
TEST(MemoryTest, AConfigurationTakesNoMoreThanItsFileAndItsEntries)
{
    const TempDir dir;
    const std::size_t size = 17U << 20;
    for (const std::string& content : {std::string(size, '\n'), "k=" + std::string(size - 2, 'v')}) {
        Write(dir / "large", content);
        const auto most =
            FailingAllocations::MostUsedIn([&] { EXPECT_TRUE(Config::ParseConfigByFile(dir / "large", false, {})); });
        EXPECT_TRUE(most > size && most <= 2 * size + 65536) << most;
    }
}

// A record that finds no memory is lost; it must not end the agent that watches the host.
TEST(MemoryTest, WithoutItRecordsAreLostAndNothingElse)
{
    const TempDir dir;
    const std::string path = dir / "a.log";
    Write(path, "old");
    ASSERT_TRUE(LogSystem::Register(std::make_shared<LogSystem::LogFile>(path, DEBUG, 1, 2), kNormalLog, "a", &Echo));
    const auto log = [] { NE_LOG(INFO, "x"); };
    const auto later = [](int) { Clock::monotonicOffsetNs += 61 * Clock::kNsPerSecond; };
    EXPECT_GT(FailingAllocations::InTurn(FailingAllocations::Mode::kAllFromThere, log, later), 4);
    log();
    log();
    EXPECT_EQ(Unzipped(path + ".1.gz"), "old");
    EXPECT_TRUE(Contains(Read(path), "x\nx\n"));
}
