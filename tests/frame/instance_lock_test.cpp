#include "instance_lock.h"

#include <sys/stat.h>

#include "tests/support/support.h"

using Result = InstanceLock::Result;

struct InstanceLockTest : testing::Test {
    // A child that has taken the lock and then runs a function.
    pid_t Hold(const std::function<int()>& body = [] { return pause(); }) const
    {
        const pid_t holder = Fork([&] {
            InstanceLock lock;
            return lock.Take(path_) == Result::kTaken && lock.WritePid() ? body() : 1;
        });
        EXPECT_TRUE(Eventually([&] { return Read(path_) == std::to_string(holder); }));
        return holder;
    }

    const TempDir dir_;
    const std::string path_ = dir_ / "lock";
    InstanceLock lock_;
};

// Two agents on one host destroy each other's log; a lock that outlives its holder keeps the next one away.
TEST_F(InstanceLockTest, IsHeldByOneUntilItsEndHoweverItEnds)
{
    const pid_t holder = Hold();
    EXPECT_EQ(lock_.Take(path_), Result::kHeld);
    EXPECT_EQ(lock_.Holder(), holder);
    Write(path_, "rubbish");
    EXPECT_EQ(lock_.Take(path_), Result::kHeld);
    EXPECT_EQ(lock_.Holder(), 0);
    EXPECT_FALSE(lock_.WritePid());
    Kill(holder);
    EXPECT_EQ(lock_.Take(path_), Result::kTaken);
    EXPECT_EQ(Read(path_), "");  // the id of the one before would name a stranger
    EXPECT_EQ(lock_.Take(path_), Result::kTaken);
    EXPECT_EQ(fs::status(path_).permissions(), fs::perms(0640));
}

// A daemon is the child of the process that took the lock. A program that the agent starts is not to keep it.
TEST_F(InstanceLockTest, AForkedChildKeepsItAndAProgramDoesNot)
{
    const std::string daemon = dir_ / "daemon";
    const pid_t holder = Hold([&] {
        const pid_t child = Fork([&] {
            prctl(PR_SET_PDEATHSIG, 0);
            InstanceLock().Release();
            Write(daemon, std::to_string(getpid()));
            return pause();
        });
        return child > 0 ? pause() : 1;
    });
    ASSERT_TRUE(Eventually([&] { return !Read(daemon).empty(); }));
    Kill(holder);
    EXPECT_EQ(lock_.Take(path_), Result::kHeld);
    kill(std::stoi(Read(daemon)), SIGKILL);
    EXPECT_TRUE(Eventually([&] { return lock_.Take(path_) == Result::kTaken; }));
    const pid_t program = Fork([] { return execlp("sleep", "sleep", "60", nullptr); });
    EXPECT_TRUE(Eventually([&] { return Contains(Read("/proc/" + std::to_string(program) + "/comm"), "sleep"); }));
    lock_.Release();
    EXPECT_EQ(InstanceLock().Take(path_), Result::kTaken);
    Kill(program);
}

// What lies under the name may be somebody's trap: following a link would empty another file.
TEST_F(InstanceLockTest, RefusesWhatIsNoFileOfItsOwnAndNoticesAReplacedOne)
{
    Write(dir_ / "other", "precious");
    const std::pair<int, std::function<void()>> rows[] = {
        {ELOOP, [&] { fs::create_symlink(dir_ / "other", path_); }},
        {EMLINK, [&] { fs::create_hard_link(dir_ / "other", path_); }},
        {EISDIR, [&] { fs::create_directory(path_); }},
        {EINVAL, [&] { mkfifo(path_.c_str(), 0600); }},
    };
    for (const auto& [error, make] : rows) {
        make();
        EXPECT_EQ(lock_.Take(path_), Result::kFailed);
        EXPECT_EQ(errno, error);
        fs::remove(path_);
    }
    EXPECT_EQ(lock_.Take(dir_ / "none/lock"), Result::kFailed);
    EXPECT_EQ(Read(dir_ / "other"), "precious");

    EXPECT_EQ(lock_.Take(path_), Result::kTaken);
    EXPECT_TRUE(lock_.IsInPlace());
    Write(dir_ / "new", "");
    fs::rename(dir_ / "new", path_);
    EXPECT_FALSE(lock_.IsInPlace());
    fs::remove(path_);
    EXPECT_FALSE(lock_.IsInPlace());
}
