#pragma once

#include <cstdint>
#include <string>

#include "neutils_api.h"

namespace NEUtils {

// An owned, zero-filled byte buffer that keeps the used size apart from the capacity.
//
// Threads  one at a time; the buffer has no lock.
// Owns     its storage, wiped before it is freed.
// Limits   a request beyond 0xA00000 bytes (10 MiB) is refused.
// Errors   false, and a failed allocation never throws.
class NEUTILS_API ByteBuffer {
public:
    ByteBuffer() = default;
    ~ByteBuffer() { FreeBuf(); }
    ByteBuffer(const ByteBuffer&) = delete;
    ByteBuffer& operator=(const ByteBuffer&) = delete;

    unsigned char* GetBuffer() { return buffer_; }
    const unsigned char* GetBuffer() const { return buffer_; }
    std::uint32_t GetSize() const { return size_; }
    std::uint32_t GetCapacity() const { return capacity_; }

    // Replaces the storage by n zero bytes and one more, which keeps the content a C string.
    // The old content is lost, also when n is 0 (false, empty); only an n beyond the limit changes nothing.
    bool Alloc(std::uint32_t n);

    // Adds n zero bytes behind the storage and keeps content and size. On an empty buffer the same as
    // Alloc(n); otherwise false, and nothing changed, for n = 0 and for a sum beyond the limit.
    // The old block is released unwiped.
    bool Extend(std::uint32_t n);

    // Sets the used size if it leaves the last byte of the storage free; gives the size then in force.
    // A buffer without storage takes any size: check GetBuffer() before reading GetSize() bytes.
    std::uint32_t SetSize(std::uint32_t n);

    // Replaces the content by a copy of n bytes, which may lie inside this buffer. n = 0: false, empty.
    bool SetBuffer(const void* data, std::uint32_t n);

    std::string ToString() const;
    void Swap(ByteBuffer& other) noexcept;
    void FreeBuf();

private:
    unsigned char* buffer_ = nullptr;
    std::uint32_t size_ = 0;
    std::uint32_t capacity_ = 0;
};

}  // namespace NEUtils
