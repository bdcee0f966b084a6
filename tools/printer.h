#pragma once

#include <cstdint>
#include <string>

#include "line_queue.h"

// The lines of standard output, in the form that was chosen.
//
// Threads  the event loop's only.
// Limits   16 MiB of reports wait for the output, 4 MiB more of other lines; what exceeds that is not printed.
class Printer {
public:
    Printer(LineQueue& lines, bool json) : lines_(lines), json_(json) {}

    bool IsJson() const { return json_; }

    // Takes a report's line, and gives the number of lines that the output must have taken for it to be
    // printed. 0: the output does not keep up, and the line is not taken.
    std::uint64_t PrintReport(const std::string& line);

    // Any other line. One that finds no room is lost, which is counted.
    void Print(const std::string& line);
    std::uint64_t GetLost() const { return lost_; }

    // Looks what the output has done; complains of its faults. Gives how many lines it has written.
    std::uint64_t Update();
    bool HasFailed() const { return hasFailed_; }

    // Once a second: an output that takes nothing for some time gets no further reports, so that agents which
    // repeat them do not fill the queue with copies.
    void CheckStall();

private:
    LineQueue& lines_;
    const bool json_;
    std::string fault_;
    std::uint64_t lost_ = 0;
    std::uint64_t written_ = 0;
    std::uint64_t writtenBefore_ = 0;  // at the last check
    int idleChecks_ = 0;               // in a row, with lines waiting
    bool hasFailed_ = false;
    bool isStalled_ = false;
};
