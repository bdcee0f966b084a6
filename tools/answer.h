#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "basecomm.h"
#include "command.h"
#include "report_text.h"

// What an agent has answered to a command.
struct Answer {
    Answer() = default;
    Answer(const Answer&) = delete;
    Answer& operator=(const Answer&) = delete;

    std::int32_t result = 0;  // 0 or a CommandResult, of a newer agent any number
    std::string reason;
    std::string status;                                // as it came, a JSON object; or nothing
    std::optional<nlohmann::ordered_json> statusJson;  // the same
    std::string features;                              // the name and the state of each
};

// The body must be the header's length. Gives what is wrong with it, or nothing.
std::string ReadAnswer(const NEUtils::SentrelAgentMsg& header, unsigned char* body, Answer& answer);

// One line, without its end. What came from the agent cannot steer a terminal.
std::string AnswerText(const Sender& sender, const Command& command, const Answer& answer);
std::string AnswerJson(const Sender& sender, const Command& command, const Answer& answer);
