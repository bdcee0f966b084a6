#include "network/connection_decoder.h"

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstring>

#include "connection_tracer.h"
#include "network/pending_connects.h"

using namespace NEUtils;
using Record = ConnectionRecord;

static connection_event Attempt()
{
    connection_event event = {};
    event.head.kind = CONNECTION_ATTEMPT;
    event.head.family = AF_INET6;
    event.head.time = 500;
    event.head.local[15] = event.head.remote[15] = 1;
    event.head.remote_port = 443;
    event.process.pid = 7;
    std::memcpy(event.process.comm, "sixteen_bytes_no", 16);
    std::memset(event.process.program, 'p', sizeof(event.process.program));
    return event;
}

static bool Decodes(const connection_event& event, std::size_t length, ConnectionEvent& out)
{
    const auto* const bytes = reinterpret_cast<const char*>(&event);
    std::vector<char> exact(bytes, bytes + std::min(length, sizeof(event)));
    exact.resize(length);
    return DecodeConnection(exact.data(), length, -1000, out);
}

TEST(ConnectionDecoderTest, TakesWholeRecordsOnly)
{
    constexpr std::size_t kShort = sizeof(connection_head);
    constexpr std::size_t kLong = sizeof(connection_event);
    const std::tuple<const char*, std::uint32_t, std::uint16_t, std::size_t, bool> rows[] = {
        {"an attempt", CONNECTION_ATTEMPT, AF_INET6, kLong, true},
        {"without its process", CONNECTION_ATTEMPT, AF_INET6, kShort, false},
        {"accepted", CONNECTION_ACCEPTED, AF_INET, kShort, true},
        {"accepted, with a process", CONNECTION_ACCEPTED, AF_INET, kLong, false},
        {"a byte more", CONNECTION_LISTEN_END, AF_INET, kLong + 1, false},
        {"no kind", 0, AF_INET, kShort, false},
        {"unknown kind", CONNECTION_KINDS, AF_INET, kShort, false},
        {"unknown family", CONNECTION_LISTEN, AF_UNIX, kLong, false},
    };
    ConnectionEvent out;
    for (const auto& [name, kind, family, length, decodes] : rows) {
        connection_event event = Attempt();
        event.head.kind = kind;
        event.head.family = family;
        EXPECT_EQ(Decodes(event, length, out), decodes) << name;
    }
    for (std::size_t length = 0; length < kLong; ++length) {
        EXPECT_FALSE(Decodes(Attempt(), length, out)) << length;
    }
    EXPECT_FALSE(DecodeConnection(nullptr, kLong, 0, out));
}

TEST(ConnectionDecoderTest, OneObjectServesForAllRecords)
{
    ConnectionEvent out;
    connection_event event = Attempt();
    ASSERT_TRUE(Decodes(event, sizeof(event), out));
    EXPECT_EQ(out.record.comm, "sixteen_bytes_no");  // without a terminator
    EXPECT_EQ(out.record.program, std::string(64, 'p'));
    EXPECT_TRUE(out.record.pid == 7 && out.record.remotePort == 443 && out.record.wallNs == -500);
    event.head.kind = CONNECTION_FAILED;
    event.head.error = ECONNREFUSED;
    ASSERT_TRUE(Decodes(event, sizeof(event.head), out));
    EXPECT_TRUE(out.record.result == Record::kFailed && out.record.error == ECONNREFUSED);
    EXPECT_TRUE(out.record.pid == 0 && out.record.comm.empty() && out.record.program.empty());
}

TEST(ConnectionDecoderTest, AddressesAreThoseOfTheWire)
{
    struct Row {
        const char* name;
        std::uint16_t family;
        std::array<std::uint8_t, 16> local, remote;
        const char* texts[2];
    };
    const std::array<std::uint8_t, 16> mapped = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 255, 255, 10, 0, 0, 1};
    const Row rows[] = {
        {"IPv4, whatever is behind it", AF_INET, {127, 0, 0, 1, 9}, {10, 0, 0, 2, 9}, {"127.0.0.1", "10.0.0.2"}},
        {"IPv6", AF_INET6, {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, {0x20}, {"fe80::1", "2000::"}},
        {"IPv4 on an IPv6 socket", AF_INET6, mapped, mapped, {"10.0.0.1", "10.0.0.1"}},
        {"with no own address yet", AF_INET6, {}, mapped, {"0.0.0.0", "10.0.0.1"}},
        {"a listener for both", AF_INET6, {}, {}, {"::", "::"}},
    };
    for (const Row& row : rows) {
        connection_event event = Attempt();
        event.head.family = row.family;
        std::ranges::copy(row.local, event.head.local);
        std::ranges::copy(row.remote, event.head.remote);
        ConnectionEvent out;
        ASSERT_TRUE(Decodes(event, sizeof(event), out)) << row.name;
        EXPECT_EQ(ConnectionTracer::GetAddressText(out.record.local), row.texts[0]) << row.name;
        EXPECT_EQ(ConnectionTracer::GetAddressText(out.record.remote), row.texts[1]) << row.name;
        EXPECT_EQ(out.record.onIpv6Socket, row.family == AF_INET6) << row.name;
        const NetworkAddress again = {out.record.remote.family, out.record.remote.bytes};
        EXPECT_TRUE(again == out.record.remote);
    }
    EXPECT_EQ(ConnectionTracer::GetAddressText({}), "");
}

// What is handed over of attempts and results that come late, twice, or not at all.
TEST(PendingConnectsTest, EachAttemptIsToldOnceWithItsProcess)
{
    constexpr std::uint64_t kSecond = PendingConnects::kPatienceNs;
    using Steps = std::function<void(PendingConnects&, const std::function<Record(int, std::uint64_t)>&)>;
    const std::tuple<const char*, Steps, std::vector<std::string>> rows[] = {
        {"a result",
         [](auto& pending, auto& make) { pending.Begin(1, make(7, 10)), pending.End(1, make(0, 30)); },
         {"7 opened 20"}},
        {"of an attempt that was not seen",
         [](auto& pending, auto& make) { pending.End(1, make(0, 30)); },
         {"0 opened 0"}},
        {"by a processor whose clock is behind",
         [](auto& pending, auto& make) { pending.Begin(1, make(7, 10)), pending.End(1, make(0, 9)); },
         {"7 opened 0"}},
        {"a result that is late",
         [](auto& pending, auto& make) {
             pending.Begin(1, make(7, 10));
             pending.Expire(kSecond + 9);
             pending.Begin(2, make(8, 20));
             pending.Expire(kSecond + 10);
             pending.Expire(kSecond + 11);
             pending.End(1, make(0, kSecond + 40));
             pending.ExpireAll();
             pending.ExpireAll();
         },
         {"7 pending 0", "7 opened 1000000030", "8 pending 0"}},
        {"a result that was lost, the socket's memory is used again",
         [](auto& pending, auto& make) {
             pending.Begin(1, make(7, 10)), pending.Begin(1, make(8, 20)), pending.End(1, make(0, 30));
             pending.ExpireAll();
         },
         {"7 pending 0", "8 opened 10"}},
        {"one more than there is room for",
         [](auto& pending, auto& make) {
             for (std::uint64_t i = 0; i < PendingConnects::kMost; ++i) {
                 pending.Begin(i, make(i < 2 ? 7 : 8, i));
             }
             pending.Expire(kSecond);  // the first is told
             pending.Begin(PendingConnects::kMost, make(9, 0));
             pending.Begin(PendingConnects::kMost + 1, make(9, 0));
             pending.End(1, make(0, 5));
             pending.End(2, make(0, 5));
         },
         {"7 pending 0", "7 pending 0", "0 opened 0", "8 opened 3"}},
    };
    for (const auto& [name, steps, expected] : rows) {
        std::vector<std::string> told;
        PendingConnects pending([&](const Record& record) {
            told.push_back(std::to_string(record.pid) + (record.result == Record::kOpened ? " opened " : " pending ") +
                           std::to_string(record.durationNs));
        });
        steps(pending, [](int pid, std::uint64_t time) {
            Record record;
            record.pid = pid;
            record.bootNs = time;
            record.result = pid == 0 ? Record::kOpened : Record::kPending;
            return record;
        });
        EXPECT_EQ(told, expected) << name;
    }
}
