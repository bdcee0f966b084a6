#include "util/bounded.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace NEUtils {

int memcpy_s(void* dest, std::size_t destSize, const void* src, std::size_t count)
{
    if (dest == nullptr) {
        return EINVAL;
    }
    if (src == nullptr || count > destSize) {
        memset_s(dest, destSize, 0, destSize);
        return src == nullptr ? EINVAL : ERANGE;
    }
    std::memcpy(dest, src, count);
    return 0;
}

int memmove_s(void* dest, std::size_t destSize, const void* src, std::size_t count)
{
    if (dest == nullptr || src == nullptr || count > destSize) {
        return memcpy_s(dest, destSize, src, count);
    }
    std::memmove(dest, src, count);
    return 0;
}

int strcpy_s(char* dest, std::size_t destSize, const char* src)
{
    return memcpy_s(dest, destSize, src, src == nullptr ? 0 : std::strlen(src) + 1);
}

int memset_s(void* dest, std::size_t destSize, int value, std::size_t count)
{
    if (dest == nullptr) {
        return EINVAL;
    }
    const bool fits = count <= destSize;
    std::memset(dest, value, fits ? count : destSize);
    asm volatile("" : : "r"(dest) : "memory");
    return fits ? 0 : ERANGE;
}

int vsnprintf_s(char* dest, std::size_t destSize, const char* format, va_list args)
{
    if (dest == nullptr || destSize == 0) {
        return -1;
    }
    const int length = format == nullptr ? -1 : std::vsnprintf(dest, destSize, format, args);
    if (length < 0) {
        dest[0] = '\0';
        return -1;
    }
    return static_cast<std::size_t>(length) < destSize ? length : -1;
}

int snprintf_s(char* dest, std::size_t destSize, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int length = vsnprintf_s(dest, destSize, format, args);
    va_end(args);
    return length;
}

}  // namespace NEUtils
