#include "report_text.h"

#include <chrono>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <string_view>

#include "tlv.h"

namespace {

using namespace NEUtils;

struct ItemKind {
    ReportTag tag;
    const char* name;
    std::size_t size;  // 0: text
};

// In the order of printing: a command line may imitate whatever would follow it.
constexpr ItemKind kItemKinds[] = {
    {kTagTime, "time", 8},           {kTagEvent, "event", 4},
    {kTagCount, "count", 8},         {kTagPid, "pid", 4},
    {kTagParentPid, "ppid", 4},      {kTagUser, "user", 0},
    {kTagContainer, "container", 0}, {kTagExitCode, "exitCode", 4},
    {kTagSignal, "signal", 4},       {kTagAction, "action", 0},
    {kTagDigest, "sha256", 0},       {kTagChange, "change", 0},
    {kTagOldPath, "oldPath", 0},     {kTagPath, "path", 0},
    {kTagCmdLine, "cmdLine", 0},
};
static_assert(std::tuple_size_v<decltype(Report::items)> == std::size(kItemKinds) + 1);

struct EventKind {
    ProcessEvent event;
    const char* type;
    ReportTag needed;
};

constexpr EventKind kEventKinds[] = {
    {kProcessExecuted, "executed", kTagPid},
    {kProcessExited, "exited", kTagExitCode},
    {kProcessKilled, "killed", kTagSignal},
};

const std::int64_t* Number(const Report& report, ReportTag tag)
{
    return std::get_if<std::int64_t>(&report.items[tag]);
}

std::string ReadItem(const ItemKind& kind, const TLVValue& value, Report& report)
{
    std::string text;
    std::int64_t number = 0;
    int shortNumber = 0;
    if (kind.size == 0 && value.AsString(text)) {
        report.items[kind.tag] = std::move(text);
    } else if (kind.size == sizeof(shortNumber) && value.AsInt(shortNumber)) {
        report.items[kind.tag] = shortNumber;
    } else if (kind.size == sizeof(number) && value.GetLength() == sizeof(number) && value.GetData() != nullptr) {
        std::memcpy(&number, value.GetData(), sizeof(number));
        report.items[kind.tag] = number;
    } else if (kind.size != 0) {
        return std::string(kind.name) + " has " + std::to_string(value.GetLength()) + " bytes";
    }
    return {};
}

std::string CheckItems(const Report& report, std::initializer_list<ReportTag> needed)
{
    for (const ItemKind& kind : kItemKinds) {
        for (const ReportTag tag : needed) {
            if (kind.tag == tag && Number(report, tag) == nullptr) {
                return std::string(kind.name) + " is missing";
            }
        }
    }
    return {};
}

std::string CheckProcess(Report& report)
{
    std::string fault = CheckItems(report, {kTagTime, kTagEvent, kTagPid});
    if (!fault.empty()) {
        return fault;
    }
    report.type = "process";  // of an event that only a newer agent knows, perhaps
    for (const EventKind& kind : kEventKinds) {
        if (*Number(report, kTagEvent) == kind.event) {
            report.type = kind.type;
            report.items[kTagEvent].emplace<std::monostate>();  // said by the type
            return CheckItems(report, {kind.needed});
        }
    }
    return {};
}

// The length of the UTF-8 character that the text begins with; 0 for a control character and a wrong byte.
std::size_t LetterLength(std::string_view text)
{
    constexpr std::uint32_t kLeast[] = {0xA0, 0x800, 0x10000};  // below 0xA0 are controls
    const auto first = static_cast<unsigned char>(text[0]);
    if (first < 0x80) {
        return first >= ' ' && first != 0x7F ? 1 : 0;
    }
    const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC0 || first >= 0xF8 || text.size() < length) {
        return 0;
    }
    std::uint32_t code = first & (0x7FU >> length);
    for (const char letter : text.substr(1, length - 1)) {
        const auto byte = static_cast<unsigned char>(letter);
        if ((byte & 0xC0U) != 0x80) {
            return 0;
        }
        code = (code << 6U) | (byte & 0x3FU);
    }
    const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
    return code >= kLeast[length - 2] && code <= 0x10FFFF && !surrogate ? length : 0;
}

std::string LocalTime(std::int64_t timeMs)
{
    const int milliseconds = static_cast<int>((timeMs % 1000 + 1000) % 1000);
    const std::time_t seconds = timeMs / 1000 - (timeMs % 1000 < 0 ? 1 : 0);
    std::tm local = {};
    char text[64];
    if (localtime_r(&seconds, &local) == nullptr || std::strftime(text, sizeof(text), "%F %T", &local) == 0) {
        return std::to_string(timeMs) + " ms";
    }
    return std::string(text) + "." + std::to_string(1000 + milliseconds).substr(1);
}

void AppendItems(std::string& line, const Report& report)
{
    for (const ItemKind& kind : kItemKinds) {
        const auto& item = report.items[kind.tag];
        if (item.index() == 0 || kind.tag == kTagTime) {
            continue;
        }
        line.append(" ").append(kind.name).append("=");
        if (const auto* text = std::get_if<std::string>(&item)) {
            const bool isList = kind.tag == kTagChange;  // holds blanks
            line.append(isList ? "[" : "");
            AppendPrintable(line, *text);
            line.append(isList ? "]" : "");
        } else {
            line.append(std::to_string(std::get<std::int64_t>(item)));
        }
    }
}

}  // namespace

std::string ReadReport(const SentrelAgentMsg& header, unsigned char* body, Report& report)
{
    report.header = header;
    if (!IsRequestMessage(header.type) || header.type > kMsgAccess) {
        return {};
    }
    TLVAnalyzer items(body, static_cast<int>(header.length));
    if (!items.Analyze(kSwapReport)) {
        return "the body is empty or not made of whole items";
    }
    for (const ItemKind& kind : kItemKinds) {
        const TLVValue value = items[kind.tag];
        std::string fault = value.GetTag() == kind.tag ? ReadItem(kind, value, report) : std::string();
        if (!fault.empty()) {
            return fault;
        }
    }
    if (header.type == kMsgProcess) {
        return CheckProcess(report);
    }
    if (header.type == kMsgDroppedReports) {
        report.type = "dropped";
        return CheckItems(report, {kTagCount});
    }
    report.type = header.type == kMsgFile ? "file" : "access";
    return report.items[kTagPath].index() == 0 ? "path is missing" : std::string();
}

std::string ReportText(const Sender& sender, const Report& report)
{
    const std::int64_t* timeMs = Number(report, kTagTime);
    std::string line = LineStart(sender, timeMs == nullptr ? NowMs() : *timeMs);
    if (report.type == nullptr) {
        line.append("type=").append(std::to_string(report.header.type));
        line.append(" seq=").append(std::to_string(report.header.seq));
        line.append(" length=").append(std::to_string(report.header.length));
    } else if (report.header.type == kMsgDroppedReports) {
        line.append("dropped ").append(std::to_string(*Number(report, kTagCount))).append(" reports");
    } else {
        line.append(report.type);
        AppendItems(line, report);
    }
    return line;
}

std::string ReportJson(const Sender& sender, const Report& report)
{
    nlohmann::ordered_json object = {{"agent", sender.number}, {"peer", sender.peer}};
    if (report.type == nullptr) {
        object["type"] = report.header.type;
        object["seq"] = report.header.seq;
        object["length"] = report.header.length;
    } else {
        object["type"] = report.type;
        object["seq"] = report.header.seq;
    }
    for (const ItemKind& kind : kItemKinds) {
        const auto& item = report.items[kind.tag];
        if (item.index() == 0) {
            continue;
        }
        if (const auto* text = std::get_if<std::string>(&item)) {
            object[kind.name] = *text;
        } else {
            object[kind.name] = std::get<std::int64_t>(item);
        }
    }
    // Only ASCII: other control characters than the first 32 would stay as they are.
    return object.dump(-1, ' ', true, nlohmann::ordered_json::error_handler_t::replace);
}

std::string EventJson(const Sender& sender, const char* type, const std::string& text)
{
    const nlohmann::ordered_json object = {
        {"agent", sender.number}, {"peer", sender.peer}, {"type", type}, {"text", text}, {"received", NowMs()}};
    return object.dump(-1, ' ', true, nlohmann::ordered_json::error_handler_t::replace);
}

std::int64_t NowMs()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

std::string LineStart(const Sender& sender, std::int64_t timeMs)
{
    return LocalTime(timeMs) + " agent " + std::to_string(sender.number) + " ";
}

void AppendPrintable(std::string& line, std::string_view text)
{
    while (!text.empty()) {
        const std::size_t length = LetterLength(text);
        line.append(length == 0 ? "?" : text.substr(0, length));
        text.remove_prefix(length == 0 ? 1 : length);
    }
}
