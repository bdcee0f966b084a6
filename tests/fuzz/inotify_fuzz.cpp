// The decoder of inotify records beside a walk over them. The input is the place where the records start and
// the one where they end, two bytes each, and the bytes of the buffer.
#include <sys/inotify.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "inotify_watcher.h"
#include "tests/fuzz/fuzz_target.h"

namespace {

using NEUtils::InotifyWatcher;
using Events = std::vector<InotifyWatcher::Event>;

constexpr std::size_t kSize = InotifyWatcher::kBufferSize;
constexpr std::uint32_t kUntouched = 7777;

// One real watch, so that a record without a name may have a path.
struct Watcher : InotifyWatcher {
    Watcher() { wd = Init() ? AddWatch("/", IN_ATTRIB) : 0; }
    int wd;
};

// What the decoder should do with a buffer.
struct Expected {
    Expected(const std::string& bytes, std::size_t start, std::size_t end, const Watcher& watcher) : buffer(bytes)
    {
        while (start < end) {
            const std::size_t left = end - start;
            std::uint32_t words[4] = {};  // wd, mask, cookie, length
            std::memcpy(words, &bytes[start], std::min<std::size_t>(left, 16));
            if (left < 16 || left - 16 < words[3]) {
                std::copy_n(&bytes[start], left, buffer.data());
                carry = static_cast<std::uint32_t>(left);
                return;
            }
            const int wd = static_cast<int>(words[0]);
            std::string name = bytes.substr(start + 16, words[3]);
            name.resize(std::min(name.find('\0'), name.size()));
            if (words[3] == 0 && wd == watcher.wd && wd > 0) {
                name.assign(1, '/');
            }
            if (!name.empty()) {
                events.push_back({wd, words[1], words[2], name});
            }
            overflows += (words[1] & IN_Q_OVERFLOW) != 0 ? 1 : 0;
            start += 16 + words[3];
        }
    }

    std::string buffer;
    Events events;
    std::uint32_t carry = kUntouched;
    std::uint64_t overflows = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const Watcher watcher;
    std::uint16_t places[2] = {};
    if (size < sizeof(places)) {
        return 0;
    }
    std::memcpy(places, data, sizeof(places));
    std::string bytes(data + sizeof(places), data + size);
    bytes.resize(kSize);
    const bool inside = places[1] <= kSize;
    const Expected expected(bytes, places[0], inside ? places[1] : 0, watcher);

    const auto buffer = std::make_unique<char[][kSize]>(1);  // so that a step behind it shows
    bytes.copy(*buffer.get(), kSize);
    Events events;
    std::uint32_t carry = kUntouched;
    const std::uint64_t before = watcher.GetOverflowCount();
    const bool result = watcher.GenerateEvent(places[0], carry, places[1], *buffer.get(), events);
    Require(result == (inside || places[0] >= places[1]) && carry == expected.carry);
    Require(watcher.GetOverflowCount() - before == expected.overflows);
    Require(std::string(*buffer.get(), kSize) == expected.buffer);
    Require(std::equal(events.begin(), events.end(), expected.events.begin(), expected.events.end(),
                       [](const auto& a, const auto& b) {
                           return a.wd == b.wd && a.mask == b.mask && a.cookie == b.cookie && a.name == b.name;
                       }));
    return 0;
}
