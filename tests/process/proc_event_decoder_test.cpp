#include "process/proc_event_decoder.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <numeric>
#include <thread>

#include "process/event_filter.h"
#include "process/leader_exits.h"
#include "process_monitor.h"
#include "util/clock.h"

using namespace NEUtils;

static proc_event g_event;

// Decodes the first bytes of a fork event as the kernel sends it (76 bytes), with one word changed.
static bool Decodes(std::size_t length, std::size_t at, std::uint32_t value)
{
    // 0 length, 1 kind, 4 and 5 connector id, 8 payload length, 9 event kind, 13 on: parent, child with thread groups
    std::uint32_t words[] = {76, 3, 0, 0, 1, 1, 0, 0, 40, 1, 0, 0, 0, 11, 12, 13, 14, 99, 0};
    words[at] = value;
    const auto* bytes = reinterpret_cast<const unsigned char*>(words);
    const std::vector<unsigned char> exact(bytes, bytes + length);  // so that a sanitizer sees a read beyond it
    return DecodeProcEvent(exact.data(), length, g_event);
}

TEST(ProcEventDecoderTest, TakesWholeDatagramsOfTheConnectorOnly)
{
    const std::tuple<const char*, std::size_t, std::uint32_t, bool> rows[] = {
        {"as it is", 1, 3, true},
        {"netlink length beyond the datagram", 0, 77, false},
        {"netlink length of the headers", 0, 36, false},
        {"netlink length cutting the payload", 0, 75, false},
        {"another connector index", 4, 2, false},
        {"another connector value", 5, 2, false},
        {"payload beyond the message", 8, 41, false},
        {"payload without the ids", 8, 31, false},
        {"unknown kind", 9, 0x10000, true},
        {"payload of an older kernel", 8, 32, true},
    };
    for (const auto& [name, at, value, decodes] : rows) {
        EXPECT_EQ(Decodes(76, at, value), decodes) << name;
    }
    EXPECT_EQ(g_event.event_data.fork.parent_tgid, 12);
    EXPECT_EQ(g_event.event_data.fork.child_pid, 13);
    EXPECT_EQ(g_event.event_data.fork.child_tgid, 14);
    EXPECT_EQ(g_event.event_data.exit.parent_pid, 0);  // not what lies behind the payload
    for (std::size_t length = 0; length < 76; ++length) {
        EXPECT_FALSE(Decodes(length, 1, 3)) << length;
    }
    EXPECT_FALSE(DecodeProcEvent(nullptr, 76, g_event));
}

// A filter that lets too much through leaves the monitor to be flooded; one that drops too much blinds it.
TEST(EventFilterTest, KernelDropsWhatNobodyAskedFor)
{
    struct Row {
        const char* name;
        std::uint32_t kinds;
        bool processesOnly;
        std::vector<std::uint32_t> event;  // kind, and its first four ids
        bool comes;
        std::size_t followed = 0;  // processes 1, 2, ... are followed
    };
    constexpr std::uint32_t kAll = ProcessMonitor::kAllEventKinds;
    const Row rows[] = {
        {"fork of a process", kExecEvent, true, {kForkEvent, 1, 1, 7, 7}, true},
        {"fork of a thread", kExecEvent, true, {kForkEvent, 7, 7, 8, 7}, false},
        {"fork of a thread, all kinds", kAll, true, {kForkEvent, 7, 7, 8, 7}, false},
        {"fork of a thread, threads wanted", kExecEvent, false, {kForkEvent, 7, 7, 8, 7}, true},
        {"exit of a process", kExecEvent, true, {kExitEvent, 7, 7, 0, 0}, true},
        {"exit of a thread", kExecEvent, true, {kExitEvent, 8, 7, 0, 0}, false},
        {"exit of a thread of a followed process", kExecEvent, true, {kExitEvent, 8, 7, 0, 0}, true, 7},
        {"the most that are followed", kExecEvent, true, {kExitEvent, 900, 500, 0, 0}, true, 2000},
        {"beyond those that are followed", kExecEvent, true, {kExitEvent, 900, 501, 0, 0}, false, 2000},
        {"exit of a process, others are followed", kExecEvent, true, {kExitEvent, 900, 900, 0, 0}, true, 7},
        {"another kind, some are followed", kExecEvent, true, {kCommEvent, 8, 7, 0, 0}, false, 7},
        {"wanted kind of a thread", kUidEvent, true, {kUidEvent, 8, 7, 0, 0}, true},
        {"another kind", kExecEvent, true, {kCommEvent, 7, 7, 0, 0}, false},
        {"another kind, threads wanted", kExecEvent, false, {kCommEvent, 7, 7, 0, 0}, false},
        {"answer to the start, all kinds", kAll, true, {0, 0, 0, 0, 0}, true},
    };
    for (const Row& row : rows) {
        int pair[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, pair), 0);
        std::vector<int> followed(row.followed);
        std::iota(followed.begin(), followed.end(), 1);
        EXPECT_EQ(AttachEventFilter(pair[1], row.kinds, row.processesOnly, followed), 0);
        std::uint32_t words[19] = {76, 3, 0, 0, 1, 1, 0, 0, 40, row.event[0]};
        std::copy(row.event.begin() + 1, row.event.end(), words + 13);
        send(pair[0], words, sizeof(words), 0);
        EXPECT_EQ(recv(pair[1], words, sizeof(words), MSG_DONTWAIT) > 0, row.comes) << row.name;
        close(pair[0]);
        close(pair[1]);
    }
}

// A process without its first thread blinded the monitor with the exits of the others for as long as it made them; an
// id that another one got held back an exit for as long as that one lived.
TEST(LeaderExitsTest, FloodsAndReusedIdsHoldNothingUp)
{
    LeaderExits exits;
    proc_event exit = {};
    exit.timestamp_ns = static_cast<std::uint64_t>(Clock::MonotonicNs());
    exit.event_data.exit.process_pid = exit.event_data.exit.process_tgid = getpid();
    EXPECT_FALSE(exits.HasEnded(exit));
    EXPECT_EQ(exits.GetFollowed(), std::vector<int>{getpid()});
    for (int i = 0; i < 1000; ++i) {
        exits.TakeThreadExit(exit);
    }
    EXPECT_TRUE(exits.HasChanged() && exits.GetFollowed().empty());
    EXPECT_TRUE(exits.TakeEnded().empty() && exits.HasChanged() && exits.GetFollowed().size() == 1);
    proc_event former;
    EXPECT_TRUE(exits.TakeReplaced(getpid(), former) && exits.IsEmpty());
    std::thread([&] {
        exit.event_data.exit.process_pid = exit.event_data.exit.process_tgid = gettid();
        exit.timestamp_ns = static_cast<std::uint64_t>(Clock::MonotonicNs());
        EXPECT_TRUE(exits.HasEnded(exit));  // /proc has it, but as a thread of this process
    }).join();
}
