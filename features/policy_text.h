#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

// How many lines of one kind a policy may have.
constexpr std::size_t kMaxPolicyRules = 64;

// The keys of a policy, and what takes their values; gives what is wrong with one, or nothing.
using PolicyKeys = std::map<std::string, std::function<std::string(const std::string& value)>>;

// Takes a policy apart, one KEY=value a line; empty lines and lines that begin with '#' are skipped. Gives what
// is wrong with it, with the number of the line, or nothing.
std::string ReadPolicy(const std::string& text, const PolicyKeys& keys);

// A decimal number up to most. Gives what is wrong, or nothing.
std::string ReadNumber(const std::string& value, std::uint64_t most, std::uint64_t& number);

// The refusal of a policy as a record.
void LogRefusal(const char* feature, const std::string& reason);
