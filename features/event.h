#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "report.h"

// One event of a feature on its way out: as a report to the server, and as a line of the event file, or as a log
// record where there is no such file. All of them have the same items, under the same names as the collector's.
//
// In the record each text that others chose stands in quotes unless it is a plain word, so that it cannot forge
// another item. One text may be free: the last.
//
// Threads  one.
class Event {
public:
    struct Kind {
        std::uint32_t message;  // a report of report_messages.h
        const char* type;       // in the event file
        const char* title;      // of the record
    };

    // The time is the event's own, or when the agent read of it: milliseconds since 1970.
    // File and line are those of the caller, for the record.
    Event(const Kind& kind, std::int64_t timeMs, const char* file = __builtin_FILE(),
          unsigned int line = __builtin_LINE());

    // Items in the order of the record. A text that is empty is left out.
    Event& Add(const char* name, NEUtils::ReportTag tag, int number);
    Event& Add(const char* name, NEUtils::ReportTag tag, const std::string& text);
    Event& AddLong(const char* name, NEUtils::ReportTag tag, std::uint64_t number);
    Event& AddCount(std::uint64_t count) { return AddLong("count", NEUtils::kTagCount, count); }
    // Cut in a record, where others need room.
    Event& AddPath(const char* name, NEUtils::ReportTag tag, const std::string& path);
    // In a record only where the free text is not as good, and if it is short.
    Event& AddList(const char* name, NEUtils::ReportTag tag, const std::vector<std::string>& list);
    Event& AddToReport(NEUtils::ReportTag tag, int number);  // what the title says already

    // Ends it with the free text, which may hold anything, and sends it off. A record takes what it has room for.
    void Send(const char* name, NEUtils::ReportTag tag, const std::string& text);

private:
    void AddItem(const char* name, const std::string& value);

    const Kind kind_;
    const std::int64_t timeMs_;
    const char* const file_;
    const unsigned int line_;
    const bool hasFile_;
    std::string items_;  // so far, in the form of the event file or of the record
    NEUtils::Report report_;
};

// A text for a record: without control characters, and in quotes unless it is a plain word.
std::string Quoted(const std::string& text);

// Milliseconds since 1970 as local time, such as 2026-11-21T15:33:41.606+0100.
std::string TimeText(std::int64_t timeMs);
