// Stands for connection_tracer.cpp in a library that is built without trace programs.
#include "connection_tracer.h"
#include "logger.h"

namespace NEUtils {

class ConnectionTracer::Session {};

ConnectionTracer::ConnectionTracer() = default;
ConnectionTracer::~ConnectionTracer() = default;

// The same function as with the programs. NOLINTNEXTLINE(performance-unnecessary-value-param)
bool ConnectionTracer::Start(const Settings&, Callback, LossCallback)
{
    NE_LOG(ERROR, "Fail to start the network tracer.[reason=built without trace programs]");
    return false;
}

void ConnectionTracer::Stop() {}

bool ConnectionTracer::IsRunning() const
{
    return false;
}

ConnectionTracer::Counts ConnectionTracer::GetCounts() const
{
    return {};
}

long long ConnectionTracer::GetBeatAgeMs() const
{
    return -1;
}

}  // namespace NEUtils
