#include "hips_thread_instance.h"

#include <exception>
#include <new>
#include <utility>

#include "logger.h"
#include "util/clock.h"
#include "util/errno_text.h"
#include "util/stop_signals.h"
#include "util/thread_name.h"

namespace NEUtils {

namespace {

constexpr std::int64_t kPieceUs = 3000000;
constexpr std::int64_t kLongRunSeconds = 121;
constexpr long long kNsPerUs = 1000;

std::atomic<long> g_lastId{0};
thread_local HipsThreadInstance* t_current = nullptr;

}  // namespace

int HipsThreadObject::Routine(void*)
{
    return 0;
}

HipsBaseInstance::HipsBaseInstance(const std::string& name) : name_(name), beatNs_(Clock::MonotonicNs()) {}

void HipsBaseInstance::KeepAlive()
{
    missedBeats_ = 0;
    beatNs_ = Clock::MonotonicNs();
}

std::int64_t HipsBaseInstance::GetBeatAgeMs() const
{
    return (Clock::MonotonicNs() - beatNs_) / Clock::kNsPerMs;
}

long HipsBaseInstance::NextId()
{
    return ++g_lastId;
}

HipsThreadInstance::HipsThreadInstance(HipsThreadObject* object, const std::string& name)
    : HipsThreadInstance(std::unique_ptr<HipsThreadObject>(object), name)
{
}

HipsThreadInstance::HipsThreadInstance(std::unique_ptr<HipsThreadObject> object, const std::string& name)
    : HipsBaseInstance(name), object_(std::move(object)), id_(NextId())
{
}

bool HipsThreadInstance::Start(HipsResourceManager*)
{
    // The thread's own reference, which it gives back when it ends.
    std::unique_ptr<std::shared_ptr<HipsThreadInstance>> self(
        new (std::nothrow) std::shared_ptr<HipsThreadInstance>(shared_from_this()));
    if (self == nullptr) {
        NE_LOG(ERROR, "Alloc instance memory failed.");
        return false;
    }
    running_ = true;
    int result;
    {
        const StopSignalsBlocked blocked;
        const std::lock_guard<std::mutex> lock(mutex_);
        result = pthread_create(&thread_, nullptr, &HipsThreadInstance::ThreadRoutine, self.get());
        state_ = result == 0 ? kStarted : kNotStarted;
        if (result == 0) {
            threadId_ = thread_;
        }
    }
    if (result != 0) {
        running_ = false;
        NE_LOG(ERROR, "Create thread failed.[errorInfo=%s]", ErrnoText(result).Get());
        return false;
    }
    static_cast<void>(self.release());
    return true;
}

void* HipsThreadInstance::ThreadRoutine(void* instance)
{
    if (instance == nullptr) {
        NE_LOG(ERROR, "Thread instance is null.");
        return nullptr;
    }
    const std::unique_ptr<std::shared_ptr<HipsThreadInstance>> reference(
        static_cast<std::shared_ptr<HipsThreadInstance>*>(instance));
    HipsThreadInstance& self = **reference;
    // In a destructor: a routine may end its thread by pthread_exit, which unwinds the stack and does not return.
    const std::unique_ptr<HipsThreadInstance, void (*)(HipsThreadInstance*)> end(
        &self, [](HipsThreadInstance* thread) { thread->EndThread(); });
    self.threadId_ = pthread_self();  // the creator may not have stored it yet
    t_current = &self;
    SetThreadName(self.GetName());
    self.named_ = true;
    NE_LOG(INFO, "New thread created.[tid=%lu, name=%s]", static_cast<unsigned long>(pthread_self()),
           self.GetName().c_str());
    self.RunSlices();
    return nullptr;
}

void HipsThreadInstance::EndThread()
{
    running_ = false;
    sliceStartNs_ = kNoSlice;
    t_current = nullptr;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        ended_ = true;
    }
    changed_.notify_all();
}

void HipsThreadInstance::RunSlices()
{
    while (running_) {
        KeepAlive();
        SleepThread();
        if (ExecuteThreadSlice() != 0) {
            break;
        }
    }
}

void HipsThreadInstance::SleepThread()
{
    std::int64_t left = object_ == nullptr ? 0 : object_->GetTimeSlice();
    if (left < 0) {
        // Kept because callers pass a negative slice to mean "once a second".
        Clock::SleepNs(running_ ? Clock::kNsPerSecond : 0);
        return;
    }
    while (left >= kPieceUs) {
        Clock::SleepNs(kPieceUs * kNsPerUs);
        left -= kPieceUs;
        if (!running_) {
            return;
        }
        KeepAlive();
    }
    Clock::SleepNs(left * kNsPerUs);
}

int HipsThreadInstance::ExecuteThreadSlice()
{
    if (object_ == nullptr) {
        NE_LOG(ERROR, "Thread object is null.");
        return -1;
    }
    const std::int64_t start = Clock::MonotonicNs();
    sliceStartNs_ = start;
    int result = 0;  // of a routine that throws: it goes on with its next slice
    try {
        result = object_->Run();
    } catch (const std::exception& error) {
        NE_LOG(ERROR, "Thread routine has thrown.[name=%s what=%s]", GetName().c_str(), error.what());
    } catch (...) {
        if (std::current_exception() == nullptr) {
            throw;  // the end of the thread by pthread_exit, which is no exception and must go on
        }
        NE_LOG(ERROR, "Thread routine has thrown.[name=%s what=unknown]", GetName().c_str());
    }
    sliceStartNs_ = kNoSlice;
    const std::int64_t seconds = (Clock::MonotonicNs() - start) / Clock::kNsPerSecond;
    if (seconds >= kLongRunSeconds) {
        NE_LOG(INFO, "The task running more than 2min.[name=%s, time=%llds]", ThreadName(pthread_self()).c_str(),
               static_cast<long long>(seconds));
    }
    if (result != 0) {
        running_ = false;
    }
    return result;
}

HipsThreadInstance::~HipsThreadInstance() = default;

HipsThreadInstance* HipsThreadInstance::Current()
{
    return t_current;
}

bool HipsThreadInstance::FastStop()
{
    running_ = false;
    return true;
}

bool HipsThreadInstance::IsRunning()
{
    return running_;
}

long HipsThreadInstance::GetId() const
{
    return id_;
}

bool HipsThreadInstance::IsOwnThread() const
{
    return state_ != kNotStarted && pthread_equal(thread_, pthread_self()) != 0;
}

bool HipsThreadInstance::Stop()
{
    running_ = false;
    std::unique_lock<std::mutex> lock(mutex_);
    if (state_ == kNotStarted || state_ == kJoined) {
        return true;
    }
    if (IsOwnThread()) {
        lock.unlock();
        LetGo();
        return true;
    }
    if (state_ != kStarted) {  // another caller joins, or the thread is let go: wait until its work is over
        changed_.wait(lock, [this] { return state_ == kJoined || (state_ == kLetGo && ended_); });
        return true;
    }
    state_ = kJoining;
    const pthread_t thread = thread_;
    lock.unlock();
    const int result = pthread_join(thread, nullptr);
    lock.lock();
    state_ = result == 0 ? kJoined : kLetGo;
    lock.unlock();
    changed_.notify_all();
    if (result != 0) {
        pthread_detach(thread);
        NE_LOG(ERROR, "Stop thread failed.[threadId=%lu errorInfo=%s]", static_cast<unsigned long>(thread),
               ErrnoText(result).Get());
        return false;
    }
    NE_LOG(INFO, "Stop thread.[threadId=%lu]", static_cast<unsigned long>(thread));
    return true;
}

void HipsThreadInstance::LetGo()
{
    running_ = false;
    int result = 0;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (state_ != kStarted) {
            return;
        }
        result = pthread_detach(thread_);
        state_ = kLetGo;
    }
    if (result != 0) {
        NE_LOG(ERROR, "Detach thread failed.[threadId=%lu errorInfo=%s]", GetThreadId(), ErrnoText(result).Get());
    }
}

unsigned long HipsThreadInstance::GetThreadId() const
{
    return threadId_;
}

bool HipsThreadInstance::HasEnded() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return state_ == kNotStarted || state_ == kJoined || (state_ == kLetGo && ended_);
}

std::string HipsThreadInstance::GetRuntimeName() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    // After the join, or once a thread that was let go has ended, its id may be another thread's.
    const bool alive = (state_ == kStarted || state_ == kLetGo) && !ended_ && named_;
    const std::string name = alive ? ThreadName(thread_) : "";
    return name.empty() ? GetName() : name;  // reading the name takes a descriptor, and there may be none left
}

std::int64_t HipsThreadInstance::GetSliceTimeUs() const
{
    const std::int64_t start = sliceStartNs_;
    return start == kNoSlice ? 0 : (Clock::MonotonicNs() - start) / kNsPerUs;
}

}  // namespace NEUtils
