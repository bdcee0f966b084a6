#pragma once

#include <pthread.h>

#include <iterator>
#include <string>
#include <string_view>

namespace NEUtils {

// The kernel refuses a longer name.
constexpr std::size_t kMaxThreadName = 15;

inline std::string ThreadName(pthread_t thread)
{
    char name[kMaxThreadName + 1] = {};
    pthread_getname_np(thread, name, std::size(name));
    return name;
}

// Takes no memory: a thread that begins must not end for want of it.
inline void SetThreadName(std::string_view name)
{
    char cut[kMaxThreadName + 1] = {};
    name.copy(cut, kMaxThreadName);
    pthread_setname_np(pthread_self(), cut);
}

}  // namespace NEUtils
