#include "process/libbpf_messages.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <mutex>

namespace NEUtils {

namespace {

thread_local std::string* t_first = nullptr;

// How many there are, and whose place they took.
std::mutex g_mutex;
int g_count = 0;
std::atomic<libbpf_print_fn_t> g_former{nullptr};

}  // namespace

LibbpfMessages::LibbpfMessages()
{
    t_first = &first_;
    const std::lock_guard<std::mutex> lock(g_mutex);
    if (g_count++ == 0) {
        g_former = libbpf_set_print(&LibbpfMessages::Print);
    }
}

LibbpfMessages::~LibbpfMessages()
{
    t_first = nullptr;
    const std::lock_guard<std::mutex> lock(g_mutex);
    if (--g_count == 0) {
        libbpf_set_print(g_former);
    }
}

int LibbpfMessages::Print(libbpf_print_level level, const char* format, va_list args)
{
    if (t_first == nullptr) {
        const libbpf_print_fn_t former = g_former;
        return former == nullptr ? 0 : former(level, format, args);
    }
    if (level == LIBBPF_WARN && t_first->empty()) {
        std::array<char, 512> text{};
        std::vsnprintf(text.data(), text.size(), format, args);
        t_first->assign(text.data());
        t_first->erase(std::min(t_first->find('\n'), t_first->size()));
    }
    return 0;
}

}  // namespace NEUtils
