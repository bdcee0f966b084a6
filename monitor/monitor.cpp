#include "monitor.h"

#include <atomic>
#include <cstdint>
#include <utility>

#include "hips_guard.h"
#include "logger.h"
#include "monitor_manager.h"

namespace NEUtils {

namespace Monitor {

namespace {

constexpr int kSliceUs = 5000000;

std::mutex g_threadMutex;
std::uintptr_t g_thread = 0;
std::atomic<bool> g_stopping{false};

// Non-zero ends the thread, so that a stop need not wait for the sleep of another slice.
int Slice(void* argument)
{
    WorkThread(argument);
    return g_stopping ? 1 : 0;
}

}  // namespace

void* WorkThread(void* /*unused*/)
{
    MonitorManager::GetInstance().ReceiveEvent();
    return nullptr;
}

bool InitFileMonitor()
{
    {
        const std::lock_guard<std::mutex> lock(g_threadMutex);
        if (g_thread != 0) {
            return true;
        }
    }
    auto& manager = MonitorManager::GetInstance();
    // Kept because the thread belongs to the front end, not to one of its monitors: it starts also where a monitor's
    // Init has failed, which that monitor has logged.
    const bool initialised = manager.Init();
    g_stopping = false;
    const std::uintptr_t thread = CreateHipsThreadEx(&Slice, nullptr, kSliceUs, "FileMonitorThread");
    if (thread == 0) {
        manager.DeInit();
        NE_LOG(ERROR, "Start sending message thread failed.");  // Kept because whoever searches logs knows it so.
        return false;
    }
    {
        const std::lock_guard<std::mutex> lock(g_threadMutex);
        g_thread = thread;
    }
    NE_LOG(INFO, "File monitor initialized successfully.");
    return initialised;
}

void DeInitFileMonitor()
{
    g_stopping = true;
    MonitorManager::GetInstance().DeInit();
    std::uintptr_t thread = 0;
    {
        const std::lock_guard<std::mutex> lock(g_threadMutex);
        std::swap(thread, g_thread);
    }
    if (thread != 0) {
        StopHipsThreadEx(thread);
        CloseHipsThreadHandleEx(thread);
    }
    NE_LOG(INFO, "Monitor Manager Uninstalled.");
}

bool AddMonitor(const FileWatchRule& rule, MonitorType type)
{
    auto& manager = MonitorManager::GetInstance();
    return manager.AddWatch(rule, type) || (type == kAnyMonitor && manager.AddWatch(rule, kInotifyMonitor));
}

bool RemoveMonitor(const FileWatchRule& rule, MonitorType type)
{
    auto& manager = MonitorManager::GetInstance();
    if (type != kAnyMonitor) {
        return manager.RemoveWatch(rule, type);
    }
    // Kept because a monitor that served every type may hold a rule twice: its second answer counts. None of today's
    // does, so the inotify monitor is asked.
    if (manager.RemoveWatch(rule, kAnyMonitor)) {
        return manager.RemoveWatch(rule, kAnyMonitor);
    }
    return manager.RemoveWatch(rule, kInotifyMonitor);
}

WatchState GetWatchState(const FileWatchRule& rule)
{
    return MonitorManager::GetInstance().GetInotifyMonitor().GetWatchState(rule);
}

}  // namespace Monitor

}  // namespace NEUtils
