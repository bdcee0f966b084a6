#include "event.h"

#include <algorithm>
#include <ctime>
#include <nlohmann/json.hpp>

#include "event_file.h"
#include "logger.h"
#include "util/text_list.h"

namespace {

// In a record, which has 4,096 characters.
constexpr std::size_t kMostOfPath = 512;
constexpr std::size_t kMostOfList = 1024;
constexpr std::size_t kMostOfRecord = 4000;  // beside the time and the name of the last item

// False if its JSON is surely too long for a record: to make that of thousands of items takes milliseconds.
bool IsShort(const std::vector<std::string>& list)
{
    std::size_t least = 0;
    for (const std::string& item : list) {
        least += item.size() + 3;
    }
    return least <= kMostOfList;
}

bool IsPlain(char letter)
{
    const auto byte = static_cast<unsigned char>(letter);
    return byte > ' ' && byte != '"' && byte != '\\' && byte != ']' && byte != '=' && byte != 0x7F;
}

// Only ASCII: neither bytes that are not UTF-8 nor control characters reach a terminal.
template <typename Value>
std::string Json(const Value& value)
{
    return nlohmann::json(value).dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
}

}  // namespace

std::string Quoted(const std::string& text)
{
    std::string printable = NEUtils::Printable(text);
    if (std::all_of(printable.begin(), printable.end(), &IsPlain)) {
        return printable;
    }
    std::string quoted = "\"";
    for (const char letter : printable) {
        quoted.append(letter == '"' || letter == '\\' ? "\\" : "").push_back(letter);
    }
    return quoted + "\"";
}

std::string TimeText(std::int64_t timeMs)
{
    const std::int64_t ms = (timeMs % 1000 + 1000) % 1000;
    const std::time_t seconds = (timeMs - ms) / 1000;
    std::tm local = {};
    char date[40] = "?";
    char zone[8] = "";
    if (localtime_r(&seconds, &local) != nullptr) {
        std::strftime(date, sizeof(date), "%Y-%m-%dT%H:%M:%S", &local);
        std::strftime(zone, sizeof(zone), "%z", &local);
    }
    return std::string(date) + "." + std::to_string(1000 + ms).substr(1) + zone;
}

Event::Event(const Kind& kind, std::int64_t timeMs, const char* file, unsigned int line)
    : kind_(kind),
      timeMs_(timeMs),
      file_(file),
      line_(line),
      hasFile_(NEUtils::EventFile::GetInstance().IsOpen()),
      report_(kind.message, timeMs)
{
}

Event& Event::Add(const char* name, NEUtils::ReportTag tag, int number)
{
    report_.Add(tag, number);
    AddItem(name, std::to_string(number));
    return *this;
}

Event& Event::Add(const char* name, NEUtils::ReportTag tag, const std::string& text)
{
    if (!text.empty()) {
        report_.Add(tag, text);
        AddItem(name, hasFile_ ? Json(text) : Quoted(text));
    }
    return *this;
}

Event& Event::AddLong(const char* name, NEUtils::ReportTag tag, std::uint64_t number)
{
    report_.AddLong(tag, number);
    AddItem(name, std::to_string(number));
    return *this;
}

Event& Event::AddPath(const char* name, NEUtils::ReportTag tag, const std::string& path)
{
    if (hasFile_ || path.size() <= kMostOfPath) {
        return Add(name, tag, path);
    }
    report_.Add(tag, path);
    AddItem(name, Quoted(path.substr(0, kMostOfPath) + "..."));
    return *this;
}

Event& Event::AddList(const char* name, NEUtils::ReportTag tag, const std::vector<std::string>& list)
{
    report_.AddLongText(tag, NEUtils::PackList(list));
    if (hasFile_ || (IsShort(list) && NEUtils::NeedsList(list))) {
        const std::string json = Json(list);
        if (hasFile_ || json.size() <= kMostOfList) {
            AddItem(name, json);
        }
    }
    return *this;
}

Event& Event::AddToReport(NEUtils::ReportTag tag, int number)
{
    report_.Add(tag, number);
    return *this;
}

void Event::AddItem(const char* name, const std::string& value)
{
    if (hasFile_) {
        items_.append(",\"").append(name).append("\":").append(value);
    } else {
        items_.append(name).append("=").append(value).append(" ");
    }
}

void Event::Send(const char* name, NEUtils::ReportTag tag, const std::string& text)
{
    report_.Add(tag, text).Push();
    if (hasFile_) {
        AddItem(name, Json(text));
        NEUtils::EventFile::GetInstance().Write("{\"type\":" + Json(std::string(kind_.type)) +
                                                ",\"time\":" + std::to_string(timeMs_) + items_ + "}");
        return;
    }
    const std::size_t room = kMostOfRecord - std::min(items_.size(), kMostOfRecord);
    const bool fits = text.size() <= room;
    NEUtils::LoggerWriteLog(NEUtils::kNormalLog, INFO, NEUtils::BaseName(file_), line_, "%s[%stime=%s %s=%s]",
                            kind_.title, items_.c_str(), TimeText(timeMs_).c_str(), name,
                            NEUtils::Printable(fits ? text : text.substr(0, room) + "...").c_str());
}
