#pragma once

#include "base_socket.h"

namespace NEUtils {

// A local (UNIX domain) socket. The address is a path of at most 107 characters; a longer one fails without a
// log record. Ports and time limits are ignored. In the whole process there is at most one ERROR record in 30
// minutes for Bind and one for Connect; each failure has a DEBUG record.
class NEUTILS_API UNIXSocket : public BaseSocket {
public:
    bool Create() override;
    // First removes the file that has this path. The umask decides about the mode of the socket file.
    bool Bind(const std::string& path, int port) const override;
    bool Connect(const std::string& path, int port, int timeoutSeconds) const override;
};

}  // namespace NEUtils
