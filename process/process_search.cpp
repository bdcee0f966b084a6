#include "process/process_search.h"

#include <regex.h>

#include <algorithm>

#include "process_utils.h"
#include "user_info.h"

namespace NEUtils {

namespace {

constexpr std::size_t kMaxLine = 128 * 1024;  // as much as ps prints
constexpr char kLeftOut[] = "grep";

// As ps prints it: what is no plain character becomes a question mark.
void MakePlain(std::string& text)
{
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
}

class Pattern {
public:
    explicit Pattern(const std::string& text) : isValid_(regcomp(&compiled_, text.c_str(), REG_NOSUB) == 0) {}
    ~Pattern()
    {
        if (isValid_) {
            regfree(&compiled_);
        }
    }
    Pattern(const Pattern&) = delete;
    Pattern& operator=(const Pattern&) = delete;

    bool Matches(const std::string& text) const
    {
        return isValid_ && regexec(&compiled_, text.c_str(), 0, nullptr, 0) == 0;
    }

private:
    regex_t compiled_{};
    const bool isValid_;
};

}  // namespace

ProcessSearch::ProcessSearch()
{
    std::vector<int> pids;
    ProcessUtils::GetProcessIds(pids);
    std::sort(pids.begin(), pids.end());
    for (const int pid : pids) {
        Line line = {std::to_string(pid), ""};
        // Without a command line it is a kernel thread or has ended, and cannot match.
        if (!ProcessUtils::GetCmdLine(pid, line.text, kMaxLine) || line.text.empty()) {
            continue;
        }
        MakePlain(line.text);
        if (line.text.find(kLeftOut) == std::string::npos) {
            lines_.push_back(std::move(line));
        }
    }
}

std::vector<std::string> ProcessSearch::Find(const std::string& pattern) const
{
    const Pattern compiled(pattern);
    std::vector<std::string> pids;
    for (const Line& line : lines_) {
        if (compiled.Matches(line.text)) {
            pids.push_back(line.pid);
        }
    }
    return pids;
}

}  // namespace NEUtils
