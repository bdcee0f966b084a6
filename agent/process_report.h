#pragma once

#include <string>

#include "report_messages.h"

// One process event, for the server.
struct ProcessReport {
    NEUtils::ProcessEvent event;
    int pid;
    int parentPid;
    int code;  // exit code or signal
    const std::string& user;
    const std::string& cmdLine;
};

// Puts it into the report queue; does not wait.
void ReportProcess(const ProcessReport& report);
