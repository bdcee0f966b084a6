// What goes wrong with an agent: stops of every kind, crashes, upgrades, other files in its places.
#include "report_messages.h"
#include "tests/agent/agent_fixture.h"
#include "tests/comm/peer.h"

using AgentFaultsTest = AgentTest;

// A service manager's signal must leave as little behind as an operator's, also where the agent was started with it
// ignored or blocked, and where it comes twice.
TEST_F(AgentFaultsTest, EverySignalThatStopsItStopsItCleanly)
{
    for (const int signo : {SIGTERM, SIGINT, SIGQUIT, SIGTSTP}) {
        SCOPED_TRACE(signo);
        fs::remove(log_);
        signal(signo, SIG_IGN);
        sigset_t blocked;
        sigemptyset(&blocked);
        sigaddset(&blocked, signo);
        pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
        StartAgent();
        pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr);
        signal(signo, SIG_DFL);
        ASSERT_TRUE(Eventually([this] { return fs::exists(root_ / "conf/agent.sock"); }));
        kill(agent_, signo);
        kill(agent_, SIGHUP);
        kill(agent_, signo);
        EXPECT_EQ(StopAgent(SIGTERM), SIGTERM);
        EXPECT_TRUE(Logged("Agent stopped.")) << Read(root_ / "conf/agent.run");
        for (const char* left : {"conf/agent.sock", "conf/sentrel-agent.pid", "conf/agent.run"}) {
            EXPECT_FALSE(fs::exists(root_ / left)) << left;
        }
    }
}

// The frame swallows a stop whose report it cannot write; the agent must end nevertheless.
TEST_F(AgentFaultsTest, StopsWithoutALogDirectory)
{
    StartAgent();
    ASSERT_TRUE(Says("tasks "));
    fs::remove_all(root_ / "log");
    EXPECT_EQ(StopAgent(SIGTERM), SIGTERM);
    EXPECT_FALSE(fs::exists(pidFile_) || fs::exists(root_ / "conf/agent.sock"));
}

// A feature that never stops must not keep the process, and the next start says so.
TEST_F(AgentFaultsTest, AStopThatHangsEnds)
{
    SetPolicy("odd", "enable=on\nhang-stop\n");
    StartAgent();
    ASSERT_TRUE(Says("odd               started"));
    EXPECT_EQ(StopAgent(SIGTERM), SIGALRM);
    SetPolicy("odd", "enable=off\n");
    StartAgent();
    EXPECT_TRUE(Says("did not come to the end of its stop, at: features"));
    EXPECT_EQ(StopAgent(), SIGTERM);
    StartAgent();
    ASSERT_TRUE(Says("tasks "));
    EXPECT_FALSE(Contains(Status(), "the last run"));
    EXPECT_EQ(StopAgent(), SIGTERM);
}

// A crash must not look like a stop: not in the log, not in the next status, not to the server.
TEST_F(AgentFaultsTest, ACrashIsTold)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "ThreadSanitizer reports each stop function that logs in a handler, which is the case here";
#endif
    SetPolicy("odd", "enable=on\ncrash\n");
    agent_ = Start(run_);
    EXPECT_EQ(WTERMSIG(Wait(agent_)), SIGTERM);
    EXPECT_TRUE(Logged("Agent has crashed.[signal=11 report=" + report_ + "]"));
    EXPECT_TRUE(Contains(Read(report_), "Exception Signal.[number=11]"));
    SetPolicy("odd", "enable=off\n");
    Peer server(root_ / "socket");
    Write(config_, "SOCKET_TYPE=1\nSERVER_SOCKET_PATH=socket\n");
    StartAgent();
    const std::string what = "the last run (process " + std::to_string(agent_);
    EXPECT_TRUE(Says(") crashed by signal 11, report " + report_));
    ASSERT_TRUE(server.Accept());
    std::string message;
    do {
        message = server.ReceiveMessage();
        server.Answer(message);
    } while (!message.empty() && !Contains(message, "crashed by signal 11"));
    EXPECT_EQ(HeaderOf(message).type, kMsgProblem);
    EXPECT_EQ(StopAgent(), SIGTERM);
    agent_ = Start(run_);
    ASSERT_TRUE(Says("tasks "));
    EXPECT_EQ(StopAgent(SIGKILL), SIGKILL);
    StartAgent();
    EXPECT_TRUE(Says("was killed, or the host went down"));
    EXPECT_EQ(StopAgent(), SIGTERM);
}

// A new binary is moved over the one that runs: the check by the executable's path finds nobody then.
TEST_F(AgentFaultsTest, AnUpgradeMakesNoSecondAgent)
{
    StartAgent();
    ASSERT_TRUE(Says("tasks "));
    fs::copy(AGENT_PROGRAM, program_ + ".new");
    fs::rename(program_ + ".new", program_);
    const std::string refusal = Run(run_);
    EXPECT_TRUE(Contains(refusal, "Another program is running")) << refusal;
    EXPECT_TRUE(Contains(refusal, std::to_string(agent_))) << refusal;
    EXPECT_TRUE(Contains(Status(), "process " + std::to_string(agent_)));
    // Somebody else's socket in its place is not removed.
    fs::remove(root_ / "conf/agent.sock");
    Write(root_ / "conf/agent.sock", "another");
    EXPECT_EQ(StopAgent(), SIGTERM);
    EXPECT_EQ(Read(root_ / "conf/agent.sock"), "another");
}

// Restarts must not roll the history away, and what is no log of the agent must not be touched.
TEST_F(AgentFaultsTest, ASmallLogIsCarriedOver)
{
    Write(log_, kOldLine);
    for (int i = 0; i < 6; ++i) {
        agent_ = Start(run_);
        ASSERT_TRUE(Says("tasks "));
        EXPECT_EQ(StopAgent(), SIGTERM);
    }
    const std::string all = Read(log_);
    EXPECT_EQ(all.find(kOldLine), 0U);
    std::size_t starts = 0;
    for (std::size_t at = 0; (at = all.find("Agent started.", at)) != std::string::npos; ++at) {
        ++starts;
    }
    EXPECT_EQ(starts, 6U);
    EXPECT_FALSE(fs::exists(log_ + ".1.gz") || fs::exists(log_ + ".carried"));
    // A start that broke off left it; a large file is rolled all the same.
    fs::rename(log_, log_ + ".carried");
    Write(log_, kOldLine + std::string(70000, 'x'));
    agent_ = Start(run_);
    ASSERT_TRUE(Says("tasks "));
    EXPECT_EQ(StopAgent(), SIGTERM);
    EXPECT_EQ(Read(log_).find(all), 0U);
    EXPECT_TRUE(fs::exists(log_ + ".1.gz"));
    EXPECT_FALSE(fs::exists(log_ + ".carried"));
}

TEST_F(AgentFaultsTest, TakesNoOthersFileForItsLog)
{
    const std::string other = root_ / "other";
    Write(other, "root:x:0:0\n");
    const std::pair<std::function<void()>, std::string> rows[] = {
        {[&] { fs::create_symlink(other, log_); }, "is a link"},
        {[&] { fs::create_hard_link(other, log_); }, "belongs to another user or has several names"},
        {[&] { fs::copy(other, log_); }, "is no log, a start would compress it"},
        {[&] { mkfifo(log_.c_str(), 0600); }, "is a directory or a special file"},
    };
    for (const auto& [make, fault] : rows) {
        fs::remove(log_);
        make();
        const std::string line = "sentrel-agent: log file " + log_ + " " + fault + "\n";
        EXPECT_EQ(Run(run_), "1 " + line);
        EXPECT_EQ(Run(run_ + " --check-config"), "2 " + line);
        EXPECT_TRUE(fs::exists(fs::symlink_status(log_)));
    }
    EXPECT_EQ(Read(other), "root:x:0:0\n");
}

TEST_F(AgentFaultsTest, CheckConfigChecksWhatAStartNeeds)
{
    Write(config_, "");
    SetPolicy("process_watch", "enable=on\nevents=start\n");
    SetPolicy("file_access", "enable=on\nguard=/etc/shadow\n");
    SetPolicy("file_integrity", "enable=off\nnone\n");  // does not start
    SetPolicy("odd", "enable=on\nfail");                // cannot be asked
    EXPECT_EQ(Run(run_ + " --check-config"), "0 " + config_ + ": correct\n");
    SetPolicy("process_watch", "on\n");
    SetPolicy("file_access", "enable=on\nguard=/etc/shadow\nguards=/x\n");
    SetPolicy("file_integrity", "enable=on\n");
    fs::permissions(root_ / "lib/features/libodd.so", fs::perms::all);
    SetPolicy("gone", "enable=on\n");
    SetPolicy("a b", "enable=on\n");
    const std::string all = Run(run_ + " --check-config");
    for (const std::string fault :
         {"policy process_watch.policy does not begin with enable=on or enable=off",
          "policy a b.policy its name is not made of letters, digits, '_' and '-'", "policy gone.policy: there is no ",
          "policy file_access.policy: Policy is refused.[feature=file_access reason=line 2: "
          "unknown key 'guards']\n",
          "policy file_integrity.policy: Policy is refused.[feature=file_integrity reason=it "
          "has no watch]\n",
          "policy odd.policy: Library is refused.[feature=odd, reason=others may write it]\n"}) {
        EXPECT_TRUE(Contains(all, fault)) << all;
    }
    EXPECT_EQ(all[0], '2');
    EXPECT_FALSE(fs::exists(report_));  // a check leaves nothing behind
    Write(root_ / "conf/other.conf", "precious=1\n");
    Write(config_, "EVENT_FILE=conf/other.conf\n");
    EXPECT_TRUE(Contains(Run(run_ + " --check-config"), "other.conf holds something else than events"));
    fs::remove(config_);
    mkfifo(config_.c_str(), 0600);
    EXPECT_EQ(Run(run_ + " --check-config"), "2 sentrel-agent: " + config_ + ": is not a regular file\n");
}

// SIGHUP takes over what can change, says what cannot, and never makes things worse than they were.
TEST_F(AgentFaultsTest, ReloadsAtSighup)
{
    SetPolicy("process_watch", "enable=off\n");
    StartAgent();
    ASSERT_TRUE(Says("odd               off"));
    const auto reload = [this] { kill(agent_, SIGHUP); };
    Write(config_, "REPORT_SECONDS=1\nLOG_FILE=log/other.log\nPOOL_MAX_THREADS=9\nGUARD_DESCRIPTORS=1\n");
    SetPolicy("odd", "enable=on\n");
    SetPolicy("file_integrity", "enable=on\nwatch=" + (root_ / "late") + "\n");
    reload();
    EXPECT_TRUE(Eventually([&] { return Logged("[onlyFromNextStart=POOL_MAX_THREADS,LOG_FILE]"); })) << Read(log_);
    EXPECT_TRUE(Says("odd               started"));
    EXPECT_TRUE(Says("file_integrity    waiting  watches 0, waits for 1, lacks 0, "));
    Write(root_ / "late", "");
    EXPECT_TRUE(Says("file_integrity    started  watches 1, waits for 0, lacks 0, "));
    EXPECT_TRUE(Says("descriptors are above GUARD_DESCRIPTORS"));
    EXPECT_TRUE(Eventually([&] { return Logged("Self resource usage.[cpu="); }));
    Write(config_, "REPORT_SECONDS=x\n");
    SetPolicy("odd", "enable=on\nfail\n");
    reload();
    EXPECT_TRUE(
        Says("the configuration has not been reloaded: " + config_ + ":1: REPORT_SECONDS: 'x' is not a number"));
    EXPECT_TRUE(Says("feature odd has refused its new policy: It fails as told."));
    EXPECT_TRUE(Contains(Status(), "odd               started"));  // with the former one
    fs::rename(root_ / "conf/policies", root_ / "conf/aside");
    Write(config_, "");
    reload();
    EXPECT_TRUE(Says("policies: " + (root_ / "conf/policies") + " cannot be read: No such file or directory"));
    EXPECT_TRUE(Contains(Status(), "odd               started"));
    fs::rename(root_ / "conf/aside", root_ / "conf/policies");
    fs::remove(PolicyFile("odd"));
    reload();
    EXPECT_TRUE(Says("odd               off"));
    EXPECT_TRUE(Contains(Status(), ": well\n")) << Status();
    EXPECT_EQ(StopAgent(), SIGTERM);
}

// An old log that cannot be compressed at the start must not hold up a stop.
TEST_F(AgentFaultsTest, StopsWhileItsLogRolls)
{
    ReplaceGzip("echo $$ >" + (root_ / "rolling") + "\nexec sleep 30\n");
    agent_ = Start(run_);
    ASSERT_TRUE(Eventually([this] { return Read(root_ / "rolling").size() > 1; }));
    kill(agent_, SIGTERM);
    EXPECT_TRUE(Eventually([this] { return waitpid(agent_, nullptr, WNOHANG) == agent_; }, 5));
    kill(std::stoi(Read(root_ / "rolling")), SIGKILL);
    EXPECT_FALSE(fs::exists(pidFile_));
}

// Nor may one that hangs later, in a roll, make a running agent look well, blind or deaf.
TEST_F(RootAgentTest, ARollThatHangsIsAProblemAndHoldsNothingUp)
{
    ReplaceGzip("echo $$ >" + (root_ / "rolling") + "\nexec sleep 60\n");
    fs::remove(log_);
    Write(config_, "LOG_MAX_SIZE=1\nEVENT_FILE=log/events.json\n");
    StartAgent();
    const auto seesProcesses = [&] {
        return Eventually([&] {
            const pid_t child = Fork([] { return 0; });
            Wait(child);
            return Eventually(
                [&] { return Contains(Read(root_ / "log/events.json"), ",\"pid\":" + std::to_string(child)); }, 2);
        });
    };
    ASSERT_TRUE(seesProcesses());
    ASSERT_TRUE(Eventually([this] {
        kill(agent_, SIGHUP);  // logs something, until its fiftieth line rolls it
        return Read(root_ / "rolling").size() > 1;
    }));
    EXPECT_TRUE(Says("the log cannot be written: a line has been waiting for "));
    EXPECT_TRUE(seesProcesses());
    EXPECT_FALSE(Contains(Status(), "has not come round"));
    EXPECT_EQ(StopAgent(SIGTERM), SIGTERM);
    EXPECT_FALSE(fs::exists(pidFile_) || fs::exists(root_ / "conf/agent.run"));
}

// What would leave the agent running without a log ends it with a reason instead.
TEST_F(AgentFaultsTest, MissingSurroundingsAreNamed)
{
    const std::string failed = "1 sentrel-agent: ";
    fs::create_directory(log_);
    EXPECT_EQ(Run(run_), failed + "log file " + log_ + " is a directory or a special file\n");
    fs::remove(log_);
    ReplaceGzip("exit 1\n");  // as on a full disk
    EXPECT_EQ(Run(run_), failed + "log file " + log_ + " cannot be opened, or the old one cannot be rolled away\n");
    EXPECT_EQ(Read(log_).find(kOldLine), 0U);
    path_ = root_.Path();
    EXPECT_TRUE(Contains(Run(run_), failed + "gzip is missing"));
    Write(config_, "LOG_COPIES=0\nLOG_FILE=log/a b.log\n");
    EXPECT_TRUE(Contains(Run(run_), "ERROR: Unable to register log file.[kind=StartupLog name=AgentLog"));
    fs::remove_all(root_ / "log");
    EXPECT_EQ(Run(run_), failed + "crash report " + report_ + " cannot be written: No such file or directory\n");
}

// Whoever can take the server's place must not command the agent.
struct AgentCommandTest : AgentTest {
    // Answers neither heartbeats nor reports.
    void ExpectRefusals(Peer& server, const std::string& config, const std::string& reason)
    {
        Write(config_, config + "REPORT_SECONDS=0\n");
        fs::remove(PolicyFile("process_watch"));
        SetPolicy("odd", "enable=on\n");
        StartAgent();
        ASSERT_TRUE(server.Accept());
        const std::string off("\x10\0\3\0odd\x11\0\4\0\0\0\0\0", 15);
        EXPECT_TRUE(server.Send(Message(kMsgPolicy, 1, off) + Message(kMsgStatus, 2)));
        for (const std::uint32_t type : {kMsgPolicy, kMsgStatus}) {
            std::string answer = server.ReceiveAny();
            while (HeaderOf(answer).type == kMsgHeartbeat) {
                answer = server.ReceiveAny();
            }
            EXPECT_EQ(HeaderOf(answer).type, type + 1);
            EXPECT_TRUE(Contains(answer, reason));
        }
        EXPECT_TRUE(Says("odd               started"));
    }
};

TEST_F(AgentCommandTest, TakesNoneOfAnotherUser)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "another user is needed";
    }
    fs::permissions(root_.Path(), fs::perms::all);
    ASSERT_EQ(seteuid(65534), 0);
    Peer server(root_ / "socket");  // the kernel notes who listens
    ASSERT_EQ(seteuid(0), 0);
    ExpectRefusals(server, "SOCKET_TYPE=1\nSERVER_SOCKET_PATH=socket\n",
                   "the server runs as user 65534, commands are taken of root");
    EXPECT_EQ(StopAgent(), SIGTERM);
}

// A server that lets the agent connect and then answers nothing must not look well either.
TEST_F(AgentCommandTest, TakesNoneOverTheNetwork)
{
    UniqueFd listener(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in here = {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t size = sizeof(here);
    ASSERT_TRUE(listen(listener.Get(), 8) == 0 &&
                getsockname(listener.Get(), reinterpret_cast<sockaddr*>(&here), &size) == 0);
    Peer server(std::move(listener));
    const std::string port = std::to_string(ntohs(here.sin_port));
    ExpectRefusals(server, "SOCKET_TYPE=2\nSERVER_IP=127.0.0.1\nAGENT_IP=127.0.0.1\nSERVER_PORT=" + port + "\n",
                   "commands are taken over a local socket only");
    EXPECT_TRUE(Says("SocketRecv        last beat ") && Says("ReportSender      last beat "));
    EXPECT_TRUE(Eventually([this] { return Contains(Status(), "the server does not answer"); }, 60));
    EXPECT_EQ(StopAgent(), SIGTERM);
}

// A log that cannot be written must not look well: neither without its directory nor without lines left for the day.
TEST_F(AgentFaultsTest, ALogThatTakesNothingIsAProblem)
{
    SetPolicy("process_watch", "enable=off\n");
    Write(config_, "LOG_LINES_PER_DAY=3\n");
    StartAgent();
    EXPECT_TRUE(Says("the log has used up LOG_LINES_PER_DAY, "));
    Write(config_, "");
    kill(agent_, SIGHUP);
    EXPECT_TRUE(Eventually([this] { return !Contains(Status(), "LOG_LINES_PER_DAY"); }));
    fs::remove_all(root_ / "log");
    kill(agent_, SIGHUP);  // logs something
    EXPECT_TRUE(Says("the log cannot be written: "));
    fs::create_directory(root_ / "log");
    kill(agent_, SIGHUP);
    EXPECT_TRUE(Eventually([this] { return !Contains(Status(), "the log cannot be written"); }));
    EXPECT_EQ(StopAgent(), SIGTERM);
}
