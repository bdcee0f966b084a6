// What the kernel gives to a read of fanotify: the records that the decoder finds, beside a walk of its own.
#include <cstring>
#include <vector>

#include "monitor/fanotify_decoder.h"
#include "tests/fuzz/fuzz_target.h"

namespace {

constexpr std::size_t kRecord = 24;

// The length of the first record; 0 if there is none that is whole.
std::size_t FirstLength(const std::vector<unsigned char>& bytes, std::size_t place)
{
    std::uint32_t length = 0;
    if (bytes.size() - place < kRecord) {
        return 0;
    }
    std::memcpy(&length, &bytes[place], sizeof(length));
    return length < kRecord || length > bytes.size() - place ? 0 : length;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::vector<unsigned char> bytes(data, data + size);  // exactly as long, so that a step behind it shows
    bytes.shrink_to_fit();
    NEUtils::FanotifyDecoder decoder(bytes.data(), static_cast<ssize_t>(bytes.size()));
    fanotify_event_metadata record = {};
    std::size_t place = 0;
    while (const std::size_t length = FirstLength(bytes, place)) {
        Require(decoder.Next(record) && std::memcmp(&record, &bytes[place], sizeof(record)) == 0);
        place += length;
    }
    Require(!decoder.Next(record) && !decoder.Next(record));
    return 0;
}
