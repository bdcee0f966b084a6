#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <unordered_map>
#include <utility>

#include "connection_record.h"

namespace NEUtils {

// Joins each attempt to connect, of which the process is known, with its result, of which the ports are.
//
// Threads  one.
// Limits   kMost attempts: beyond, the oldest are handed over as pending and forgotten.
class PendingConnects {
public:
    using Callback = std::function<void(const ConnectionRecord&)>;

    static constexpr std::size_t kMost = 16384;
    static constexpr std::uint64_t kPatienceNs = 1000000000;  // then an attempt is handed over as pending

    explicit PendingConnects(Callback callback) : callback_(std::move(callback)) {}

    // A socket has begun to connect. A former attempt of it has ended unseen.
    void Begin(std::uint64_t socket, const ConnectionRecord& attempt);

    // It is connected, or has failed: hands over what is known of both.
    void End(std::uint64_t socket, const ConnectionRecord& result);

    // Hands over as pending what began so long before this time, since the boot.
    void Expire(std::uint64_t nowNs);
    void ExpireAll() { Expire(UINT64_MAX); }

private:
    struct Attempt {
        std::uint64_t socket = 0;
        bool isTold = false;
        ConnectionRecord record;
    };
    using Attempts = std::list<Attempt>;

    void HandOver(Attempts::iterator attempt);
    void Remove(Attempts::iterator attempt);
    void RemoveOldest();

    const Callback callback_;
    Attempts waiting_;  // those not told yet, in the order of their begin
    Attempts told_;     // as pending
    std::unordered_map<std::uint64_t, Attempts::iterator> bySocket_;
};

}  // namespace NEUtils
