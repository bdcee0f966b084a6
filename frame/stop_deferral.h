#pragma once

namespace NEUtils {

// Puts a stop signal off while this thread holds locks of the logger or of a log file. The stop function runs in the
// signal's handler and may log; it would wait for its own thread for ever. The signal is sent again at the end of the
// scope. A second one is not put off, so a program that hangs in a log call can still be stopped.
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
};

}  // namespace NEUtils
