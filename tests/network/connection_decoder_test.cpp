#include "network/connection_decoder.h"

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstring>

#include "connection_tracer.h"
#include "network/pending_connects.h"

using namespace NEUtils;
using Record = ConnectionRecord;

// Which lengths, kinds and families are refused is what the fuzz target looks at.
TEST(ConnectionDecoderTest, OneObjectServesForAllRecords)
{
    ConnectionEvent out;
    const Record& record = out.record;
    connection_event event = {};
    event.head.kind = CONNECTION_ATTEMPT;
    event.head.family = AF_INET6;
    event.head.time = 500;
    event.head.error = ECONNREFUSED;
    event.head.remote[10] = event.head.remote[11] = 255;  // IPv4 on an IPv6 socket
    event.head.remote[12] = 10;
    event.head.remote[15] = 1;
    event.head.remote_port = 443;
    event.process.pid = 7;
    std::memcpy(event.process.comm, "sixteen_bytes_no", 16);
    std::memset(event.process.program, 'p', sizeof(event.process.program));
    ASSERT_TRUE(DecodeConnection(&event, sizeof(event), -1000, out));
    EXPECT_EQ(record.comm, "sixteen_bytes_no");  // without a terminator
    EXPECT_EQ(record.program, std::string(64, 'p'));
    EXPECT_TRUE(record.pid == 7 && record.remotePort == 443 && record.wallNs == -500 && record.error == 0);
    EXPECT_EQ(ConnectionTracer::GetAddressText(record.local), "0.0.0.0");  // has none yet
    EXPECT_EQ(ConnectionTracer::GetAddressText(record.remote), "10.0.0.1");
    EXPECT_TRUE(record.onIpv6Socket);
    out.record.durationNs = 1;
    event.head.kind = CONNECTION_FAILED;
    event.head.family = AF_INET;
    ASSERT_TRUE(DecodeConnection(&event, sizeof(event.head), 0, out));
    EXPECT_TRUE(record.result == Record::kFailed && record.error == ECONNREFUSED && record.durationNs == 0);
    EXPECT_TRUE(record.pid == 0 && record.comm.empty() && record.program.empty() && !record.onIpv6Socket);
    EXPECT_FALSE(DecodeConnection(nullptr, sizeof(event), 0, out));
    EXPECT_EQ(ConnectionTracer::GetAddressText({}), "");
}

// What is handed over of attempts and results that come late, twice, or not at all.
TEST(PendingConnectsTest, EachAttemptIsToldOnceWithItsProcess)
{
    constexpr std::uint64_t kSecond = PendingConnects::kPatienceNs;
    struct Step {
        enum { kBegin, kEnd, kExpire } action;
        std::uint64_t time;
        std::uint64_t socket = 0;
        int pid = 0;
    };
    std::vector<Step> tooMany;
    for (std::uint64_t i = 0; i < PendingConnects::kMost; ++i) {
        tooMany.push_back({Step::kBegin, i, i, i < 2 ? 7 : 8});
    }
    const Step further[] = {{Step::kExpire, kSecond},  // the first is told
                            {Step::kBegin, 0, PendingConnects::kMost, 9},
                            {Step::kBegin, 0, PendingConnects::kMost + 1, 9},
                            {Step::kEnd, 5, 1},
                            {Step::kEnd, 5, 2}};
    tooMany.insert(tooMany.end(), std::begin(further), std::end(further));
    const std::tuple<const char*, std::vector<Step>, std::vector<std::string>> rows[] = {
        {"of an attempt that was not seen", {{Step::kEnd, 30, 1}}, {"0 opened 0"}},
        {"by a processor whose clock is behind", {{Step::kBegin, 10, 1, 7}, {Step::kEnd, 9, 1}}, {"7 opened 0"}},
        {"a result that is late",
         {{Step::kBegin, 10, 1, 7},
          {Step::kExpire, kSecond + 9},
          {Step::kBegin, 20, 2, 8},
          {Step::kExpire, kSecond + 10},
          {Step::kExpire, kSecond + 11},
          {Step::kEnd, kSecond + 40, 1},
          {Step::kExpire, kSecond + 20}},
         {"7 pending 0", "7 opened 1000000030", "8 pending 0"}},
        {"a result that was lost, the socket's memory is used again",
         {{Step::kBegin, 10, 1, 7}, {Step::kBegin, 20, 1, 8}, {Step::kEnd, 30, 1}, {Step::kExpire, 2 * kSecond}},
         {"7 pending 0", "8 opened 10"}},
        {"one more than there is room for", tooMany, {"7 pending 0", "7 pending 0", "0 opened 0", "8 opened 3"}},
    };
    for (const auto& [name, steps, expected] : rows) {
        std::vector<std::string> told;
        PendingConnects pending([&](const Record& record) {
            told.push_back(std::to_string(record.pid) + (record.result == Record::kOpened ? " opened " : " pending ") +
                           std::to_string(record.durationNs));
        });
        for (const Step& step : steps) {
            Record record;
            record.pid = step.pid;
            record.bootNs = step.time;
            record.result = step.action == Step::kEnd ? Record::kOpened : Record::kPending;
            if (step.action == Step::kBegin) {
                pending.Begin(step.socket, record);
            } else if (step.action == Step::kEnd) {
                pending.End(step.socket, record);
            } else {
                pending.Expire(step.time);
            }
        }
        EXPECT_EQ(told, expected) << name;
    }
}
