#include "ipv6_socket.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <sys/socket.h>

#include <memory>

#include "logger.h"

namespace NEUtils {

namespace {

// The address of an interface as text, without its scope. Empty for other families.
std::string AddressText(const ifaddrs& entry)
{
    if (entry.ifa_addr == nullptr) {
        return {};
    }
    const int family = entry.ifa_addr->sa_family;
    const socklen_t size = family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    char host[NI_MAXHOST] = {};
    if (getnameinfo(entry.ifa_addr, size, host, sizeof(host), nullptr, 0, NI_NUMERICHOST) != 0) {
        return {};
    }
    const std::string text = host;
    return text.substr(0, text.find('%'));
}

}  // namespace

bool Ipv6Socket::Create()
{
    return CreateFamily(AF_INET6);
}

unsigned int Ipv6Socket::GetScopeForIp(const std::string& addr) const
{
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
        return 0;
    }
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> owner(list, &freeifaddrs);
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        const std::string text = AddressText(*entry);
        if (!text.empty() && text == addr) {
            return if_nametoindex(entry->ifa_name);
        }
    }
    return 0;
}

// Kept because operators rely on it: only addresses of this host's interfaces have a scope.
bool Ipv6Socket::GetNetSockAddrInfo6(const std::string& addr, int port, sockaddr_in6& address) const
{
    sockaddr_in6 found = {};
    found.sin6_family = AF_INET6;
    found.sin6_port = htons(static_cast<std::uint16_t>(port));
    if (inet_pton(AF_INET6, addr.c_str(), &found.sin6_addr) != 1) {
        return false;
    }
    found.sin6_scope_id = GetScopeForIp(addr);
    if (found.sin6_scope_id == 0) {
        return false;
    }
    address = found;
    return true;
}

bool Ipv6Socket::Bind(const std::string& addr, int port) const
{
    NE_LOG(DEBUG, "Ipv6Socket::Bind begin");
    if (fd == -1) {
        return false;
    }
    sockaddr_in6 address;
    if (!GetNetSockAddrInfo6(addr, port, address)) {
        NE_LOG(ERROR, "The parameter of IPv6 socket binding is incorrect.");
        NE_LOG(DEBUG, "The parameter of IPv6 socket binding is incorrect.");
        return false;
    }
    if (!BindAddress(&address, sizeof(address))) {
        NE_LOG(ERROR, "Bind ip [%s] and port [%d] failed.", addr.c_str(), port);
        NE_LOG(DEBUG, "Bind ip [%s] and port [%d] failed.", addr.c_str(), port);
        return false;
    }
    NE_LOG(DEBUG, "Ipv6Socket::Bind end.");
    return true;
}

bool Ipv6Socket::Connect(const std::string& addr, int port, int timeoutSeconds) const
{
    if (fd == -1) {
        return false;
    }
    sockaddr_in6 address;
    if (!GetNetSockAddrInfo6(addr, port, address)) {
        NE_LOG(ERROR, "The parameter of IPv6 socket connecting is incorrect.");
        NE_LOG(DEBUG, "The parameter of IPv6 socket connecting is incorrect.");
        return false;
    }
    return SocketConnect(reinterpret_cast<const sockaddr*>(&address), sizeof(address), timeoutSeconds);
}

}  // namespace NEUtils
