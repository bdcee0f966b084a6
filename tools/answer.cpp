#include "answer.h"

#include <cstddef>
#include <iterator>
#include <nlohmann/json.hpp>
#include <utility>

#include "report_messages.h"
#include "tlv.h"

namespace {

using namespace NEUtils;
using nlohmann::json;

constexpr int kMaxDepth = 32;  // whoever prints or destroys JSON goes as deep into the stack
constexpr std::size_t kMaxReason = 16384;
constexpr std::size_t kMaxStatus = 65536;
constexpr const char* kResults[] = {"done", "malformed", "unknown", "refused", "busy", "failed"};

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

// Of what the agent lists in another form there is only the JSON text to be had.
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

// The parser itself needs no stack for what is nested, and what lies too deep is not kept.
std::string ReadStatus(Answer& answer)
{
    bool deep = false;
    const auto keep = [&deep](int depth, json::parse_event_t event, const json&) {
        const bool opens = event == json::parse_event_t::object_start || event == json::parse_event_t::array_start;
        deep = deep || (opens && depth >= kMaxDepth);
        return !deep;
    };
    const json status = json::parse(answer.status, keep, false);
    if (deep) {
        return "status is nested too deeply";
    }
    if (!status.is_object()) {
        return "status is no JSON object";
    }
    answer.statusJson = status.dump(-1, ' ', true, json::error_handler_t::replace);
    answer.features = ListFeatures(status);
    return {};
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
    items.JoinText(kTagReason, answer.reason);
    const bool hasStatus = items.JoinText(kTagStatus, answer.status);
    const bool needsStatus = header.type == ResponseType(kMsgStatus) && answer.result == kCommandDone;
    if (fault.empty()) {
        fault = CheckLength("reason", answer.reason, kMaxReason);
    }
    if (fault.empty()) {
        fault = CheckLength("status", answer.status, kMaxStatus);
    }
    if (fault.empty() && (hasStatus || needsStatus)) {
        fault = hasStatus ? ReadStatus(answer) : "status is missing";
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
    nlohmann::ordered_json object = {{"agent", sender.number}, {"peer", sender.peer}, {"type", "answer"}};
    object["command"] = command.type == kMsgPolicy ? "policy" : "status";
    if (command.type == kMsgPolicy) {
        object["feature"] = command.feature;
        object["enable"] = command.enable;
    }
    object["result"] = answer.result;
    if (!answer.reason.empty()) {
        object["reason"] = answer.reason;
    }
    std::string line = object.dump(-1, ' ', true, json::error_handler_t::replace);
    if (!answer.statusJson.empty()) {  // an ordered object would take too long to fill with many members
        line.pop_back();
        line.append(",\"status\":").append(answer.statusJson).append("}");
    }
    return line;
}
