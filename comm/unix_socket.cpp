#include "unix_socket.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <iterator>

#include "logger.h"
#include "util/bounded.h"
#include "util/clock.h"
#include "util/rate_limiter.h"

namespace NEUtils {

namespace {

constexpr std::int64_t kErrorPeriodMs = 1800000;

// Of the two ERROR records of this file, each for the whole process.
RateLimiter g_bindErrors(kErrorPeriodMs);
RateLimiter g_connectErrors(kErrorPeriodMs);

bool Allow(RateLimiter& limiter)
{
    return limiter.Allow(Clock::MonotonicNs() / Clock::kNsPerMs);
}

bool MakeAddress(const std::string& path, sockaddr_un& address, socklen_t& size)
{
    address = {};
    address.sun_family = AF_UNIX;
    // Kept because peers see this length: it ends with the path, not with the structure.
    size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    return path.size() < std::size(address.sun_path) &&
           strcpy_s(address.sun_path, std::size(address.sun_path), path.c_str()) == 0;
}

}  // namespace

bool UNIXSocket::Create()
{
    return CreateFamily(AF_UNIX);
}

bool UNIXSocket::Bind(const std::string& path, int /*port*/) const
{
    sockaddr_un address;
    socklen_t size = 0;
    if (fd == -1 || !MakeAddress(path, address, size)) {
        return false;
    }
    NE_LOG(DEBUG, "Domain socket bind path is %s.", path.c_str());
    if (unlink(path.c_str()) != 0) {  // kept because operators know it: a record also for a fresh path
        const int error = errno;
        NE_LOG(WARN, "Failed to remove the soft link of the file.[file=%s, errno=%d]", path.c_str(), error);
    }
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), size) == 0) {
        return true;
    }
    if (Allow(g_bindErrors)) {
        NE_LOG(ERROR, "Domain socket bind failed. Bind path is [%s].", path.c_str());
    }
    NE_LOG(DEBUG, "Domain socket bind failed. Bind path is [%s].", path.c_str());
    return false;
}

bool UNIXSocket::Connect(const std::string& path, int /*port*/, int /*timeoutSeconds*/) const
{
    sockaddr_un address;
    socklen_t size = 0;
    if (fd == -1 || !MakeAddress(path, address, size)) {
        return false;
    }
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), size) == 0) {
        return true;
    }
    if (Allow(g_connectErrors)) {
        NE_LOG(ERROR, "Domain socket connects failed. Connection socket path is [%s].", path.c_str());
    }
    NE_LOG(DEBUG, "Domain socket connects failed. Connection socket path is [%s].", path.c_str());
    return false;
}

}  // namespace NEUtils
