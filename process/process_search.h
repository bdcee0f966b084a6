#pragma once

#include <string>
#include <vector>

namespace NEUtils {

// The processes of one look at /proc, to be searched for several patterns.
//
// Source   the result is that of `ps -ef | grep "PATTERN" | grep -v grep | awk '{print $2}'`: a pattern may match
//          anywhere in the command line, its dots match any character (it holds no other special one), and what
//          has "grep" in its line is left out.
class ProcessSearch {
public:
    ProcessSearch();

    // The ids of the processes whose line matches, in ascending order.
    std::vector<std::string> Find(const std::string& pattern) const;

private:
    struct Line {
        std::string pid;
        std::string text;
    };

    std::vector<Line> lines_;
};

}  // namespace NEUtils
