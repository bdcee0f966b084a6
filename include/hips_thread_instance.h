#pragma once

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <limits>
#include <memory>
#include <mutex>
#include <string>

#include "neutils_api.h"

namespace NEUtils {

class HipsResourceManager;

// The work of a guarded thread: a routine that is called once per time slice until it returns
// non-zero, or the virtual Routine of a derived class where none is given.
class NEUTILS_API HipsThreadObject {
public:
    HipsThreadObject(int (*routine)(void*), void* arg, std::int32_t timeSliceUs)
        : routine_(routine), arg_(arg), timeSliceUs_(timeSliceUs)
    {
    }
    virtual ~HipsThreadObject() = default;

    virtual int Routine(void* arg);  // does nothing and goes on

    // One call, of the routine or of the virtual one.
    int Run() { return routine_ != nullptr ? routine_(arg_) : Routine(arg_); }
    std::int32_t GetTimeSlice() const { return timeSliceUs_; }

private:
    int (*routine_)(void*);
    void* arg_;
    std::int32_t timeSliceUs_;
};

// A unit that the instance manager supervises through its heartbeat.
class NEUTILS_API HipsBaseInstance {
public:
    explicit HipsBaseInstance(const std::string& name = {});
    virtual ~HipsBaseInstance() = default;

    virtual bool Start(HipsResourceManager* resources) = 0;
    virtual bool FastStop() { return false; }  // asks it to end, without waiting
    virtual bool Stop() = 0;                   // ends it and waits
    virtual bool IsRunning() { return false; }
    virtual unsigned int DoHeartBeat() { return missedBeats_.fetch_add(1); }  // the count before
    virtual long GetId() const { return 0; }
    virtual void KeepAlive();

    virtual std::string GetRuntimeName() const { return name_; }  // as it calls itself now; may throw std::bad_alloc
    virtual std::int64_t GetSliceTimeUs() const { return 0; }     // since the slice in progress began; 0: none
    virtual std::int64_t GetBeatAgeMs() const;                    // since the last heartbeat, or since it was made

    const std::string& GetName() const { return name_; }
    unsigned int GetMissedBeats() const { return missedBeats_; }

protected:
    static long NextId();  // a number that no other instance of the process has or had

private:
    const std::string name_;
    std::atomic<unsigned int> missedBeats_{0};
    std::atomic<std::int64_t> beatNs_{0};
};

// One guarded thread.
//
// The thread sleeps its slice and calls the work, again and again, until the work returns non-zero or
// somebody clears the running flag. A slice above 2,999,999 us is slept in pieces of 3 s: the thread sees
// a stop at the end of a piece, and each piece is a heartbeat. After a stop that comes during the sleep the
// work still runs once. A negative slice sleeps one second.
//
// Owns     the work object. The thread holds a reference to its instance, so what it uses stays until it
//          has ended, also after LetGo.
// Threads  any may call. Stop joins once; a second caller waits for the first. On the thread itself Stop
//          only clears the flag and lets the thread go.
// Errors   what the work throws is logged, and the next slice follows. Work that calls pthread_exit ends the
//          thread as a non-zero return does.
class NEUTILS_API HipsThreadInstance final : public HipsBaseInstance,
                                             public std::enable_shared_from_this<HipsThreadInstance> {
public:
    // Takes the object, also where it throws std::bad_alloc.
    HipsThreadInstance(HipsThreadObject* object, const std::string& name);
    ~HipsThreadInstance() override;

    bool Start(HipsResourceManager* resources) override;
    bool FastStop() override;
    bool Stop() override;
    bool IsRunning() override;
    long GetId() const override;

    // The instance that the calling thread runs for; null on any other thread.
    static HipsThreadInstance* Current();

    // Lets the thread end by itself: nobody will wait for it.
    void LetGo();

    unsigned long GetThreadId() const;
    bool HasEnded() const;  // the work is not called again, and there is no thread left to wait for
    std::string GetRuntimeName() const override;
    std::int64_t GetSliceTimeUs() const override;

private:
    enum State { kNotStarted, kStarted, kJoining, kJoined, kLetGo };
    static constexpr std::int64_t kNoSlice = std::numeric_limits<std::int64_t>::min();

    HipsThreadInstance(std::unique_ptr<HipsThreadObject> object, const std::string& name);

    static void* ThreadRoutine(void* instance);
    void RunSlices();
    void EndThread();
    void SleepThread();
    int ExecuteThreadSlice();
    bool IsOwnThread() const;

    std::unique_ptr<HipsThreadObject> object_;
    const long id_;
    std::atomic<bool> running_{false};
    std::atomic<unsigned long> threadId_{0};
    std::atomic<bool> named_{false};  // the thread bears its own name
    std::atomic<std::int64_t> sliceStartNs_{kNoSlice};

    mutable std::mutex mutex_;  // guards what follows; nothing is joined under it
    std::condition_variable changed_;
    State state_ = kNotStarted;
    bool ended_ = false;  // the thread has left the work for good
    pthread_t thread_{};
};

}  // namespace NEUtils
