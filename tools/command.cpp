#include "command.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

#include "basecomm.h"
#include "item_text.h"
#include "report_messages.h"
#include "tlv.h"

namespace {

using namespace NEUtils;

constexpr std::size_t kMaxFeature = 64;
constexpr std::size_t kMaxPolicy = 60000;
constexpr char kLetters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-";
constexpr char kBlanks[] = " \t";

std::string Quoted(std::string_view text)
{
    std::string quoted = "'";
    AppendPrintable(quoted, text);
    return quoted + "'";
}

void SkipBlanks(std::string_view& rest)
{
    rest.remove_prefix(std::min(rest.find_first_not_of(kBlanks), rest.size()));
}

std::string_view NextWord(std::string_view& rest)
{
    SkipBlanks(rest);
    const std::string_view word = rest.substr(0, rest.find_first_of(kBlanks));
    rest.remove_prefix(word.size());
    SkipBlanks(rest);
    return word;
}

std::string ReadOpenFile(int fd, std::string& text)
{
    struct stat status = {};
    if (fstat(fd, &status) != 0) {
        return std::strerror(errno);
    }
    if (!S_ISREG(status.st_mode)) {
        return "it is not a regular file";
    }
    text.resize(kMaxPolicy + 1);
    std::size_t size = 0;
    for (ssize_t got = 1; got > 0 && size < text.size(); size += static_cast<std::size_t>(got)) {
        got = read(fd, &text[size], text.size() - size);
        if (got < 0) {
            return std::strerror(errno);
        }
    }
    text.resize(size);
    if (text.empty()) {
        return "it is empty";  // which would be taken for no policy at all
    }
    if (size > kMaxPolicy) {
        return "it has more than " + std::to_string(kMaxPolicy) + " bytes";
    }
    return text.find('\0') == std::string::npos ? std::string() : "it has a NUL byte";
}

// Without waiting for whoever would write into a FIFO.
std::string ReadPolicy(const std::string& path, std::string& text)
{
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        return std::strerror(errno);
    }
    std::string fault = ReadOpenFile(fd, text);
    close(fd);
    return fault;
}

std::string ParsePolicy(std::string_view rest, Command& command)
{
    const std::string_view feature = NextWord(rest);
    const std::string_view state = NextWord(rest);
    if (state.empty()) {
        return "policy needs a FEATURE and on or off";
    }
    if (feature.size() > kMaxFeature || feature.find_first_not_of(kLetters) != std::string_view::npos) {
        return Quoted(feature) + " is no feature: 1 to 64 letters, digits, _ and -";
    }
    if (state != "on" && state != "off") {
        return Quoted(state) + " is neither on nor off";
    }
    command.feature = feature;
    command.enable = state == "on";
    if (rest.empty()) {
        return {};
    }
    const std::string fault = ReadPolicy(std::string(rest), command.policy);
    return fault.empty() ? fault : "cannot take " + Quoted(rest) + ": " + fault;
}

template <class T>
void AddItem(TLVPacker& items, ReportTag tag, const T& value)
{
    TLVValue item;
    item.Init(tag, value);
    items.Add(std::move(item));
}

std::string PolicyBody(const Command& command)
{
    TLVPacker items;
    AddItem(items, kTagFeature, command.feature);
    AddItem(items, kTagEnable, command.enable ? 1 : 0);
    items.AddText(kTagPolicy, command.policy);
    if (items.Pack(kSwapReport) != 0) {
        throw std::bad_alloc();
    }
    return {reinterpret_cast<const char*>(items.GetBuffer()), items.GetSize()};
}

}  // namespace

std::string ParseCommand(const std::string& line, Command& command)
{
    if (line.starts_with('#')) {
        return {};
    }
    if (line.find('\0') != std::string::npos) {
        return "the line has a NUL byte";
    }
    std::string_view rest = line;
    const std::string_view verb = NextWord(rest);
    if (verb == "policy") {
        command.type = kMsgPolicy;
        return ParsePolicy(rest, command);
    }
    if (verb == "status") {
        command.type = kMsgStatus;
        return rest.empty() ? std::string() : "status takes nothing, but " + Quoted(rest) + " follows";
    }
    command.isHelp = verb == "help";
    return verb.empty() || command.isHelp ? std::string() : Quoted(verb) + " is no command, help lists them";
}

std::string CommandMessage(const Command& command, std::uint32_t seq)
{
    const std::string body = command.type == kMsgPolicy ? PolicyBody(command) : std::string();
    const SentrelAgentMsg header = {kMsgVersion, command.type, seq, static_cast<std::uint32_t>(body.size())};
    return std::string(reinterpret_cast<const char*>(&header), sizeof(header)) + body;
}

std::string CommandName(const Command& command)
{
    return command.type == kMsgPolicy ? "policy " + command.feature + (command.enable ? " on" : " off") : "status";
}
