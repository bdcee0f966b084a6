#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "event.h"
#include "known_processes.h"
#include "process_record.h"
#include "repeats.h"
#include "report_messages.h"

// Which processes are reported.
struct ProcessLogSettings {
    bool executed = true;
    bool ended = true;
    std::vector<std::string> excludes;  // shell patterns of command lines that are left out
    std::uint64_t repeats = 100;        // of one program by one parent in a second; more are summed up, 0: never
};

// Turns the records of a process tracer into log records and reports.
//
// The agent's own children (gzip for a roll, for one) are left out: a record about them could make the next roll,
// and that the next record, without end.
//
// Threads  one: the tracer's, once it has started. LogRepeats, Stop and GetLeftOutCount: any.
class ProcessLog {
public:
    explicit ProcessLog(ProcessLogSettings settings) : settings_(std::move(settings)), repeats_(settings_.repeats) {}

    void Handle(const NEUtils::ProcessRecord& record);

    // Compares the known processes with /proc: at the start, and after lost records.
    void CompareWithProc() { processes_.CompareWithProc(); }

    // Logs and reports what was only counted since the last call; to be called about once a second.
    void LogRepeats();

    // Has a comparison given up.
    void Stop() { processes_.Stop(); }

    std::uint64_t GetLeftOutCount() const { return leftOut_; }  // starts and ends that were not logged, by policy

private:
    using Process = KnownProcesses::Entry;

    void OnExec(const NEUtils::ProcessRecord& record);
    void OnExit(const NEUtils::ProcessRecord& record);
    bool IsLeftOut(const Process& process, bool isWanted);
    bool Admit(NEUtils::ProcessEvent kind, const NEUtils::ProcessRecord& record, const Process& process);
    void AddProcess(const NEUtils::ProcessRecord& record, const Process& process, Event& event) const;

    const ProcessLogSettings settings_;
    Repeats repeats_;
    KnownProcesses processes_;
    std::atomic<std::uint64_t> leftOut_{0};
};
