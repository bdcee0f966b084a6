#include "util/key_lines.h"

#include <algorithm>
#include <charconv>

namespace NEUtils {

KeyLineFault ReadKeyLines(const std::string& text,
                          const std::function<std::string(const std::string& key, const std::string& value)>& take)
{
    KeyLineFault fault;
    for (std::size_t start = 0, end = 0; start < text.size() && fault.reason.empty(); start = end + 1) {
        end = std::min(text.find('\n', start), text.size());
        ++fault.line;
        const std::string line = text.substr(start, end - start);
        if (line.empty() || line[0] == '#') {
            continue;
        }
        const std::size_t equals = line.find('=');
        fault.reason = equals == std::string::npos ? Excerpt(line) + " has no '='"
                                                   : take(line.substr(0, equals), line.substr(equals + 1));
    }
    return fault;
}

std::string ReadNumber(const std::string& value, std::uint64_t most, std::uint64_t& number)
{
    const char* end = value.data() + value.size();
    std::uint64_t read = 0;
    const auto [stop, error] = std::from_chars(value.data(), end, read);
    if (error != std::errc() || stop != end || read > most) {
        return "is not a number from 0 to " + std::to_string(most);
    }
    number = read;
    return {};
}

std::string Excerpt(const std::string& text)
{
    constexpr std::size_t kMost = 60;
    return std::string("'").append(text, 0, kMost).append(text.size() > kMost ? "...'" : "'");
}

}  // namespace NEUtils
