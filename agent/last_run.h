#pragma once

#include <atomic>
#include <string>
#include <utility>

#include "util/unique_fd.h"

// Keeps in R/conf/agent.run how far this run has come, so that the next start can say how it ended. The file is
// removed at the end of a clean stop.
//
// Threads  Note: any, also in a signal handler. The others: the main thread.
class LastRun {
public:
    enum State { kRunning, kStopping, kHung, kCrashed };

    explicit LastRun(std::string root) : root_(std::move(root)) {}

    // Reads how the last run ended and notes that this one runs.
    void Begin();

    // How the last run ended, one sentence; empty if it stopped, or there was none.
    const std::string& GetFault() const { return fault_; }

    // Calls only what is safe in a signal handler. The signal counts for a crash, the part for a stop: the one that
    // is being stopped. What is noted last stays, but for a stop after a crash or a hang.
    void Note(State state, int signo = 0, const char* part = "");

    void End();  // of a clean stop; after a crash or a hang the file stays

private:
    std::string Read() const;

    const std::string root_;
    NEUtils::UniqueFd directory_;  // as it was at the start, whatever is done to its path meanwhile
    std::string fault_;
    std::atomic<bool> isBad_{false};  // a crash or a hang is noted
};
