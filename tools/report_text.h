#pragma once

#include <cstdint>
#include <string>

#include "report.h"

// The agent behind a connection.
struct Sender {
    std::uint64_t number;  // of the connection
    std::string peer;
};

// One line, without its end. What came from the agent cannot steer a terminal.
std::string ReportText(const Sender& sender, const Report& report);
std::string ReportJson(const Sender& sender, const Report& report);

// That something has happened to a connection.
std::string EventJson(const Sender& sender, const char* type, const std::string& text);

// What such lines are made of.
std::int64_t NowMs();
std::string LineStart(const Sender& sender, std::int64_t timeMs);
