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

// Tag-length-value items, the bodies of messages. An item is a tag (2 bytes), the length of the value (2 bytes)
// and the value. Items follow one another without padding, header or count. The flag of Pack and Analyze says
// whether tag and length are swapped against the host's order. Values never are: integers stay in host order.
//
// Threads  one at a time, since nothing here has a lock.
// Limits   a value made by Init has at most 2048 bytes (a string one more, for its NUL).
// Errors   results only, no log records. A failed allocation does not throw, where nothing else is said.

// One item with its own copy of the bytes.
class NEUTILS_API TLVValue {
public:
    static constexpr std::size_t kMaxLength = 2048;

    TLVValue() = default;
    ~TLVValue() = default;
    // An item made from one without bytes is empty; assignment takes over tag and length also then.
    TLVValue(TLVValue&& other) noexcept;
    TLVValue& operator=(TLVValue&& other) noexcept;
    TLVValue(const TLVValue&) = delete;
    TLVValue& operator=(const TLVValue&) = delete;

    // Each Init replaces the item. It does nothing for null or too long data. After a failed allocation there
    // are no bytes, and GetData() is null.
    void Init(std::uint16_t tag, const unsigned char* data, std::uint16_t length);
    void Init(std::uint16_t tag, int value);  // 4 bytes, host order
    // The NUL at its end belongs to the item. Does nothing for a string that is empty or too long.
    void Init(std::uint16_t tag, const std::string& text);

    // The value, if it is exactly as long as the type. Otherwise false, and the output is unchanged.
    bool AsByte(unsigned char& value) const;
    bool AsShort(short& value) const;
    bool AsInt(int& value) const;
    // Up to the first NUL if the last byte is NUL, otherwise all bytes. False if there are none.
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

// Writes items into one buffer, in the order in which they were added.
class NEUTILS_API TLVPacker {
public:
    TLVPacker() = default;

    // Both copy the bytes; they throw std::bad_alloc. The second does without a TLVValue, within the limits of
    // its Init: false, and nothing added, for null or too long data.
    void Add(TLVValue&& value);
    bool Add(std::uint16_t tag, const void* data, std::size_t length);

    // A text of any length, in as many items as are needed, of up to 2048 bytes each and without a NUL. An empty
    // text adds nothing.
    void AddText(std::uint16_t tag, const std::string& text);

    // 0: done. -1: no memory, or an item without its bytes. A second call packs all items again, and its size
    // includes that of the first; the bytes after the items are zero.
    int Pack(bool swap);

    const unsigned char* GetBuffer() const { return buffer_.get(); }  // null before Pack; owned by the packer
    std::uint32_t GetSize() const { return size_; }

private:
    void Append(std::uint16_t tag, std::uint16_t length, const void* data);

    std::uint32_t size_ = 0;
    std::unique_ptr<unsigned char[]> buffer_;
    // As on the wire, in host order. Items show nowhere between Add and Pack, so they need not be objects: with a
    // block of memory for each of them packing takes twice as long.
    std::vector<unsigned char> items_;
    [[maybe_unused]] std::uint32_t reserved_ = 64;  // kept because modules were built with its place
    bool isWhole_ = true;                           // every item has its bytes
};

// Finds the items of a received buffer by their tags, and gives copies of them. It does not own the buffer,
// which must live longer.
class NEUTILS_API TLVAnalyzer {
public:
    TLVAnalyzer(unsigned char* data, int length) : data_(data), length_(length) {}
    TLVAnalyzer(const TLVAnalyzer&) = delete;
    TLVAnalyzer& operator=(const TLVAnalyzer&) = delete;

    // Finds all items. False, and no item is found, if the buffer is empty or does not consist of whole items,
    // or if there is no memory.
    bool Analyze(bool swap);

    // The first item with this tag in the buffer. Empty if there is none.
    TLVValue operator[](std::uint16_t tag) const;

    bool Has(std::uint16_t tag) const { return offsets_.count(tag) != 0; }

    // The values of all items with this tag, joined in the order of the buffer. False if there is none, or if
    // one is longer than a TLVValue may be.
    bool JoinText(std::uint16_t tag, std::string& text) const;

    // An item by its place in the order of the tags; equal tags are in the order of the buffer. Empty after the
    // last item. The time grows with the index.
    TLVValue GetValue(std::uint32_t index) const;
    std::uint32_t GetCount() const { return count_; }

    // The item that begins at this place of the buffer. Empty if it does not lie in the buffer as a whole, or
    // is longer than a TLVValue may be.
    TLVValue ParseTLV(unsigned char* at) const;

private:
    bool swap_ = true;
    unsigned char* data_;
    std::int32_t length_;
    // Its nodes are in a few large blocks: to allocate them one by one would take most of the time.
    std::pmr::monotonic_buffer_resource blocks_;
    std::pmr::multimap<std::uint16_t, std::int32_t> offsets_{&blocks_};
    std::uint32_t count_ = 0;
};

}  // namespace NEUtils
