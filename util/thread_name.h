#pragma once

#include <pthread.h>

#include <iterator>
#include <string>

namespace NEUtils {

// The kernel refuses a longer name.
constexpr std::size_t kMaxThreadName = 15;

inline std::string ThreadName(pthread_t thread)
{
    char name[kMaxThreadName + 1] = {};
    pthread_getname_np(thread, name, std::size(name));
    return name;
}

inline void SetThreadName(const std::string& name)
{
    pthread_setname_np(pthread_self(), name.substr(0, kMaxThreadName).c_str());
}

}  // namespace NEUtils
