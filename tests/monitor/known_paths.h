// What the random changes of a tree share, simulated and real.
#pragma once

#include <sys/inotify.h>

#include <cstdlib>
#include <set>
#include <string>

#include "file_watch.h"
#include "monitor/watch_scope.h"

constexpr std::uint32_t kComings = IN_CREATE | IN_DELETE | IN_MOVE;
constexpr std::uint32_t kTreeEvents = kComings | IN_ATTRIB | IN_CLOSE_WRITE;

template <typename Number>
Number FromEnvironment(const char* name, Number otherwise)
{
    const char* text = std::getenv(name);
    return text == nullptr ? otherwise : static_cast<Number>(std::atoi(text));
}

// What somebody knows who applies a rule's events in their order.
struct KnownPaths {
    void Apply(const NEUtils::Monitor::FileEvent& event)
    {
        const auto isBelow = [](const std::string& top) {
            return [&top](const std::string& path) { return NEUtils::Monitor::IsAtOrBelow(path, top); };
        };
        if (event.mask == IN_CREATE) {
            paths.insert(event.path);
        } else if (event.mask == IN_DELETE) {
            std::erase_if(paths, isBelow(event.path));
        } else if (!event.oldPath.empty()) {
            std::set<std::string> moved;
            for (const std::string& path : paths) {
                if (NEUtils::Monitor::IsAtOrBelow(path, event.oldPath)) {
                    moved.insert(event.path + path.substr(event.oldPath.size()));
                }
            }
            std::erase_if(paths, isBelow(event.path));
            std::erase_if(paths, isBelow(event.oldPath));
            paths.merge(moved);
        } else {
            changed.insert(event.path);
        }
    }

    std::set<std::string> paths;
    std::set<std::string> changed;
};
