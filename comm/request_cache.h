#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

namespace NEUtils {

// The requests that wait for their responses, found by their numbers.
//
// Threads  any.
// Limits   a request that was sent again three times stays, but while there are more than 200 requests in all,
//          the oldest of these go. Others are never dropped.
class RequestCache {
public:
    static constexpr unsigned int kRetries = 3;
    static constexpr std::int64_t kRetryAfterSeconds = 5;  // after more than that a request is sent again
    static constexpr std::int64_t kLookSeconds = 3;        // how often its owner asks for what is due
    // After this time a request has been sent for the last time, and waited as long for its response.
    static constexpr std::int64_t kLifeSeconds = (kRetries + 1) * (kRetryAfterSeconds + 1 + kLookSeconds);

    using Bytes = std::shared_ptr<const std::string>;
    struct Due {
        std::uint32_t seq;
        std::uint32_t type;
        Bytes message;
    };

    void Add(std::uint32_t seq, std::uint32_t type, Bytes message);
    bool Remove(std::uint32_t seq);  // one request with this number; false if there is none
    void Clear();

    // Gives the request that has been due for longest, and counts it as sent now. False if none is due.
    bool TakeDue(Due& due);

private:
    struct Request {
        Due request;
        std::int64_t lastSend;  // seconds of the wall clock
        unsigned int retries;
    };
    using Requests = std::list<Request>;

    void Erase(Requests::iterator request);
    void DropExhausted();

    std::mutex mutex_;
    Requests requests_;  // in the order of their last sending: what is due comes first
    std::unordered_multimap<std::uint32_t, Requests::iterator> bySeq_;
};

}  // namespace NEUtils
