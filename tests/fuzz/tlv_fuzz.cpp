// The analyzer of bodies, whose whole input is one, in either byte order, beside a walk over its items.
#include <algorithm>
#include <cstring>
#include <vector>

#include "tests/fuzz/fuzz_target.h"
#include "tlv.h"

namespace {

using NEUtils::TLVAnalyzer;
using NEUtils::TLVValue;

using Bytes = std::vector<unsigned char>;

struct Item {
    std::uint16_t tag;
    std::uint16_t length;
    std::size_t place;
};

std::uint16_t ReadShort(const unsigned char* at, bool swap)
{
    std::uint16_t value = 0;
    std::memcpy(&value, at, sizeof(value));
    return swap ? __builtin_bswap16(value) : value;
}

// False if the bytes do not end with an item.
bool Walk(const Bytes& bytes, bool swap, std::vector<Item>& items)
{
    std::size_t place = 0;
    while (bytes.size() - place >= 4) {
        const Item item = {ReadShort(&bytes[place], swap), ReadShort(&bytes[place + 2], swap), place};
        if (bytes.size() - place - 4 < item.length) {
            return false;
        }
        items.push_back(item);
        place += std::size_t{4} + item.length;
    }
    return place == bytes.size() && place > 0;
}

void CheckValue(const TLVValue& value, const Item& item, const Bytes& bytes)
{
    if (item.length == 0 || item.length > TLVValue::kMaxLength) {
        Require(value.GetLength() == 0);
        return;
    }
    Require(value.GetTag() == item.tag && value.GetLength() == item.length);
    Require(std::memcmp(value.GetData(), &bytes[item.place + 4], item.length) == 0);
}

void CheckIndex(const TLVAnalyzer& analyzer, std::vector<Item> items, const Bytes& bytes)
{
    std::stable_sort(items.begin(), items.end(), [](const Item& a, const Item& b) { return a.tag < b.tag; });
    Require(analyzer.GetCount() == items.size());
    for (std::size_t i = 0; i < items.size(); ++i) {
        CheckValue(analyzer.GetValue(static_cast<std::uint32_t>(i)), items[i], bytes);
        if (i == 0 || items[i - 1].tag != items[i].tag) {
            CheckValue(analyzer[items[i].tag], items[i], bytes);
        }
    }
    CheckValue(analyzer.GetValue(analyzer.GetCount()), {}, bytes);
}

// An item may be read at any place, also where it does not fit.
void CheckPlaces(const TLVAnalyzer& analyzer, Bytes& bytes, bool swap)
{
    for (std::size_t place = 0; place <= bytes.size(); place += 1 + place / 16) {
        const std::size_t rest = bytes.size() - place;
        Item item = {};
        if (rest >= 4 && ReadShort(&bytes[place + 2], swap) <= rest - 4) {
            item = {ReadShort(&bytes[place], swap), ReadShort(&bytes[place + 2], swap), place};
        }
        CheckValue(analyzer.ParseTLV(bytes.data() + place), item, bytes);
    }
}

void Check(Bytes& bytes, bool swap)
{
    std::vector<Item> items;
    const bool whole = Walk(bytes, swap, items);
    TLVAnalyzer analyzer(bytes.data(), static_cast<int>(bytes.size()));
    Require(analyzer.Analyze(swap) == whole);
    CheckIndex(analyzer, whole ? items : std::vector<Item>(), bytes);
    CheckPlaces(analyzer, bytes, swap);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Bytes bytes(data, data + size);  // exactly as long, so that a step behind it shows
    bytes.shrink_to_fit();
    Check(bytes, false);
    Check(bytes, true);
    return 0;
}
