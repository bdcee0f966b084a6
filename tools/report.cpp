#include "report.h"

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <utility>

#include "tlv.h"
#include "util/text_list.h"

namespace {

using namespace NEUtils;

// So many items of a message are looked at for unknown ones, since finding each takes longer than the last.
constexpr std::uint32_t kMaxItems = 128;
constexpr std::size_t kMaxBody = 64;
constexpr std::size_t kMaxListText = 65536;  // four times what an agent sends

// A report whose type is known, and an item that it must have.
struct ReportKind {
    const char* type;
    std::uint32_t message;
    ReportTag needed;
};

constexpr ReportKind kReportKinds[] = {
    {"process", kMsgProcess, kTagTime},
    {"dropped", kMsgDroppedReports, kTagCount},
    {"file", kMsgFile, kTagPath},
    {"access", kMsgAccess, kTagPath},
    {"repeats", kMsgRepeats, kTagCount},
    {"problem", kMsgProblem, kTagProblem},
    {"connection", kMsgConnection, kTagAction},
};

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

bool ReadList(const ItemKind& kind, const TLVAnalyzer& items, Report& report)
{
    std::string text;
    if (!items.JoinText(kind.tag, text) || text.size() > kMaxListText) {
        return false;
    }
    report.items[KindOf(kind.tag)] = UnpackList(text);
    return true;
}

bool ReadItem(const ItemKind& kind, const TLVValue& value, Report& report)
{
    auto& item = report.items[KindOf(kind.tag)];
    std::string text;
    std::int64_t number = 0;
    int shortNumber = 0;
    if (kind.size == 0) {
        if (value.AsString(text)) {
            item = std::move(text);
        }
    } else if (kind.size == sizeof(shortNumber) && value.AsInt(shortNumber)) {
        item = shortNumber;
    } else if (kind.size == sizeof(number) && value.GetLength() == sizeof(number) && value.GetData() != nullptr) {
        std::memcpy(&number, value.GetData(), sizeof(number));
        item = number;
    } else {
        return false;
    }
    return true;
}

// Items of other tags, and those of wrong sizes where they are no fault.
void ReadOthers(const TLVAnalyzer& items, Report& report)
{
    for (std::uint32_t i = 0; i < std::min(items.GetCount(), kMaxItems); ++i) {
        const TLVValue value = items.GetValue(i);
        const std::size_t kind = KindOf(value.GetTag());
        if (value.GetData() == nullptr) {  // empty, or longer than an item may be
            ++report.omitted;
        } else if (kind == std::size(kItemKinds) || report.items[kind].index() == 0) {
            report.others.push_back(
                {value.GetTag(), std::string(reinterpret_cast<const char*>(value.GetData()), value.GetLength())});
        }
    }
    report.omitted += items.GetCount() - std::min(items.GetCount(), kMaxItems);
}

std::string CheckItems(const Report& report, std::initializer_list<ReportTag> needed)
{
    for (const ReportTag tag : needed) {
        if (report.items[KindOf(tag)].index() == 0) {
            return std::string(kItemKinds[KindOf(tag)].name) + " is missing";
        }
    }
    return {};
}

// An event that only a newer agent knows stays a "process".
std::string CheckProcess(Report& report)
{
    std::string fault = CheckItems(report, {kTagEvent, kTagPid});
    if (!fault.empty()) {
        return fault;
    }
    for (const EventKind& kind : kEventKinds) {
        if (*FindNumber(report, kTagEvent) == kind.event) {
            report.type = kind.type;
            report.items[KindOf(kTagEvent)].emplace<std::monostate>();  // the type says it
            return CheckItems(report, {kind.needed});
        }
    }
    return {};
}

std::string CheckReport(const ReportKind& kind, Report& report)
{
    report.type = kind.type;
    std::string fault = CheckItems(report, {kind.needed});
    return fault.empty() && kind.message == kMsgProcess ? CheckProcess(report) : fault;
}

}  // namespace

std::size_t KindOf(std::uint16_t tag)
{
    const auto* kind = std::ranges::find(kItemKinds, tag, &ItemKind::tag);
    return static_cast<std::size_t>(std::distance(std::begin(kItemKinds), kind));
}

const std::int64_t* FindNumber(const Report& report, ReportTag tag)
{
    return std::get_if<std::int64_t>(&report.items[KindOf(tag)]);
}

std::string ReadReport(const SentrelAgentMsg& header, unsigned char* body, Report& report)
{
    report.header = header;
    const auto* known = std::ranges::find(kReportKinds, header.type, &ReportKind::message);
    const bool isKnown = known != std::end(kReportKinds);
    TLVAnalyzer items(body, static_cast<int>(header.length));
    if (!items.Analyze(kSwapReport)) {
        if (isKnown) {
            return "the body is empty or not made of whole items";
        }
        report.body.assign(reinterpret_cast<const char*>(body), std::min<std::size_t>(header.length, kMaxBody));
        return {};
    }
    std::size_t read = 0;
    for (const ItemKind& kind : kItemKinds) {
        const TLVValue value = items[kind.tag];
        if (value.GetTag() != kind.tag) {
            continue;
        }
        if (kind.size == kList ? ReadList(kind, items, report) : ReadItem(kind, value, report)) {
            ++read;
        } else if (isKnown) {
            return std::string(kind.name) +
                   (kind.size == kList ? " is too long" : " has " + std::to_string(value.GetLength()) + " bytes");
        }
    }
    if (read < items.GetCount()) {
        ReadOthers(items, report);
    }
    return isKnown ? CheckReport(*known, report) : std::string();
}
