#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "feature_host.h"
#include "pool_job.h"
#include "util/rate_limiter.h"

// What is to be done with the features: what the kept policies want, what has changed in them, and the commands of
// the server. A handler of the channel only queues commands; one job of the pool carries them out, in their order,
// and answers. So a feature that takes its time holds up neither the channel nor a stop signal.
//
// Threads  all but the job: the main thread, and on a crash whichever that had it.
// Limits   16 commands that wait, of 128 KiB each; the one above is answered at once.
class FeatureCommands {
public:
    using Status = std::function<std::string()>;   // the agent's status, one JSON object
    using Refusal = std::function<std::string()>;  // why the server gets no command carried out, or nothing

    FeatureCommands(FeatureHost& features, Status status, Refusal refusal)
        : features_(features), status_(std::move(status)), refusal_(std::move(refusal))
    {
    }

    void Start();

    void ApplyKept() { Queue({kApplyKept, 0, {}}); }  // the kept policies
    void Reload() { Queue({kReload, 0, {}}); }        // what has changed in them

    // Takes commands too; before the channel is started. False if the channel does not hand them on.
    bool Listen();

    // From here on no policy is applied. Waits for the one under way, not for its answer.
    void StopApplying();

    // After the channel has been stopped: an answer may be on its way until then.
    void Stop();

private:
    static constexpr std::uint32_t kApplyKept = 0;  // of the agent itself, even unlike the commands of the server
    static constexpr std::uint32_t kReload = 2;

    struct Command {
        std::uint32_t type = kApplyKept;
        std::uint32_t seq = 0;
        std::string body;
    };

    static void OnMessage(std::uint32_t type, void* message, void* self);
    void Queue(const Command& command);
    void CarryOut();
    bool Take(Command& command);
    FeatureHost::Outcome Apply(Command& command);
    FeatureHost::Outcome ApplyPolicy(Command& command);
    void Answer(const Command& command, const FeatureHost::Outcome& outcome, const std::string& status);

    FeatureHost& features_;
    const Status status_;
    const Refusal refusal_;
    NEUtils::RateLimiter refusals_{60000};  // records of them
    NEUtils::PoolJob job_;

    std::mutex mutex_;
    std::condition_variable applied_;
    std::deque<Command> commands_;
    std::thread::id applying_;  // who applies a policy at the moment
    bool stopping_ = false;
};
