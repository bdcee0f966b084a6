#pragma once

#include <string>

// The agent's own log file and its rolled copies. What happens to them is left out, since each record about
// it would make the next one.
class OwnLog {
public:
    OwnLog();  // as the configuration names it: the agent puts LOG_FILE there, absolute

    bool Holds(const std::string& path) const;
    bool IsIn(const std::string& path) const;  // the log itself or its folder, also by links

private:
    std::string path_;  // without links; empty where there is none
};
