#pragma once

#include <string>

// One line on standard error.
void Complain(const std::string& text);

// Until the log file is open, warnings and errors of the log go to standard error.
void SubscribeConsole();
void UnsubscribeConsole();
