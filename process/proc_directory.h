#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>

#include "process_record.h"
#include "util/unique_fd.h"

namespace NEUtils {

inline constexpr std::uint32_t kHostPidNs = 0xEFFFFFFCU;  // fixed in the kernel

// The mount namespace of the host's first process; the own one where nobody may look at that process's.
std::uint32_t HostMountNs();

// What /proc/<pid>/stat says, as far as the tracer asks.
struct ProcStat {
    std::string comm;
    char state = '?';
    int parentPid = 0;
    int threads = 0;
    std::uint64_t startNs = 0;     // to 10 ms
    std::uint64_t stackStart = 0;  // this and the next are 0 where the reader lacks the right to know
    std::uint64_t argsStart = 0;
    std::uint64_t argsEnd = 0;

    // True if both were read from the same program, not one before and one after an exec.
    bool IsSameProgram(const ProcStat& other) const
    {
        return stackStart != 0 && stackStart == other.stackStart && argsStart == other.argsStart;
    }
};

// The directory of one process in /proc. Everything is read below one descriptor, so it cannot come from another
// process that got the same id meanwhile.
//
// Errors  false, or an empty text, once the process is gone.
class ProcDirectory {
public:
    explicit ProcDirectory(int pid);

    bool IsOpen() const { return fd_.IsValid(); }
    int Fd() const { return fd_.Get(); }

    bool ReadStat(ProcStat& stat) const;
    std::string ReadLink(const char* name) const;
    std::string ReadText(const char* name, std::size_t limit) const;

    // True if the process started at this time, give or take what /proc rounds.
    bool StartedAt(std::uint64_t startNs) const;

    // Everything but kind and time. What is lost first with the end of a process is read first.
    bool ReadRecord(ProcessRecord& record, ProcStat& stat) const;

    std::string ReadContainerId() const;

    // The path of the executable, without the mark that a deleted one gets.
    std::string ReadExecutable(struct stat& file) const;

private:
    bool ReadProgram(ProcessRecord& record) const;
    bool ReadStatus(ProcessRecord& record) const;
    void ReadIdentity(ProcessRecord& record) const;
    std::uint32_t ReadNumber(const char* name) const;
    std::uint32_t ReadNamespace(const char* name) const;

    UniqueFd fd_;
};

// Looks up what was given relative to a working directory or as a descriptor, while the process lives and still runs
// the same program.
void ResolvePaths(ProcessRecord& record);

// Start times of the same process from two sources: /proc rounds, and an event comes a little later.
bool IsSameStart(std::uint64_t one, std::uint64_t other);

}  // namespace NEUtils
