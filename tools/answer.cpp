#include "answer.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <nlohmann/json.hpp>
#include <utility>

#include "item_text.h"
#include "report_messages.h"
#include "tlv.h"

namespace {

using namespace NEUtils;
using json = nlohmann::ordered_json;

constexpr int kMaxDepth = 32;
constexpr std::size_t kMaxMembers = 2000;
constexpr std::size_t kMaxReason = 16384;
constexpr const char* kResults[] = {"done", "malformed", "unknown", "refused", "busy", "failed"};

std::string ToLine(const json& value)
{
    return value.dump(-1, ' ', true, json::error_handler_t::replace);
}

std::string ReadResult(const TLVAnalyzer& items, std::int32_t& result)
{
    const TLVValue item = items[kTagResult];
    if (item.GetTag() != kTagResult) {
        return "result is missing";
    }
    return item.AsInt(result) ? std::string() : "result has " + std::to_string(item.GetLength()) + " bytes";
}

// Lines of any length would use up what a control client may have pending.
std::string CheckLength(const char* name, const std::string& text, std::size_t limit)
{
    return text.size() <= limit ? std::string()
                                : std::string(name) + " has more than " + std::to_string(limit) + " bytes";
}

const std::string* Member(const json& value, const char* name)
{
    const auto member = value.is_object() ? value.find(name) : value.end();
    return member == value.end() ? nullptr : member->get_ptr<const std::string*>();
}

// Names and states, as far as the agent lists them in the form that is expected.
std::string ListFeatures(const json& status)
{
    std::string list;
    const auto features = status.find("features");
    if (features == status.end() || !features->is_array()) {
        return list;
    }
    for (const json& feature : *features) {
        const std::string* name = Member(feature, "name");
        const std::string* state = Member(feature, "status");
        if (name != nullptr && state != nullptr) {
            list.append(list.empty() ? "" : " ").append(*name).append("=").append(*state);
        }
    }
    return list;
}

// Whoever prints JSON goes as deep into the stack as it is nested, and looking a member up takes longer with each.
std::string ReadStatus(Answer& answer)
{
    int deepest = 0;
    std::size_t members = 0;
    const auto look = [&](int depth, json::parse_event_t event, const json&) {
        const bool isContainer =
            event == json::parse_event_t::object_start || event == json::parse_event_t::array_start;
        deepest = std::max(deepest, isContainer ? depth + 1 : 0);
        members += event == json::parse_event_t::key ? 1 : 0;
        return deepest <= kMaxDepth && members <= kMaxMembers;  // what is refused is not kept either
    };
    json status = json::parse(answer.status, look, false);
    if (deepest > kMaxDepth) {
        return "status is nested too deeply";
    }
    if (members > kMaxMembers) {
        return "status has more than " + std::to_string(kMaxMembers) + " members";
    }
    if (!status.is_object()) {
        return "status is no JSON object";
    }
    answer.features = ListFeatures(status);
    answer.statusJson = std::move(status);
    return CheckLength("status in ASCII", ToLine(*answer.statusJson), kMaxStatusText);
}

// Gives what is wrong; there need not be such a text.
std::string ReadText(const TLVAnalyzer& items, ReportTag tag, const char* name, std::size_t limit, std::string& text)
{
    if (items.Has(tag) && !items.JoinText(tag, text)) {
        return std::string(name) + " has an item of more than 2048 bytes";
    }
    return CheckLength(name, text, limit);
}

std::string ResultName(std::int32_t result)
{
    const auto index = static_cast<std::uint32_t>(result);
    return index < std::size(kResults) ? kResults[index] : std::to_string(result);
}

}  // namespace

std::string ReadAnswer(const SentrelAgentMsg& header, unsigned char* body, Answer& answer)
{
    TLVAnalyzer items(body, static_cast<int>(header.length));
    if (!items.Analyze(kSwapReport)) {
        return "the body is empty or not made of whole items";
    }
    std::string fault = ReadResult(items, answer.result);
    if (fault.empty()) {
        fault = ReadText(items, kTagReason, "reason", kMaxReason, answer.reason);
    }
    if (fault.empty()) {
        fault = ReadText(items, kTagStatus, "status", kMaxStatusText, answer.status);
    }
    const bool needsStatus = header.type == ResponseType(kMsgStatus) && answer.result == kCommandDone;
    if (fault.empty() && (items.Has(kTagStatus) || needsStatus)) {
        fault = items.Has(kTagStatus) ? ReadStatus(answer) : "status is missing";
    }
    return fault;
}

std::string AnswerText(const Sender& sender, const Command& command, const Answer& answer)
{
    std::string line = LineStart(sender, NowMs()) + CommandName(command);
    const bool isDone = answer.result == kCommandDone;
    if (isDone && command.type == kMsgStatus) {
        AppendPrintable(line, " " + answer.status);
        return line;
    }
    const std::string& more = isDone ? answer.features : answer.reason;
    line.append(": ").append(ResultName(answer.result));
    AppendPrintable(line, (more.empty() ? "" : isDone ? "; " : ": ") + more);
    return line;
}

std::string AnswerJson(const Sender& sender, const Command& command, const Answer& answer)
{
    json object = {{"agent", sender.number}, {"peer", sender.peer}, {"type", "answer"}};
    object["command"] = command.type == kMsgPolicy ? "policy" : "status";
    if (command.type == kMsgPolicy) {
        object["feature"] = command.feature;
        object["enable"] = command.enable;
    }
    object["result"] = answer.result;
    if (!answer.reason.empty()) {
        object["reason"] = answer.reason;
    }
    if (answer.statusJson.has_value()) {
        object["status"] = *answer.statusJson;
    }
    object["received"] = NowMs();
    return ToLine(object);
}
