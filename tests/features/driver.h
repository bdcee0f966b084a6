// A process that does jobs when it is asked to. It is no child of the test, since those are left out of the log; and it
// begins before the test has any other thread, so its children need no lock that one of them held.
#pragma once

#include <sys/socket.h>

#include "tests/support/support.h"

using Job = std::function<pid_t()>;

struct Driver {
    explicit Driver(const std::vector<Job>& jobs)
    {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends_), 0);
        Wait(Fork([&] {
            if (fork() == 0) {
                close(ends_[0]);
                std::size_t job = 0;
                for (pid_t answer = getpid(); write(ends_[1], &answer, sizeof(answer)) > 0; answer = jobs[job]()) {
                    if (read(ends_[1], &job, sizeof(job)) <= 0) {
                        break;
                    }
                }
                _exit(0);
            }
            return 0;
        }));
        close(ends_[1]);
        EXPECT_GT(read(ends_[0], &pid, sizeof(pid)), 0);
    }
    ~Driver() { close(ends_[0]); }

    pid_t Do(std::size_t job) const
    {
        pid_t answer = 0;
        EXPECT_TRUE(write(ends_[0], &job, sizeof(job)) > 0 && read(ends_[0], &answer, sizeof(answer)) > 0);
        return answer;
    }

    pid_t pid = 0;
    int ends_[2] = {};
};
