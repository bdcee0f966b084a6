#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// An order to the agents.
struct Command {
    std::uint32_t type = 0;  // 0: nothing for them
    bool isHelp = false;
    // Of kMsgPolicy:
    std::string feature;
    bool enable = false;
    std::string policy;  // empty: the one that the agent keeps
};

// The commands that a line may hold, as --help and the command help list them.
inline constexpr const char* kCommandHelp[] = {
    "policy FEATURE on|off [FILE]  start or stop a feature, with the policy that the file holds",
    "status                        how the agents and their features are",
    "help                          list the commands",
};

inline constexpr std::size_t kMaxCommandLine = 4096;

// Reads a line, without its end, and the file that it may name. Gives what is wrong with it, or nothing.
std::string ParseCommand(const std::string& line, Command& command);

// The request for the agents.
std::string CommandMessage(const Command& command, std::uint32_t seq);

// As in the line that it came from, without the file.
std::string CommandName(const Command& command);
