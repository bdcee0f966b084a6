#include "process/platform_processes.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "process/platform_patterns.h"
#include "process/proc_directory.h"

namespace NEUtils {

namespace {

// Each pattern holds one of these, and none has a blank before or in it: so most arguments are done with at once.
constexpr std::array<std::string_view, 4> kMarks = {"/opt/omx/", "tools/pyscript/deployagent/", "/usr/bin/sysmonitor",
                                                    "/usr/sbin/setroubleshootd"};
// Options of an interpreter behind which the script follows at once; not such as -c, -m, -i and -W.
constexpr std::string_view kHarmlessPythonOptions = "-BEIOPRSdqsuvx";

bool HasMark(const ProcessRecord& record)
{
    return std::any_of(record.args.begin(), record.args.end(), [](std::string_view arg) {
        return arg.find('/') != std::string_view::npos &&
               std::any_of(kMarks.begin(), kMarks.end(),
                           [=](std::string_view mark) { return arg.find(mark) != std::string_view::npos; });
    });
}

std::string CommandLine(const ProcessRecord& record)
{
    std::string line;
    for (const std::string& arg : record.args) {
        line += (line.empty() ? "" : " ") + arg;
    }
    return line;
}

bool Ends(std::string_view text, std::string_view end)
{
    return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

bool BelongsToRoot(const struct stat& file)
{
    return S_ISREG(file.st_mode) && file.st_uid == 0 && (file.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// What runs is the file that this path means here, so neither another root directory nor a mount of the process's own
// has a part in it.
bool IsOurFile(const std::string& path, const struct stat& file)
{
    struct stat here = {};
    return stat(path.c_str(), &here) == 0 && here.st_dev == file.st_dev && here.st_ino == file.st_ino &&
           BelongsToRoot(here);
}

// Nobody but root can have put something else at this path.
bool IsRootsPath(std::string path)
{
    struct stat directory = {};
    for (std::size_t slash = path.rfind('/'); slash != std::string::npos; slash = path.rfind('/')) {
        path.resize(slash);
        if (stat(path.empty() ? "/" : path.c_str(), &directory) != 0 || directory.st_uid != 0 ||
            (directory.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
            return false;
        }
    }
    return true;
}

// A path without links, as this process sees it; empty if there is none.
std::string WithoutLinks(const std::string& path)
{
    const std::unique_ptr<char, decltype(&std::free)> real(realpath(path.c_str(), nullptr), &std::free);
    return real == nullptr ? std::string() : real.get();
}

// The script that an interpreter was called with: its first argument behind harmless options.
std::string_view ScriptArgument(const ProcessRecord& record, bool isPython)
{
    for (std::size_t i = 1; i < record.args.size(); ++i) {
        const std::string_view arg = record.args[i];
        if (arg.empty() || arg[0] != '-') {
            return arg;
        }
        if (!isPython || arg.find_first_not_of(kHarmlessPythonOptions) != std::string_view::npos) {
            break;
        }
    }
    return {};
}

// A link with the pattern's name that leads to another script hides nobody, so the path counts that is behind links.
bool IsPlatformScript(const ProcDirectory& process, std::string_view script, std::string_view path)
{
    if (script.empty()) {
        return false;
    }
    const bool isAbsolute = script[0] == '/';
    const std::string real =
        WithoutLinks(isAbsolute ? std::string(script) : process.ReadLink("cwd") + "/" + std::string(script));
    if (path[0] == '/' ? real.compare(0, path.size(), path) != 0 : !Ends(real, path)) {
        return false;
    }
    // As the process sees it.
    const std::string seen = (isAbsolute ? "root" : "cwd/") + std::string(script);
    struct stat file = {};
    return fstatat(process.Fd(), seen.c_str(), &file, 0) == 0 && IsOurFile(real, file) && IsRootsPath(real);
}

// What really runs is what the pattern names: its first path, or the last one as a script.
bool RunsPlatformProgram(const ProcessRecord& record, std::string_view pattern)
{
    const ProcDirectory process(record.pid);
    struct stat file = {};
    const std::string exe = process.ReadExecutable(file);
    if (exe.empty() || file.st_ino != record.exeInode || !IsOurFile(exe, file) || !process.StartedAt(record.startNs)) {
        return false;
    }
    const std::string_view program = pattern.substr(0, pattern.find(' '));
    const std::string_view base = std::string_view(exe).substr(exe.rfind('/') + 1);
    const bool isPython = base.substr(0, 6) == "python";
    const bool isShell = base == "sh" || base == "bash" || base == "dash";
    if (isPython || isShell) {
        const std::size_t blank = pattern.rfind(" /");
        return IsPlatformScript(process, ScriptArgument(record, isPython),
                                blank == std::string_view::npos ? program : pattern.substr(blank + 1));
    }
    return std::string_view(exe).substr(0, program.size()) == program;
}

}  // namespace

bool IsPlatformProgram(const ProcessRecord& record, bool checkProgram)
{
    if (!HasMark(record)) {
        return false;
    }
    const std::string line = CommandLine(record);
    // Kept: as in the list that the process monitor makes with ps and grep, a line with "grep" in it does not count.
    if (line.find("grep") != std::string::npos) {
        return false;
    }
    return std::any_of(kPlatformPatterns.begin(), kPlatformPatterns.end(), [&](const char* pattern) {
        return line.find(pattern) != std::string::npos && (!checkProgram || RunsPlatformProgram(record, pattern));
    });
}

}  // namespace NEUtils
