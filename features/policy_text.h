#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>

// How many lines of one kind a policy may have.
constexpr std::size_t kMaxPolicyRules = 64;

// The keys of a policy. Each function takes a value and gives what is wrong with it, or nothing.
using PolicyKeys = std::map<std::string, std::function<std::string(const std::string& value)>>;

// Reads a policy (util/key_lines.h). Gives what is wrong with it, with the number of the line, or nothing.
std::string ReadPolicy(const std::string& text, const PolicyKeys& keys);

// Logs that a feature refuses its policy.
void LogRefusal(const char* feature, const std::string& reason);
