#include "report_text.h"

#include <chrono>
#include <ctime>
#include <nlohmann/json.hpp>
#include <string_view>

#include "item_text.h"
#include "util/text_list.h"

namespace {

using namespace NEUtils;
using nlohmann::ordered_json;

// Of a time that the calendar does not hold, nothing.
std::string LocalSecond(std::time_t seconds)
{
    std::tm local = {};
    char text[64];
    const bool isKnown =
        localtime_r(&seconds, &local) != nullptr && std::strftime(text, sizeof(text), "%F %T", &local) > 0;
    return isKnown ? text : "";
}

std::string LocalTime(std::int64_t timeMs)
{
    // Most lines are of the same second as the one before, and it takes as long as the rest of a line.
    static std::time_t known = 0;
    static std::string second = LocalSecond(known);
    const int milliseconds = static_cast<int>((timeMs % 1000 + 1000) % 1000);
    const std::time_t seconds = timeMs / 1000 - (timeMs % 1000 < 0 ? 1 : 0);
    if (seconds != known) {
        known = seconds;
        second = LocalSecond(seconds);
    }
    return second.empty() ? std::to_string(timeMs) + " ms"
                          : second + "." + std::to_string(1000 + milliseconds).substr(1);
}

const std::string* FindText(const Report& report, std::size_t kind)
{
    return std::get_if<std::string>(&report.items[kind]);
}

// The place of the last text, which needs no quotes since nothing follows it; the number of kinds without one.
std::size_t FindLastText(const Report& report)
{
    std::size_t last = std::size(kItemKinds);
    for (std::size_t kind = 0; kind < std::size(kItemKinds); ++kind) {
        last = FindText(report, kind) != nullptr ? kind : last;
    }
    return last;
}

// Only ASCII: other control characters than the first 32 would stay as they are.
std::string ToLine(const ordered_json& object)
{
    return object.dump(-1, ' ', true, ordered_json::error_handler_t::replace);
}

using List = std::vector<std::string>;

// A list says nothing new where the free text has its items with blanks between them.
bool IsShown(const Report& report, std::size_t kind)
{
    const List* list = std::get_if<List>(&report.items[kind]);
    return report.items[kind].index() != 0 && kItemKinds[kind].tag != kTagTime && (list == nullptr || NeedsList(*list));
}

void AppendItem(std::string& line, const Report& report, std::size_t kind)
{
    const std::string* text = FindText(report, kind);
    line.append(" ").append(kItemKinds[kind].name).append("=");
    if (const List* list = std::get_if<List>(&report.items[kind]); list != nullptr) {
        line.append(ToLine(*list));
    } else if (text == nullptr) {
        line.append(std::to_string(std::get<std::int64_t>(report.items[kind])));
    } else {
        AppendQuoted(line, *text);
    }
}

void AppendOthers(std::string& line, const Report& report)
{
    for (const Report::Other& other : report.others) {
        line.append(" item").append(std::to_string(other.tag)).append("=");
        AppendRaw(line, other.bytes);
    }
    if (report.omitted > 0) {
        line.append(" omitted=").append(std::to_string(report.omitted));
    }
}

void AppendItems(std::string& line, const Report& report)
{
    const std::size_t last = FindLastText(report);
    for (std::size_t kind = 0; kind < std::size(kItemKinds); ++kind) {
        if (kind != last && IsShown(report, kind)) {
            AppendItem(line, report, kind);
        }
    }
    AppendOthers(line, report);
    if (last != std::size(kItemKinds)) {
        line.append(" ").append(kItemKinds[last].name).append("=");
        AppendPrintable(line, *FindText(report, last));
    }
}

ordered_json OthersJson(const Report& report)
{
    ordered_json list = ordered_json::array();
    for (const Report::Other& other : report.others) {
        const RawValue value = GuessValue(other.bytes);
        ordered_json item = {{"tag", other.tag}};
        if (value.kind == RawValue::kNumber) {
            item["number"] = value.number;
        } else {
            item[value.kind == RawValue::kText ? "text" : "bytes"] = value.text;
        }
        item["length"] = other.bytes.size();
        list.push_back(std::move(item));
    }
    return list;
}

}  // namespace

std::string ReportText(const Sender& sender, const Report& report)
{
    const std::int64_t* timeMs = FindNumber(report, kTagTime);
    std::string line = LineStart(sender, timeMs == nullptr ? NowMs() : *timeMs);
    if (report.header.type == kMsgDroppedReports) {
        line.append("dropped ").append(std::to_string(*FindNumber(report, kTagCount))).append(" reports");
        if (const std::int64_t* total = FindNumber(report, kTagTotal); total != nullptr) {
            line.append(", ").append(std::to_string(*total)).append(" since the agent's start");
        }
        AppendOthers(line, report);
        return line;
    }
    if (report.type != nullptr) {
        line.append(report.type);
    } else {
        line.append("type=").append(std::to_string(report.header.type));
        line.append(" seq=").append(std::to_string(report.header.seq));
        line.append(" length=").append(std::to_string(report.header.length));
    }
    if (!report.body.empty()) {
        line.append(" body=");
        AppendRaw(line, report.body);
    }
    AppendItems(line, report);
    return line;
}

std::string ReportJson(const Sender& sender, const Report& report)
{
    ordered_json object = {{"agent", sender.number}, {"peer", sender.peer}};
    if (report.type == nullptr) {
        object["type"] = report.header.type;
        object["seq"] = report.header.seq;
        object["length"] = report.header.length;
    } else {
        object["type"] = report.type;
        object["seq"] = report.header.seq;
    }
    for (std::size_t kind = 0; kind < std::size(kItemKinds); ++kind) {
        if (const std::string* text = FindText(report, kind); text != nullptr) {
            object[kItemKinds[kind].name] = *text;
        } else if (const List* list = std::get_if<List>(&report.items[kind]); list != nullptr) {
            object[kItemKinds[kind].name] = *list;
        } else if (report.items[kind].index() != 0) {
            object[kItemKinds[kind].name] = std::get<std::int64_t>(report.items[kind]);
        }
    }
    if (!report.body.empty()) {
        const RawValue body = GuessValue(report.body);
        object["body"] = body.kind == RawValue::kNumber ? ordered_json(body.number) : ordered_json(body.text);
    }
    if (!report.others.empty()) {
        object["items"] = OthersJson(report);
    }
    if (report.omitted > 0) {
        object["omitted"] = report.omitted;
    }
    object["received"] = NowMs();
    return ToLine(object);
}

std::string EventJson(const Sender& sender, const char* type, const std::string& text)
{
    return ToLine(
        {{"agent", sender.number}, {"peer", sender.peer}, {"type", type}, {"text", text}, {"received", NowMs()}});
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
