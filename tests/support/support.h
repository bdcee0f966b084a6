// What the tests share: children, threads, a directory of their own, collected records.
#pragma once

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#include "logger.h"

namespace fs = std::filesystem;
using namespace NEUtils;
using Strings = std::vector<std::string>;

// Runs a function in a forked child; its result is the exit status.
inline pid_t Fork(const std::function<int()>& body)
{
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);  // nothing outlives a test that failed
        _exit(body());
    }
    return pid;
}

inline int Wait(pid_t pid)
{
    int status = 0;
    waitpid(pid, &status, 0);
    return status;
}

inline int Kill(pid_t pid)
{
    kill(pid, SIGKILL);
    return Wait(pid);
}

inline int Execute(const std::string& path, const Strings& args)
{
    std::vector<char*> words;
    for (const std::string& arg : args) {
        words.push_back(const_cast<char*>(arg.c_str()));
    }
    words.push_back(nullptr);
    return execv(path.c_str(), words.data());
}

inline bool BecomePlainUser()
{
    return geteuid() != 0 || (setgroups(0, nullptr) == 0 && setgid(65534) == 0 && setuid(65534) == 0);
}

// Runs a function on several threads at once, each with its number.
inline void InThreads(int count, const std::function<void(int)>& body)
{
    std::vector<std::jthread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back(body, i);
    }
}

// Looks at a condition until it holds; false after the deadline.
inline bool Eventually(const std::function<bool()>& condition, int seconds = 20)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    bool holds = condition();
    for (; !holds && std::chrono::steady_clock::now() < end; holds = condition()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return holds;
}

inline bool Contains(const std::string& text, const std::string& piece)
{
    return text.find(piece) != std::string::npos;
}

inline std::string Read(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline void Write(const std::string& path, const std::string& content)
{
    std::ofstream(path, std::ios::binary) << content;
}

inline std::string Unzipped(const std::string& path)
{
    std::FILE* pipe = popen(("gzip -dc " + path + " 2>/dev/null").c_str(), "r");
    std::string text(1U << 20, '\0');
    text.resize(fread(text.data(), 1, text.size(), pipe));
    pclose(pipe);
    return text;
}

// A directory of its own for a test, removed at its end.
struct TempDir {
    TempDir() {}  // not defaulted: a class may hold a const one
    ~TempDir() { fs::remove_all(path_, ignored_); }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }
    const std::string& Path() const { return path_; }

    std::string name_ = fs::temp_directory_path() / "neutils-XXXXXX";
    const std::string path_ = mkdtemp(name_.data());
    std::error_code ignored_;
};

// Formats a record as its content alone.
inline unsigned int Echo(const NENormalLog& record, char* out, unsigned int size)
{
    return static_cast<unsigned int>(std::snprintf(out, size, "%s\n", record.content));
}

// Collects the records of a log kind while it lives, as "LEVEL content".
struct Records {
    explicit Records(const char* kind = kNormalLog) : kind_(kind)
    {
        MessageBus::Subscribe(kind_, "test-records", [this](const NENormalLog& record) {
            const std::lock_guard<std::mutex> lock(mutex_);
            lines_.push_back(std::string(record.levelName) + " " + record.content);
            files_[lines_.back()] = record.fileName;
        });
    }
    ~Records() { MessageBus::Unsubscribe(kind_, "test-records"); }

    Strings Lines() const
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return lines_;
    }
    std::ptrdiff_t Count(const std::string& line) const { return std::ranges::count(Lines(), line); }
    bool Has(const std::string& line) const { return Count(line) > 0; }
    std::ptrdiff_t CountWith(const std::string& piece) const
    {
        return std::ranges::count_if(Lines(), [&](const std::string& line) { return Contains(line, piece); });
    }

    std::string FileOf(const std::string& line) const
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto found = files_.find(line);
        return found == files_.end() ? "" : found->second;
    }

    const std::string kind_;
    mutable std::mutex mutex_;
    Strings lines_;
    std::map<std::string, std::string> files_;  // by line
};
