// The default layout of a log line.
#include <pthread.h>

#include <charconv>
#include <cstring>
#include <iterator>

#include "log_system.h"

namespace NEUtils {

namespace {

// Puts a line together in a buffer of the caller's. It does without printf, which would cost more than anything else
// in a record but its system calls.
class LineWriter {
public:
    LineWriter(char* out, std::size_t size) : at_(out), end_(out + size) {}

    void Text(const char* text)
    {
        const char* known = text == nullptr ? "(null)" : text;
        Bytes(known, std::strlen(known));
    }
    void Byte(char byte) { Bytes(&byte, 1); }

    // A decimal number, filled up with zeros in front.
    void Number(long long value, std::size_t width)
    {
        char digits[24];
        const auto length = static_cast<std::size_t>(std::to_chars(digits, std::end(digits), value).ptr - digits);
        for (std::size_t i = length; i < width; ++i) {
            Byte('0');
        }
        Bytes(digits, length);
    }

    // What has been written; null once something did not fit.
    [[nodiscard]] const char* End() const { return at_; }

private:
    void Bytes(const char* bytes, std::size_t count)
    {
        if (at_ == nullptr || count > static_cast<std::size_t>(end_ - at_)) {
            at_ = nullptr;
            return;
        }
        std::memcpy(at_, bytes, count);
        at_ += count;
    }

    char* at_;
    char* end_;
};

void PutTime(LineWriter& line, const struct tm& time)
{
    line.Number(time.tm_year, 4);
    line.Number(time.tm_mon, 2);
    line.Number(time.tm_mday, 2);
    line.Byte(' ');
    line.Number(time.tm_hour, 2);
    line.Byte(':');
    line.Number(time.tm_min, 2);
    line.Byte(':');
    line.Number(time.tm_sec, 2);
}

}  // namespace

unsigned int LogSystem::GetDefaultLogContent(const NENormalLog& record, char* out, unsigned int size)
{
    if (size < 2) {
        return 0;
    }
    char thread[16] = {};
    pthread_getname_np(pthread_self(), thread, std::size(thread));
    LineWriter line(out, size - 1);
    PutTime(line, *record.time);
    line.Byte(' ');
    line.Text(record.levelName);
    line.Text(" [");
    line.Text(record.fileName);
    line.Byte(':');
    line.Number(record.line, 1);
    line.Text("] [");
    line.Text(thread);
    line.Text("] ");
    line.Text(record.content);
    line.Byte('\n');
    if (line.End() == nullptr) {
        return 0;
    }
    auto count = static_cast<unsigned int>(line.End() - out);
    while (out[count - 2] == '\n') {  // the message brought its own
        --count;
    }
    out[count] = '\0';
    return count;
}

}  // namespace NEUtils
