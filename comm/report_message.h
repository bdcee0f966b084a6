#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace NEUtils {

// A message with its header, whose number is given later. Null without memory.
std::shared_ptr<std::string> MakeMessage(std::uint32_t type, const void* body, std::size_t length);

// The notice that so many reports were dropped since the notice before, and so many in all.
std::shared_ptr<std::string> MakeDropNotice(std::uint64_t count, std::uint64_t total);

}  // namespace NEUtils
