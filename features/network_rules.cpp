#include "network_rules.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstddef>

#include "util/key_lines.h"
#include "util/text.h"

namespace {

using NEUtils::ConnectionRecord;
using NEUtils::NetworkAddress;

constexpr char kPorts[] = "ports=";
constexpr std::uint64_t kMostPort = 65535;

// Beyond the prefix no bit is set.
bool IsWhole(const NetworkAddress& network, unsigned int prefix)
{
    for (std::size_t bit = prefix; bit < network.bytes.size() * 8; ++bit) {
        if ((network.bytes[bit / 8] & (0x80U >> (bit % 8))) != 0) {
            return false;
        }
    }
    return true;
}

bool Contains(const NetworkAddress& network, unsigned int prefix, const NetworkAddress& address)
{
    const std::size_t whole = prefix / 8;
    const unsigned int mask = 0xFF00U >> (prefix % 8) & 0xFFU;
    return network.family == address.family &&
           std::equal(network.bytes.begin(), network.bytes.begin() + static_cast<std::ptrdiff_t>(whole),
                      address.bytes.begin()) &&
           (mask == 0 || ((network.bytes[whole] ^ address.bytes[whole]) & mask) == 0);
}

std::string ParseNetwork(const std::string& text, NetworkRule& rule)
{
    const std::size_t slash = text.find('/');
    const std::string address = text.substr(0, slash);
    NetworkAddress& network = rule.network;
    network.family = address.find(':') == std::string::npos ? AF_INET : AF_INET6;
    if (inet_pton(network.family, address.c_str(), network.bytes.data()) != 1) {
        return "has a network that is neither *, nor an address, nor ADDRESS/BITS, '" + text + "'";
    }
    const std::uint64_t most = network.family == AF_INET ? 32 : 128;
    std::uint64_t prefix = most;
    const std::string fault =
        slash == std::string::npos ? "" : NEUtils::ReadNumber(text.substr(slash + 1), most, prefix);
    rule.prefix = static_cast<unsigned int>(prefix);
    if (!fault.empty()) {
        return "has a network whose size " + fault;
    }
    if (!IsWhole(network, rule.prefix)) {
        return "has a network with bits beyond its size";
    }
    const NetworkAddress mapped = {AF_INET6, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF}};
    return rule.prefix >= 96 && Contains(mapped, 96, network) ? "has a network to be written as one of IPv4" : "";
}

std::string ParsePorts(const std::string& text, std::vector<NetworkRule::Ports>& ports)
{
    for (const std::string& range : NEUtils::StringProcess::StrSplit(text, ",")) {
        const std::size_t dash = range.find('-');
        std::uint64_t first = 0;
        std::uint64_t last = 0;
        if (!NEUtils::ReadNumber(range.substr(0, dash), kMostPort, first).empty() ||
            !NEUtils::ReadNumber(dash == std::string::npos ? range : range.substr(dash + 1), kMostPort, last).empty() ||
            last < first) {
            return "has ports that are neither a number up to 65535 nor FIRST-LAST, '" + range + "'";
        }
        ports.push_back({static_cast<std::uint16_t>(first), static_cast<std::uint16_t>(last)});
    }
    return {};
}

}  // namespace

std::string ParseNetworkRule(const std::string& text, NetworkRule& rule)
{
    const std::vector<std::string> parts = NEUtils::StringProcess::StrSplit(text, ";");
    std::string fault = parts[0] == "*" ? "" : ParseNetwork(parts[0], rule);
    for (std::size_t i = 1; i < parts.size() && fault.empty(); ++i) {
        fault = parts[i].rfind(kPorts, 0) == 0 ? ParsePorts(parts[i].substr(sizeof(kPorts) - 1), rule.ports)
                                               : "has an unknown option '" + parts[i] + "'";
    }
    return fault;
}

bool Matches(const NetworkRule& rule, const ConnectionRecord& record)
{
    const bool isListener = record.kind == ConnectionRecord::kListen || record.kind == ConnectionRecord::kListenEnd;
    const std::uint16_t port = record.kind == ConnectionRecord::kConnect ? record.remotePort : record.localPort;
    const auto has = [port](const NetworkRule::Ports& range) { return port >= range.first && port <= range.last; };
    return (rule.network.family == 0 ||
            Contains(rule.network, rule.prefix, isListener ? record.local : record.remote)) &&
           (rule.ports.empty() || std::any_of(rule.ports.begin(), rule.ports.end(), has));
}
