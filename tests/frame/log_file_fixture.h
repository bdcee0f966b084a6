// What the tests of log files share: a file in a directory of its own, and lines for it.
#pragma once

#include "log_system.h"
#include "tests/support/support.h"

using LogFile = LogSystem::LogFile;

struct LogFileTest : testing::Test {
    static bool Put(LogFile& file, const std::string& text, int times = 1)
    {
        while (--times > 0) {
            Put(file, text);
        }
        return file.FlushLogStream(text.data(), static_cast<unsigned int>(text.size()));
    }
    bool PutToNew(const std::string& text, unsigned int copies = 2) const
    {
        LogFile file(path_, DEBUG, 0, copies);
        return Put(file, text);
    }
    std::string Copy(unsigned int number) const { return path_ + "." + std::to_string(number) + ".gz"; }
    bool HasCopy(unsigned int number) const { return fs::exists(Copy(number)); }

    const TempDir dir_;
    const std::string path_ = dir_ / "a.log";
};
