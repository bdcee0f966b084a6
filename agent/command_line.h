#pragma once

#include <string>

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitNotWell = 3;

// What the program is asked to do.
enum class Command { kRun, kCheckConfig, kStatus };

// The command line.
struct Options {
    std::string root;    // absolute and free of links
    std::string config;  // path of the configuration
    bool daemon = false;
    bool json = false;
    Command command = Command::kRun;
};

// Gives the exit status where the program ends right away, with what is wrong on standard error; or -1.
int ParseOptions(int argc, char** argv, Options& options);
