#pragma once

#include <string>
#include <vector>

// Lists of texts without a NUL, such as the arguments of a process.
namespace NEUtils {

// The list as one text: each item and a NUL behind it, so an empty item is there too.
std::string PackList(const std::vector<std::string>& list);

// The list that a text stands for; behind the last item the NUL may be missing.
std::vector<std::string> UnpackList(const std::string& text);

// True if the items could no longer be told apart with single blanks between them.
bool NeedsList(const std::vector<std::string>& list);

}  // namespace NEUtils
