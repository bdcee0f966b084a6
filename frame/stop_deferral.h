#pragma once

#include <mutex>

namespace NEUtils {

// Puts a stop signal off while this thread is in a call of the frame, where it holds locks of the frame or, in malloc,
// of the C library. The stop function runs in the signal's handler and may log or read the configuration; it would wait
// for its own thread for ever. The signal is sent again at the end of the scope. One that comes more than a second
// after the first is not put off, so a program that hangs in a log call can still be stopped, and neither is a fault.
// The thread then runs the stop function in the middle of a log call, and until that is over it takes none of these
// locks: its records are dropped.
//
// Threads  each puts off its own signals.
class StopDeferral {
public:
    StopDeferral() { Begin(); }
    ~StopDeferral() { End(); }
    StopDeferral(const StopDeferral&) = delete;
    StopDeferral& operator=(const StopDeferral&) = delete;

    // For a span that is no scope in the source, such as a fork.
    static void Begin();
    static void End();

    // For the signal handler: true if the signal has been put off.
    static bool PutOff(int signo);

    // A handler runs on this thread in the middle of a log call.
    static bool IsInterrupted();
};

// Holds a mutex of the frame for a scope, with stop signals put off.
class FrameLock {
public:
    explicit FrameLock(std::mutex& mutex) : mutex_(Lock(mutex) ? &mutex : nullptr) {}
    ~FrameLock()
    {
        if (mutex_ != nullptr) {
            mutex_->unlock();
        }
    }
    FrameLock(const FrameLock&) = delete;
    FrameLock& operator=(const FrameLock&) = delete;

    // False: the mutex is not held. While a stop function runs in the middle of a log call of some thread, that thread
    // may own the mutex for ever, and the stop function may wait for this thread. So this one gives up after a tenth of
    // a second, and the interrupted one at once.
    explicit operator bool() const { return mutex_ != nullptr; }

private:
    static bool Lock(std::mutex& mutex);

    const StopDeferral untilUnlocked_;
    std::mutex* const mutex_;
};

}  // namespace NEUtils
