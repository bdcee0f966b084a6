#pragma once

#include <string>

enum StatusResult {
    kWell,
    kNotWell,   // the agent names problems
    kNoStatus,  // it is not what an agent says
};

// Turns the agent's status into lines for people.
StatusResult StatusText(const std::string& json, std::string& text);
