#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <memory_resource>
#include <string>
#include <vector>

#include "neutils_api.h"

namespace NEUtils {

// Tag-length-value items, the bodies of messages. An item is tag (2 bytes), length of the value (2), value;
// items follow one another without padding, header or count. The flag of Pack and Analyze says whether tag
// and length are swapped against the host's order; values never are, so integers travel in host order.
//
// Threads  one at a time; nothing here has a lock.
// Limits   a value made by Init has at most 2048 bytes (a string one more, for its NUL).
// Errors   results only: nothing is logged, and a failed allocation never throws, where not said otherwise.

// One item, which owns a copy of its bytes.
class NEUTILS_API TLVValue {
public:
    static constexpr std::size_t kMaxLength = 2048;

    TLVValue() = default;
    ~TLVValue() = default;
    // An item without bytes or of length 0 leaves an empty one; assignment keeps its tag and length.
    TLVValue(TLVValue&& other) noexcept;
    TLVValue& operator=(TLVValue&& other) noexcept;
    TLVValue(const TLVValue&) = delete;
    TLVValue& operator=(const TLVValue&) = delete;

    // Replaces the item. Does nothing for null or too long data; a failed allocation leaves it without
    // bytes, and GetData() null.
    void Init(std::uint16_t tag, const unsigned char* data, std::uint16_t length);
    void Init(std::uint16_t tag, int value);  // 4 bytes, host order
    // With its NUL, which the length counts. Does nothing for an empty string and one that is too long.
    void Init(std::uint16_t tag, const std::string& text);

    // The value, if the length is exactly that of the type; otherwise false, and the output unchanged.
    bool AsByte(unsigned char& value) const;
    bool AsShort(short& value) const;
    bool AsInt(int& value) const;
    // Up to the first NUL if the last byte is NUL, otherwise all bytes; false without any.
    bool AsString(std::string& value) const;

    std::uint16_t GetTag() const { return tag_; }
    std::uint16_t GetLength() const { return length_; }
    const unsigned char* GetData() const { return data_.get(); }  // GetLength() bytes, or null

private:
    bool Assign(const void* data, std::size_t size);
    bool Copy(void* value, std::size_t size) const;

    std::uint16_t tag_ = 0;
    std::uint16_t length_ = 0;
    std::unique_ptr<unsigned char[]> data_;
};

// Serialises items, in the order of their addition, into one buffer.
class NEUTILS_API TLVPacker {
public:
    TLVPacker() = default;

    // Both copy the bytes; they throw std::bad_alloc. The second does without a TLVValue, within the limits of
    // its Init: false, and nothing added, for null or too long data.
    void Add(TLVValue&& value);
    bool Add(std::uint16_t tag, const void* data, std::size_t length);

    // A text of any length in as many items as it takes, of up to 2048 bytes each and without a NUL. An empty
    // one adds nothing.
    void AddText(std::uint16_t tag, const std::string& text);

    // 0: done. -1: no memory, or an item without its bytes. A further call packs all items anew, and the
    // size then counts the bytes of the calls before too; what lies behind the items is zero.
    int Pack(bool swap);

    const unsigned char* GetBuffer() const { return buffer_.get(); }  // null before Pack; owned by the packer
    std::uint32_t GetSize() const { return size_; }

private:
    void Append(std::uint16_t tag, std::uint16_t length, const void* data);

    std::uint32_t size_ = 0;
    std::unique_ptr<unsigned char[]> buffer_;
    std::vector<unsigned char> items_;              // as on the wire, in host order
    [[maybe_unused]] std::uint32_t reserved_ = 64;  // kept because modules were built with its place
    bool isWhole_ = true;                           // every item has its bytes
};

// Indexes a received buffer by tag and hands out copies of its items. The buffer is borrowed: it must
// outlive the analyzer.
class NEUTILS_API TLVAnalyzer {
public:
    TLVAnalyzer(unsigned char* data, int length) : data_(data), length_(length) {}
    TLVAnalyzer(const TLVAnalyzer&) = delete;
    TLVAnalyzer& operator=(const TLVAnalyzer&) = delete;

    // Indexes the whole buffer. False, and nothing indexed, if it is empty, not made of whole items, or there
    // is no memory.
    bool Analyze(bool swap);

    // The first item with the tag, in the order of the buffer; an empty value where there is none.
    TLVValue operator[](std::uint16_t tag) const;

    bool Has(std::uint16_t tag) const { return offsets_.count(tag) != 0; }

    // All items with the tag, joined in the order of the buffer. False where there is none, or one that is
    // longer than a TLVValue may be.
    bool JoinText(std::uint16_t tag, std::string& text) const;

    // An item by its place in the order of tags, and among equal tags of the buffer; empty beyond the
    // last. Takes time in proportion to the index.
    TLVValue GetValue(std::uint32_t index) const;
    std::uint32_t GetCount() const { return count_; }

    // The item that begins at a place in the buffer; empty if it does not lie wholly in there, or is
    // longer than a TLVValue may be.
    TLVValue ParseTLV(unsigned char* at) const;

private:
    bool swap_ = true;
    unsigned char* data_;
    std::int32_t length_;
    // Its nodes come from a few large blocks, which go with the object: a block each would cost more than all else.
    std::pmr::monotonic_buffer_resource blocks_;
    std::pmr::multimap<std::uint16_t, std::int32_t> offsets_{&blocks_};
    std::uint32_t count_ = 0;
};

}  // namespace NEUtils
