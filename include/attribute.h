#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "neutils_api.h"

// The last known status of every watched file, and what has changed in it since.
//
// Threads  any. The recursive functions lock once an entry: a walk is not atomic.
// Locks    g_mutex alone; nothing is logged while it is held.
// Limits   21,000 records. A full table takes no more and does not refresh those that it has; an ERROR
//          record says so, at most every 15 minutes of the wall clock.
// Errors   a file whose status cannot be read is passed over in silence; a directory that cannot be opened
//          is an ERROR record and ends the walk. A failing mutex throws system_error.
// Source   paths are keys as they are given: two spellings of one file are two records.
namespace NEUtils::Monitor {

// The status of a file itself: of a symbolic link, not of what it leads to.
struct Attribute {
    std::uint32_t mode = 0;  // with the bits of the file type
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
    unsigned long nlink = 0;
    long size = 0;  // on a 32-bit target the lower half of it
};

// The table, ordered by the bytes of the full path, and the mutex to hold while looking at it. It is never
// destroyed: threads may ask until the end.
extern NEUTILS_API std::map<std::string, Attribute>& g_attrMap;
extern NEUTILS_API std::mutex g_mutex;

NEUTILS_API Attribute AttributeOf(const struct stat& status);

// False, and attr unchanged, if there is no such file.
NEUTILS_API bool GetFileAttr(const std::string& path, Attribute& attr);

// The change text: "oaccess=33188 access=33152 " for a mode that went from 0100644 to 0100600, and the like
// for "ouid=" "cuid=", "ogid=" "cgid=", "olink=" "link=", "osize=" "size=", in this order. All numbers are
// decimal, each ends in a blank. Empty without a difference.
NEUTILS_API std::string GetDiff(const Attribute& oldAttr, const Attribute& newAttr);

// Stores a status of a path that the caller has read.
NEUTILS_API void RecordAttribute(const std::string& path, const Attribute& attr);

// Stores the present status of a path; the recursive one also that of the entries of a directory, one level
// deep.
NEUTILS_API void RecordAttribute(const std::string& path);
NEUTILS_API void RecordAttributeRecursive(const std::string& path);

// Forgets a path; the recursive one every path that begins with these bytes, whether a separator follows or
// not, so "/data/a" takes "/data/ab" along and an empty path takes everything.
NEUTILS_API void RemoveRecord(const std::string& path);
NEUTILS_API void RemoveRecordRecursive(const std::string& path);

// After a rename: forgets the old path and reads the new one afresh; the recursive one does so for the
// entries that the directory has now too, one level deep, and nothing at all if a path has 1024 bytes or
// more.
NEUTILS_API void UpdateFileName(const std::string& oldPath, const std::string& newPath);
NEUTILS_API void UpdateFileNameRecursive(const std::string& oldPath, const std::string& newPath);

// If a recorded file has changed: takes over its present status, appends the path, a blank and the change
// text to text, and is true. False otherwise, also for a path that is gone or not recorded.
NEUTILS_API bool UpdateAttrAndLog(const std::string& path, std::string& text);

// The same with a present status that the caller has read.
NEUTILS_API bool UpdateAttrAndLog(const std::string& path, const Attribute& attr, std::string& text);

}  // namespace NEUtils::Monitor
