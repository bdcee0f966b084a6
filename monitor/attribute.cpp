#include "attribute.h"

#include <sys/stat.h>

#include <cerrno>
#include <vector>

#include "logger.h"
#include "util/clock.h"
#include "util/errno_text.h"
#include "util/file.h"
#include "util/rate_limiter.h"

namespace NEUtils::Monitor {

namespace {

constexpr std::size_t kMaxRecords = 21000;
constexpr std::size_t kMaxPath = 1024;
constexpr std::int64_t kErrorPeriodMs = 900000;

RateLimiter g_fullRecords(kErrorPeriodMs);

template <typename Number>
void AppendChange(std::string& text, const char* oldKey, Number oldValue, const char* newKey, Number newValue)
{
    if (oldValue != newValue) {
        text += oldKey + std::to_string(oldValue) + ' ' + newKey + std::to_string(newValue) + ' ';
    }
}

bool IsDirectory(const std::string& path)
{
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// What to append to a directory's path for each of its entries; nothing for any other file.
std::vector<std::string> EntriesOf(const std::string& path)
{
    std::vector<std::string> names;
    if (IsDirectory(path) && !FileOperation::ListDirectory(path, names)) {
        const int error = errno;
        NE_LOG(ERROR, "Open dir failed for error.[dir=%s error=%s]", path.c_str(), ErrnoText(error).Get());
    }
    for (std::string& name : names) {
        name.insert(0, 1, '/');
    }
    return names;
}

}  // namespace

std::map<std::string, Attribute>& g_attrMap = *new std::map<std::string, Attribute>;
std::mutex g_mutex;

Attribute AttributeOf(const struct stat& status)
{
    return {status.st_mode, status.st_uid, status.st_gid, static_cast<unsigned long>(status.st_nlink),
            static_cast<long>(status.st_size)};
}

bool GetFileAttr(const std::string& path, Attribute& attr)
{
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0) {
        return false;
    }
    attr = AttributeOf(status);
    return true;
}

// Kept because those who read the texts depend on the form: the mode whole and in decimal, keys without a common
// form, and the blank at the end.
std::string GetDiff(const Attribute& oldAttr, const Attribute& newAttr)
{
    std::string text;
    AppendChange(text, "oaccess=", oldAttr.mode, "access=", newAttr.mode);
    AppendChange(text, "ouid=", oldAttr.uid, "cuid=", newAttr.uid);
    AppendChange(text, "ogid=", oldAttr.gid, "cgid=", newAttr.gid);
    AppendChange(text, "olink=", oldAttr.nlink, "link=", newAttr.nlink);
    AppendChange(text, "osize=", oldAttr.size, "size=", newAttr.size);
    return text;
}

void RecordAttribute(const std::string& path)
{
    Attribute attr;
    if (!path.empty() && GetFileAttr(path, attr)) {
        RecordAttribute(path, attr);
    }
}

void RecordAttribute(const std::string& path, const Attribute& attr)
{
    bool log = false;
    {
        const std::lock_guard<std::mutex> lock(g_mutex);
        if (g_attrMap.size() < kMaxRecords) {
            g_attrMap[path] = attr;
        } else {  // Kept because the limit comes first: also a path that is in the table is not refreshed.
            log = g_fullRecords.Allow(Clock::WallMs());
        }
    }
    if (log) {
        NE_LOG(ERROR, "The monitoring file status has reached the upper limit. [limit=%zu]", kMaxRecords);
    }
}

void RecordAttributeRecursive(const std::string& path)
{
    RecordAttribute(path);
    for (const std::string& name : EntriesOf(path)) {
        RecordAttribute(path + name);
    }
}

void RemoveRecord(const std::string& path)
{
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_attrMap.erase(path);
}

void RemoveRecordRecursive(const std::string& path)
{
    const std::lock_guard<std::mutex> lock(g_mutex);
    // The keys that begin alike stand together. Kept because callers rely on it: no separator need follow.
    const auto first = g_attrMap.lower_bound(path);
    auto last = first;
    while (last != g_attrMap.end() && last->first.starts_with(path)) {
        ++last;
    }
    g_attrMap.erase(first, last);
}

void UpdateFileName(const std::string& oldPath, const std::string& newPath)
{
    RemoveRecord(oldPath);
    RecordAttribute(newPath);
}

void UpdateFileNameRecursive(const std::string& oldPath, const std::string& newPath)
{
    if (oldPath.size() >= kMaxPath || newPath.size() >= kMaxPath) {
        return;
    }
    UpdateFileName(oldPath, newPath);
    for (const std::string& name : EntriesOf(newPath)) {
        UpdateFileName(oldPath + name, newPath + name);
    }
}

bool UpdateAttrAndLog(const std::string& path, std::string& text)
{
    Attribute attr;
    return GetFileAttr(path, attr) && UpdateAttrAndLog(path, attr, text);
}

bool UpdateAttrAndLog(const std::string& path, const Attribute& attr, std::string& text)
{
    const std::lock_guard<std::mutex> lock(g_mutex);
    const auto record = g_attrMap.find(path);
    if (record == g_attrMap.end()) {
        return false;
    }
    const std::string diff = GetDiff(record->second, attr);
    if (diff.empty()) {
        return false;
    }
    record->second = attr;
    text += path + " " + diff;
    return true;
}

}  // namespace NEUtils::Monitor
