#pragma once

#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "neutils_api.h"

namespace NEUtils {

// Reads key=value text into two process-wide tables, one of strings and one of integers.
//
// A line is split at its first '='; a line without one is skipped. Nothing is trimmed and there are
// no comments or quotes: blanks and a carriage return belong to the key or the value. The last line
// of a key wins.
//
// Threads  any. Each entry is stored under the tables' mutex, so two texts parsed at once interleave.
// Limits   a file of at most 64 MiB; reading one takes its size beside the entries.
// Errors   false, with an ERROR record, for a file that cannot be opened or read.
class NEUTILS_API Config {
public:
    // With asInteger, a value that is a whole decimal number goes to the integer table, every other to
    // the string table. keyNames translates the file's keys into other names. True also without entries.
    static bool ParseConfig(const std::string& text, bool asInteger,
                            const std::map<std::string, std::string>& keyNames);
    static bool ParseConfigByFile(const std::string& path, bool asInteger,
                                  const std::map<std::string, std::string>& keyNames);

    // One value; false, and the value unchanged, if the key is not in its table.
    static bool GetConfigValue(const std::string& key, std::string& value);
    static bool GetConfigValue(const std::string& key, int& value);

    // The tables themselves, of std::string or of int, for use while nothing is parsed.
    template <typename Value>
    static std::unordered_map<std::string, Value>& GetConfigMap();

private:
    static void Store(std::string_view line, bool asInteger, const std::map<std::string, std::string>& keyNames);
    static std::mutex& Mutex();
};

extern template NEUTILS_API std::unordered_map<std::string, std::string>& Config::GetConfigMap<std::string>();
extern template NEUTILS_API std::unordered_map<std::string, int>& Config::GetConfigMap<int>();

// The environment: a lookup that ignores it in a process with raised privileges, and the tests that
// tell in which deployment the agent runs (exact, case-sensitive).
class NEUTILS_API Env {
public:
    static const char* GetEnv(const char* name);               // null when unset
    static std::string GetEnvString(const std::string& name);  // empty when unset

    static bool IseKarvEnv();       // WORK_PLACE is "ekarv"
    static bool IsManagerPlane();   // AGENT_LOCATION is "manager"
    static bool IsIndieAgentEnv();  // AGENT_LOCATION is "indie"
};

}  // namespace NEUtils
