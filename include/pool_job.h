#pragma once

#include <functional>
#include <memory>
#include <string>

#include "neutils_api.h"

namespace NEUtils {

class ThreadPool;

// One piece of work that the pool does whenever it is asked to, once for all requests that come meanwhile:
// for queues that one job empties, however fast they fill.
//
// Threads  Request and IsStopping: any, and the work itself. Start and Stop: one at a time. The work runs on
//          one worker at a time; where it takes more than a minute it calls KeepCurrentThreadAlive().
// Locks    none is held while the work runs.
// Blocks   Stop: until the work under way has returned, except where it is called from it. So the work looks
//          at IsStopping() now and then.
// Owns     the work until Stop. Afterwards nothing of it is left, in the pool's queue neither.
// Errors   what the work throws is told by the guard; the next request runs it again.
class NEUTILS_API PoolJob {
public:
    PoolJob();
    ~PoolJob();  // stops it
    PoolJob(const PoolJob&) = delete;
    PoolJob& operator=(const PoolJob&) = delete;

    // The pool must outlive this. The worker bears the name while it works.
    void Start(ThreadPool& pool, const std::string& name, std::function<void()> work);

    // The work will begin once more. False before Start, after Stop, and where the pool takes no more jobs: then
    // the next request tries again.
    bool Request();

    void Stop();
    bool IsStopping() const;

private:
    struct State;
    struct Turn;

    const std::shared_ptr<State> state_;  // also held by the job in the pool
};

}  // namespace NEUtils
