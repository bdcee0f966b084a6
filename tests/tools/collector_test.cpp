// The collector as agents meet it: a real process on real sockets.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>

#include "tests/tools/collector_fixture.h"

TEST_F(CollectorTest, PrintsAndAnswersWholeMessages)
{
    Listen("");
    EXPECT_EQ(fs::status(path_).permissions(), fs::perms(0600));
    const UniqueFd agent = Connect();
    for (const char byte : Message(kMsgProcess, 7, kExit)) {
        ASSERT_TRUE(Send(agent, std::string(1, byte)));
    }
    EXPECT_EQ(Receive(agent, 16), Message(2, 7, ""));
    ASSERT_TRUE(Send(agent, Message(4, 8, "") + Message(99, 9, "?")));  // a response; a type that nobody knows
    EXPECT_EQ(Receive(agent, 16), Message(100, 9, ""));
    ASSERT_TRUE(Send(agent, Message(99, 13, std::string(kMaxMsgBody, 'x'))));  // the longest
    EXPECT_EQ(Receive(agent, 16), Message(100, 13, ""));
    EXPECT_EQ(End(), 0);
    EXPECT_TRUE(Prints(" exited pid=42 container=f00d exitCode=3 cmdLine=a?[1m???\"b\n")) << Read(out_);
    EXPECT_TRUE(Prints("type=99 seq=9 length=1") && Prints("\nsummary: messages=3 ")) << Read(out_);
    EXPECT_FALSE(fs::exists(path_));

    Listen("--json --count 1");
    ASSERT_TRUE(Send(Connect(), Message(kMsgProcess, 7, kExit)));
    EXPECT_EQ(WEXITSTATUS(Wait(pid_)), 0);
    EXPECT_TRUE(Prints(R"("exitCode":3)") && Prints(R"("cmdLine":"a\u001b[1m\ufffd\ufffd\n\"b")")) << Read(out_);
}

// Of what only newer agents know, everything is shown, and nothing of it can pass for something else.
TEST_F(CollectorTest, ShowsUnknownTypesAndItemsOneByOne)
{
    const std::string file = Item(kTagOldPath, "a path=b") + Item(kTagPath, "c \"d") + Item(kTagAction, "x,y");
    const std::string pid = kTime + Item(kTagPid, Int(7));
    const std::string later = Item(kTagTime, Int(3487918203) + Int(395)) + Item(kTagPid, Int(7));
    const std::string killed = pid + Item(kTagEvent, Int(kProcessKilled)) + Item(kTagSignal, Int(9));
    const std::string executed = pid + Item(kTagEvent, Int(kProcessExecuted)) + Item(kTagExe, Text("/bin/a b")) +
                                 Item(kTagNotes, Text("deleted")) + Item(kTagCmdLine, Text("a"));
    const std::string args =
        Item(kTagArgs, std::string("a\0\0", 3) + std::string(2045, 'x')) + Item(kTagArgs, Text("]\""));
    const std::string shown = R"(args=["a","",")" + std::string(2045, 'x') + R"(]\""] cmdLine=a)";
    const std::tuple<std::uint32_t, std::string, std::string, std::string> rows[] = {
        {kMsgProcess, executed + args, " exe=\"/bin/a b\" notes=deleted " + shown + "\n",
         R"("exe":"/bin/a b","notes":"deleted","args":["a","","xx)"},
        {kMsgProcess, executed + Item(kTagArgs, Text("a")) + Item(kTagDuration, std::string(8, '\1')),
         " duration=72340172838076673 exe=\"/bin/a b\" notes=deleted cmdLine=a\n", R"("args":["a"],"cmdLine":"a",)"},
        {kMsgFile, Item(kTagPath, "/x") + Item(kTagDigest, "12") + Item(kTagAction, "digest"),
         " file action=digest sha256=12 path=/x\n", R"("action":"digest","sha256":"12","path":"/x",)"},
        {kMsgProcess, killed, "\n1970-01-01 05:30:00.000 agent 1 killed pid=7 signal=9\n",
         R"("type":"killed","seq":1,"time":0,"pid":7,"signal":9,)"},
        {kMsgProcess, later + Item(kTagEvent, Int(9)), "\n2023-11-15 03:43:20.123 agent 1 process event=9 pid=7\n",
         R"("type":"process","seq":1,"time":1700000000123,)"},
        {201, Item(kTagPid, Int(7)) + Item(900, Text("\\ \"b")), R"(type=201 seq=1 length=17 pid=7 item900="\\ \"b")",
         R"("type":201,"seq":1,"length":17,"pid":7,"items":[{"tag":900,"text":"\\ \"b","length":5}],"received":)"},
        {201, Item(900, Text("b\x1b")), " item900=0x621b00\n", R"({"tag":900,"bytes":"621b00","length":3})"},
        {201, Item(900, Int(0xFFFFFFFE)), " item900=-2\n", R"({"tag":900,"number":-2,"length":4})"},
        {201, Item(900, "Z") + Item(901, "word"), " item900=90 item901=\"word\"\n", R"({"tag":900,"number":90,)"},
        {201, Item(900, std::string(8, '\1')), " item900=72340172838076673\n", R"("number":72340172838076673,)"},
        {201, Item(900, std::string(65, '\1')), "0101...\n", R"(0101","length":65})"},
        {203, "no items", "type=203 seq=1 length=8 body=\"no items\"\n", R"("length":8,"body":"no items","received":)"},
        {205, Item(kTagPid, "xx") + Item(kTagUser, Text("root")), " item3=30840 user=root\n", R"([{"tag":3,"number":)"},
        {kMsgRepeats, Item(kTagProgram, Text("/bin/true x")) + Item(kTagCount, Int(5) + Int(0)) + Item(kTagUser, "a"),
         " repeats count=5 user=a program=/bin/true x\n",
         R"("type":"repeats","seq":1,"count":5,"user":"a","program":)"},
        {kMsgDroppedReports, Item(kTagTotal, Int(9) + Int(0)) + Item(kTagCount, Int(5) + Int(0)),
         " dropped 5 reports, 9 since the agent's start\n", R"("type":"dropped","seq":1,"count":5,"total":9,)"},
        {kMsgProblem, Item(kTagProblem, Text("it is not well")) + Item(kTagAction, Text("begins")),
         " problem action=begins problem=it is not well\n",
         R"("type":"problem","seq":1,"action":"begins","problem":"it is not well","received":)"},
        {kMsgFile, file + Item(900, Text("new")), " file action=x,y oldPath=\"a path=b\" item900=\"new\" path=c \"d\n",
         R"("oldPath":"a path=b","path":"c \"d","items":[{"tag":900,"text":"new","length":4}],"received":)"},
        {kMsgFile, Item(kTagPath, "/x") + Item(kTagChange, "a=1 ] path=/y"), " file change=\"a=1 ] path=/y\" path=/x\n",
         R"("change":"a=1 ] path=/y","path":"/x",)"},
    };
    before_ = "export TZ=EAST-5:30; ";
    for (const std::string json : {"", "--json"}) {
        Listen(json);
        const UniqueFd agent = Connect();
        for (const auto& [type, body, text, object] : rows) {
            ASSERT_TRUE(Send(agent, Message(type, 1, body)));
            EXPECT_EQ(Receive(agent, 16), Message(type + 1, 1, ""));
            EXPECT_TRUE(Prints(json.empty() ? text : object)) << text << Read(out_);
        }
        std::string many;
        for (std::uint16_t i = 0; i < 1000; ++i) {
            many += Item(1000 + i, "");
        }
        ASSERT_TRUE(Send(agent, Message(207, 1, many)));  // costs neither time nor space
        EXPECT_EQ(Receive(agent, 16), Message(208, 1, ""));
        EXPECT_TRUE(Prints(json.empty() ? " omitted=872\n" : R"("omitted":872)"));
        EXPECT_EQ(End(), 0);
    }
}

// With --json connections are events like all others, with the time of receipt.
TEST_F(CollectorTest, TellsConnectionsInJson)
{
    Listen("--json");
    const auto before = std::chrono::system_clock::now().time_since_epoch() / std::chrono::milliseconds(1);
    ConnectAgent().Reset();
    ASSERT_TRUE(Send(Connect(), std::string(16, 'x')));
    const std::string who = "pid=" + std::to_string(getpid()) + " uid=" + std::to_string(getuid());
    const std::string rows[] = {
        R"({"agent":1,"peer":")" + who + R"(","type":"connected","text":"connected from )" + who + R"(","received":)",
        R"({"agent":1,"peer":")" + who + R"(","type":"disconnected","text":"disconnected","received":)",
        R"({"agent":2,"peer":")" + who +
            R"(","type":"refused","text":"version 2021161080 is not supported","received":)",
    };
    for (const std::string& row : rows) {
        EXPECT_TRUE(Eventually([&] { return Prints(row); })) << row << Read(out_);
        const std::string out = Read(out_);
        const long long received = std::atoll(out.substr(out.find(row) + row.size(), 13).c_str());
        EXPECT_TRUE(received >= before && received < before + 60000) << received;
    }
    EXPECT_EQ(End(), 0);
}

// Whoever sends wrong bytes is cut off with the reason; the others notice nothing.
TEST_F(CollectorTest, RefusesMalformedInputOfOneConnection)
{
    Listen("");
    const UniqueFd healthy = Connect();
    const auto header = [](std::uint32_t version, std::uint32_t length) {
        return Int(version) + Int(1) + Int(5) + Int(length);
    };
    std::string args;
    for (int i = 0; i <= 32; ++i) {
        args += Item(kTagArgs, std::string(2048, 'x'));
    }
    const std::pair<std::string, std::string> rows[] = {
        {header(1, kMaxMsgBody + 1), "a body of 524273 bytes is too long"},
        {header(1, 0xFFFFFFF0), "a body of 4294967280 bytes is too long"},
        {Message(1, 5, "xxx"), "the body is empty or not made of whole items"},
        {Message(1, 5, kTime + Item(kTagEvent, Int(1))), "pid is missing"},
        {Message(1, 5, kTime + Item(kTagPid, "xx")), "pid has 2 bytes"},
        {Message(kMsgProblem, 5, kTime), "problem is missing"},
        {Message(1, 5, args), "args is too long"},
    };
    for (const auto& [bytes, reason] : rows) {
        std::ofstream(err_, std::ios::trunc);
        const UniqueFd agent = Connect();
        ASSERT_TRUE(Send(agent, bytes));
        EXPECT_EQ(Receive(agent, 1), "");
        EXPECT_TRUE(Says("refused") && Says(reason)) << reason << Read(err_);
        EXPECT_TRUE(IsAnswered(healthy, Message(1, 1, kExit)));
    }
    for (const std::size_t cut : {1, 15, 16, 30}) {
        std::ofstream(err_, std::ios::trunc);
        ASSERT_TRUE(Send(Connect(), Message(1, 5, kExit).substr(0, cut)));
        EXPECT_TRUE(Says("closed in the middle of a message"));
    }
    // One that never reads its answers is held back, not the collector's memory used up.
    const UniqueFd greedy = Connect();
    const std::string request = Message(99, 1, "");
    while (send(greedy.Get(), request.data(), request.size(), MSG_NOSIGNAL | MSG_DONTWAIT) > 0 ||
           Eventually([&] { return send(greedy.Get(), request.data(), request.size(), MSG_DONTWAIT) > 0; }, 1)) {
    }
    EXPECT_TRUE(IsAnswered(healthy, Message(1, 1, kExit)));
    EXPECT_EQ(End(), 0);
    EXPECT_TRUE(Prints(" refused=11 ")) << Read(out_);
}

TEST_F(CollectorTest, ServesManyAgentsOverTheNetworkToo)
{
    pid_ = Start("--listen tcp:127.0.0.1:0 --listen tcp:[::1]:0 --listen unix:" + path_, out_);
    ASSERT_TRUE(Eventually([this] { return Prints("listening on unix"); }));
    const std::string out = Read(out_);
    const auto port = static_cast<std::uint16_t>(std::stoi(out.substr(out.find("[::1]:") + 6)));
    std::vector<UniqueFd> agents;
    for (int i = 0; i < 150; ++i) {
        agents.push_back(Connect());
        sockaddr_in6 address = {};
        address.sin6_family = AF_INET6;
        address.sin6_port = htons(port);
        address.sin6_addr = in6addr_loopback;
        agents.emplace_back(socket(AF_INET6, SOCK_STREAM, 0));
        ASSERT_EQ(connect(agents.back().Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    }
    for (const UniqueFd& agent : agents) {
        ASSERT_TRUE(Send(agent, Message(1, 1, kExit) + Message(1, 2, kExit)));
    }
    for (const UniqueFd& agent : agents) {
        EXPECT_EQ(Receive(agent, 32), Message(2, 1, "") + Message(2, 2, ""));
    }
    EXPECT_EQ(End(), 0);
    EXPECT_TRUE(Prints("summary: messages=600 ignored=0 agents=300 refused=0"));
}

TEST_F(CollectorTest, WrongUseAndEndsHaveTheirStatus)
{
    const std::pair<std::string, std::string> rows[] = {
        {"", "2 sentrel-collector: no --listen"},
        {"--listen tcp:127.0.0.1:web", "2 sentrel-collector: --listen 'tcp:127.0.0.1:web' "},
        {"--listen tcp:127.0.0.1:65536", "2 sentrel-collector: "},
        {"--listen unix:" + std::string(108, 'x'), "2 sentrel-collector: "},
        {"--listen http:x", "2 sentrel-collector: --listen 'http:x' "},
        {"--listen unix:x --count 0", "2 sentrel-collector: --count '0' is not a number from 1 to 4294967295"},
        {"--listen unix:x --agents 100001", "2 sentrel-collector: --agents '100001' is not a number from 1 to 100000"},
        {"--control tcp:127.0.0.1:1", "2 sentrel-collector: --control 'tcp:127.0.0.1:1' "},
        {"--listen unix:x --control - <&-", "1 sentrel-collector: --control -: standard input is closed"},
        {"--listen unix:" + directory_.Path(), "1 sentrel-collector: "},
    };
    for (const auto& [options, fault] : rows) {
        EXPECT_EQ(Run(options).substr(0, fault.size()), fault);
    }
    Listen("--seconds 1 --count 1");
    EXPECT_TRUE(Contains(Run("--listen unix:" + path_), "1 sentrel-collector: "));  // in use
    EXPECT_EQ(WEXITSTATUS(Wait(pid_)), 3);
    Listen("");
    Kill(pid_);
    Listen("");  // over the socket that nobody listens on
    EXPECT_EQ(End(), 0);
}

TEST_F(CollectorTest, CommandsReachEveryAgentAndTheirAnswersWhoAsked)
{
    const std::string policy = directory_ / "a policy";
    const std::string text(3000, 'p');
    Write(policy, text);
    const std::string request = Item(kTagFeature, Text("file_access")) + Item(kTagEnable, Int(1));
    const std::string pieces = Item(kTagPolicy, text.substr(0, 2048)) + Item(kTagPolicy, text.substr(2048));
    const std::string status =
        R"({"pid":7,"features":[{"name":"a","status":"started"},7,{"name":"b","status":"x\ny"}]})";
    const std::string parts = Item(kTagStatus, status.substr(0, 20)) + Item(kTagStatus, status.substr(20));
    for (const std::string json : {"", "--json "}) {
        Listen(json + "--control unix:" + control_);
        EXPECT_EQ(fs::status(control_).permissions(), fs::perms(0600));
        const UniqueFd agents[] = {ConnectAgent(), ConnectAgent()};
        const UniqueFd client = Connect(control_);
        ASSERT_TRUE(Send(client, "policy file_access on " + policy + "\npolicy file_access off\r\nstatus\n"));
        for (const UniqueFd& agent : agents) {
            const std::string off = Item(kTagFeature, Text("file_access")) + Item(kTagEnable, Int(0));
            const std::string all = Message(9, 1, request + pieces) + Message(9, 2, off) + Message(11, 3, "");
            EXPECT_EQ(Receive(agent, all.size()), all);
            ASSERT_TRUE(Send(agent, Message(12, 3, parts + Item(kTagResult, Int(0)))));
            ASSERT_TRUE(Send(agent, Message(10, 1, Item(kTagResult, Int(0)) + parts)));
            ASSERT_TRUE(Send(agent, Message(10, 2, Item(kTagResult, Int(3)) + Item(kTagReason, "no\x1b"))));
        }
        const std::string done = json.empty() ? "done: sent=2 answered=2\n"
                                              : R"({"command":"done","sent":2,"answered":2})"
                                                "\n";
        const std::string told = Told(client, done) + Told(client, done) + Told(client, done);
        EXPECT_EQ(End(), 0);
        for (
            const std::string& line :
            json.empty()
                ? Strings{" agent 2 policy file_access on: done; a=started b=x?y\n",
                          " agent 2 policy file_access off: refused: no?\n", " agent 1 status " + status + "\n"}
                : Strings{
                      R"("type":"answer","command":"status","result":0,"status":{"pid":7,"features":[{"name":"a",)",
                      R"("command":"policy","feature":"file_access","enable":false,"result":3,"reason":"no\u001b","received":)"}) {
            EXPECT_TRUE(Contains(told, line) && Prints(line)) << line << told;
        }
    }
}

// Whoever asks is told what is wrong, each line by itself, and nothing of it is sent.
TEST_F(CollectorTest, NamesWrongCommandsOnEveryWayTheyCome)
{
    const auto file = [this](const std::string& name, const std::string& content) {
        Write(directory_ / name, content);
        return "policy a on " + directory_ / name;
    };
    const std::string fifo = directory_ / "fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::pair<std::string, std::string> rows[] = {
        {"# frob", ""},
        {"frob\x1b[1m", "'frob?[1m' is no command, help lists them"},
        {"status now", "status takes nothing, but 'now' follows"},
        {Text("status"), "the line has a NUL byte"},
        {std::string(9000, 'x'), "a line has more than 4096 bytes"},
        {"policy a", "policy needs a FEATURE and on or off"},
        {"policy a/b on", "'a/b' is no feature: 1 to 64 letters, digits, _ and -"},
        {"policy " + std::string(65, 'a') + " on",
         "'" + std::string(65, 'a') + "' is no feature: 1 to 64 letters, digits, _ and -"},
        {"policy a maybe", "'maybe' is neither on nor off"},
        {"policy a on /none", "cannot take '/none': No such file or directory"},
        {"policy a on " + fifo, "cannot take '" + fifo + "': it is not a regular file"},
        {file("big", std::string(60001, 'x')),
         "cannot take '" + directory_ / "big" + "': it has more than 60000 bytes"},
        {file("nul", Text("x")), "cannot take '" + directory_ / "nul" + "': it has a NUL byte"},
        {file("empty", ""), "cannot take '" + directory_ / "empty" + "': it is empty"},
    };
    std::string lines;
    std::string expected;
    for (const auto& [line, fault] : rows) {
        lines += line + "\n";
        expected += fault.empty() ? "" : "error: " + fault + "\n";
    }
    lines += "status";  // the last one needs no end
    expected += "done: sent=0 answered=0\n";
    Write(directory_ / "lines", lines);
    UniqueFd pipe(open(fifo.c_str(), O_RDWR | O_CLOEXEC));
    const UniqueFd terminal(posix_openpt(O_RDWR | O_NOCTTY));
    ASSERT_TRUE(grantpt(terminal.Get()) == 0 && unlockpt(terminal.Get()) == 0);
    int sockets[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sockets), 0);
    const UniqueFd ends[] = {UniqueFd(sockets[0]), UniqueFd(sockets[1])};
    for (const std::string& input : {directory_ / "lines", fifo, std::string(ptsname(terminal.Get())),
                                     "&" + std::to_string(sockets[1]), std::string("/dev/null")}) {
        Listen("--control - --control unix:" + control_ + " <" + input);
        if (input == fifo || input[0] == '&') {
            ASSERT_EQ(write(input == fifo ? pipe.Get() : sockets[0], (lines + "\n").data(), lines.size() + 1),
                      static_cast<ssize_t>(lines.size() + 1));
        }
        if (input == fifo) {
            pipe.Reset();
        }
        EXPECT_TRUE(input.starts_with("/dev/") || Says(expected)) << input << Read(err_);
        const UniqueFd agent = ConnectAgent();                 // an end of the input is none of the collector
        if (input.starts_with("/dev/pts") || input == fifo) {  // which has no end: there is a next one who writes
            const UniqueFd next(input == fifo ? open(fifo.c_str(), O_RDWR) : dup(terminal.Get()));
            ASSERT_EQ(write(next.Get(), "status\n", 7), 7);
            EXPECT_EQ(Receive(agent, 16), Message(11, input == fifo ? 2 : 1, ""));
        }
        EXPECT_EQ(End(), 0);
    }
    Listen("--control unix:" + control_);
    EXPECT_EQ(Ask(lines), expected);
    EXPECT_EQ(End(), 0);
}

TEST_F(CollectorTest, RefusesWrongAnswersAndIgnoresUnexpectedOnes)
{
    Listen("--control unix:" + control_);
    const std::string good = Item(kTagResult, Int(0));
    const auto pieces = [](std::string text) {
        std::string items;
        for (; !text.empty(); text.erase(0, 2048)) {
            items += Item(kTagStatus, text.substr(0, 2048));
        }
        return items;
    };
    const auto nested = [](std::size_t depth) {
        return "{\"a\":" + std::string(depth - 1, '[') + std::string(depth - 1, ']') + "}";
    };
    std::string members;
    for (int i = 0; i < 2001; ++i) {
        members += "\"" + std::to_string(i) + "\":1" + (i < 2000 ? "," : "");
    }
    const std::pair<std::string, std::string> rows[] = {
        {good + "x", "the body is empty or not made of whole items"},
        {Item(kTagResult, "xx"), "result has 2 bytes"},
        {good, "status is missing"},
        {good + Item(kTagStatus, "{\"a\":\"\xff\"}"), "status is no JSON object"},
        {good + pieces(nested(30000)), "status is nested too deeply"},
        {good + Item(kTagStatus, nested(33)), "status is nested too deeply"},
        {good + pieces("{" + members + "}"), "status has more than 2000 members"},
        {good + Item(kTagReason, std::string(3000, 'x')), "reason has an item of more than 2048 bytes"},
        {good + pieces("{\"a\":\"" + std::string(70000, 'x') + "\"}"), "status has more than 65536 bytes"},
    };
    std::uint32_t seq = 0;
    for (const auto& [body, fault] : rows) {
        const UniqueFd agent = ConnectAgent();
        const UniqueFd client = Connect(control_);
        ASSERT_TRUE(Send(client, "status\n"));
        EXPECT_EQ(Receive(agent, 16), Message(11, ++seq, ""));
        ASSERT_TRUE(Send(agent, Message(12, seq, body)));
        EXPECT_EQ(Told(client, "\n"), "done: sent=1 answered=0\n");
        EXPECT_TRUE(Says(") refused: " + fault)) << fault << Read(err_);
        EXPECT_EQ(Receive(agent, 1), "");
    }
    const UniqueFd silent = ConnectAgent();
    const UniqueFd agent = ConnectAgent();
    UniqueFd dying = ConnectAgent();
    const UniqueFd gone = Connect(control_);
    const UniqueFd client = Connect(control_);
    ASSERT_TRUE(Send(client, "policy a on\n") && Receive(agent, 4 + 16 + 6 + 4).size() == 30);
    const std::string answer = good + Item(kTagStatus, R"({"features":[{"name":7,"status":"x"},[],{"name":"a"}]})");
    for (const auto& [type, number] : {std::pair(10U, seq + 2), {12U, seq + 1}, {10U, seq + 1}, {10U, seq + 1}}) {
        ASSERT_TRUE(Send(agent, Message(type, number, answer)));
    }
    // An asker that is gone before its answers come must not be told any more.
    ASSERT_TRUE(Send(gone, "status\n") && Receive(dying, 30 + 16).size() == 46 && Receive(silent, 46).size() == 46);
    shutdown(gone.Get(), SHUT_RDWR);
    ASSERT_TRUE(Send(agent, Message(12, seq + 2, good + Item(kTagStatus, "{}"))));
    EXPECT_TRUE(Eventually([this] { return Prints(" status {}\n"); }));
    ASSERT_TRUE(Send(silent, Message(12, seq + 2, good + Item(kTagStatus, nested(32)))));
    EXPECT_TRUE(Eventually([&] { return Prints(" status " + nested(32) + "\n"); }));
    dying.Reset();
    EXPECT_TRUE(Told(client, "\n").ends_with(" policy a on: done\n"));
    EXPECT_EQ(Told(client, "\n"), "done: sent=3 answered=1\n");  // after the time that the silent one has
    EXPECT_TRUE(IsAnswered(silent, Message(1, 1, kExit)));
    EXPECT_EQ(End(), 0);
    EXPECT_TRUE(Prints(" ignored=3 ") && Prints(" refused=9 ")) << Read(out_);
}

// Neither side makes the collector wait, or keep more than so much.
TEST_F(CollectorTest, StalledClientsAndAgentsHoldNothingUp)
{
    Write(directory_ / "policy", std::string(60000, 'p'));
    Listen("--control unix:" + control_);
    std::vector<UniqueFd> clients;
    for (int i = 0; i < 16; ++i) {
        clients.push_back(Connect(control_));
    }
    EXPECT_EQ(Told(Connect(control_)), "error: too many clients\n");
    const std::string helps = Times(1000, "help\n");
    while (send(clients[0].Get(), helps.data(), helps.size(), MSG_NOSIGNAL) > 0) {  // until it is dropped
    }
    const UniqueFd agent = ConnectAgent();
    ASSERT_TRUE(Send(clients[2], Times(20, "status\n")) && Send(clients[3], "help\n"));
    EXPECT_EQ(Receive(agent, std::size_t{16} * 16).size(), 256U);
    EXPECT_TRUE(Contains(Told(clients[3], "list the commands\n"), "policy FEATURE"));
    char byte = 0;
    EXPECT_EQ(recv(agent.Get(), &byte, 1, MSG_DONTWAIT), -1);  // the others wait until one has ended
    ASSERT_TRUE(Send(agent, Message(12, 1, Item(kTagResult, Int(0)) + Item(kTagStatus, "{}"))));
    EXPECT_EQ(Receive(agent, 16), Message(11, 17, ""));
    ASSERT_TRUE(Send(clients[1], Times(16, "policy a on " + directory_ / "policy" + "\n")));
    EXPECT_EQ(Told(clients[1], "\n"), "done: sent=0 answered=0\n");
    EXPECT_EQ(End(), 0);
    EXPECT_TRUE(Told(clients[1]).ends_with("done: sent=1 answered=0\n"));
    EXPECT_TRUE(Contains(Told(clients[2]), "error: the collector ends, further commands are not carried out\n"));
}
