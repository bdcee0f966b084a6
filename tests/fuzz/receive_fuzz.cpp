// Received bytes, which are cut into messages.
//
// The input is a list of steps. A first byte of up to 199 is followed by so many bytes and one more, which
// arrive together. One above is followed by two bytes, a count, and nine times so many bytes like it arrive:
// messages as long as they may be, from a short input.
#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "comm/message_reader.h"
#include "tests/fuzz/fuzz_target.h"

namespace {

using NEUtils::MessageReader;
using NEUtils::SentrelAgentMsg;

constexpr std::uint8_t kLastLiteral = 199;
constexpr std::size_t kFillUnit = 9;

// Takes the bytes of one step off the input.
std::string TakeStep(std::string_view& input)
{
    const auto first = static_cast<std::uint8_t>(input[0]);
    input.remove_prefix(1);
    std::uint16_t count = 0;
    const std::size_t used = std::min(input.size(), first <= kLastLiteral ? first + std::size_t{1} : sizeof(count));
    const std::string_view bytes = input.substr(0, used);
    input.remove_prefix(used);
    if (first <= kLastLiteral) {
        return std::string(bytes);
    }
    std::memcpy(&count, bytes.data(), used);
    return std::string(count * kFillUnit, static_cast<char>(first));
}

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
    std::string_view input(reinterpret_cast<const char*>(data), size);
    std::string stream;
    while (stream.size() <= 3 * NEUtils::kMaxMsgSize && !input.empty()) {
        stream += TakeStep(input);
    }
    // However the bytes are cut, the messages are the same: those that the stream begins with.
    const Messages messages = Read(stream, std::max<std::size_t>(stream.size(), 1));
    Require(Read(stream, 1 + stream.size() / 64) == messages);
    Require(stream.compare(0, messages.first.size(), messages.first) == 0);
    return 0;
}
