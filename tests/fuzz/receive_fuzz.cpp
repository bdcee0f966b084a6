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

// What a reader should give: slow, and without a limit to its buffer.
class Model {
public:
    void Add(const char* data, std::size_t size) { bytes_.append(data, size); }
    bool IsEmpty() const { return begin_ == bytes_.size(); }

    MessageReader::Result Next(SentrelAgentMsg& header, std::string& message)
    {
        const std::size_t rest = bytes_.size() - begin_;
        if (rest < sizeof(header)) {
            return MessageReader::kIncomplete;
        }
        bytes_.copy(reinterpret_cast<char*>(&header), sizeof(header), begin_);
        if (header.length > NEUtils::kMaxMsgBody) {
            begin_ = bytes_.size();
            return MessageReader::kTooLong;
        }
        const std::size_t size = sizeof(header) + header.length;
        if (rest < size) {
            return MessageReader::kIncomplete;
        }
        message = bytes_.substr(begin_, size);
        begin_ += size;
        return MessageReader::kMessage;
    }

private:
    std::string bytes_;
    std::size_t begin_ = 0;
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

// Both give the same until more bytes are needed.
void Compare(MessageReader& reader, Model& model, Requests& requests)
{
    for (;;) {
        SentrelAgentMsg header = {};
        SentrelAgentMsg expectedHeader = {};
        const unsigned char* message = nullptr;
        std::string expected;
        const auto result = reader.Next(header, message);
        Require(result == model.Next(expectedHeader, expected));
        if (result != MessageReader::kMessage) {
            Require(reader.SpaceSize() > 0);
            return;
        }
        Require(std::memcmp(&header, &expectedHeader, sizeof(header)) == 0);
        Require(std::memcmp(message, expected.data(), expected.size()) == 0);
        requests.Take(header, expected);
    }
}

void Feed(MessageReader& reader, Model& model, Requests& requests, const std::string& piece)
{
    for (std::size_t place = 0; place < piece.size();) {
        const std::size_t count = std::min(piece.size() - place, reader.SpaceSize());
        std::memcpy(reader.Space(), &piece[place], count);
        reader.Filled(count);
        model.Add(&piece[place], count);
        Compare(reader, model, requests);
        place += count;
    }
}

// How many messages there are before the first that is too long.
std::size_t Count(const std::string& stream, std::size_t pieceSize)
{
    MessageReader reader;
    std::size_t messages = 0;
    for (std::size_t place = 0; place < stream.size();) {
        const std::size_t count = std::min({stream.size() - place, reader.SpaceSize(), pieceSize});
        std::memcpy(reader.Space(), &stream[place], count);
        reader.Filled(count);
        place += count;
        SentrelAgentMsg header;
        const unsigned char* message = nullptr;
        MessageReader::Result result;
        while ((result = reader.Next(header, message)) == MessageReader::kMessage) {
            ++messages;
        }
        if (result == MessageReader::kTooLong) {
            break;
        }
    }
    return messages;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Steps steps(data, size);
    MessageReader reader;
    Model model;
    Requests requests;
    std::string stream;
    for (std::string piece; stream.size() <= 3 * NEUtils::kMaxMsgSize && steps.Next(piece);) {
        Feed(reader, model, requests, piece);
        stream += piece;
    }
    // However the bytes are cut, the messages are the same.
    const std::size_t inOneGo = Count(stream, stream.size());
    Require(Count(stream, 1 + stream.size() / 64) == inOneGo);
    return 0;
}
