#pragma once

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>
#include <thread>
#include <vector>

// Helpers for measuring readers of events, which are threads or programs, while a child process makes the events.
namespace Readers {

// The clock of a thread or a program counts its user and kernel time.
inline std::int64_t NowNs(clockid_t clock = CLOCK_MONOTONIC)
{
    timespec now = {};
    clock_gettime(clock, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

inline clockid_t ClockOf(std::thread& thread)
{
    clockid_t clock = {};
    pthread_getcpuclockid(thread.native_handle(), &clock);
    return clock;
}

[[noreturn]] inline void Fail(const char* what)
{
    std::perror(what);
    std::exit(1);
}

// What a reader has done so far, in any unit.
using Progress = std::function<std::int64_t()>;

// Waits until the reader gets no further, and gives its processor time when it last did: what it takes to wake up
// now and then for nothing is not counted.
inline std::int64_t CpuNsWhenDone(clockid_t clock, const Progress& progress)
{
    constexpr int kMaxSteps = 6000;
    constexpr int kQuietSteps = 50;
    std::int64_t used = NowNs(clock);
    std::int64_t before = progress();
    for (int i = 0, quiet = 0; i < kMaxSteps && quiet < kQuietSteps; ++i, ++quiet) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        const std::int64_t now = progress();
        if (now != before) {
            before = now;
            used = NowNs(clock);
            quiet = 0;
        }
    }
    return used;
}

// Runs the work in a child process and waits for it.
inline void RunInChild(const std::function<void()>& work)
{
    const pid_t pid = fork();
    if (pid == 0) {
        work();
        _exit(0);
    }
    int status = -1;
    if (pid < 0 || waitpid(pid, &status, 0) != pid || status != 0) {
        Fail("child process");
    }
}

// The reader's processor time for the work.
inline std::int64_t CpuNsOf(clockid_t clock, const Progress& progress, const std::function<void()>& work)
{
    CpuNsWhenDone(clock, progress);
    const std::int64_t start = NowNs(clock);
    RunInChild(work);
    return CpuNsWhenDone(clock, progress) - start;
}

inline pid_t StartProgram(std::vector<std::string> words, const std::string& directory, int output, int errors)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addchdir_np(&actions, directory.c_str());
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, errors, STDERR_FILENO);
    std::vector<char*> args;
    for (std::string& word : words) {
        args.push_back(word.data());
    }
    args.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ) != 0) {
        Fail(args[0]);
    }
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

inline void StopProgram(pid_t pid)
{
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
}

// Lines up to the end of the file, which is closed.
inline void ForEachLine(int fd, const std::function<void(const char*)>& function)
{
    char line[8192];
    FILE* file = fdopen(fd, "r");
    while (file != nullptr && std::fgets(line, sizeof(line), file) != nullptr) {
        function(line);
    }
    if (file == nullptr || std::fclose(file) != 0) {
        Fail("output");
    }
}

inline double Percentile(std::vector<double> values, double part)
{
    if (values.empty()) {
        return 0;
    }
    const auto place = static_cast<std::ptrdiff_t>(part * static_cast<double>(values.size() - 1) + 0.5);
    std::nth_element(values.begin(), values.begin() + place, values.end());
    return values[static_cast<std::size_t>(place)];
}

}  // namespace Readers
