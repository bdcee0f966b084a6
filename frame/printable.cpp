#include <string_view>

#include "logger.h"
#include "util/utf8.h"

namespace NEUtils {

std::string Printable(std::string text)
{
    for (std::size_t at = 0; at < text.size();) {
        const std::string_view rest = std::string_view(text).substr(at);
        const std::size_t printable = PrintableCharLength(rest);
        if (printable > 0) {
            at += printable;
            continue;
        }
        for (std::size_t left = Utf8CharLength(rest) == 2 ? 2 : 1; left > 0; --left) {
            text[at++] = '?';
        }
    }
    return text;
}

}  // namespace NEUtils
