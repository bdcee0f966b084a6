#include "frame/log_roll.h"

#include <signal.h>
#include <spawn.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string_view>
#include <vector>

#include "util/file.h"

namespace NEUtils::LogRoll {

namespace {

constexpr mode_t kRolledMode = 0440;
constexpr char kSuffix[] = ".gz";
// A name has 255 bytes at most, and the copy with the highest number needs 14 of them.
constexpr std::size_t kMaxName = 255 - std::string_view(".4294967295.gz").size();
constexpr std::string_view kGzipSuffixes[] = {".gz", ".z", ".taz", ".tgz", "-gz", "-z", "_z"};

bool EndsIn(std::string_view text, std::string_view end)
{
    return text.size() >= end.size() &&
           strncasecmp(text.data() + text.size() - end.size(), end.data(), end.size()) == 0;
}

std::string CopyName(const std::string& path, unsigned int number)
{
    return path + "." + std::to_string(number) + kSuffix;
}

// The number in the name of a copy; 0 for any other name.
unsigned int CopyNumber(std::string_view name, std::string_view base)
{
    constexpr std::size_t kAround = std::string_view("..gz").size();
    if (name.size() <= base.size() + kAround || name.substr(0, base.size()) != base || name[base.size()] != '.' ||
        name.substr(name.size() - 3) != kSuffix) {
        return 0;
    }
    const std::string_view digits = name.substr(base.size() + 1, name.size() - base.size() - kAround);
    unsigned int number = 0;
    const auto [stop, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    const bool isNumber = error == std::errc() && stop == digits.data() + digits.size() && digits[0] != '0';
    return isNumber ? number : 0;
}

// The copies that exist, the highest number first.
std::vector<unsigned int> ListCopies(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    const std::string directory = slash == std::string::npos ? "./" : path.substr(0, slash + 1);
    const std::string base = path.substr(slash == std::string::npos ? 0 : slash + 1);
    std::vector<std::string> names;
    FileOperation::ListDirectory(directory, names);
    std::vector<unsigned int> numbers;
    for (const std::string& name : names) {
        const unsigned int number = CopyNumber(name, base);
        if (number > 0) {
            numbers.push_back(number);
        }
    }
    std::sort(numbers.begin(), numbers.end(), std::greater<>());
    return numbers;
}

struct Move {
    std::string from;
    std::string to;  // empty: the file is deleted
};

// What happens to the copies and to the fresh one, in order.
std::vector<Move> PlanMoves(const std::string& path, const std::string& fresh, unsigned int count)
{
    std::vector<Move> moves;
    for (const unsigned int number : ListCopies(path)) {
        const bool isLeft = number < count;  // several may go, where the limit was lowered
        moves.push_back({CopyName(path, number), isLeft ? CopyName(path, number + 1) : ""});
    }
    moves.push_back({fresh, count == 0 ? "" : CopyName(path, 1)});
    return moves;
}

// Starts the shell with a signal mask, less SIGTERM, and waits for it. True: it ended with status 0.
bool SpawnAndWait(char* const arguments[], sigset_t mask)
{
    posix_spawnattr_t attributes;
    if (posix_spawnattr_init(&attributes) != 0) {
        return false;
    }
    sigdelset(&mask, SIGTERM);
    posix_spawnattr_setsigmask(&attributes, &mask);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    pid_t child = 0;
    const bool started = posix_spawn(&child, "/bin/sh", nullptr, &attributes, arguments, environ) == 0;
    posix_spawnattr_destroy(&attributes);
    int status = 0;
    pid_t ended = -1;
    while (started && (ended = waitpid(child, &status, 0)) < 0 && errno == EINTR) {
    }
    return started && ended == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Runs a command in the shell as system() does and waits for it alone. Unlike system() it leaves the process's signal
// dispositions as they are: a signal that is ignored for a moment is lost, also where it is blocked.
// SIGCHLD is blocked meanwhile, as in system(): a handler that waits for any child would take the status away.
// The shell gets the caller's mask as from system(), but for SIGTERM: a service manager sends that to all processes of
// an agent that blocks it, and gzip may hang. Some shells begin with an empty mask anyway.
bool RunInShell(const std::string& command)
{
    std::string shell = "sh";
    std::string option = "-c";
    std::string text = command;
    char* const arguments[] = {shell.data(), option.data(), text.data(), nullptr};
    sigset_t blocked;
    sigset_t old;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGCHLD);
    pthread_sigmask(SIG_BLOCK, &blocked, &old);
    const bool ended = SpawnAndWait(arguments, old);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    return ended;
}

}  // namespace

const char* PathFault(const std::string& path)
{
    if (path.empty() || path[0] == '-') {
        return "the path is empty or begins with a minus";
    }
    for (const char byte : path) {
        const auto code = static_cast<unsigned char>(byte);
        if (code <= ' ' || code == 0x7f || std::strchr("|&;<>()$`\\\"'*?[]#~!{}^", byte) != nullptr) {
            return "the path holds a blank or a character special to the shell";
        }
    }
    if (std::any_of(std::begin(kGzipSuffixes), std::end(kGzipSuffixes),
                    [&path](std::string_view suffix) { return EndsIn(path, suffix); })) {
        return "the name ends like that of a compressed file, which gzip does not compress";
    }
    const std::size_t slash = path.rfind('/');
    return path.size() - (slash == std::string::npos ? 0 : slash + 1) > kMaxName ? "the name is too long for its copies"
                                                                                 : nullptr;
}

bool Roll(const std::string& path, unsigned int count)
{
    if (PathFault(path) != nullptr) {
        return false;
    }
    const std::string fresh = path + kSuffix;
    // All that needs memory comes first: without it the old file stays as it is.
    const std::vector<Move> moves = PlanMoves(path, fresh, count);
    unlink(fresh.c_str());
    if (!RunInShell("gzip " + path) || chmod(fresh.c_str(), kRolledMode) != 0) {
        return false;
    }
    for (const Move& move : moves) {
        if (move.to.empty()) {
            unlink(move.from.c_str());
        } else {
            static_cast<void>(std::rename(move.from.c_str(), move.to.c_str()));
        }
    }
    return true;
}

}  // namespace NEUtils::LogRoll
