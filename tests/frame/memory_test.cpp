// How much memory the library takes, and what it does without.
#include "config.h"
#include "tests/frame/log_file_fixture.h"
#include "tests/support/failing_allocations.h"
#include "util/clock.h"

using MemoryTest = LogFileTest;

// A file of line feeds alone took seventy times its size.
TEST_F(MemoryTest, AConfigurationTakesNoMoreThanItsFileAndItsEntries)
{
    const std::size_t size = 17U << 20;
    for (const std::string& content : {std::string(size, '\n'), "k=" + std::string(size - 2, 'v')}) {
        Write(path_, content);
        const auto most =
            FailingAllocations::MostUsedIn([&] { EXPECT_TRUE(Config::ParseConfigByFile(path_, false, {})); });
        EXPECT_TRUE(most > size && most <= 2 * size + 65536) << most;
    }
}

// A record that finds no memory is lost; it must not end the agent that watches the host.
TEST_F(MemoryTest, WithoutItRecordsAreLostAndNothingElse)
{
    Write(path_, "old");
    ASSERT_TRUE(LogSystem::Register(std::make_shared<LogFile>(path_, DEBUG, 1, 2), kNormalLog, "a", &Echo));
    const auto log = [] { NE_LOG(INFO, "x"); };
    const auto later = [](int) { Clock::monotonicOffsetNs += 61 * Clock::kNsPerSecond; };
    EXPECT_GT(FailingAllocations::InTurn(FailingAllocations::Mode::kAllFromThere, log, later), 4);
    log();
    log();
    EXPECT_EQ(Unzipped(Copy(1)), "old");
    EXPECT_TRUE(Contains(Read(path_), "x\nx\n"));
}
