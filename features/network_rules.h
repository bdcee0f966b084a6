#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "connection_record.h"

// Which connections a line of a policy means: those with a network and those of some ports.
struct NetworkRule {
    struct Ports {
        std::uint16_t first = 0;
        std::uint16_t last = 0;
    };

    NEUtils::NetworkAddress network;  // without a family: any
    unsigned int prefix = 0;          // its bits
    std::vector<Ports> ports;         // none: any
};

// Reads a rule, "NETWORK;ports=N,M-O" (docs/FORMATS.md). Gives what is wrong with it, or nothing. What can never match
// is wrong.
std::string ParseNetworkRule(const std::string& text, NetworkRule& rule);

// The network is looked for in the other side's address, of a listener in its own; the port is that of the service:
// where a process connects to, or what it listens at.
bool Matches(const NetworkRule& rule, const NEUtils::ConnectionRecord& record);
