#include "process/process_search.h"

#include <algorithm>
#include <cerrno>

#include "process_utils.h"

namespace NEUtils {

namespace {

constexpr std::size_t kUsualLine = 1024;
constexpr std::size_t kMaxLine = 128 * 1024;  // as much as ps prints
constexpr char kLeftOut[] = "grep";

// As ps prints it: what is no plain character becomes a question mark.
void MakePlain(std::string& text)
{
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
}

// Most lines are short: reading the longest possible one for each would take most of the time.
bool ReadLine(int pid, std::string& line)
{
    return ProcessUtils::GetCmdLine(pid, line, kUsualLine) &&
           (line.size() < kUsualLine || ProcessUtils::GetCmdLine(pid, line, kMaxLine));
}

}  // namespace

ProcessSearch::ProcessSearch()
{
    std::vector<int> pids;
    complete_ = ProcessUtils::GetProcessIds(pids);
    std::sort(pids.begin(), pids.end());
    for (const int pid : pids) {
        Line line = {std::to_string(pid), ""};
        if (!ReadLine(pid, line.text)) {
            complete_ = complete_ && !IsOutOfResources(errno);
            continue;
        }
        if (line.text.empty()) {  // a kernel thread, or it has ended
            continue;
        }
        MakePlain(line.text);
        if (line.text.find(kLeftOut) == std::string::npos) {
            lines_.push_back(std::move(line));
        }
    }
}

bool ProcessSearch::IsOutOfResources(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOMEM;
}

std::vector<std::string> ProcessSearch::Find(const std::string& pattern) const
{
    const auto isSame = [](char inLine, char wanted) { return wanted == '.' || inLine == wanted; };
    std::vector<std::string> pids;
    for (const auto& [pid, text] : lines_) {
        if (std::search(text.begin(), text.end(), pattern.begin(), pattern.end(), isSame) != text.end()) {
            pids.push_back(pid);
        }
    }
    return pids;
}

}  // namespace NEUtils
