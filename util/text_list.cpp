#include "util/text_list.h"

#include <algorithm>
#include <cstddef>

namespace NEUtils {

std::string PackList(const std::vector<std::string>& list)
{
    std::string text;
    for (const std::string& item : list) {
        text.append(item).push_back('\0');
    }
    return text;
}

std::vector<std::string> UnpackList(const std::string& text)
{
    std::vector<std::string> list;
    for (std::size_t at = 0; at < text.size(); at += list.back().size() + 1) {
        list.push_back(text.substr(at, text.find('\0', at) - at));
    }
    return list;
}

bool NeedsList(const std::vector<std::string>& list)
{
    const auto isNoWord = [](const std::string& item) {
        return item.empty() || std::any_of(item.begin(), item.end(), [](char letter) {
                   const auto byte = static_cast<unsigned char>(letter);
                   return byte <= ' ' || byte >= 0x7F;  // what is not printable is replaced in a line
               });
    };
    return std::any_of(list.begin(), list.end(), isNoWord);
}

}  // namespace NEUtils
