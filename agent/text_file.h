#pragma once

#include <cstddef>
#include <string>

// Small text files of the agent. Each function gives what went wrong, or nothing.

// Reads a regular file whole. Does not wait, whatever the path names.
std::string ReadTextFile(const std::string& path, std::size_t mostBytes, std::string& text);

// Replaces a file in one step, with mode 0600: written beside it, synced, renamed, and the directory synced. A crash
// leaves the old or the new one; so does a fault. Makes the directory where it is missing.
std::string ReplaceFile(const std::string& directory, const std::string& name, const std::string& text);
