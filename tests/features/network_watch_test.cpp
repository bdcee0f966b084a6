// What the feature network_watch makes of a policy and of the tracer's records.
#include <sys/socket.h>

#include <regex>

#include "features/connection_log.h"
#include "features/event.h"
#include "features/network_rules.h"
#include "tests/support/support.h"

using Connection = ConnectionRecord;

static void Keep(Connection&) {}

static Connection Make(Connection::Kind kind, const std::function<void(Connection&)>& change = Keep,
                       int pid = 5000001)  // above every id that the kernel gives
{
    Connection record;
    record.kind = kind;
    record.pid = kind == Connection::kAccept ? 0 : pid;
    record.uid = 4242;
    record.comm = "a b";
    record.program = "two words";
    record.local = {AF_INET, {10, 1, 2, 3}};
    record.remote = {AF_INET, {10, 200, 0, 1}};
    record.localPort = 40000;
    record.remotePort = 443;
    change(record);
    return record;
}

static NetworkRule Rule(const char* text)
{
    NetworkRule rule;
    EXPECT_EQ(ParseNetworkRule(text, rule), "") << text;
    return rule;
}

TEST(NetworkRulesTest, WhatCanNeverMatchIsRefused)
{
    const std::pair<const char*, const char*> rows[] = {
        {"", "has a network that is neither *, nor an address, nor ADDRESS/BITS, ''"},
        {"10.0.0/8", "has a network that is neither *, nor an address, nor ADDRESS/BITS, '10.0.0/8'"},
        {"10.0.0.0/33", "has a network whose size is not a number from 0 to 32"},
        {"::/129", "has a network whose size is not a number from 0 to 128"},
        {"10.0.0.0/", "has a network whose size is not a number from 0 to 32"},
        {"10.0.0.1/31", "has a network with bits beyond its size"},
        {"10.0.0.0/6", "has a network with bits beyond its size"},
        {"fe80::1/64", "has a network with bits beyond its size"},
        {"::ffff:10.0.0.0/104", "has a network to be written as one of IPv4"},
        {"*;ports=", "has ports that are neither a number up to 65535 nor FIRST-LAST, ''"},
        {"*;ports=1,65536", "has ports that are neither a number up to 65535 nor FIRST-LAST, '65536'"},
        {"*;ports=9-8", "has ports that are neither a number up to 65535 nor FIRST-LAST, '9-8'"},
        {"*;port=9", "has an unknown option 'port=9'"},
    };
    for (const auto& [text, fault] : rows) {
        NetworkRule rule;
        EXPECT_EQ(ParseNetworkRule(text, rule), fault) << text;
    }
}

TEST(NetworkRulesTest, MatchesTheOtherSideAndTheService)
{
    const Connection connect = Make(Connection::kConnect);
    const Connection accept = Make(Connection::kAccept);
    const Connection listener = Make(Connection::kListen, [](auto& r) { r.remote = {AF_INET, {}}; });
    const Connection ipv6 = Make(Connection::kConnect, [](auto& r) { r.remote = {AF_INET6, {0xfe, 0xbf, 1}}; });
    const std::tuple<const char*, Connection, bool> rows[] = {
        {"10.200.0.0/16", connect, true},
        {"10.192.0.0/13", connect, false},
        {"10.200.0.2", connect, false},
        {"10.200.0.0/16", accept, true},
        {"10.1.0.0/16", listener, true},
        {"0.0.0.0/32", listener, false},
        {"0.0.0.0/0", connect, true},
        {"::/0", connect, false},
        {"0.0.0.0/0", ipv6, false},
        {"fe80::/10;ports=0-65535", ipv6, true},
        {"fe80::/11", ipv6, false},
        {"::1/128", ipv6, false},
        {"*", ipv6, true},
        {"*;ports=443", connect, true},
        {"*;ports=40000", connect, false},
        {"*;ports=1,30000-40000", accept, true},
        {"*;ports=40001-50000", Make(Connection::kListenEnd), false},
        {"10.9.0.0/16;ports=443", connect, false},
    };
    for (const auto& [text, record, matches] : rows) {
        EXPECT_EQ(Matches(Rule(text), record), matches) << text << " " << record.kind;
    }
}

TEST(ConnectionLogTest, EachRecordIsALineOrCounted)
{
    const auto noPort = [](auto& r) { r.remotePort = 0; };
    const std::string parent = std::to_string(getppid());
    const fs::path parentProgram = fs::read_symlink("/proc/" + parent + "/exe");
    const std::string who = "pid=5000001 user=4242 ";
    const std::string from = "localAddress=10.1.2.3 localPort=40000 ";
    const std::string to = from + "remotePort=443 ";
    const std::string end = "remoteAddress=10.200.0.1 program=two words]";
    const struct {
        const char* name;
        ConnectionLogSettings settings;
        std::vector<Connection> records;
        Strings lines;
        std::uint64_t leftOut = 0;
    } rows[] = {
        {"a process connects",
         {},
         {Make(Connection::kConnect, [](auto& r) { r.result = Connection::kOpened; }), Make(Connection::kConnect),
          Make(Connection::kConnect,
               [](auto& r) { r.result = Connection::kFailed, r.error = ECONNREFUSED, r.netNs = 7; })},
         {"Connection opened.[action=opened " + who + to + end, "Connection pending.[action=pending " + who + to + end,
          "Connection failed.[action=failed " + who + to + "error=\"Connection refused\" " + end}},
        {"of nobody that is known, in another namespace",
         {},
         {Make(Connection::kAccept),
          Make(Connection::kConnect, [](auto& r) { r.pid = 0, r.netNs = 7, r.foreignNetNs = true; })},
         {"Connection accepted.[action=accepted " + to + "remoteAddress=10.200.0.1]",
          "Connection pending.[action=pending netNs=7 " + to + "remoteAddress=10.200.0.1]"}},
        {"listening",
         {},
         {Make(Connection::kListen, noPort),
          Make(Connection::kListenEnd, [](auto& r) { r.remotePort = 0, r.program.clear(); })},
         {"Listening began.[action=listening " + who + from + "program=two words]",
          "Listening ended.[action=closed " + who + from + "program=[a b]]"}},
        {"the path of a program that still runs, unless it is another one by now",
         {},
         {Make(
             Connection::kConnect, [&](auto& r) { r.program = parentProgram.filename(); }, getppid())},
         {"Connection pending.[action=pending pid=" + parent + " user=4242 " + to +
          "remoteAddress=10.200.0.1 program=" + parentProgram.string() + "]"}},
        {"the agent's own", {}, {Make(Connection::kConnect, Keep, getpid())}, {}, 1},
        {"excluded",
         {{}, {Rule("10.200.0.0/16")}, 0},
         {Make(Connection::kConnect), Make(Connection::kListen, noPort)},
         {"Listening began.[action=listening " + who + from + "program=two words]"},
         1},
        {"not included, or excluded of what is",
         {{Rule("*;ports=443"), Rule("*;ports=1")}, {Rule("10.200.0.1")}, 0},
         {Make(Connection::kAccept), Make(Connection::kConnect)},
         {},
         2},
        {"repeats are summed up, by program or by address",
         {{}, {}, 1},
         {Make(Connection::kConnect), Make(Connection::kConnect, Keep, 5000003),
          Make(Connection::kConnect, Keep, 5000004), Make(Connection::kAccept), Make(Connection::kAccept)},
         {"Connection pending.[action=pending " + who + to + end,
          "Connection accepted.[action=accepted " + to + "remoteAddress=10.200.0.1]",
          "Connection repeated.[action=pending count=2 program=two words]",
          "Connection repeated.[action=accepted count=1 remoteAddress=10.200.0.1]"}},
    };
    for (const auto& row : rows) {
        const Records records;
        ConnectionLog log(row.settings);
        for (const Connection& record : row.records) {
            log.Handle(record);
        }
        log.LogRepeats();
        Strings lines;
        for (const std::string& line : records.Lines()) {
            lines.push_back(std::regex_replace(line.substr(5), std::regex("time=[^ ]* "), ""));
        }
        EXPECT_EQ(lines, row.lines) << row.name;
        EXPECT_EQ(log.GetLeftOutCount(), row.leftOut) << row.name;
    }
}
