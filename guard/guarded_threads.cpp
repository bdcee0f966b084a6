#include "guard/guarded_threads.h"

#include <pthread.h>

#include <algorithm>
#include <cmath>
#include <exception>
#include <new>
#include <string>

#include "config.h"
#include "guard/guard_log.h"
#include "hips_instance_manager.h"
#include "hips_resource_manager.h"
#include "util/errno_text.h"

namespace NEUtils {

namespace {

constexpr unsigned int kManagerPeriod = 3600;
constexpr long kDefaultMemoryKiB = 66560;
constexpr double kDefaultCpuPercent = 5.0;
constexpr double kNoCpuLimit = 1e-15;

void LogNotInitialised()
{
    GUARD_LOG(ERROR, "Hips guard is not initialized.");
}

}  // namespace

HipsGuard& HipsGuard::Get()
{
    alignas(HipsGuard) static unsigned char memory[sizeof(HipsGuard)];
    static auto& guard = *new (memory) HipsGuard;  // never destroyed: threads may call until the end
    return guard;
}

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
        GUARD_LOG(INFO, "Hips guard has been initialized.");
        return 0;
    }
    bool done = false;
    try {
        done = SetUp(memLimitKiB, fdLimit, cpuPercent) && StartChecker();
    } catch (const std::exception&) {  // memory has run out
        GUARD_LOG(ERROR, "Create resource manager failed.");
    }
    Advance(kStarting, done ? kOn : kOff);
    return done ? 0 : -1;
}

bool HipsGuard::SetUp(long memLimitKiB, int fdLimit, double cpuPercent)
{
    const auto mainThread = static_cast<unsigned long>(pthread_self());
    HipsInstanceManager* manager = HipsInstanceManager::CreateInstance(mainThread, true, kManagerPeriod);
    if (manager == nullptr) {
        GUARD_LOG(ERROR, "Create instance manager failed.");
        return false;
    }
    manager->Configure(mainThread, true, kManagerPeriod);

    const bool given = memLimitKiB >= 1 && std::fabs(cpuPercent) >= kNoCpuLimit;
    const long memory = given ? memLimitKiB : kDefaultMemoryKiB;
    double cpu = given ? cpuPercent : kDefaultCpuPercent;
    if (std::string role; given && Config::GetConfigValue("TrivaneRole", role) && role == "broker") {
        cpu /= 2;
    }
    const auto resources = std::make_shared<HipsResourceManager>(mainThread, memory, cpu);
    resources->SetLimits(memory, fdLimit, cpu);
    resources->Update();  // so that there are figures before the checker's first round
    if (given) {
        GUARD_LOG(INFO, "Set self resource threshold.[cpu=%f, mem=%ld]", cpu, memLimitKiB);
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    manager_ = manager;
    resources_ = resources;
    return true;
}

bool HipsGuard::StartChecker()
{
    int error = 0;
    if (!checker_.Start(*manager_, resources_, error)) {
        GUARD_LOG(ERROR, "Create thread failed.[errorInfo=%s]", ErrnoText(error).Get());
        return false;
    }
    return true;
}

bool HipsGuard::Uninit()
{
    if (!Advance(kOn, kEnding)) {
        LogNotInitialised();
        return false;
    }
    {
        std::unique_lock<std::mutex> lock(mutex_);
        wake_.wait(lock, [this] { return creating_ == 0; });  // nothing is added from here on
        for (const auto& [handle, instance] : handles_) {
            instance->FastStop();  // all of them first: so their last sleeps run side by side
        }
    }
    StopEach(handles_);
    StopClosed();  // also those whose handles were closed meanwhile
    StopEach(watched_);
    checker_.Stop();  // last: until here it ends the process where a thread does not stop
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        resources_.reset();
    }
    return Advance(kEnding, kOff);
}

template <typename Instance>
void HipsGuard::StopEach(ByHandle<Instance>& list)
{
    for (;;) {
        std::shared_ptr<Instance> instance;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            if (list.empty()) {
                return;
            }
            instance = list.begin()->second;
        }
        instance->Stop();
        Release(list, instance);
    }
}

void HipsGuard::StopClosed()
{
    for (;;) {
        ThreadPtr instance;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            if (closed_.empty()) {
                return;
            }
            instance = closed_.back();
            closed_.pop_back();
        }
        instance->Stop();
    }
}

bool HipsGuard::BeginCreating(std::shared_ptr<HipsResourceManager>& resources)
{
    bool on;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        on = phase_ == kOn;
        creating_ += on ? 1 : 0;
        resources = resources_;
    }
    if (!on) {
        LogNotInitialised();
    }
    return on;
}

void HipsGuard::EndCreating()
{
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        --creating_;
    }
    wake_.notify_all();
}

std::uintptr_t HipsGuard::Create(int (*routine)(void*), void* arg, int timeSliceUs, const char* name)
{
    std::shared_ptr<HipsResourceManager> resources;
    if (!BeginCreating(resources)) {
        return 0;
    }
    const char* threadName = name == nullptr ? "" : name;
    std::uintptr_t handle = 0;
    try {
        handle = CreateHipsThread(routine, arg, timeSliceUs, threadName, resources.get());
    } catch (const std::bad_alloc&) {
        GUARD_LOG(ERROR, "Create thread handle failed, not enough memory.");
    }
    EndCreating();
    if (handle != 0) {
        GUARD_LOG(DEBUG, "Create extend thread called.[name=%s]", threadName);
    }
    return handle;
}

std::uintptr_t HipsGuard::CreateHipsThread(int (*routine)(void*), void* arg, int timeSliceUs, const char* name,
                                           HipsResourceManager* resources)
{
    std::unique_ptr<HipsThreadObject> object(new (std::nothrow) HipsThreadObject(routine, arg, timeSliceUs));
    if (object == nullptr) {
        GUARD_LOG(ERROR, "Create thread object failed, not enough memory.");
        return 0;
    }
    // The instance owns the object from the moment that its construction begins, also where that throws.
    const ThreadPtr instance(new (std::nothrow) HipsThreadInstance(object.release(), name));
    if (instance == nullptr) {
        GUARD_LOG(ERROR, "Alloc instance memory failed.");
    }
    if (instance == nullptr || !Supervise(handles_, instance, resources)) {
        GUARD_LOG(ERROR, "Create thread failed.[name=%s]", name);
        return 0;
    }
    return static_cast<std::uintptr_t>(instance->GetId());
}

// The handle is in the list before the thread runs: there is never a thread that nobody can stop.
template <typename Instance>
bool HipsGuard::Supervise(ByHandle<Instance>& list, const std::shared_ptr<Instance>& instance,
                          HipsResourceManager* resources)
{
    const auto handle = static_cast<std::uintptr_t>(instance->GetId());
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        list[handle] = instance;
    }
    if (manager_->AddInstance(instance, resources)) {
        return true;
    }
    GUARD_LOG(ERROR, "Add instance failed.");
    const std::lock_guard<std::mutex> lock(mutex_);
    list.erase(handle);
    return false;
}

// Takes the instance off the list and out of the supervision, where nobody else has done so.
template <typename Instance>
bool HipsGuard::Release(ByHandle<Instance>& list, const std::shared_ptr<Instance>& instance)
{
    bool known;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        known = list.erase(static_cast<std::uintptr_t>(instance->GetId())) != 0;
    }
    return known && manager_->DeleteInstance(instance);
}

std::uintptr_t HipsGuard::Watch(const char* name, PlainThreadInstance::BeatAge beatAgeMs, void* arg)
{
    std::shared_ptr<HipsResourceManager> resources;
    if (!BeginCreating(resources)) {
        return 0;
    }
    std::uintptr_t handle = 0;
    try {
        const auto instance = std::make_shared<PlainThreadInstance>(name == nullptr ? "" : name, beatAgeMs, arg);
        if (Supervise(watched_, instance, nullptr)) {
            handle = static_cast<std::uintptr_t>(instance->GetId());
        }
    } catch (const std::bad_alloc&) {
        GUARD_LOG(ERROR, "Create thread handle failed, not enough memory.");
    }
    EndCreating();
    return handle;
}

bool HipsGuard::Unwatch(std::uintptr_t handle)
{
    std::shared_ptr<PlainThreadInstance> instance;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto found = watched_.find(handle);
        instance = found == watched_.end() ? nullptr : found->second;
    }
    if (instance == nullptr) {
        GUARD_LOG(ERROR, "Hips guard is not initialized or invalid thread handle.");
        return false;
    }
    instance->Stop();
    return Release(watched_, instance);
}

bool HipsGuard::Close(std::uintptr_t handle)
{
    const ThreadPtr instance = Find(handle);
    if (instance == nullptr) {
        GUARD_LOG(ERROR, "Invalid extend thread handle.");
        return false;
    }
    GUARD_LOG(DEBUG, "Close extend thread handle called.");
    try {
        const std::lock_guard<std::mutex> lock(mutex_);
        closed_.erase(
            std::remove_if(closed_.begin(), closed_.end(), [](const ThreadPtr& old) { return old->HasEnded(); }),
            closed_.end());
        if (!instance->HasEnded()) {
            closed_.push_back(instance);  // the end of the guard waits for it
        }
    } catch (const std::bad_alloc&) {
        GUARD_LOG(ERROR, "Alloc instance memory failed.");
        return false;
    }
    instance->LetGo();
    return Release(handles_, instance);
}

bool HipsGuard::FastStopAll()
{
    if (Resources() == nullptr) {
        return false;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& [handle, instance] : handles_) {
        instance->FastStop();
    }
    return true;
}

std::shared_ptr<HipsThreadInstance> HipsGuard::Find(std::uintptr_t handle)
{
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto found = handles_.find(handle);
        if (found != handles_.end()) {
            return found->second;
        }
    }
    GUARD_LOG(ERROR, "Hips guard is not initialized or invalid thread handle.");
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
    LogNotInitialised();
    return nullptr;
}

bool HipsGuard::KeepAlive(std::uintptr_t handle)
{
    const ThreadPtr instance = Find(handle);
    if (instance == nullptr) {
        return false;
    }
    manager_->KeepAlive(instance);
    return true;
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

}  // namespace NEUtils
