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

    // False: /proc, or some process in it, could not be read, for want of descriptors or of memory in the kernel.
    bool IsComplete() const { return complete_; }

    // For an errno of a failed look into /proc. Any other one means that the process has ended.
    static bool IsOutOfResources(int error);

private:
    struct Line {
        std::string pid;
        std::string text;
    };

    std::vector<Line> lines_;
    bool complete_ = false;
};

}  // namespace NEUtils
