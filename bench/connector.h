#pragma once

#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <ctime>

// The process connector without a library around it.
namespace Connector {

// A socket that listens to process events, or -1.
inline int Open()
{
    const int fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_CONNECTOR);
    const int size = 0x8000000;
    const timeval wait = {0, 500000};
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = CN_IDX_PROC;
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size)) != 0 ||
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof(wait)) != 0 ||
        bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        return -1;
    }
    nlmsghdr header = {};
    cn_msg connector = {};
    const std::uint32_t mode = PROC_CN_MCAST_LISTEN;
    header.nlmsg_len = sizeof(header) + sizeof(connector) + sizeof(mode);
    header.nlmsg_type = NLMSG_DONE;
    connector.id = {CN_IDX_PROC, CN_VAL_PROC};
    connector.len = sizeof(mode);
    iovec pieces[] = {
        {&header, sizeof(header)}, {&connector, sizeof(connector)}, {const_cast<std::uint32_t*>(&mode), sizeof(mode)}};
    return writev(fd, pieces, 3) < 0 ? -1 : fd;
}

// Hands the kind of each event to the function, in batches as the library's monitor takes them.
template <typename Function>
void Read(int fd, const std::atomic<bool>& running, Function function)
{
    static std::array<std::array<unsigned char, 272>, 100> data;
    std::array<iovec, 100> pieces;
    std::array<mmsghdr, 100> headers = {};
    for (std::size_t i = 0; i < headers.size(); ++i) {
        pieces[i] = {data[i].data(), data[i].size()};
        headers[i].msg_hdr.msg_iov = &pieces[i];
        headers[i].msg_hdr.msg_iovlen = 1;
    }
    while (running) {
        const int count = recvmmsg(fd, headers.data(), headers.size(), MSG_WAITFORONE, nullptr);
        for (int i = 0; i < count; ++i) {
            std::uint32_t what = 0;
            std::memcpy(&what, data[static_cast<std::size_t>(i)].data() + sizeof(nlmsghdr) + sizeof(cn_msg),
                        sizeof(what));
            function(what);
        }
        const timespec rest = {0, 20000000};
        nanosleep(&rest, nullptr);
    }
}

}  // namespace Connector
