#include "guard/plain_thread_instance.h"

#include <exception>

#include "util/clock.h"

namespace NEUtils {

PlainThreadInstance::PlainThreadInstance(const std::string& name, BeatAge beatAgeMs, void* arg)
    : HipsBaseInstance(name), beatAgeMs_(beatAgeMs), arg_(arg), id_(NextId()), lastCheckNs_(Clock::MonotonicNs())
{
}

bool PlainThreadInstance::Stop()
{
    gate_.Close();
    return true;
}

unsigned int PlainThreadInstance::DoHeartBeat()
{
    const std::int64_t now = Clock::MonotonicNs();
    const std::int64_t age = GetBeatAgeMs();
    if (age < 0 || age * Clock::kNsPerMs < now - lastCheckNs_.exchange(now)) {
        KeepAlive();
    }
    return HipsBaseInstance::DoHeartBeat();
}

std::int64_t PlainThreadInstance::GetBeatAgeMs() const
{
    std::int64_t age = -1;
    try {
        gate_.Call([&] { age = beatAgeMs_(arg_); });
    } catch (const std::exception&) {  // memory has run out: the next round asks again
    }
    return age;
}

}  // namespace NEUtils
