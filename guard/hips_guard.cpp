#include "hips_guard.h"

#include "guard/guarded_threads.h"
#include "hips_resource_manager.h"
#include "hips_thread_instance.h"
#include "logger.h"

using NEUtils::HipsGuard;

int InitHipsGuard(long memLimitKiB, int fdLimit, double cpuPercent)
{
    return HipsGuard::Get().Init(memLimitKiB, fdLimit, cpuPercent);
}

bool UninitHipsGuard(void)
{
    return HipsGuard::Get().Uninit();
}

uintptr_t CreateHipsThreadEx(int (*routine)(void*), void* arg, int timeSliceUs, const char* name)
{
    return HipsGuard::Get().Create(routine, arg, timeSliceUs, name);
}

bool StopHipsThreadEx(uintptr_t handle)
{
    const auto instance = HipsGuard::Get().Find(handle);
    if (instance == nullptr) {
        return false;
    }
    NE_LOG(DEBUG, "Stop extend thread called.");
    if (!instance->Stop()) {
        NE_LOG(ERROR, "Stop the thread failed.[tid=%lu]", instance->GetThreadId());
        return false;
    }
    return true;
}

bool FastStopHipsThreadEx(uintptr_t handle)
{
    const auto instance = HipsGuard::Get().Find(handle);
    return instance != nullptr && instance->FastStop();
}

bool FastStopAll(void)
{
    return HipsGuard::Get().FastStopAll();
}

bool CloseHipsThreadHandleEx(uintptr_t handle)
{
    return HipsGuard::Get().Close(handle);
}

bool IsHipsThreadRunningEx(uintptr_t handle)
{
    const auto instance = HipsGuard::Get().Find(handle);
    return instance != nullptr && instance->IsRunning();
}

unsigned long GetHipsThreadIdEx(uintptr_t handle)
{
    const auto instance = HipsGuard::Get().Find(handle);
    return instance == nullptr ? 0 : instance->GetThreadId();
}

bool KeepHipsThreadAlive(uintptr_t handle)
{
    return HipsGuard::Get().KeepAlive(handle);
}

bool KeepCurrentThreadAlive(void)
{
    NEUtils::HipsThreadInstance* instance = NEUtils::HipsThreadInstance::Current();
    if (instance == nullptr) {
        return false;
    }
    instance->KeepAlive();
    return true;
}

uintptr_t WatchPlainThread(const char* name, long long (*beatAgeMs)(void* arg), void* arg)
{
    return HipsGuard::Get().Watch(name, beatAgeMs, arg);
}

bool UnwatchPlainThread(uintptr_t handle)
{
    return HipsGuard::Get().Unwatch(handle);
}

bool SetResourceLimit(long memLimitKiB, int fdLimit, double cpuPercent)
{
    const auto resources = HipsGuard::Get().Resources();
    if (resources == nullptr) {
        return false;
    }
    resources->SetLimits(memLimitKiB, fdLimit, cpuPercent);
    return true;
}

double GetCpuUsage(void)
{
    const auto resources = HipsGuard::Get().Resources();
    return resources == nullptr ? 0 : resources->GetCpuUsage();
}

long GetMemoryUsage(void)
{
    const auto resources = HipsGuard::Get().Resources();
    return resources == nullptr ? 0 : resources->GetMemoryUsage();
}

int GetFdUsage(void)
{
    const auto resources = HipsGuard::Get().Resources();
    return resources == nullptr ? 0 : resources->GetFdUsage();
}
