#pragma once

#include "util/unique_fd.h"

// The signals that steer the agent. They are blocked on every thread and read from descriptors by the main thread:
// a handler could interrupt a log record, whose lock the stop needs. SIGTERM is one of them, with its default
// action, since the frame ends the process by it once the stop is done.
//
// Threads  the main thread.
class Signals {
public:
    struct Stop {
        int signo = 0;
        bool isOfGuard = false;  // this process has sent it itself: a thread hangs
    };

    // Before the first thread is made. Whatever the process was started with does not count afterwards.
    static void Block();

    bool Open();
    int GetStopFd() const { return stops_.Get(); }      // readable when a stop signal has come
    int GetReloadFd() const { return reloads_.Get(); }  // readable when a SIGHUP has come

    // Take a signal that has come; false where none has.
    bool TakeStop(Stop& stop) const;
    bool TakeReload() const;

private:
    NEUtils::UniqueFd stops_;
    NEUtils::UniqueFd reloads_;
};
