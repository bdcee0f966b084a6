#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "output.h"
#include "util/unique_fd.h"

// Lines on their way to an output. A thread of the queue writes them, so whoever adds one never waits. Those that
// come within 10 ms are written together.
//
// Threads  Add and the questions: any. Start, WaitUntilWritten and Stop: the owner's.
// Blocks   Add never. Stop: half a second at most.
// Limits   bytes that wait, those under way counted.
// Errors   a passing fault of the output is tried again every second; after a final one nothing is taken.
class LineQueue {
public:
    struct Progress {
        std::uint64_t written = 0;  // lines that the output has wholly taken
        std::string fault;          // of the last try
        bool hasFailed = false;     // for good
    };

    explicit LineQueue(Output& output) : output_(output) {}
    ~LineQueue();
    LineQueue(const LineQueue&) = delete;
    LineQueue& operator=(const LineQueue&) = delete;

    // False: no thread or no descriptor to be had. The name is the thread's.
    bool Start(const char* name);

    // Adds a line without its end. Gives how many lines that makes in all, or 0 if more than limit bytes would
    // wait then, and it is not added.
    std::uint64_t Add(std::string_view line, std::size_t limit);

    std::uint64_t CountAdded() const;
    Progress GetProgress() const;

    // Readable whenever there is progress; ClearWake makes it unreadable again.
    int GetWakeFd() const { return wake_.Get(); }
    void ClearWake();

    // At the end. True once all lines are written; false at the deadline and after a final fault.
    bool WaitUntilWritten(std::chrono::steady_clock::time_point deadline);

    // Ends the thread, with a write that blocks cut short. False if it cannot be ended: it hangs in the kernel.
    bool Stop();

private:
    void Run();
    void WriteAll(std::string_view rest);
    bool Record(std::string_view taken, const Output::Result& result);
    void Wake();

    Output& output_;
    NEUtils::UniqueFd wake_;
    std::atomic<bool> isAwake_{false};
    std::thread thread_;

    mutable std::mutex mutex_;  // of what follows
    std::condition_variable changed_;
    std::string lines_;
    std::size_t bytes_ = 0;  // of lines_ and those being written
    std::uint64_t added_ = 0;
    Progress progress_;
    bool closing_ = false;  // the thread rests no more
    bool stopping_ = false;
    bool finished_ = false;
};
