#include "monitor_manager.h"

namespace NEUtils {

MonitorObject::~MonitorObject() = default;

MonitorManager& MonitorManager::GetInstance()
{
    static auto& manager = *new MonitorManager;
    return manager;
}

bool MonitorManager::Init()
{
    const bool initialised = inotify_.Init();
    const std::lock_guard<std::mutex> lock(mutex_);
    monitors_.insert(&inotify_);
    return initialised;
}

void MonitorManager::DeInit()
{
    inotify_.DeInit();
    const std::lock_guard<std::mutex> lock(mutex_);
    monitors_.clear();
}

MonitorObject* MonitorManager::GetMonitor(Monitor::MonitorType type)
{
    return type == Monitor::kInotifyMonitor ? &inotify_ : nullptr;
}

bool MonitorManager::AddWatch(const Monitor::FileWatchRule& rule, Monitor::MonitorType type)
{
    MonitorObject* monitor = GetMonitor(type);
    return monitor != nullptr && monitor->AddRule(rule);
}

bool MonitorManager::RemoveWatch(const Monitor::FileWatchRule& rule, Monitor::MonitorType type)
{
    MonitorObject* monitor = GetMonitor(type);
    return monitor != nullptr && monitor->RemoveRule(rule);
}

void MonitorManager::ReceiveEvent()
{
    std::set<MonitorObject*> monitors;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        monitors = monitors_;
    }
    for (MonitorObject* monitor : monitors) {
        monitor->ReadEvent();
    }
}

}  // namespace NEUtils
