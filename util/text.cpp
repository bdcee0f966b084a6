#include "util/text.h"

#include <charconv>
#include <system_error>

namespace NEUtils {

std::vector<std::string> StringProcess::StrSplit(const std::string& text, const std::string& separator)
{
    std::vector<std::string> pieces;
    std::size_t start = 0;
    if (!separator.empty()) {
        for (std::size_t end; (end = text.find(separator, start)) != std::string::npos;) {
            pieces.push_back(text.substr(start, end - start));
            start = end + separator.size();
        }
    }
    pieces.push_back(text.substr(start));
    return pieces;
}

bool Convert::StringToInt(const std::string& text, int& value)
{
    int number = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stop != end) {
        return false;
    }
    value = number;
    return true;
}

}  // namespace NEUtils
