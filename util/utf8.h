#pragma once

#include <cstddef>
#include <string_view>

namespace NEUtils {

// The number of bytes of the UTF-8 character that a text begins with; 0 where it begins with none: an empty text,
// a byte that starts no character, a cut or overlong form, a surrogate, a number above 0x10FFFF.
inline std::size_t Utf8CharLength(std::string_view text)
{
    const auto byteAt = [text](std::size_t at) { return at < text.size() ? static_cast<unsigned char>(text[at]) : 0U; };
    const unsigned int first = byteAt(0);
    if (first < 0x80) {
        return text.empty() ? 0 : 1;
    }
    const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4) {
        return 0;
    }
    for (std::size_t i = 1; i < length; ++i) {
        if ((byteAt(i) & 0xC0U) != 0x80) {
            return 0;
        }
    }
    const unsigned int second = byteAt(1);
    const bool overlong = (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);
    const bool noCharacter = (first == 0xED && second > 0x9F) || (first == 0xF4 && second > 0x8F);
    return overlong || noCharacter ? 0 : length;
}

// The same, but 0 also for a control character: those below a blank, delete, and those from 0x80 to 0x9F.
inline std::size_t PrintableCharLength(std::string_view text)
{
    const std::size_t length = Utf8CharLength(text);
    const unsigned int first = length == 0 ? 0 : static_cast<unsigned char>(text[0]);
    const bool isControl = (length == 1 && (first < ' ' || first == 0x7F)) ||
                           (length == 2 && first == 0xC2 && static_cast<unsigned char>(text[1]) < 0xA0);
    return isControl ? 0 : length;
}

// The whole text is UTF-8.
inline bool IsUtf8(std::string_view text)
{
    for (std::size_t length = 0; !text.empty(); text.remove_prefix(length)) {
        length = Utf8CharLength(text);
        if (length == 0) {
            return false;
        }
    }
    return true;
}

}  // namespace NEUtils
