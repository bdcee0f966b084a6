#pragma once

namespace NEUtils {

// Puts a stop signal off while this thread holds locks of the logger or of a log file: the stop function, which runs
// in the signal's handler, may log and would wait for its own thread for ever. The signal is sent again at the end
// of the scope. A further one does not wait, so a thread that hangs in a log call can still be stopped.
//
// Threads  each puts off its own signals.
class StopDeferral {
public:
    StopDeferral() { Begin(); }
    ~StopDeferral() { End(); }
    StopDeferral(const StopDeferral&) = delete;
    StopDeferral& operator=(const StopDeferral&) = delete;

    // The two ends of a scope that is none in the source, such as a fork.
    static void Begin();
    static void End();

    // For the signal handler: true if the signal has been put off.
    static bool PutOff(int signo);
};

}  // namespace NEUtils
