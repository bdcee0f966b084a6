#include "monitor/watch_scope.h"

#include <fnmatch.h>

#include <algorithm>
#include <tuple>

namespace NEUtils::Monitor {

namespace {

// Where the rest of a path begins that is below a directory; npos if it is not.
std::size_t Below(const std::string& path, const std::string& top)
{
    if (top == "/") {
        return path.size() > 1 ? 1 : std::string::npos;
    }
    const bool below = path.size() > top.size() + 1 && path[top.size()] == '/' && path.compare(0, top.size(), top) == 0;
    return below ? top.size() + 1 : std::string::npos;
}

// Does a pattern leave out the entry that ends at a place of the path? A name stands from its last slash on, what is
// below the rule's path from start on.
bool Matches(const std::string& pattern, const std::string& path, std::size_t start, std::size_t name, std::size_t end)
{
    const bool byName = pattern.find('/') == std::string::npos;
    const std::size_t from = byName ? name : pattern[0] == '/' ? 0 : start;
    const std::size_t skipped = pattern.compare(0, 2, "./") == 0 ? 2 : 0;
    return fnmatch(pattern.c_str() + skipped, path.substr(from, end - from).c_str(), byName ? 0 : FNM_PATHNAME) == 0;
}

}  // namespace

bool Covers(const FileWatchRule& rule, const std::string& path)
{
    if (path == rule.path) {
        return true;
    }
    const std::size_t start = Below(path, rule.path);
    if (start == std::string::npos || (!rule.recursive && path.find('/', start) != std::string::npos)) {
        return false;
    }
    for (std::size_t name = start; !rule.excludes.empty() && name < path.size();) {
        const std::size_t end = std::min(path.find('/', name), path.size());
        if (std::any_of(rule.excludes.begin(), rule.excludes.end(),
                        [&](const std::string& pattern) { return Matches(pattern, path, start, name, end); })) {
            return false;
        }
        name = end + 1;
    }
    return true;
}

bool LooksInto(const FileWatchRule& rule, const std::string& directory)
{
    return directory == rule.path || (rule.recursive && Covers(rule, directory));
}

bool IsAtOrBelow(const std::string& path, const std::string& top)
{
    return path == top || Below(path, top) != std::string::npos;
}

std::string ParentOf(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

std::string EntryOf(const std::string& directory, const std::string& name)
{
    std::string path;
    path.reserve(directory.size() + 1 + name.size());
    path += directory;
    if (directory.size() > 1) {
        path += '/';
    }
    return path += name;
}

bool IsSame(const FileWatchRule& one, const FileWatchRule& other)
{
    const auto all = [](const FileWatchRule& rule) {
        return std::tie(rule.path, rule.recursive, rule.mask, rule.excludes, rule.callback, rule.userData,
                        rule.crossMounts, rule.mayBeMissing);
    };
    return all(one) == all(other);
}

}  // namespace NEUtils::Monitor
