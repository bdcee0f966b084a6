// Children for tests that have threads.
#pragma once

#include <spawn.h>
#include <sys/socket.h>

#include "tests/support/support.h"

// Starts a program. Needs no memory in the child, unlike a fork, so it may run beside threads.
inline pid_t Spawn(Strings words)
{
    std::vector<char*> pointers;
    for (std::string& word : words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    pid_t pid = -1;
    return posix_spawn(&pid, pointers[0], nullptr, nullptr, pointers.data(), environ) == 0 ? pid : -1;
}

inline pid_t RunTrue(const std::string& argument = "")
{
    const pid_t pid = Spawn({"/bin/true", argument});
    EXPECT_EQ(Wait(pid), 0);
    return pid;
}

// Runs functions in children that a process makes which was forked before there were threads: a child that is forked
// beside busy ones can find a lock taken for good, and sanitizers allow it no threads of its own.
class Children {
public:
    explicit Children(const std::vector<std::function<int()>>& bodies)
    {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends_), 0);
        maker_ = Fork([&] {
            close(ends_[0]);
            for (int wanted[2]; read(ends_[1], wanted, sizeof(wanted)) > 0;) {
                const int answer =
                    wanted[1] != 0 ? ::Wait(wanted[1]) : Fork(bodies[static_cast<std::size_t>(wanted[0])]);
                EXPECT_GT(write(ends_[1], &answer, sizeof(answer)), 0);
            }
            return 0;
        });
        close(ends_[1]);
    }
    ~Children() { close(ends_[0]), ::Wait(maker_); }
    Children(const Children&) = delete;
    Children& operator=(const Children&) = delete;

    pid_t Start(int body) const { return Ask(body, 0); }
    int Wait(pid_t pid) const { return Ask(0, pid); }
    pid_t Run(int body) const
    {
        const pid_t pid = Start(body);
        EXPECT_EQ(Wait(pid), 0) << body;
        return pid;
    }
    pid_t Parent() const { return maker_; }

private:
    int Ask(int body, pid_t pid) const
    {
        const int wanted[] = {body, pid};
        int answer = -1;
        EXPECT_TRUE(write(ends_[0], wanted, sizeof(wanted)) > 0 && read(ends_[0], &answer, sizeof(answer)) > 0);
        return answer;
    }

    int ends_[2] = {};
    pid_t maker_ = -1;
};
