#include "byte_buffer.h"

#include <cstdlib>
#include <utility>

#include "util/bounded.h"

namespace NEUtils {

namespace {

constexpr std::uint32_t kMaxRequest = 0xA00000;

}  // namespace

bool ByteBuffer::Alloc(std::uint32_t n)
{
    if (n > kMaxRequest) {
        return false;
    }
    FreeBuf();
    if (n == 0) {
        return false;
    }
    buffer_ = static_cast<unsigned char*>(std::malloc(n + 1));
    if (buffer_ == nullptr) {
        return false;
    }
    capacity_ = n + 1;
    memset_s(buffer_, capacity_, 0, capacity_);
    return true;
}

bool ByteBuffer::Extend(std::uint32_t n)
{
    if (capacity_ == 0) {
        return Alloc(n);
    }
    const std::uint64_t total = std::uint64_t{capacity_} + n;
    if (n == 0 || total > kMaxRequest) {
        return false;
    }
    const auto size = static_cast<std::size_t>(total);
    auto* block = static_cast<unsigned char*>(std::malloc(size));
    if (block == nullptr) {
        return false;
    }
    memset_s(block, size, 0, size);
    if (memcpy_s(block, size, buffer_, capacity_) != 0) {
        std::free(block);
        return false;
    }
    std::free(buffer_);  // kept unwiped, unlike FreeBuf, because growing is on the path of every read
    buffer_ = block;
    capacity_ = static_cast<std::uint32_t>(total);
    return true;
}

std::uint32_t ByteBuffer::SetSize(std::uint32_t n)
{
    // Kept because callers rely on it: without storage capacity - 1 wraps, so every size is taken.
    if (n <= capacity_ - 1U) {
        size_ = n;
    }
    return size_;
}

bool ByteBuffer::SetBuffer(const void* data, std::uint32_t n)
{
    if (n > kMaxRequest) {
        return false;
    }
    // Built beside the old content, since the source may lie inside it.
    ByteBuffer fresh;
    const bool copied = fresh.Alloc(n) && memcpy_s(fresh.buffer_, n, data, n) == 0;
    if (copied) {
        fresh.size_ = n;
    } else {
        fresh.FreeBuf();
    }
    Swap(fresh);
    return copied;
}

std::string ByteBuffer::ToString() const
{
    return buffer_ == nullptr ? std::string() : std::string(reinterpret_cast<const char*>(buffer_), size_);
}

void ByteBuffer::Swap(ByteBuffer& other) noexcept
{
    std::swap(buffer_, other.buffer_);
    std::swap(size_, other.size_);
    std::swap(capacity_, other.capacity_);
}

void ByteBuffer::FreeBuf()
{
    if (buffer_ != nullptr) {
        memset_s(buffer_, capacity_, 0, capacity_);
        std::free(buffer_);
        buffer_ = nullptr;
    }
    size_ = 0;
    capacity_ = 0;
}

}  // namespace NEUtils
