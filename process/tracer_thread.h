#pragma once

#include <exception>
#include <functional>
#include <thread>

#include "logger.h"

namespace NEUtils {

// The thread of a tracer. What runs on it may ask it to end, but cannot wait for that.
//
// Threads  Start and Join by the owner, IsOwn by any.
class TracerThread {
public:
    // False, with a record, if there is none to be had. `name` has 15 characters at most.
    bool Start(const char* name, std::function<void()> body);

    bool IsOwn() const;  // the caller runs on it
    void Join();         // not on it; also of one that was never started

private:
    std::thread thread_;
};

// Logs that memory ran out, or the like, at most every 15 minutes.
void LogTracerFailure(const std::exception& failure);

// Calls back into the owner of a tracer. What that throws must not pass through the tracer.
template <typename Function>
void CallOwner(const char* tracer, const Function& function)
{
    try {
        function();
    } catch (const std::exception& error) {
        NE_LOG(ERROR, "A callback of the %s failed.[reason=%s]", tracer, error.what());
    } catch (...) {
        NE_LOG(ERROR, "A callback of the %s failed.", tracer);
    }
}

}  // namespace NEUtils
