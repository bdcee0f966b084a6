// The path of received bytes: cut into messages, and responses matched with the requests that wait for them.
//
// The input is a list of steps. A first byte of up to 199 is followed by so many bytes and one more, which
// arrive together. One above is followed by two bytes, a count, and nine times so many bytes like it arrive:
// messages as long as they may be, from a short input.
#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "comm/message_reader.h"
#include "comm/request_cache.h"
#include "tests/fuzz/fuzz_target.h"
#include "util/clock.h"

namespace {

using NEUtils::MessageReader;
using NEUtils::RequestCache;
using NEUtils::SentrelAgentMsg;

constexpr std::uint8_t kLastLiteral = 199;
constexpr std::size_t kFillUnit = 9;
constexpr std::int64_t kDueMs = 6000;
constexpr unsigned int kMostSends = 3;      // of one request
constexpr std::size_t kNeverDropped = 200;  // so many requests stay, even if they are exhausted

// The bytes of one step after the other.
class Steps {
public:
    Steps(const std::uint8_t* data, std::size_t size) : data_(data), end_(data + size) {}

    bool Next(std::string& piece)
    {
        if (data_ == end_) {
            return false;
        }
        const std::uint8_t first = *data_++;
        const auto rest = static_cast<std::size_t>(end_ - data_);
        if (first <= kLastLiteral) {
            const std::size_t count = std::min(rest, first + std::size_t{1});
            piece.assign(reinterpret_cast<const char*>(data_), count);
            data_ += count;
            return true;
        }
        std::uint16_t count = 0;
        std::memcpy(&count, data_, std::min(rest, sizeof(count)));
        data_ += std::min(rest, sizeof(count));
        piece.assign(count * kFillUnit, static_cast<char>(first));
        return true;
    }

private:
    const std::uint8_t* data_;
    const std::uint8_t* end_;
};

// A cache, and what is known of the requests in it: how many there are of a number, how often they were sent.
class Requests {
public:
    void Take(const SentrelAgentMsg& header, const std::string& message)
    {
        if (NEUtils::IsRequestMessage(header.type)) {
            cache_.Add(header.seq, header.type, std::make_shared<const std::string>(message));
            ++waiting_[header.seq];
            ++added_[header.seq];
            mayDrop_ = mayDrop_ || ++count_ > kNeverDropped;
        } else {
            Answer(header.seq);
        }
        if (header.version % 4 == 3) {
            Repeat(header.version / 4 % 64);
        } else if (header.version == 2) {
            cache_.Clear();
            waiting_.clear();
            count_ = 0;
        }
    }

private:
    void Answer(std::uint32_t seq)
    {
        const bool known = waiting_.count(seq) != 0;
        const bool removed = cache_.Remove(seq);
        Require(removed == known || (known && mayDrop_));
        if (removed) {
            --count_;
        }
        if (known && --waiting_[seq] == 0) {
            waiting_.erase(seq);
        }
    }

    void Repeat(std::size_t limit)
    {
        NEUtils::Clock::wallOffsetMs += kDueMs;
        RequestCache::Due request;
        for (std::size_t count = 0; count < limit && cache_.TakeDue(request); ++count) {
            SentrelAgentMsg header;
            Require(request.message->copy(reinterpret_cast<char*>(&header), sizeof(header)) == sizeof(header));
            Require(header.seq == request.seq && header.type == request.type);
            Require(waiting_.count(request.seq) != 0 && ++sent_[request.seq] <= kMostSends * added_[request.seq]);
        }
    }

    RequestCache cache_;
    std::map<std::uint32_t, unsigned int> waiting_;
    std::map<std::uint32_t, unsigned int> added_;
    std::map<std::uint32_t, unsigned int> sent_;
    std::size_t count_ = 0;  // in the cache at most
    bool mayDrop_ = false;
};

// The messages before the first one that is too long, one after the other, and how many there are.
using Messages = std::pair<std::string, std::size_t>;

Messages Read(const std::string& stream, std::size_t pieceSize)
{
    MessageReader reader;
    Messages messages;
    for (std::size_t place = 0; place < stream.size();) {
        const std::size_t count = std::min({stream.size() - place, reader.SpaceSize(), pieceSize});
        Require(count > 0);
        std::memcpy(reader.Space(), &stream[place], count);
        reader.Filled(count);
        place += count;
        SentrelAgentMsg header = {};
        const unsigned char* message = nullptr;
        MessageReader::Result result;
        while ((result = reader.Next(header, message)) == MessageReader::kMessage) {
            Require(std::memcmp(&header, message, sizeof(header)) == 0);
            messages.first.append(reinterpret_cast<const char*>(message), sizeof(header) + header.length);
            ++messages.second;
        }
        if (result == MessageReader::kTooLong) {
            Require(header.length > NEUtils::kMaxMsgBody);
            break;
        }
    }
    return messages;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Steps steps(data, size);
    std::string stream;
    for (std::string piece; stream.size() <= 3 * NEUtils::kMaxMsgSize && steps.Next(piece);) {
        stream += piece;
    }
    // However the bytes are cut, the messages are the same: those that the stream begins with.
    const Messages messages = Read(stream, std::max<std::size_t>(stream.size(), 1));
    Require(Read(stream, 1 + stream.size() / 64) == messages);
    Require(stream.compare(0, messages.first.size(), messages.first) == 0);
    Requests requests;
    for (std::size_t place = 0; place < messages.first.size();) {
        SentrelAgentMsg header;
        messages.first.copy(reinterpret_cast<char*>(&header), sizeof(header), place);
        requests.Take(header, messages.first.substr(place, sizeof(header) + header.length));
        place += sizeof(header) + header.length;
    }
    return 0;
}
