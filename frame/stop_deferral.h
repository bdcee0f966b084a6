#pragma once

#include <mutex>

namespace NEUtils {

// Puts a stop signal off while this thread holds locks of the logger or of a log file. The stop function runs in the
// signal's handler and may log; it would wait for its own thread for ever. The signal is sent again at the end of the
// scope. A second one is not put off, so a program that hangs in a log call can still be stopped, and neither is a
// fault. The thread then runs the stop function in the middle of a log call, and until that is over it takes none of
// these locks: its records are dropped.
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

    // Takes a mutex of the logger or of a file. False: while a stop function runs in the middle of a log call of some
    // thread, that thread may own the mutex for ever, and the stop function may wait for this thread. So it gives up
    // after a tenth of a second.
    static bool Lock(std::mutex& mutex);

    // A handler runs on this thread in the middle of a log call.
    static bool IsInterrupted();
};

}  // namespace NEUtils
