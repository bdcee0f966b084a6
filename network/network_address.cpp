#include <arpa/inet.h>

#include "connection_tracer.h"

namespace NEUtils {

std::string ConnectionTracer::GetAddressText(const NetworkAddress& address)
{
    char text[INET6_ADDRSTRLEN] = {};
    const char* const result = inet_ntop(address.family, address.bytes.data(), text, sizeof(text));
    return result == nullptr ? "" : result;
}

}  // namespace NEUtils
