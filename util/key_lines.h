#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

// Texts of settings: one KEY=value a line; empty lines and lines that begin with '#' are skipped.
namespace NEUtils {

// What is wrong with a text, and in which line. An empty reason: nothing.
struct KeyLineFault {
    std::size_t line = 0;
    std::string reason;
};

// Hands over key and value of each line, split at the first '=', nothing trimmed. The function gives what is wrong
// with them, or nothing; the first fault ends it.
KeyLineFault ReadKeyLines(const std::string& text,
                          const std::function<std::string(const std::string& key, const std::string& value)>& take);

// A decimal number up to most. Gives what is wrong, or nothing.
std::string ReadNumber(const std::string& value, std::uint64_t most, std::uint64_t& number);

// A short piece of a text for a message, in single quotes.
std::string Excerpt(const std::string& text);

}  // namespace NEUtils
