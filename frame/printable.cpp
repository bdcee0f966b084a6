#include "logger.h"

namespace NEUtils {

std::string Printable(std::string text)
{
    unsigned int following = 0;  // bytes that the character under way still wants
    unsigned char before = 0;
    for (char& letter : text) {
        const auto byte = static_cast<unsigned char>(letter);
        const bool follows = (byte & 0xC0U) == 0x80 && following > 0 && !(before == 0xC2 && byte < 0xA0);
        if (follows) {
            --following;
        } else {
            following = byte >= 0xF0 ? 3 : byte >= 0xE0 ? 2 : byte >= 0xC0 ? 1 : 0;
            if (byte < ' ' || (byte >= 0x7F && byte < 0xC0)) {
                letter = '?';
            }
        }
        before = byte;
    }
    return text;
}

}  // namespace NEUtils
