#pragma once

#include <map>
#include <string>

#include "status.h"

// Looks for problems now and then, and logs and reports each that begins or ends.
//
// Threads  one at a time.
class SelfCheck {
public:
    explicit SelfCheck(const Status& status) : status_(status) {}

    void Check();

private:
    const Status& status_;
    std::map<std::string, std::string> known_;  // those that last, by key
};
