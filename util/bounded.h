#pragma once

#include <cstdarg>
#include <cstddef>

// Bounds-checked memory and formatting functions in the manner of C11 Annex K.
//
// Formatting functions take the whole size of the buffer and keep one byte of it for the
// terminator. A text that does not fit is cut, stays in the buffer and gives -1; a format
// that fails leaves the buffer empty and gives -1.
namespace NEUtils {

// Copies count bytes. 0: done. Otherwise nothing is copied and the destination is zeroed.
int memcpy_s(void* dest, std::size_t destSize, const void* src, std::size_t count);

// The same for areas that may overlap.
int memmove_s(void* dest, std::size_t destSize, const void* src, std::size_t count);

// Copies a text with its terminator. 0: done. A text that does not fit leaves an empty one and gives not 0.
int strcpy_s(char* dest, std::size_t destSize, const char* src);

// Fills count bytes; never optimised away, so it also wipes secrets before a free.
int memset_s(void* dest, std::size_t destSize, int value, std::size_t count);

int snprintf_s(char* dest, std::size_t destSize, const char* format, ...) __attribute__((format(printf, 3, 4)));
int vsnprintf_s(char* dest, std::size_t destSize, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));

}  // namespace NEUtils
