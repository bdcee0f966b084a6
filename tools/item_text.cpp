#include "item_text.h"

#include <cstddef>
#include <cstring>

#include "util/utf8.h"

namespace {

constexpr std::size_t kMaxBytes = 64;
constexpr char kDigits[] = "0123456789abcdef";

bool IsPrintable(std::string_view text)
{
    while (!text.empty()) {
        const std::size_t length = NEUtils::PrintableCharLength(text);
        if (length == 0) {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}

std::string ToHex(std::string_view bytes)
{
    std::string digits;
    for (const char byte : bytes.substr(0, kMaxBytes)) {
        digits.push_back(kDigits[static_cast<unsigned char>(byte) >> 4U]);
        digits.push_back(kDigits[static_cast<unsigned char>(byte) & 0xFU]);
    }
    return digits;
}

void AppendInQuotes(std::string& line, std::string_view text)
{
    std::string escaped;
    for (const char letter : text) {
        escaped.append(letter == '"' || letter == '\\' ? "\\" : "").push_back(letter);
    }
    line.push_back('"');
    AppendPrintable(line, escaped);
    line.push_back('"');
}

template <class T>
bool ReadNumber(std::string_view bytes, std::int64_t& number)
{
    T value = 0;
    if (bytes.size() != sizeof(value)) {
        return false;
    }
    std::memcpy(&value, bytes.data(), sizeof(value));
    number = value;
    return true;
}

}  // namespace

void AppendPrintable(std::string& line, std::string_view text)
{
    while (!text.empty()) {
        const std::size_t length = NEUtils::PrintableCharLength(text);
        line.append(length == 0 ? "?" : text.substr(0, length));
        text.remove_prefix(length == 0 ? 1 : length);
    }
}

void AppendQuoted(std::string& line, std::string_view text)
{
    if (!text.empty() && text.find_first_of(" \"\\") == std::string_view::npos) {
        AppendPrintable(line, text);
    } else {
        AppendInQuotes(line, text);
    }
}

RawValue GuessValue(std::string_view bytes)
{
    RawValue value;
    const bool isTerminated = bytes.size() > 1 && bytes.back() == '\0';
    const std::string_view text = bytes.substr(0, bytes.size() - (isTerminated ? 1 : 0));
    // One or two bytes are rather a small number, which may be printable too.
    if ((isTerminated || bytes.size() > sizeof(std::int16_t)) && IsPrintable(text)) {
        value.kind = RawValue::kText;
        value.text = text;
    } else if (ReadNumber<std::uint8_t>(bytes, value.number) || ReadNumber<std::uint16_t>(bytes, value.number) ||
               ReadNumber<std::int32_t>(bytes, value.number) || ReadNumber<std::int64_t>(bytes, value.number)) {
        value.kind = RawValue::kNumber;
    } else {
        value.text = ToHex(bytes);
    }
    return value;
}

void AppendRaw(std::string& line, std::string_view bytes)
{
    const RawValue value = GuessValue(bytes);
    switch (value.kind) {
    case RawValue::kText:
        AppendInQuotes(line, value.text);
        break;
    case RawValue::kNumber:
        line.append(std::to_string(value.number));
        break;
    case RawValue::kBytes:
        line.append("0x").append(value.text).append(bytes.size() > kMaxBytes ? "..." : "");
    }
}
