#include "tlv.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "util/bounded.h"

namespace NEUtils {

namespace {

constexpr std::size_t kHeaderSize = 4;

std::uint16_t Ordered(std::uint16_t value, bool swap)
{
    return swap ? __builtin_bswap16(value) : value;
}

struct Header {
    std::uint16_t tag;
    std::uint16_t length;
};

Header ReadHeader(const unsigned char* at, bool swap)
{
    Header header;
    std::memcpy(&header, at, kHeaderSize);
    return {Ordered(header.tag, swap), Ordered(header.length, swap)};
}

}  // namespace

TLVValue::TLVValue(TLVValue&& other) noexcept
{
    if (other.data_ != nullptr && other.length_ != 0) {
        *this = std::move(other);
    }
}

TLVValue& TLVValue::operator=(TLVValue&& other) noexcept
{
    if (this != &other) {
        data_ = std::move(other.data_);
        tag_ = other.tag_;
        length_ = other.length_;
    }
    return *this;
}

// Replaces the bytes by a copy. data may lie in the old bytes. If there is no memory, no bytes are left.
bool TLVValue::Assign(const void* data, std::size_t size)
{
    std::unique_ptr<unsigned char[]> copy(new (std::nothrow) unsigned char[size]);
    if (copy != nullptr) {
        std::memcpy(copy.get(), data, size);
    }
    data_ = std::move(copy);
    return data_ != nullptr;
}

void TLVValue::Init(std::uint16_t tag, const unsigned char* data, std::uint16_t length)
{
    if (data != nullptr && length <= kMaxLength && Assign(data, length)) {
        length_ = length;
        tag_ = tag;
    }
}

void TLVValue::Init(std::uint16_t tag, int value)
{
    if (Assign(&value, sizeof(value))) {
        tag_ = tag;
        length_ = sizeof(value);
    }
}

void TLVValue::Init(std::uint16_t tag, const std::string& text)
{
    if (!text.empty() && text.size() <= kMaxLength && Assign(text.c_str(), text.size() + 1)) {
        length_ = static_cast<std::uint16_t>(text.size() + 1);
        tag_ = tag;
    }
}

bool TLVValue::Copy(void* value, std::size_t size) const
{
    return length_ == size && data_ != nullptr && memcpy_s(value, size, data_.get(), size) == 0;
}

bool TLVValue::AsByte(unsigned char& value) const
{
    return Copy(&value, sizeof(value));
}

bool TLVValue::AsShort(short& value) const
{
    return Copy(&value, sizeof(value));
}

bool TLVValue::AsInt(int& value) const
{
    return Copy(&value, sizeof(value));
}

bool TLVValue::AsString(std::string& value) const
{
    if (length_ == 0 || data_ == nullptr) {
        return false;
    }
    const auto* text = reinterpret_cast<const char*>(data_.get());
    value.assign(text, text[length_ - 1] == '\0' ? std::strlen(text) : length_);
    return true;
}

void TLVPacker::Append(std::uint16_t tag, std::uint16_t length, const void* data)
{
    const Header header = {tag, length};
    const std::size_t place = items_.size();
    items_.resize(place + kHeaderSize + length);
    std::memcpy(&items_[place], &header, kHeaderSize);
    if (data != nullptr && length > 0) {
        std::memcpy(&items_[place + kHeaderSize], data, length);
    }
}

// An item that got no memory for its bytes still has their length.
void TLVPacker::Add(TLVValue&& value)
{
    TLVValue taken;
    taken = std::move(value);
    Append(taken.GetTag(), taken.GetLength(), taken.GetData());
    isWhole_ = isWhole_ && (taken.GetData() != nullptr || taken.GetLength() == 0);
}

bool TLVPacker::Add(std::uint16_t tag, const void* data, std::size_t length)
{
    if (data == nullptr || length > TLVValue::kMaxLength) {
        return false;
    }
    Append(tag, static_cast<std::uint16_t>(length), data);
    return true;
}

void TLVPacker::AddText(std::uint16_t tag, const std::string& text)
{
    for (std::size_t at = 0; at < text.size(); at += TLVValue::kMaxLength) {
        Append(tag, static_cast<std::uint16_t>(std::min(TLVValue::kMaxLength, text.size() - at)), text.data() + at);
    }
}

int TLVPacker::Pack(bool swap)
{
    size_ += static_cast<std::uint32_t>(items_.size());  // kept because callers rely on it: the sum of all calls
    buffer_.reset(new (std::nothrow) unsigned char[size_]);
    if (buffer_ == nullptr || !isWhole_ || items_.size() > size_) {  // the last if the sum has wrapped
        buffer_.reset();
        return -1;
    }
    if (!items_.empty()) {
        std::memcpy(buffer_.get(), items_.data(), items_.size());
    }
    for (std::size_t at = 0; swap && at < items_.size();) {
        const Header header = ReadHeader(&items_[at], false);
        const Header swapped = {Ordered(header.tag, swap), Ordered(header.length, swap)};
        std::memcpy(&buffer_[at], &swapped, kHeaderSize);
        at += kHeaderSize + header.length;
    }
    const std::size_t rest = size_ - items_.size();
    memset_s(buffer_.get() + items_.size(), rest, 0, rest);  // or old bytes of the heap would go out
    return 0;
}

bool TLVAnalyzer::Analyze(bool swap)
{
    if (data_ == nullptr || length_ < 1) {
        return false;
    }
    swap_ = swap;
    offsets_.clear();
    blocks_.release();
    count_ = 0;
    const auto length = static_cast<std::size_t>(length_);
    std::size_t offset = 0;
    try {
        while (length - offset >= kHeaderSize) {
            const Header header = ReadHeader(data_ + offset, swap);
            if (header.length > length - offset - kHeaderSize) {
                break;
            }
            offsets_.emplace_hint(offsets_.end(), header.tag, static_cast<std::int32_t>(offset));
            ++count_;
            offset += kHeaderSize + header.length;
        }
    } catch (const std::bad_alloc&) {
        offset = 0;
    }
    if (offset == length) {
        return true;
    }
    offsets_.clear();
    count_ = 0;
    return false;
}

bool TLVAnalyzer::JoinText(std::uint16_t tag, std::string& text) const
{
    std::string joined;
    const auto [first, last] = offsets_.equal_range(tag);
    for (auto offset = first; offset != last; ++offset) {
        const TLVValue value = ParseTLV(data_ + offset->second);
        if (value.GetTag() != tag) {
            return false;
        }
        if (value.GetData() != nullptr) {
            joined.append(reinterpret_cast<const char*>(value.GetData()), value.GetLength());
        }
    }
    if (first != last) {
        text = std::move(joined);
    }
    return first != last;
}

TLVValue TLVAnalyzer::operator[](std::uint16_t tag) const
{
    const auto first = offsets_.lower_bound(tag);
    return first == offsets_.end() || first->first != tag ? TLVValue() : ParseTLV(data_ + first->second);
}

TLVValue TLVAnalyzer::GetValue(std::uint32_t index) const
{
    if (index >= count_) {
        return {};
    }
    return ParseTLV(data_ + std::next(offsets_.begin(), static_cast<std::ptrdiff_t>(index))->second);
}

TLVValue TLVAnalyzer::ParseTLV(unsigned char* at) const
{
    TLVValue value;
    if (data_ == nullptr || length_ < 1 || at < data_ || at >= data_ + length_) {
        return value;
    }
    const auto rest = static_cast<std::size_t>(data_ + length_ - at);
    if (rest < kHeaderSize) {
        return value;
    }
    const Header header = ReadHeader(at, swap_);
    if (header.length <= rest - kHeaderSize) {
        value.Init(header.tag, at + kHeaderSize, header.length);
    }
    return value;
}

}  // namespace NEUtils
