#pragma once

#include <cstddef>
#include <string>
#include <vector>

// Reads a file whole. Gives what went wrong, or nothing.
std::string ReadFile(const std::string& path, std::size_t mostBytes, std::string& text);

// The names in a folder; none where it cannot be read.
std::vector<std::string> ListFolder(const std::string& path);

// A name between two pieces of text, such as "lib" and ".so"; empty if it is not between them.
std::string Between(const std::string& text, const std::string& before, const std::string& after);

// Replaces a file in one step, with mode 0600: written beside it, synced, renamed, and the folder synced.
// Gives what went wrong, or nothing. A crash leaves the old or the new one; so does a fault.
std::string ReplaceFile(const std::string& folder, const std::string& name, const std::string& text);
