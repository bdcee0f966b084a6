#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// How values that came from an agent are shown. None of them can steer a terminal.

// Adds a text with a ? for every control character and every byte that is no UTF-8.
void AppendPrintable(std::string& line, std::string_view text);

// The same, in quotes where a blank, a quote or an empty text would make it unclear where the value ends.
void AppendQuoted(std::string& line, std::string_view text);

// A value of which nothing is known but its bytes.
struct RawValue {
    enum Kind { kText, kNumber, kBytes };
    Kind kind = kBytes;
    std::string text;         // of kText; of kBytes in hexadecimal digits, the first 64 bytes of it
    std::int64_t number = 0;  // of kNumber
};

// Text if it is printable, a number if it has the size of one, bytes otherwise.
RawValue GuessValue(std::string_view bytes);

// As GuessValue gives it, on a line.
void AppendRaw(std::string& line, std::string_view bytes);
