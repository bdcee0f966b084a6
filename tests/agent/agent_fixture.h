// A real agent below an install root of its own.
#pragma once

#include <sys/stat.h>

#include "tests/support/support.h"

struct AgentTest : testing::Test {
    AgentTest()
    {
        for (const char* directory : {"bin", "conf", "conf/policies", "log", "lib", "lib/features"}) {
            fs::create_directory(root_ / directory);
            fs::permissions(root_ / directory, fs::perms(0755));
        }
        for (const char* feature : {"process_watch", "file_integrity", "file_access", "odd"}) {
            const std::string library = root_ / "lib/features/lib" + feature + ".so";
            fs::copy((feature == std::string("odd") ? ODD_FEATURE_DIR "lib" : FEATURE_DIR "lib") +
                         std::string(feature) + ".so",
                     library);
            fs::permissions(library, fs::perms(0755));
        }
        SetPolicy("process_watch", "enable=on\n");
        fs::copy(AGENT_PROGRAM, program_);
        fs::copy(AGENT_CONFIG, config_);
        unsetenv("RUNTIME_CENTER_PATH");
    }

    pid_t Start(const std::string& options, bool plainUser = false) const
    {
        return Fork([&] {
            const std::string command = "PATH=" + path_ + " exec " + program_ + " " + options + " >" + out_ + " 2>&1";
            return plainUser && !BecomePlainUser() ? 126 : execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        });
    }
    // Gives the exit status and all output.
    std::string Run(const std::string& options) const
    {
        const int status = Wait(Start(options));
        return std::to_string(WEXITSTATUS(status)) + " " + Read(out_);
    }
    void SetPolicy(const std::string& feature, const std::string& text) const { Write(PolicyFile(feature), text); }
    std::string PolicyFile(const std::string& feature) const { return root_ / "conf/policies/" + feature + ".policy"; }
    bool Logged(const std::string& text) const { return Contains(Read(log_), text); }
    // One line of a text holds both.
    static bool HasLine(const std::string& all, const std::string& start, const std::string& end)
    {
        std::size_t at = all.find(start);
        while (at != std::string::npos && !Contains(all.substr(at, all.find('\n', at) - at), end)) {
            at = all.find(start, at + 1);
        }
        return at != std::string::npos;
    }
    bool LoggedLine(const std::string& start, const std::string& end) const { return HasLine(Read(log_), start, end); }
    void StartAgent()
    {
        agent_ = Start(run_);
        ASSERT_TRUE(Eventually([this] { return Logged("Agent started."); }));
    }
    // Gives the signal that ends it.
    int StopAgent(int signo = SIGINT) const
    {
        kill(agent_, signo);
        return WTERMSIG(Wait(agent_));
    }
    std::string Status() const { return Run(run_ + " --status"); }
    bool Says(const std::string& text) const
    {
        return Eventually([&] { return Contains(Status(), text); });
    }
    // A collector, which listens once this returns, and what it has printed.
    pid_t StartCollector(const std::string& options) const
    {
        fs::remove(got_);
        const pid_t pid = Fork([&] {
            const std::string command =
                std::string("exec ") + COLLECTOR_PROGRAM + " " + options + " >" + got_ + " 2>&1";
            return execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        });
        EXPECT_TRUE(Got("listening"));
        return pid;
    }
    bool Got(const std::string& text) const
    {
        return Eventually([&] { return Contains(Read(got_), text); });
    }
    bool GotLine(const std::string& start, const std::string& end) const
    {
        return Eventually([&] { return HasLine(Read(got_), start, end); });
    }
    std::string CollectorPort() const
    {
        const std::string line = Read(got_);
        return line.substr(line.rfind(':') + 1, line.rfind('"') - line.rfind(':') - 1);
    }
    // An old log that is too large to be carried over, and a shell script in gzip's place to roll it away.
    void ReplaceGzip(const std::string& script)
    {
        Write(root_ / "bin/gzip", "#!/bin/sh\n" + script);
        fs::permissions(root_ / "bin/gzip", fs::perms::all);
        Write(log_, kOldLine + std::string(70000, 'x'));
        path_ = (root_ / "bin:") + path_;
    }

    static constexpr char kOldLine[] = "20260131 23:59:58 INFO [a.cpp:1] [old] Old.\n";
    const TempDir root_;
    const std::string program_ = root_ / "bin/sentrel-agent";
    const std::string config_ = root_ / "conf/agent.conf";
    const std::string pidFile_ = root_ / "conf/sentrel-agent.pid";
    const std::string log_ = root_ / "log/agent.log";
    const std::string report_ = root_ / "log/coredump.log";
    const std::string out_ = root_ / "out";
    const std::string got_ = root_ / "got";
    const std::string run_ = "--root " + root_.Path();
    std::string path_ = getenv("PATH");
    pid_t agent_ = 0;
};

struct RootAgentTest : AgentTest {
    void SetUp() override
    {
        if (geteuid() != 0) {
            GTEST_SKIP() << "process events need CAP_NET_ADMIN, fanotify CAP_SYS_ADMIN";
        }
    }
};
