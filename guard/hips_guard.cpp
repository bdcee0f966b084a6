#include "hips_guard.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "config.h"
#include "hips_instance_manager.h"
#include "hips_resource_manager.h"
#include "hips_thread_instance.h"
#include "logger.h"
#include "util/errno_text.h"
#include "util/stop_signals.h"
#include "util/thread_name.h"

namespace NEUtils {

namespace {

constexpr std::chrono::seconds kCheckPeriod{60};
constexpr unsigned int kManagerPeriod = 3600;
constexpr long kDefaultMemoryKiB = 66560;
constexpr double kDefaultCpuPercent = 5.0;
constexpr double kNoCpuLimit = 1e-15;

using Instance = std::shared_ptr<HipsThreadInstance>;

class HipsGuard {
public:
    static HipsGuard& Get()
    {
        static auto& guard = *new HipsGuard;  // never destroyed: threads may call until the end
        return guard;
    }

    int Init(long memLimitKiB, int fdLimit, double cpuPercent);
    bool Uninit();
    std::uintptr_t Create(int (*routine)(void*), void* arg, int timeSliceUs, const char* name);
    bool Close(std::uintptr_t handle);
    bool KeepAlive(std::uintptr_t handle);
    bool FastStopEvery();

    // The instance of a handle; null, and an ERROR record, if there is none.
    Instance Find(std::uintptr_t handle);
    // The resource guard; null, and an ERROR record, before the guard is initialised.
    std::shared_ptr<HipsResourceManager> Resources();

private:
    enum Phase { kOff, kStarting, kOn, kEnding };

    static void* CheckRoutine(void* guard);
    void Check();
    bool SetUp(long memLimitKiB, int fdLimit, double cpuPercent);
    bool StartChecker();
    std::uintptr_t CreateHipsThread(int (*routine)(void*), void* arg, int timeSliceUs, const char* name,
                                    HipsResourceManager* resources);
    std::map<std::uintptr_t, Instance> Handles();
    bool Advance(Phase from, Phase to);  // false, and nothing changed, in another phase

    std::mutex mutex_;              // guards all below; nothing is called or logged under it
    std::condition_variable wake_;  // the phase has changed, or a thread has been made
    Phase phase_ = kOff;
    unsigned int creating_ = 0;  // threads that are being made
    std::map<std::uintptr_t, Instance> handles_;
    std::vector<Instance> closed_;  // without a handle, but still running when it was closed
    std::shared_ptr<HipsResourceManager> resources_;
    HipsInstanceManager* manager_ = nullptr;
    pthread_t checker_{};
};

int HipsGuard::Init(long memLimitKiB, int fdLimit, double cpuPercent)
{
    bool already;
    {
        std::unique_lock<std::mutex> lock(mutex_);
        wake_.wait(lock, [this] { return phase_ == kOn || phase_ == kOff; });  // another call is under way
        already = phase_ == kOn;
        phase_ = already ? kOn : kStarting;
    }
    if (already) {
        NE_LOG(INFO, "Hips guard has been initialized.");
        return 0;
    }
    const bool done = SetUp(memLimitKiB, fdLimit, cpuPercent) && StartChecker();
    Advance(kStarting, done ? kOn : kOff);
    return done ? 0 : -1;
}

bool HipsGuard::SetUp(long memLimitKiB, int fdLimit, double cpuPercent)
{
    const auto mainThread = static_cast<unsigned long>(pthread_self());
    HipsInstanceManager* manager = HipsInstanceManager::CreateInstance(mainThread, true, kManagerPeriod);
    if (manager == nullptr) {
        NE_LOG(ERROR, "Create instance manager failed.");
        return false;
    }
    manager->Configure(mainThread, true, kManagerPeriod);

    const bool given = memLimitKiB >= 1 && std::fabs(cpuPercent) >= kNoCpuLimit;
    const long memory = given ? memLimitKiB : kDefaultMemoryKiB;
    double cpu = given ? cpuPercent : kDefaultCpuPercent;
    if (std::string role; given && Config::GetConfigValue("TrivaneRole", role) && role == "broker") {
        cpu /= 2;
    }
    const std::shared_ptr<HipsResourceManager> resources(new (std::nothrow)
                                                             HipsResourceManager(mainThread, memory, cpu));
    if (resources == nullptr) {
        NE_LOG(ERROR, "Create resource manager failed.");
        return false;
    }
    resources->SetLimits(memory, fdLimit, cpu);
    resources->Update();  // so that there are figures before the checker's first round
    if (given) {
        NE_LOG(INFO, "Set self resource threshold.[cpu=%f, mem=%ld]", cpu, memLimitKiB);
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    manager_ = manager;
    resources_ = resources;
    return true;
}

bool HipsGuard::StartChecker()
{
    int result;
    {
        const StopSignalsBlocked blocked;
        result = pthread_create(&checker_, nullptr, &HipsGuard::CheckRoutine, this);
    }
    if (result != 0) {
        NE_LOG(ERROR, "Create thread failed.[errorInfo=%s]", ErrnoText(result).Get());
        return false;
    }
    return true;
}

void* HipsGuard::CheckRoutine(void* guard)
{
    SetThreadName("CheckManager");
    static_cast<HipsGuard*>(guard)->Check();
    return nullptr;
}

void HipsGuard::Check()
{
    std::unique_lock<std::mutex> lock(mutex_);
    while (phase_ != kEnding) {
        if (wake_.wait_for(lock, kCheckPeriod) == std::cv_status::no_timeout) {
            continue;
        }
        const std::shared_ptr<HipsResourceManager> resources = resources_;
        HipsInstanceManager* manager = manager_;
        lock.unlock();
        NE_LOG(DEBUG, "......CheckInstance start......");
        if (!manager->CheckInstanceList()) {
            NE_LOG(ERROR, "CheckInstance failed.");
        }
        if (!resources->Update()) {
            NE_LOG(ERROR, "Update hips resource usage failed.");
        }
        NE_LOG(DEBUG, "......CheckInstance end......");
        lock.lock();
    }
}

bool HipsGuard::Uninit()
{
    if (!Advance(kOn, kEnding)) {
        NE_LOG(ERROR, "Hips guard is not initialized.");
        return false;
    }
    std::vector<Instance> closed;
    {
        std::unique_lock<std::mutex> lock(mutex_);
        wake_.wait(lock, [this] { return creating_ == 0; });  // what is under way is in the list then
        closed.swap(closed_);
    }
    const auto handles = Handles();
    for (const auto& [handle, instance] : handles) {
        instance->FastStop();
    }
    for (const auto& [handle, instance] : handles) {
        instance->Stop();
        manager_->DeleteInstance(instance);
    }
    for (const Instance& instance : closed) {
        instance->Stop();
    }
    pthread_join(checker_, nullptr);
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        handles_.clear();
        resources_.reset();
    }
    return Advance(kEnding, kOff);
}

std::uintptr_t HipsGuard::Create(int (*routine)(void*), void* arg, int timeSliceUs, const char* name)
{
    std::shared_ptr<HipsResourceManager> resources;
    bool on;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        on = phase_ == kOn;
        creating_ += on ? 1 : 0;
        resources = resources_;
    }
    if (!on) {
        NE_LOG(ERROR, "Hips guard is not initialized.");
        return 0;
    }
    const char* threadName = name == nullptr ? "" : name;
    std::uintptr_t handle = 0;
    try {
        handle = CreateHipsThread(routine, arg, timeSliceUs, threadName, resources.get());
    } catch (const std::bad_alloc&) {
        NE_LOG(ERROR, "Create thread handle failed, not enough memory.");
    }
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        --creating_;
    }
    wake_.notify_all();
    if (handle != 0) {
        NE_LOG(DEBUG, "Create extend thread called.[name=%s]", threadName);
    }
    return handle;
}

// The handle is in the list before the thread runs: there is never a thread that nobody can stop.
std::uintptr_t HipsGuard::CreateHipsThread(int (*routine)(void*), void* arg, int timeSliceUs, const char* name,
                                           HipsResourceManager* resources)
{
    std::unique_ptr<HipsThreadObject> object(new (std::nothrow) HipsThreadObject(routine, arg, timeSliceUs));
    if (object == nullptr) {
        NE_LOG(ERROR, "Create thread object failed, not enough memory.");
        return 0;
    }
    const std::shared_ptr<HipsThreadInstance> instance(new (std::nothrow) HipsThreadInstance(object.get(), name));
    if (instance == nullptr) {
        NE_LOG(ERROR, "Alloc instance memory failed.");
        return 0;
    }
    static_cast<void>(object.release());
    const auto handle = static_cast<std::uintptr_t>(instance->GetId());
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        handles_[handle] = instance;
    }
    if (!manager_->AddInstance(instance, resources)) {
        NE_LOG(ERROR, "Add instance failed.");
        NE_LOG(ERROR, "Create thread failed.[name=%s]", name);
        const std::lock_guard<std::mutex> lock(mutex_);
        handles_.erase(handle);
        return 0;
    }
    return handle;
}

bool HipsGuard::Close(std::uintptr_t handle)
{
    const Instance instance = Find(handle);
    if (instance == nullptr) {
        NE_LOG(ERROR, "Invalid extend thread handle.");
        return false;
    }
    NE_LOG(DEBUG, "Close extend thread handle called.");
    instance->LetGo();
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        handles_.erase(handle);
        // Those that still run are waited for at the end of the guard.
        closed_.erase(
            std::remove_if(closed_.begin(), closed_.end(), [](const Instance& old) { return old->HasEnded(); }),
            closed_.end());
        if (!instance->HasEnded()) {
            closed_.push_back(instance);
        }
    }
    return manager_->DeleteInstance(instance);
}

bool HipsGuard::FastStopEvery()
{
    if (Resources() == nullptr) {
        return false;
    }
    for (const auto& [handle, instance] : Handles()) {
        instance->FastStop();
    }
    return true;
}

Instance HipsGuard::Find(std::uintptr_t handle)
{
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto found = handles_.find(handle);
        if (found != handles_.end()) {
            return found->second;
        }
    }
    NE_LOG(ERROR, "Hips guard is not initialized or invalid thread handle.");
    return nullptr;
}

std::shared_ptr<HipsResourceManager> HipsGuard::Resources()
{
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (phase_ == kOn || phase_ == kEnding) {
            return resources_;
        }
    }
    NE_LOG(ERROR, "Hips guard is not initialized.");
    return nullptr;
}

bool HipsGuard::KeepAlive(std::uintptr_t handle)
{
    const Instance instance = Find(handle);
    if (instance == nullptr) {
        return false;
    }
    manager_->KeepAlive(instance);
    return true;
}

std::map<std::uintptr_t, Instance> HipsGuard::Handles()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return handles_;
}

bool HipsGuard::Advance(Phase from, Phase to)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (phase_ != from) {
        return false;
    }
    phase_ = to;
    wake_.notify_all();
    return true;
}

}  // namespace

}  // namespace NEUtils

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
    return HipsGuard::Get().FastStopEvery();
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
