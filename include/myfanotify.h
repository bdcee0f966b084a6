#pragma once

#include <dirent.h>
#include <sys/fanotify.h>

#include <cstddef>
#include <cstdint>

#include "neutils_api.h"

// Fanotify by functions: a record, marks on whole trees, and a loop body for a thread. FanotifyWatcher
// (fanotify_watcher.h) says what holds here too, about permission events, rights and limits.
//
// Threads  none of them locks; marks may be added while another thread runs the loop.
// Errors   logged; the functions give 0 for success and 1 for failure.
namespace NEUtils::Monitor {

// Process id, path, FAN_ bits.
using FanotifyCallback = void (*)(long, const char*, std::uint32_t);

struct FANOTIFY_EVENT {
    int fd = -1;  // the caller's to close
    FanotifyCallback callback = nullptr;
};

// What FanotifyLoop is given.
struct FANOTIFY_LOOP_CONTEXT {
    FANOTIFY_EVENT* event = nullptr;
    FanotifyCallback callback = nullptr;  // gets the events; as a rule the event's own
    int mode = 0;                         // not used
};

// Asks the kernel for a descriptor and fills the record. Without a callback it gives 1, and the descriptor
// is in the record nevertheless.
NEUTILS_API int InitFanotifyEvent(FANOTIFY_EVENT* event, FanotifyCallback callback);

// Marks a file, or a directory with its subdirectories (see FanotifyAddWatchDir) and what is directly in them.
NEUTILS_API int FanotifyAddWatch(const FANOTIFY_EVENT* event, const char* path, std::uint64_t mask);

// Marks the subdirectories of a directory, not the directory itself, as far down as a path of five '/'. The path
// should begin with one: whether an entry is a directory is looked up from the working directory, not from dirFd.
// Links are followed. The first failure ends it, and what is marked by then stays so.
NEUTILS_API int FanotifyAddWatchDir(int fd, unsigned int flags, std::uint64_t mask, int dirFd, const char* path);

// Joins a directory's path and an entry's name. 1 for "." and "..", and for what does not fit.
NEUTILS_API int FanotifyGetEntryPath(const dirent* entry, const char* dir, char* out, std::size_t size);

// The number of '/' in a path; 255 for null.
NEUTILS_API int DirLevel(const char* path);

// Waits a second for events and hands those of one read to the callback, except what the agent itself did.
// The context is a FANOTIFY_LOOP_CONTEXT. 0, or -1 if it is incomplete or the wait fails.
NEUTILS_API int FanotifyLoop(void* context);

}  // namespace NEUtils::Monitor
