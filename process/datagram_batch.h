#pragma once

#include <linux/cn_proc.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>

#include "process/proc_event_decoder.h"

namespace NEUtils {

// One batch of datagrams of the process connector, with their senders.
class DatagramBatch {
public:
    static constexpr std::size_t kSize = 100;
    static constexpr std::size_t kDatagramSize = 272;

    DatagramBatch()
    {
        for (std::size_t i = 0; i < kSize; ++i) {
            pieces_[i] = {data_[i].data(), data_[i].size()};
            headers_[i].msg_hdr.msg_iov = &pieces_[i];
            headers_[i].msg_hdr.msg_iovlen = 1;
            headers_[i].msg_hdr.msg_name = &senders_[i];
        }
    }

    // The number of datagrams that were there; -1 with errno set.
    int Receive(int fd)
    {
        for (mmsghdr& header : headers_) {
            header.msg_hdr.msg_namelen = sizeof(sockaddr_nl);
        }
        return recvmmsg(fd, headers_.data(), kSize, MSG_DONTWAIT, nullptr);
    }

    // The event of one received datagram; false if it is cut or not the kernel's.
    bool Decode(std::size_t i, proc_event& event) const
    {
        const bool fromKernel = headers_[i].msg_hdr.msg_namelen == sizeof(sockaddr_nl) && senders_[i].nl_pid == 0;
        return fromKernel && (headers_[i].msg_hdr.msg_flags & MSG_TRUNC) == 0 &&
               DecodeProcEvent(data_[i].data(), headers_[i].msg_len, event);
    }

private:
    std::array<std::array<unsigned char, kDatagramSize>, kSize> data_{};
    std::array<iovec, kSize> pieces_{};
    std::array<sockaddr_nl, kSize> senders_{};
    std::array<mmsghdr, kSize> headers_{};
};

// Asks how many datagrams the kernel dropped because the socket's buffer was full.
class DropCounter {
public:
    // Gives those since the last call. False: the kernel does not count them.
    bool Take(int fd, std::uint32_t& drops)
    {
        std::uint32_t info[SK_MEMINFO_VARS] = {};
        socklen_t length = sizeof(info);
        if (getsockopt(fd, SOL_SOCKET, SO_MEMINFO, info, &length) != 0 ||
            length <= SK_MEMINFO_DROPS * sizeof(info[0])) {
            return false;
        }
        drops = info[SK_MEMINFO_DROPS] - seen_;
        seen_ = info[SK_MEMINFO_DROPS];
        return true;
    }

private:
    std::uint32_t seen_ = 0;
};

}  // namespace NEUtils
