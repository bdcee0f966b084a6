#include "errors.h"

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>

#include "line_queue.h"

namespace {

using namespace std::chrono_literals;

constexpr std::size_t kMaxWaiting = std::size_t{256} << 10U;
constexpr auto kStopLimit = 200ms;

LineQueue* g_lines = nullptr;
std::uint64_t g_dropped = 0;

// Never destroyed, since its thread may hang in the kernel.
LineQueue& Lines()
{
    static auto& output = *new StreamOutput(STDERR_FILENO);
    static auto& lines = *new LineQueue(output);
    return lines;
}

bool Add(const std::string& line)
{
    return g_lines->Add(line, kMaxWaiting) > 0;
}

}  // namespace

void Complain(const std::string& text)
{
    SayError("sentrel-collector: " + text);
}

void SayError(const std::string& line)
{
    if (g_lines == nullptr) {
        std::fprintf(stderr, "%s\n", line.c_str());
        return;
    }
    if (g_dropped > 0 && Add("sentrel-collector: " + std::to_string(g_dropped) + " lines of standard error are lost")) {
        g_dropped = 0;
    }
    g_dropped += Add(line) ? 0 : 1;
}

bool StartErrorLog()
{
    if (!Lines().Start("ErrorWriter")) {
        return false;
    }
    g_lines = &Lines();
    return true;
}

bool StopErrorLog()
{
    g_lines = nullptr;
    Lines().WaitUntilWritten(std::chrono::steady_clock::now() + kStopLimit);
    return Lines().Stop();
}
