#include "network/pending_connects.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace NEUtils {

void PendingConnects::Begin(std::uint64_t socket, const ConnectionRecord& attempt)
{
    const auto former = bySocket_.find(socket);
    if (former != bySocket_.end()) {
        HandOver(former->second);
        Remove(former->second);
    } else if (bySocket_.size() >= kMost) {
        RemoveOldest();
    }
    waiting_.push_back({socket, false, attempt});
    bySocket_[socket] = std::prev(waiting_.end());
}

void PendingConnects::End(std::uint64_t socket, const ConnectionRecord& result)
{
    const auto found = bySocket_.find(socket);
    if (found == bySocket_.end()) {
        callback_(result);
        return;
    }
    ConnectionRecord record = std::move(found->second->record);
    Remove(found->second);
    record.result = result.result;
    record.error = result.error;
    record.local = result.local;
    record.localPort = result.localPort;
    record.durationNs = std::max(result.bootNs, record.bootNs) - record.bootNs;  // the clocks of processors differ
    callback_(record);
}

void PendingConnects::Expire(std::uint64_t nowNs)
{
    while (!waiting_.empty() && waiting_.front().record.bootNs + kPatienceNs <= nowNs) {
        HandOver(waiting_.begin());
    }
}

void PendingConnects::HandOver(Attempts::iterator attempt)
{
    if (attempt->isTold) {
        return;
    }
    attempt->isTold = true;
    told_.splice(told_.end(), waiting_, attempt);
    callback_(attempt->record);
}

void PendingConnects::Remove(Attempts::iterator attempt)
{
    bySocket_.erase(attempt->socket);
    (attempt->isTold ? told_ : waiting_).erase(attempt);
}

void PendingConnects::RemoveOldest()
{
    if (told_.empty()) {
        HandOver(waiting_.begin());
    }
    Remove(told_.begin());
}

}  // namespace NEUtils
