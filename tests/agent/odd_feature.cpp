// A feature that does what its policy says, the worst included.
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <thread>

#include "feature_counters.h"
#include "logger.h"
#include "module_entry.h"

namespace {

bool g_hangs = false;

bool Wants(const char* policy, const char* what)
{
    return std::strstr(policy, what) != nullptr;
}

}  // namespace

int InitModule(void)
{
    return 1;
}

int StartModule(const char* policy)
{
    auto& counters = NEUtils::FeatureCounters::Of("odd");
    counters.lost = Wants(policy, "lost") ? 7 : 0;
    counters.lacking = Wants(policy, "lacking") ? 2 : 0;
    counters.waiting = Wants(policy, "waiting") ? 1 : 0;
    counters.overflows = Wants(policy, "overflow") ? 1 : 0;
    ++counters.seen;  // how often it has been started
    g_hangs = Wants(policy, "hang-stop");
    if (Wants(policy, "crash")) {
        raise(SIGSEGV);
    }
    if (Wants(policy, "fail")) {
        NE_LOG(ERROR, "It fails as told.");
        return 0;
    }
    return 1;
}

int StopModule(const char*)
{
    while (g_hangs) {
        pause();
    }
    return 1;
}

int DeinitModule(void)
{
    return 1;
}
