#pragma once

#include <signal.h>

#include "util/unique_fd.h"

// The signals that stop the agent. They are blocked on every thread and read from a descriptor by the main thread:
// a handler could interrupt a log record, whose lock the stop needs.
//
// Threads  the main thread.
class Signals {
public:
    // Before the first thread is made. Whatever the process was started with does not count afterwards.
    static void Block();

    bool Open();
    int GetFd() const { return fd_.Get(); }  // readable when a signal has come

    // Takes one signal that has come; 0 where none has.
    int Take() const;

private:
    NEUtils::UniqueFd fd_;
};
