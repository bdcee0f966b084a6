#include "known_times.h"

#include <cstddef>

#include "event.h"

namespace {

constexpr std::size_t kMostFiles = 20000;

std::int64_t Ms(const timespec& time)
{
    return std::int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1000000;
}

std::string Piece(const char* name, std::int64_t timeMs)
{
    return std::string(name) + "=" + TimeText(timeMs) + " ";
}

std::string Difference(const char* name, std::int64_t before, std::int64_t now)
{
    return before == now ? "" : std::string("o").append(Piece(name, before)).append(Piece(name, now));
}

}  // namespace

std::string KnownTimes::Update(const std::string& path, const struct stat& status)
{
    if (times_.size() >= kMostFiles) {
        times_.clear();
    }
    const Times now = {Ms(status.st_mtim), Ms(status.st_atim), Ms(status.st_ctim)};
    const auto [known, isNew] = times_.emplace(path, now);
    if (isNew) {
        return Piece("mtime", now.mtimeMs) + Piece("atime", now.atimeMs) + Piece("ctime", now.ctimeMs);
    }
    const Times before = known->second;
    known->second = now;
    std::string change =
        Difference("mtime", before.mtimeMs, now.mtimeMs) + Difference("atime", before.atimeMs, now.atimeMs);
    if (!change.empty()) {
        return change;
    }
    const std::string beyond = Difference("ctime", before.ctimeMs, now.ctimeMs);
    return beyond.empty() ? Piece("ctime", now.ctimeMs) : beyond;
}
