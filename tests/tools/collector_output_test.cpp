// What becomes of reports while standard output does not take them, and of agents that hold the collector up.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/resource.h>

#include <set>

#include "tests/tools/collector_fixture.h"

namespace {

// So long that 64 KiB hold only some of them.
const std::string kLong = kTime + Item(kTagEvent, Int(kProcessExecuted)) + Item(kTagPid, Int(42)) +
                          Item(kTagCmdLine, Text(std::string(1500, 'x')));

struct CollectorOutputTest : CollectorTest {
    // A FIFO in place of an output, which nobody reads.
    static UniqueFd Block(const std::string& path)
    {
        mkfifo(path.c_str(), 0600);
        return UniqueFd(open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    }
    static void Fill(const UniqueFd& fifo)
    {
        const std::string bytes(65536, '-');
        while (write(fifo.Get(), bytes.data(), bytes.size()) > 0) {
        }
    }
    static std::string Drain(const UniqueFd& fifo)
    {
        std::string text(1U << 20U, '\0');
        const ssize_t size = read(fifo.Get(), text.data(), text.size());
        return text.substr(0, size > 0 ? static_cast<std::size_t>(size) : 0);
    }
    static std::ptrdiff_t Count(std::string text, const std::string& piece)
    {
        std::ptrdiff_t count = 0;
        for (std::size_t at = 0; (at = text.find(piece, at)) != std::string::npos; at += piece.size()) {
            ++count;
        }
        return count;
    }
    static void SendReports(const UniqueFd& agent, std::uint32_t first, std::uint32_t last)
    {
        for (std::uint32_t seq = first; seq <= last; ++seq) {
            ASSERT_TRUE(Send(agent, Message(kMsgProcess, seq, kLong)));
        }
    }
    // In KiB. A sanitizer keeps what was freed, so there is nothing to see with one.
    long Resident() const
    {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        return 0;
#endif
        const std::string status = Read("/proc/" + std::to_string(pid_) + "/status");
        return std::atol(status.substr(status.find("VmRSS:") + 6).c_str());
    }
};

}  // namespace

// Nobody reads either output: agents and control are served, and the end waits for nobody.
TEST_F(CollectorOutputTest, BlockedOutputsHoldNothingUp)
{
    for (const bool hurry : {false, true}) {
        const UniqueFd out = Block(out_);
        const UniqueFd err = Block(err_);
        Fill(err);
        pid_ = Start("--listen unix:" + path_ + " --control unix:" + control_, out_);
        ASSERT_TRUE(Eventually([this] { return fs::exists(control_); }));
        for (int i = 0; i < 2000; ++i) {
            ASSERT_TRUE(Send(Connect(), std::string(16, 'x')));
        }
        const UniqueFd agent = Connect();
        SendReports(agent, 1, 200);
        int filled = 0;
        ASSERT_TRUE(Eventually([&] { return ioctl(out.Get(), FIONREAD, &filled) == 0 && filled > 40000; }));
        const auto answered = static_cast<std::ptrdiff_t>(ReceiveAnswers(agent, kMsgProcess).size());
        EXPECT_LT(answered, 60);

        const UniqueFd client = Connect(control_);
        ASSERT_TRUE(Send(client, "status\n"));
        EXPECT_EQ(Receive(agent, 16), Message(kMsgStatus, 1, ""));
        ASSERT_TRUE(Send(agent, Message(12, 1, Item(kTagResult, Int(0)) + Item(kTagStatus, "{}"))));
        EXPECT_TRUE(Told(client, "done: sent=1 answered=1\n").ends_with(" status {}\ndone: sent=1 answered=1\n"));

        std::string said;
        EXPECT_TRUE(hurry || Eventually([&] {  // what is read now makes room for what was lost, and for the end
                        said += Drain(err);
                        return Send(Connect(), "") && Contains(said, " lines of standard error are lost\n");
                    }));
        kill(pid_, SIGTERM);
        if (hurry) {
            kill(pid_, SIGTERM);
        }
        EXPECT_EQ(Ended(), 1);
        said += Drain(err);
        EXPECT_GE(Count(Drain(out), "executed pid=42 "), answered);
        EXPECT_EQ(Contains(said, " lines are not written to standard output\n"), !hurry);
        EXPECT_FALSE(Contains(said, "hangs in the kernel")) << "its write was not cut short";
        EXPECT_FALSE(fs::exists(path_) || fs::exists(control_));
        fs::remove(out_);
        fs::remove(err_);
    }
}

// An output that takes nothing for long gets no copies of what agents repeat, and goes on where it stood.
TEST_F(CollectorOutputTest, ABlockedOutputGoesOnWhenItIsRead)
{
    UniqueFd out = Block(out_);
    pid_ = Start("--listen unix:" + path_, out_);
    ASSERT_TRUE(Eventually([this] { return fs::exists(path_); }));
    const UniqueFd agent = Connect();
    SendReports(agent, 1, 100);
    ASSERT_TRUE(Says("standard output is blocked; reports are not answered until it takes them"));
    SendReports(agent, 1, 100);  // again, as agents do
    std::set<std::uint32_t> answered;
    const auto collect = [&] {
        for (const std::uint32_t seq : ReceiveAnswers(agent, kMsgProcess)) {
            EXPECT_TRUE(answered.insert(seq).second);
        }
    };
    collect();
    EXPECT_LT(answered.size(), 60U);
    std::string text;
    EXPECT_TRUE(Eventually([&] {
        text += Drain(out);
        collect();
        return answered.size() == 100;
    }));
    EXPECT_TRUE(Says("standard output takes lines again"));
    SendReports(agent, 101, 101);
    EXPECT_EQ(Receive(agent, 16), Message(2, 101, ""));
    kill(pid_, SIGTERM);
    EXPECT_EQ(Ended(), 0);
    text += Drain(out);
    EXPECT_EQ(Count(text, "executed pid=42 "), 101);
    EXPECT_TRUE(Contains(text, "messages=101 ") && Contains(text, "unanswered=100\n"))
        << text.substr(text.size() - 200);
}

// Only what is in the file is answered. The rest is as soon as there is room.
TEST_F(CollectorOutputTest, AFileWithoutRoomLosesNothingThatWasAnswered)
{
    before_ = "ulimit -S -f 64; ";  // blocks of 512 bytes
    Listen("--json");
    const UniqueFd agent = Connect();
    SendReports(agent, 1, 100);
    ASSERT_TRUE(Says("standard output: File too large; reports are not answered until it takes them"));
    const auto check = [&](const std::vector<std::uint32_t>& answered) {
        const std::string out = Read(out_);
        for (const std::uint32_t seq : answered) {
            EXPECT_TRUE(Contains(out, "\"seq\":" + std::to_string(seq) + ",")) << seq;
        }
        return answered.size();
    };
    const std::size_t first = check(ReceiveAnswers(agent, kMsgProcess));
    EXPECT_TRUE(first > 0 && first < 60) << first;
    SendReports(agent, 101, 101);
    EXPECT_EQ(ReceiveAnswers(agent, kMsgProcess).size(), 0U);
    rlimit unlimited = {};
    ASSERT_EQ(prlimit(pid_, RLIMIT_FSIZE, nullptr, &unlimited), 0);
    unlimited.rlim_cur = unlimited.rlim_max;
    ASSERT_EQ(prlimit(pid_, RLIMIT_FSIZE, &unlimited, nullptr), 0);
    ASSERT_TRUE(Says("standard output takes lines again"));
    SendReports(agent, 101, 101);
    std::size_t rest = 0;
    EXPECT_TRUE(Eventually([&] {
        rest += check(ReceiveAnswers(agent, kMsgProcess));
        return Prints("\"seq\":101,");
    }));
    EXPECT_EQ(End(), 0);
    EXPECT_EQ(Count(Read(out_), "\"seq\":101,"), 1) << "what the agent repeats is not kept while the disk is full";
    std::string line;
    for (std::istringstream lines(Read(out_)); std::getline(lines, line);) {
        EXPECT_TRUE(line.starts_with('{') && line.ends_with('}')) << line;  // none of them in two pieces
    }
}

// A full disk is no reason to end.
TEST_F(CollectorOutputTest, AFullDeviceTakesNothingAndNothingIsAnswered)
{
    pid_ = Start("--listen unix:" + path_, "/dev/full");
    ASSERT_TRUE(Says("standard output: No space left on device; reports are not answered until it takes them"));
    const UniqueFd agent = Connect();
    SendReports(agent, 1, 3);
    EXPECT_EQ(ReceiveAnswers(agent, kMsgProcess).size(), 0U);
    kill(pid_, SIGTERM);
    EXPECT_EQ(Ended(), 1);
    EXPECT_TRUE(Says(" 2 lines are not written to standard output\n"));
}

// An output that takes nothing any more ends the program: whoever restarts it gives it another one.
TEST_F(CollectorOutputTest, AnOutputThatIsGoneEndsIt)
{
    Listen("");
    const UniqueFd agent = ConnectAgent();
    fs::remove(out_);
    ASSERT_TRUE(Send(agent, Message(1, 2, kExit)));
    EXPECT_EQ(Receive(agent, 16), "");
    EXPECT_EQ(Ended(), 1);
    EXPECT_TRUE(Says("standard output: the file was removed"));

    UniqueFd reader = Block(out_);
    pid_ = Start("--listen unix:" + path_, out_);
    ASSERT_TRUE(Eventually([&] { return Contains(Drain(reader), "listening"); }));
    reader.Reset();
    ASSERT_TRUE(Send(Connect(), Message(1, 2, kExit)));
    EXPECT_EQ(Ended(), 1);
    EXPECT_TRUE(Says("standard output: Broken pipe"));

    EXPECT_EQ(WEXITSTATUS(Wait(Start("--listen unix:" + path_, "&-"))), 1);
}

// Whoever is slow or silent on purpose holds neither a place nor memory for long.
TEST_F(CollectorOutputTest, WhoIsTooSlowIsCutOff)
{
    Listen("--patience 1");
    const UniqueFd healthy = ConnectAgent();
    const UniqueFd silent = Connect();
    const std::string report = Message(1, 1, kLong);
    const UniqueFd dripping = Connect();
    std::size_t sent = 0;
    EXPECT_TRUE(Eventually([&] { return !Send(dripping, report.substr(sent++ % 1000, 1)) || sent > 1500; }));
    EXPECT_LT(sent, 1500U);
    EXPECT_TRUE(Says("agent 3 (pid=" + std::to_string(getpid()) + " uid=" + std::to_string(getuid()) +
                     ") refused: a message is incomplete for 1 seconds"));
    for (const std::size_t reads : {0, 1}) {  // a byte now and then does not count
        const UniqueFd greedy = Connect();
        const std::string requests = Message(99, 1, "") + Message(99, 2, "");
        char bytes[16];
        EXPECT_TRUE(Eventually([&] {
            while (send(greedy.Get(), requests.data(), requests.size(), MSG_NOSIGNAL | MSG_DONTWAIT) > 0) {
            }
            const int error = errno;
            recv(greedy.Get(), bytes, reads, MSG_DONTWAIT);
            return error == EPIPE || error == ECONNRESET;
        }));
    }
    EXPECT_EQ(Count(Read(err_), "what was sent to it is not read for 1 seconds"), 2);
    EXPECT_TRUE(IsAnswered(silent, Message(1, 1, kExit)) && IsAnswered(healthy, Message(1, 1, kExit)));
    EXPECT_EQ(End(), 0);
    EXPECT_TRUE(Prints(" refused=3 "));
}

TEST_F(CollectorOutputTest, ASilentConnectionMakesRoomForANewOne)
{
    Listen("--patience 1 --agents 3");
    const UniqueFd silent[] = {Connect(), Connect()};
    const UniqueFd healthy = ConnectAgent();
    EXPECT_EQ(Receive(Connect(), 1), "");
    EXPECT_TRUE(Says("refused: 3 are open"));
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    EXPECT_TRUE(ReceiveAnswers(healthy, 1).empty());  // but for its heartbeat
    const UniqueFd fresh = ConnectAgent();
    EXPECT_EQ(Receive(silent[0], 1), "");
    EXPECT_TRUE(IsAnswered(healthy, Message(1, 1, kExit)) && IsAnswered(silent[1], Message(1, 1, kExit)));
    EXPECT_EQ(End(), 0);
}

// Half of a long message from each of many, and memory that is given back.
TEST_F(CollectorOutputTest, UnfinishedMessagesTakeBoundedMemory)
{
    Listen("--agents 2000");
    const UniqueFd healthy = ConnectAgent();
    const long before = Resident();
    const std::string half = Message(1, 1, std::string(500000, 'x')).substr(0, 400000);
    const auto attack = [&](int connections) {
        std::vector<UniqueFd> greedy;
        for (int i = 0; i < connections; ++i) {
            greedy.push_back(Connect());
            Send(greedy.back(), half);
        }
        pause();
        return 0;
    };
    for (int i = 0; i < 30; ++i) {  // one after the other they take no more than one
        ASSERT_TRUE(Send(Connect(), half));
    }
    EXPECT_TRUE(Eventually([this] { return Count(Read(err_), "closed in the middle of a message") == 30; }));
    EXPECT_FALSE(Says("too many unfinished bytes", 0));
    std::vector<pid_t> attackers = {Fork([&] { return attack(30); })};
    EXPECT_TRUE(Says("refused: too many unfinished bytes of its address or process"));
    for (int i = 0; i < 10; ++i) {
        attackers.push_back(Fork([&] { return attack(18); }));
    }
    EXPECT_TRUE(Says("refused: too many unfinished bytes over all, and most of its address or process"));
    EXPECT_LT(Resident(), before + 100 * 1024);
    EXPECT_TRUE(IsAnswered(healthy, Message(1, 1, kExit)));
    for (const pid_t attacker : attackers) {
        kill(attacker, SIGKILL);
        Wait(attacker);
    }
    EXPECT_TRUE(Eventually([&] { return Resident() < before + 8 * 1024; })) << before << " " << Resident();
    EXPECT_EQ(End(), 0);
}

TEST_F(CollectorOutputTest, ARemovedSocketFileIsMadeAnew)
{
    const std::string fifo = directory_ / "fifo";
    const std::string run = directory_ / "run";
    const std::string path = run + "/socket";
    fs::create_directory(run);
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const UniqueFd writer(open(fifo.c_str(), O_RDWR));
    Listen("--listen unix:" + path + " --control - <" + fifo);
    const UniqueFd agent = ConnectAgent();
    fs::remove(path_);
    fs::remove(fifo);
    fs::remove_all(run);
    EXPECT_TRUE(Says("unix:" + path_ + " was removed, and is made anew"));
    EXPECT_TRUE(Says("the FIFO of standard input was removed or replaced"));
    EXPECT_TRUE(Says("unix:" + path + " was removed, and cannot be made anew: No such file or directory"));
    EXPECT_TRUE(IsAnswered(agent, Message(1, 1, kExit)) && IsAnswered(Connect(), Message(1, 1, kExit)));
    fs::remove(path_);
    Write(path_, "");
    EXPECT_TRUE(Says("unix:" + path_ + " was replaced: nobody reaches this collector there"));
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));  // it tries again meanwhile
    EXPECT_EQ(Count(Read(err_), "cannot be made anew"), 1);
    fs::create_directory(run);
    EXPECT_TRUE(Says("unix:" + path + " was removed, and is made anew"));
    EXPECT_TRUE(IsAnswered(Connect(path), Message(1, 1, kExit)));
    EXPECT_EQ(End(), 0);
    EXPECT_TRUE(fs::exists(path_) && !fs::exists(path));  // the one is another one's
}
