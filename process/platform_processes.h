#pragma once

#include "process_record.h"

namespace NEUtils {

// True for the program of a platform process: one of the known patterns is in its command line and, where checkProgram
// asks for it, what really runs is the program that the pattern names, or an interpreter with that script. A process
// can choose its command line, but not its executable. The process must still live for the second.
bool IsPlatformProgram(const ProcessRecord& record, bool checkProgram);

}  // namespace NEUtils
