#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>

#include "basecomm.h"
#include "report_messages.h"

// The agent behind a connection.
struct Sender {
    std::uint64_t number;  // of the connection
    std::string peer;
};

// A message, taken apart if its type is known.
struct Report {
    NEUtils::SentrelAgentMsg header = {};
    const char* type = nullptr;                                                     // null: unknown
    std::array<std::variant<std::monostate, std::int64_t, std::string>, 16> items;  // by tag
};

// The body must be the header's length. Gives what is wrong with it, or nothing.
std::string ReadReport(const NEUtils::SentrelAgentMsg& header, unsigned char* body, Report& report);

// One line, without its end. What came from the agent cannot steer a terminal.
std::string ReportText(const Sender& sender, const Report& report);
std::string ReportJson(const Sender& sender, const Report& report);

// That something has happened to a connection.
std::string EventJson(const Sender& sender, const char* type, const std::string& text);

// What such lines are made of.
std::int64_t NowMs();
std::string LineStart(const Sender& sender, std::int64_t timeMs);
void AppendPrintable(std::string& line, std::string_view text);
