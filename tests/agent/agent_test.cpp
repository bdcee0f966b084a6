// The agent as a whole: a real process below an install root of its own.
#include "report_messages.h"
#include "tests/agent/agent_fixture.h"
#include "tests/comm/peer.h"

TEST_F(RootAgentTest, LogsRealProcessesRefusesASecondInstanceAndStopsCleanly)
{
    Write(config_, "REPORT_SECONDS=1\n");
    StartAgent();
    EXPECT_TRUE(Eventually([this] { return Logged("Self resource usage.[cpu="); }));
    const std::string what = "cmdLine=sh -c sleep 0.3; exit 5 ?[1m?forged]";
    const std::string parent = " ppid=" + std::to_string(getpid()) + " user=root ";
    std::string who;
    // While the monitor still searches for its white list, events are read too late for the details.
    ASSERT_TRUE(Eventually([&] {
        const pid_t shell =
            Fork([] { return execlp("sh", "sh", "-c", "sleep 0.3; exit 5", "\033[1m\nforged", nullptr); });
        Wait(shell);
        who = "[pid=" + std::to_string(shell) + parent;
        return Eventually([&] { return LoggedLine("Process executed." + who, what); }, 2);
    }));
    EXPECT_TRUE(Eventually([&] { return LoggedLine("Process exited." + who + "exitCode=5 ", what); }));
    EXPECT_TRUE(Contains(Run(run_), "1 sentrel-agent: ERROR: Another program is running. exit."));
    EXPECT_TRUE(Logged("Agent started."));  // the first one's log has not been rolled away
    kill(agent_, SIGUSR1);
    EXPECT_TRUE(Eventually([&] { return Contains(Read(report_), "sig_deal signo.[signo=10,"); }));
    EXPECT_EQ(Read(pidFile_), std::to_string(agent_));
    EXPECT_EQ(StopAgent(), SIGTERM);
    EXPECT_TRUE(Logged("Agent stopped.[lostEvents=0 droppedReports=0 unsentReports=0]") && !fs::exists(pidFile_));
}

// A server that dies loses nothing: the agent keeps its reports, comes back and sends them.
TEST_F(RootAgentTest, ReportsToAServerThatComesAndGoes)
{
    // An exit code of its own, seen by the server: the agent's events have come that far.
    const auto arrives = [&](int code, bool repeat) {
        const auto end = "\"exitCode\":" + std::to_string(code);
        do {
            Wait(Fork([code] { return code; }));
        } while (repeat && !Eventually([&] { return Contains(Read(got_), end); }, 2));
        return end;
    };
    const std::string network = "SOCKET_TYPE=2\nSERVER_IP=";
    const std::tuple<std::string, std::string, std::string> ways[] = {
        {"unix:" + (root_ / "socket"), "SOCKET_TYPE=1\nSERVER_SOCKET_PATH=socket\n", ""},
        {"tcp:127.0.0.1:", network + "127.0.0.1\nAGENT_IP=127.0.0.1\nSERVER_PORT=", "0"},
        {"tcp:[::1]:", network + "::1\nAGENT_IP=::1\nSERVER_PORT=", "0"}};
    for (auto [listen, config, port] : ways) {
        SCOPED_TRACE(listen);
        pid_t collector = StartCollector("--json --listen " + listen + port);
        port = port.empty() ? port : CollectorPort();
        Write(config_, config + port + "\nREPORT_SECONDS=0\n");
        fs::remove(log_);
        StartAgent();
        arrives(51, true);
        Kill(collector);
        const std::string kept = arrives(52, false);
        EXPECT_TRUE(Eventually([&] { return Logged("exitCode=52 ") && Logged("Channel to the server is down."); }));
        EXPECT_FALSE(Contains(Read(got_), kept));
        collector = StartCollector("--json --listen " + listen + port);
        EXPECT_TRUE(Got(kept));
        EXPECT_EQ(StopAgent(), SIGTERM);
        EXPECT_TRUE(Logged("droppedReports=0 unsentReports=0]"));
        kill(collector, SIGTERM);
        EXPECT_EQ(Wait(collector), 0);
        EXPECT_TRUE(Contains(Read(got_), "\"summary\""));
    }
}

// A roll starts processes; a record about each would start the next roll, and so on for ever.
TEST_F(RootAgentTest, ItsOwnRollsMakeNoRecords)
{
    Write(config_, "LOG_MAX_SIZE=1\n");
    StartAgent();
    for (int i = 0; i < 100; ++i) {
        Wait(Fork([] { return 0; }));
    }
    ASSERT_TRUE(Eventually([this] { return fs::exists(log_ + ".1.gz"); }));
    EXPECT_EQ(StopAgent(), SIGTERM);
    std::string all = Read(log_);
    for (const char* copy : {".1.gz", ".2.gz", ".3.gz", ".4.gz", ".5.gz"}) {
        all += Unzipped(log_ + copy);
    }
    EXPECT_TRUE(Contains(all, "Process exited."));
    EXPECT_FALSE(Contains(all, "gzip " + log_) || Contains(all, " ppid=" + std::to_string(agent_) + " "));
}

TEST_F(AgentTest, RunsAsADaemonAsAPlainUser)
{
    for (const std::string& path : {root_.Path(), root_ / "conf", root_ / "log", config_}) {
        fs::permissions(path, fs::perms::all);
    }
    ASSERT_EQ(Wait(Start(run_ + " --daemon", true)), 0) << Read(out_);
    EXPECT_TRUE(Eventually([&] { return Logged("Process events are not watched.[source=auto]"); }));
    const pid_t daemon = std::stoi(Read(pidFile_));
    kill(daemon, SIGINT);
    EXPECT_TRUE(Eventually([&] { return kill(daemon, 0) != 0 && Logged("Agent stopped."); }));
    EXPECT_FALSE(fs::exists(pidFile_));
}

TEST_F(AgentTest, WrongUseIsOneClearLine)
{
    const std::string rows[][2] = {
        {"", "2 sentrel-agent: no install root: give --root DIR or set RUNTIME_CENTER_PATH\n"},
        {"--root /no/such", "2 sentrel-agent: install root /no/such: No such file or directory\n"},
        {run_ + " more", "2 sentrel-agent: unexpected argument 'more'; --help lists the options\n"},
        {run_ + " --config /no", "2 sentrel-agent: /no: cannot be opened: No such file or directory\n"},
        {run_ + " --config /dev/null", "2 sentrel-agent: /dev/null: is not a regular file\n"},
        {run_ + " --check-config", "0 " + config_ + ": correct\n"},
        {run_ + " --json", "2 sentrel-agent: --json goes with --status\n"},
        {run_ + " --status", "1 sentrel-agent: --status: no agent runs from there\n"},
        {"--nonsense", "2 " + program_ + ": unrecognized option '--nonsense'\n"},
    };
    for (const auto& [options, outcome] : rows) {
        EXPECT_EQ(Run(options), outcome);
    }
    EXPECT_TRUE(Contains(Run("--help"), "--check-config") && !fs::exists(log_));
}

TEST_F(AgentTest, BadConfigurationNamesFileLineAndKey)
{
    const std::string rows[][2] = {
        {"# fine\n\nLOG_FILE log\n", ":3: 'LOG_FILE log' has no '='"},
        {"LOG_FIEL=x\n", ":1: unknown key 'LOG_FIEL'"},
        {"LOG_LEVEL=INFO\nLOG_LEVEL=info", ":2: LOG_LEVEL: 'info' is not one of DEBUG, INFO, WARN, ERROR, FATAL"},
        {"LOG_MAX_SIZE=268435457", ":1: LOG_MAX_SIZE: '268435457' is not a number from 0 to 268435456"},
        {"LOG_LEVEL=INFO\r\n", ":1: LOG_LEVEL: the value holds a control character (a carriage return, say)"},
        {"LOG_FILE=", ":1: LOG_FILE: '' is not the path of a file"},
        {"LOG_KIND=StartupLog", ":1: LOG_KIND: 'StartupLog' is not one of NormalLog, DotLog"},
        {std::string("a\0b=1", 5), ":1: unknown key 'a?b'"},
        {std::string(10U << 20, 'x'), ": is larger than 1024 KiB"},
        {"SOCKET_TYPE=3", ":1: SOCKET_TYPE: '3' is not one of 1 (local), 2 (network)"},
        {"SERVER_PORT=web", ":1: SERVER_PORT: 'web' is not a port number"},
        {"SERVER_IP=server", ":1: SERVER_IP: 'server' is not an IPv4 or IPv6 address"},
        {"SOCKET_TYPE=1", ": SOCKET_TYPE=1 needs SERVER_SOCKET_PATH"},
        {"SERVER_SOCKET_PATH=x", ": SERVER_SOCKET_PATH needs SOCKET_TYPE=1"},
        {"SERVER_IP=::1\nSERVER_PORT=1", ": reports over the network need AGENT_IP"},
        {"SERVER_IP=::1\nSERVER_PORT=1\nAGENT_IP=1.2.3.4", ": SERVER_IP and AGENT_IP are not of one kind"},
    };
    for (const auto& [config, fault] : rows) {
        Write(config_, config);
        EXPECT_EQ(Run(run_ + " --check-config"), "2 sentrel-agent: " + config_ + fault + "\n");
    }
    Write(config_, "LOG_FILE=2026\n");  // a path that looks like a number
    agent_ = Start(run_);
    EXPECT_TRUE(Eventually([this] { return fs::exists(root_ / "2026"); }));
    EXPECT_EQ(StopAgent(), SIGTERM);
}

// Policies of a server hold from then on, over a restart too; one that fails leaves everything as it was.
TEST_F(RootAgentTest, CarriesOutWhatTheServerOrdersAndKeepsIt)
{
    const std::string control = root_ / "control";
    const std::string tree = root_ / "tree";
    fs::create_directory(tree);
    SetPolicy("process_watch", "enable=off\n");
    Write(root_ / "guarded", "");
    Write(root_ / "files", "watch=" + tree + ";recursive\nwatch=" + (root_ / "log") + "\n");
    Write(root_ / "wrong", "watch=" + tree + "\nwach=/x\n");
    Write(root_ / "guard", "guard=" + (root_ / "guarded") + ";events=open\n");
    Write(config_, "SOCKET_TYPE=1\nSERVER_SOCKET_PATH=socket\nREPORT_SECONDS=0\n");
    mkfifo(control.c_str(), 0600);
    std::fstream orders(control);
    const pid_t collector = StartCollector("--listen unix:" + (root_ / "socket") + " --control - <" + control);
    const auto answers = [&](const std::string& order, const std::string& answer) {
        orders << order << std::endl;
        return Got(answer);
    };
    StartAgent();
    ASSERT_TRUE(Got("connected from"));
    EXPECT_TRUE(
        answers("policy file_integrity on " + (root_ / "files"),
                "policy file_integrity on: done; file_access=off file_integrity=started odd=off process_watch=off\n"));
    Write(root_ / "processes", "#all\n");
    EXPECT_TRUE(answers("policy process_watch on " + (root_ / "processes"), "policy process_watch on: done; "));
    EXPECT_TRUE(
        answers("policy file_access on " + (root_ / "guard"),
                "file_access on: done; file_access=started file_integrity=started odd=off process_watch=started\n"));
    Write(tree + "/new", "hello\n");
    EXPECT_TRUE(GotLine(" file action=create ", " path=" + tree + "/new"));
    EXPECT_TRUE(Got(" sha256=5891b5b522d5df086d0ff0b110fbd9d21bb4fc7163af34d08286a2e846f6be03 "));
    EXPECT_TRUE(Eventually([&] {
        Wait(Fork([&] { return execlp("sh", "sh", "-c", ("exec <" + (root_ / "guarded")).c_str(), nullptr); }));
        const std::string all = Read(got_);
        return Contains(all, " access pid=") && Contains(all, " exited pid=");
    }));
    EXPECT_TRUE(answers("policy file_integrity on " + (root_ / "wrong"),
                        "refused: Policy is refused.[feature="
                        "file_integrity reason=line 2: unknown key"));
    EXPECT_TRUE(answers("policy file_access off", "file_access off: done; file_access=off file_integrity=started "));
    EXPECT_TRUE(answers("status", "agent 1 status {"));
    Write(tree + "/more", "");
    EXPECT_TRUE(GotLine(" file action=create ", " path=" + tree + "/more"));  // by the policy that held before

    EXPECT_EQ(StopAgent(), SIGTERM);
    EXPECT_EQ(Read(PolicyFile("file_integrity")), "enable=on\n" + Read(root_ / "files"));
    EXPECT_EQ(Read(PolicyFile("file_access")), "enable=off\n" + Read(root_ / "guard"));
    EXPECT_EQ(fs::status(PolicyFile("file_access")).permissions(), fs::perms(0600));
    agent_ = Start(run_);
    const std::string features =
        "\"features\":[{\"name\":\"file_access\",\"status\":\"off\"},"
        "{\"name\":\"file_integrity\",\"status\":\"started\",\"watches\":2,";
    EXPECT_TRUE(Eventually([&] { return Contains(Run(run_ + " --status --json"), features); }));
    EXPECT_EQ(StopAgent(), SIGTERM);
    kill(collector, SIGTERM);
    EXPECT_EQ(Wait(collector), 0);
    EXPECT_FALSE(Contains(Read(got_), " path=" + log_));  // a record about the log would make the next one
}

// What a wrong server sends changes nothing, and is answered like the rest.
TEST_F(AgentTest, AnswersCommandsThatItCannotCarryOut)
{
    Peer server(root_ / "socket");
    Write(config_, "SOCKET_TYPE=1\nSERVER_SOCKET_PATH=socket\nREPORT_SECONDS=0\n");
    fs::remove(PolicyFile("process_watch"));
    StartAgent();
    ASSERT_TRUE(server.Accept());
    const std::string feature("\x10\0\6\0nobody", 10);
    const std::string on("\x11\0\4\0\1\0\0\0", 8);
    const std::pair<std::string, std::string> rows[] = {
        {"", "it is not made of whole items"},
        {on, "it names no feature"},
        {feature, "it says neither on nor off"},
        {feature + std::string("\x11\0\4\0\2\0\0\0", 8), "it says neither on nor off"},
        {feature + on + std::string("\x12\0\xb8\x0b", 4) + std::string(3000, 'x'),
         "an item of its policy is longer than 2048 bytes"},
        {feature + on + std::string("\x12\0\3\0a\0b", 7), "its policy holds a zero byte"},
        {std::string(200000, 'x'), "it is longer than 128 KiB"},
        {feature + on, "there is no such feature"},
    };
    std::uint32_t seq = 0;
    for (const auto& [body, reason] : rows) {
        EXPECT_TRUE(server.Send(Message(kMsgPolicy, ++seq, body)));
        const std::string answer = server.ReceiveMessage();
        EXPECT_TRUE(HeaderOf(answer).type == kMsgPolicy + 1 && HeaderOf(answer).seq == seq);
        EXPECT_TRUE(Contains(answer, reason)) << reason;
    }
    std::string flood;
    for (int i = 0; i < 100; ++i) {
        flood += Message(kMsgStatus, ++seq);
    }
    EXPECT_TRUE(server.Send(flood));
    int busy = 0;
    for (int i = 0; i < 100; ++i) {
        busy += Contains(server.ReceiveMessage(), "16 commands wait already") ? 1 : 0;
    }
    EXPECT_TRUE(busy > 0 && busy < 100) << busy;
    EXPECT_EQ(StopAgent(), SIGTERM);
    EXPECT_FALSE(Logged("Policy is refused.") || fs::exists(PolicyFile("nobody")));
}

// A feature that takes its time must not take the stop's.
TEST_F(AgentTest, StopsWhileAPolicyIsApplied)
{
    SetPolicy("file_integrity", "enable=on\nwatch=/usr;recursive\n");
    StartAgent();
    ASSERT_TRUE(Eventually([this] { return Logged("Start module.[feature=file_integrity]."); }));
    EXPECT_EQ(StopAgent(), SIGTERM);
    EXPECT_TRUE(Logged("Agent stopped."));
}

// An agent that is not well must not look so, and nobody else may ask.
TEST_F(AgentTest, TellsHowItIs)
{
    SetPolicy("file_integrity", "enable=on\nnonsense\n");
    SetPolicy("gone", "enable=on\n");
    SetPolicy("broken", "on\n");
    SetPolicy("zero", std::string("enable=on\nx\0y", 13));
    Write(root_ / "conf/agent.sock", "left by one that was killed");
    StartAgent();
    ASSERT_TRUE(Eventually([&] { return Contains(Run(run_ + " --status"), "feature gone has failed"); }));
    const std::string text = Run(run_ + " --status");
    for (const std::string piece :
         {"3 sentrel-agent ",
          ": NOT WELL\nproblems  policy broken.policy cannot be used: does not begin with enable=on",
          "policy zero.policy cannot be used: holds a zero",
          "feature file_integrity has failed: Policy is refused.[feature=file_integrity",
          "\nserver    off, queued 0, dropped 0\n", " file_access       off\n", "\nthreads   ",
          "TaskManager       last beat ", "\ntasks     self-usage, self-check\n"}) {
        EXPECT_TRUE(Contains(text, piece)) << piece << text;
    }
    EXPECT_TRUE(Logged("Kept policy cannot be used.[file=broken.policy reason=does not begin with enable=on or"));
    const std::string socket = root_ / "conf/agent.sock";
    EXPECT_EQ(fs::status(socket).permissions(), fs::perms(0600));
    const int silent = ::socket(AF_UNIX, SOCK_STREAM, 0);  // asks and never reads
    sockaddr_un address = {AF_UNIX, {}};
    socket.copy(address.sun_path, sizeof(address.sun_path) - 1);
    EXPECT_EQ(connect(silent, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_TRUE(Contains(Run(run_ + " --status --json"), "3 {\"version\":\""));
    kill(agent_, SIGSTOP);  // as if it hung: more ask than may wait
    std::vector<pid_t> askers(12);
    std::ranges::generate(askers, [&] { return Start(run_ + " --status"); });
    EXPECT_TRUE(std::ranges::all_of(askers, [](pid_t asker) { return WEXITSTATUS(Wait(asker)) == 1; }));
    EXPECT_EQ(Read(out_), "sentrel-agent: --status: the agent does not answer\n");
    kill(agent_, SIGCONT);
    EXPECT_EQ(StopAgent(), SIGTERM);
    close(silent);
    EXPECT_FALSE(fs::exists(socket));
}
