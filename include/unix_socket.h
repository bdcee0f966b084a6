#pragma once

#include "base_socket.h"

namespace NEUtils {

// A local (UNIX domain) socket; the address is a path of at most 107 characters, and a longer one fails
// without a record. Ports and time limits are ignored. ERROR records come at most every 30 minutes, once
// for binding and once for connecting in the whole process; DEBUG records always.
class NEUTILS_API UNIXSocket : public BaseSocket {
public:
    bool Create() override;
    // Removes what has the path first. The mode of the socket file is left to the umask.
    bool Bind(const std::string& path, int port) const override;
    bool Connect(const std::string& path, int port, int timeoutSeconds) const override;
};

}  // namespace NEUtils
