#include "policy_text.h"

#include <algorithm>
#include <charconv>

#include "logger.h"

namespace {

// What a message may repeat of a text: a short piece.
std::string Quoted(const std::string& text)
{
    constexpr std::size_t kMost = 60;
    return std::string("'").append(text, 0, kMost).append(text.size() > kMost ? "...'" : "'");
}

std::string ReadLine(const std::string& line, const PolicyKeys& keys)
{
    if (line.empty() || line[0] == '#') {
        return {};
    }
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos) {
        return Quoted(line) + " has no '='";
    }
    const std::string value = line.substr(equals + 1);
    const auto key = keys.find(line.substr(0, equals));
    if (key == keys.end()) {
        return std::string("unknown key ").append(Quoted(line.substr(0, equals)));
    }
    const std::string fault = key->second(value);
    return fault.empty() ? fault : key->first + ": " + Quoted(value) + " " + fault;
}

}  // namespace

std::string ReadPolicy(const std::string& text, const PolicyKeys& keys)
{
    std::size_t number = 0;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        ++number;
        const std::string fault = ReadLine(text.substr(start, end - start), keys);
        if (!fault.empty()) {
            return "line " + std::to_string(number) + ": " + fault;
        }
        start = end + 1;
    }
    return {};
}

std::string ReadNumber(const std::string& value, std::uint64_t most, std::uint64_t& number)
{
    const char* end = value.data() + value.size();
    const auto [stop, error] = std::from_chars(value.data(), end, number);
    const bool valid = error == std::errc() && stop == end && number <= most;
    return valid ? std::string() : "is not a number from 0 to " + std::to_string(most);
}

void LogRefusal(const char* feature, const std::string& reason)
{
    NE_LOG(ERROR, "Policy is refused.[feature=%s reason=%s]", feature, NEUtils::Printable(reason).c_str());
}
