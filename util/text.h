#pragma once

#include <string>
#include <vector>

namespace NEUtils {

class StringProcess {
public:
    // Splits at every occurrence of a separator; empty pieces are kept, an empty text is one empty piece.
    static std::vector<std::string> StrSplit(const std::string& text, const std::string& separator);
};

class Convert {
public:
    // The whole text as a decimal number; false on any other character and on overflow.
    static bool StringToInt(const std::string& text, int& value);
};

}  // namespace NEUtils
