#pragma once

#include <cstddef>
#include <cstdint>

#include "process_record.h"

namespace NEUtils {

// Takes one record of the trace programs apart: a head, the paths and the arguments. False unless the lengths in the
// head are within their limits and add up to the length of the record. wallOffsetNs is the wall clock's distance from
// the time since the boot. What the kernel did not see itself (container, resolved path) stays empty.
bool DecodeTraceRecord(const void* data, std::size_t length, std::int64_t wallOffsetNs, ProcessRecord& record);

// Splits the memory of a process's arguments at each terminator; one that lacks its terminator counts too.
void SplitArguments(const char* data, std::size_t length, std::vector<std::string>& args);

// Empties what only an exec has. The strings keep their memory, but for the arguments.
void ForgetProgram(ProcessRecord& record);

// What wait gives, as exit code, signal and whether memory was dumped.
void PutExitStatus(int status, ProcessRecord& record);

}  // namespace NEUtils
