#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "process/connector_socket.h"
#include "process/proc_directory.h"

namespace NEUtils {

// Looks at /proc the moment that a program starts, on a thread that does nothing else, and keeps what it saw until
// somebody asks for it. An event has the same time on every socket of the connector, so process and time name it.
//
// Threads  "process-reader" looks, under SCHED_FIFO where that may be; Take belongs to one other.
class ExecReader {
public:
    ~ExecReader();

    bool Open(int priority, std::string& reason);
    void RequestStop();

    // What was seen of this exec. False if nothing was, or maybe the program that came next; waits a short while if the
    // reader is behind.
    bool Take(int pid, std::uint64_t timeNs, ProcessRecord& record);

private:
    using Key = std::pair<std::uint64_t, int>;

    struct Look {
        ProcessRecord record;
        ProcStat stat;
        std::uint64_t endNs = 0;
        bool isGood = false;

        std::size_t Size() const { return record.argsSize + record.args.size() * sizeof(std::string); }
    };
    using Looks = std::map<Key, Look>;

    void Run(int priority);
    void TryToLookAt(int pid, std::uint64_t timeNs);
    void LookAt(int pid, std::uint64_t timeNs);
    void SetReached(std::uint64_t timeNs);
    void Keep(const Key& key, Look look);
    void Forget(Looks::iterator look);

    ConnectorSocket socket_;
    UniqueFd stop_;
    std::atomic<bool> running_{false};
    std::thread thread_;
    std::vector<proc_event> events_;  // of that thread

    std::mutex mutex_;
    std::condition_variable came_;
    Looks looks_;
    std::size_t looksSize_ = 0;          // of their arguments
    std::unordered_map<int, Key> last_;  // of each process among them
    std::uint64_t reachedNs_ = 0;        // events up to this time were looked at, if they came
};

// The clock of the connector's events.
std::uint64_t ConnectorNow();

}  // namespace NEUtils
