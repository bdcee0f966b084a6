#pragma once

#include <linux/cn_proc.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "process/datagram_batch.h"
#include "util/unique_fd.h"

namespace NEUtils {

// A socket that listens to the process connector, with a filter in the kernel.
//
// Threads  one at a time.
class ConnectorSocket {
public:
    enum Wanted {
        kExecs,      // nothing but execs
        kProcesses,  // forks of processes without those of threads, execs, exits, changes of users and groups
    };

    ConnectorSocket() = default;
    ~ConnectorSocket();
    ConnectorSocket(const ConnectorSocket&) = delete;
    ConnectorSocket& operator=(const ConnectorSocket&) = delete;

    bool Open(Wanted wanted, std::string& reason);
    int Fd() const { return fd_.Get(); }

    // Takes what is there, at most a batch. Gives the number of datagrams, also of those that were no good; 0 for none.
    std::size_t Receive(std::vector<proc_event>& events);

    // What the kernel dropped since the last call for want of room; 1 for some if it does not count.
    std::uint64_t TakeLosses();

private:
    bool SetFilter(Wanted wanted) const;
    bool SetMode(proc_cn_mcast_op mode) const;

    UniqueFd fd_;
    std::unique_ptr<DatagramBatch> batch_ = std::make_unique<DatagramBatch>();
    DropCounter drops_;
    bool noBuffers_ = false;
};

}  // namespace NEUtils
