#pragma once

#include <functional>
#include <memory>
#include <string>

#include "neutils_api.h"

namespace NEUtils {

class ThreadPool;

// One piece of work that the pool does whenever somebody asks for it, once for all requests that come
// meanwhile: for a queue that one job empties, however fast it fills.
//
// Each call of the work is a heartbeat of its worker, so requests that never end do not look like a hang.
//
// Threads  Request and IsStopping: any, and the work itself. Start and Stop: one at a time. The work runs on
//          one worker at a time. Where one call takes more than a minute it calls KeepCurrentThreadAlive().
// Locks    none is held while the work runs.
// Blocks   Stop: until the call in progress has returned, except where the work itself calls Stop. So the
//          work looks at IsStopping() now and then.
// Owns     the work until Stop. Afterwards nothing of it is left, not even in the pool's queue.
// Errors   the guard logs what the work throws; the next request runs it again. The constructor and Start
//          throw std::bad_alloc, and leave everything as it was.
class NEUTILS_API PoolJob {
public:
    PoolJob();
    ~PoolJob();  // stops it
    PoolJob(const PoolJob&) = delete;
    PoolJob& operator=(const PoolJob&) = delete;

    // The pool must outlive this. The worker bears the name while it works.
    void Start(ThreadPool& pool, const std::string& name, std::function<void()> work);

    // The work will begin once more. False before Start, after Stop, and where the pool takes no more jobs or
    // memory has run out: then the next request tries again.
    bool Request();

    void Stop();
    bool IsStopping() const;

private:
    struct State;
    struct Turn;

    const std::shared_ptr<State> state_;  // also held by the job in the pool
};

}  // namespace NEUtils
