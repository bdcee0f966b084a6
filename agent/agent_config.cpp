#include "agent_config.h"

#include <arpa/inet.h>

#include <charconv>
#include <climits>
#include <filesystem>
#include <functional>
#include <iterator>
#include <map>

#include "config.h"
#include "file_tools.h"
#include "logger.h"

namespace {

constexpr std::size_t kMaxFileSize = 1U << 20;
constexpr const char* kLevels[] = {"DEBUG", "INFO", "WARN", "ERROR", "FATAL"};

// A check gives what is wrong with a value, or null.
using Check = std::function<const char*(const std::string&)>;

struct Key {
    const char* defaultValue;
    Check check;
};

const char* CheckKind(const std::string& value)
{
    // Not the startup kind: it is never written.
    const bool written = value == NEUtils::kNormalLog || value == NEUtils::kDotLog;
    return written ? nullptr : "is not one of NormalLog, DotLog";
}

const char* CheckLevel(const std::string& value)
{
    for (const char* level : kLevels) {
        if (value == level) {
            return nullptr;
        }
    }
    return "is not one of DEBUG, INFO, WARN, ERROR, FATAL";
}

const char* CheckPath(const std::string& value)
{
    return value.empty() || value.back() == '/' ? "is not the path of a file" : nullptr;
}

const char* CheckNothing(const std::string&)
{
    return nullptr;
}

const char* CheckSocketType(const std::string& value)
{
    return value == "1" || value == "2" ? nullptr : "is not one of 1 (local), 2 (network)";
}

const char* CheckAddress(const std::string& value)
{
    in6_addr address;
    const bool numeric =
        inet_pton(AF_INET, value.c_str(), &address) == 1 || inet_pton(AF_INET6, value.c_str(), &address) == 1;
    return numeric ? nullptr : "is not an IPv4 or IPv6 address";
}

Check CheckNumber(int most, const char* fault)
{
    return [most, fault](const std::string& value) {
        int number = -1;
        const auto [stop, error] = std::from_chars(value.data(), value.data() + value.size(), number);
        const bool whole = error == std::errc() && stop == value.data() + value.size();
        return whole && number >= 0 && number <= most ? nullptr : fault;
    };
}

const std::map<std::string, Key>& Keys()
{
    static const std::map<std::string, Key> keys = {
        {"LOG_KIND", {"NormalLog", CheckKind}},
        {"LOG_FILE", {"log/agent.log", CheckPath}},
        {"LOG_LEVEL", {"INFO", CheckLevel}},
        {"LOG_MAX_SIZE", {"10485760", CheckNumber(1 << 28, "is not a number from 0 to 268435456")}},
        {"LOG_COPIES", {"5", CheckNumber(100, "is not a number from 0 to 100")}},
        {"LOG_LINES_PER_DAY", {"0", CheckNumber(INT_MAX, "is not a number from 0 to 2147483647")}},
        {"GUARD_MEMORY_KIB", {"66560", CheckNumber(INT_MAX, "is not a number from 0 to 2147483647")}},
        {"GUARD_CPU_PERCENT", {"5", CheckNumber(10000, "is not a number from 0 to 10000")}},
        {"GUARD_DESCRIPTORS", {"0", CheckNumber(INT_MAX, "is not a number from 0 to 2147483647")}},
        {"POOL_MAX_THREADS", {"4", CheckNumber(64, "is not a number from 0 to 64")}},
        {"TrivaneRole", {"", CheckNothing}},
        {"REPORT_SECONDS", {"3600", CheckNumber(86400, "is not a number from 0 to 86400")}},
        {"SOCKET_TYPE", {"", CheckSocketType}},
        {"SERVER_SOCKET_PATH", {"", CheckPath}},
        {"SERVER_IP", {"", CheckAddress}},
        {"SERVER_PORT", {"", CheckNumber(65535, "is not a port number")}},
        {"AGENT_IP", {"", CheckAddress}},
        {"REPORT_QUEUE_COUNT", {"10000", CheckNumber(1000000, "is not a number from 0 to 1000000")}},
        {"REPORT_QUEUE_BYTES", {"8388608", CheckNumber(1 << 30, "is not a number from 0 to 1073741824")}},
    };
    return keys;
}

// What a message may repeat of a file: a short piece, without control characters.
std::string Shown(const std::string& text)
{
    constexpr std::size_t kMost = 40;
    std::string shown = text.substr(0, kMost);
    for (char& byte : shown) {
        if (static_cast<unsigned char>(byte) < ' ' || byte == '\x7f') {
            byte = '?';
        }
    }
    return text.size() > kMost ? shown + "..." : shown;
}

std::string CheckLine(const std::string& line)
{
    if (line.empty() || line[0] == '#') {
        return {};
    }
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos) {
        return std::string("'") + Shown(line) + "' has no '='";
    }
    const std::string name = line.substr(0, equals);
    const std::string value = line.substr(equals + 1);
    const auto key = Keys().find(name);
    if (key == Keys().end()) {
        return std::string("unknown key '") + Shown(name) + "'";
    }
    for (const char byte : value) {
        if (static_cast<unsigned char>(byte) < ' ') {
            return name + ": the value holds a control character (a carriage return, say)";
        }
    }
    const char* fault = key->second.check(value);
    return fault == nullptr ? std::string() : name + ": '" + Shown(value) + "' " + fault;
}

std::string Text(const char* key)
{
    std::string value;
    return NEUtils::Config::GetConfigValue(key, value) ? value : Keys().at(key).defaultValue;
}

unsigned int Number(const char* key)
{
    int value = 0;
    if (!NEUtils::Config::GetConfigValue(key, value)) {
        const std::string text = Keys().at(key).defaultValue;
        std::from_chars(text.data(), text.data() + text.size(), value);
    }
    return static_cast<unsigned int>(value);
}

unsigned int LevelNumber(const std::string& name)
{
    unsigned int number = 0;
    while (number + 1 < std::size(kLevels) && name != kLevels[number]) {
        ++number;
    }
    return number;
}

// Makes a path absolute that may start at the install root.
std::string Below(const std::string& root, const std::string& path)
{
    return std::filesystem::path(path[0] == '/' ? path : root + "/" + path).lexically_normal().string();
}

// Settles where reports go to; gives what is wrong with it.
std::string SettleServer(const std::string& root, AgentConfig& config)
{
    constexpr std::size_t kMaxSocketPath = 107;
    const std::string type = Text("SOCKET_TYPE");
    if (type == "1") {
        const std::string path = Text("SERVER_SOCKET_PATH");
        if (path.empty()) {
            return "SOCKET_TYPE=1 needs SERVER_SOCKET_PATH";
        }
        const std::string settled = Below(root, path);
        if (settled.size() > kMaxSocketPath) {
            return "SERVER_SOCKET_PATH: longer than 107 characters: " + settled;
        }
        NEUtils::Config::ParseConfig("SERVER_SOCKET_PATH=" + settled, false, {});
        config.reportsToServer = true;
        return {};
    }
    config.reportsToServer = !type.empty() || !Text("SERVER_IP").empty();
    if (config.reportsToServer) {
        for (const char* key : {"SERVER_IP", "SERVER_PORT", "AGENT_IP"}) {
            if (Text(key).empty() || Text(key) == "0") {
                return std::string("reports over the network need ") + key;
            }
        }
        if ((Text("SERVER_IP").find(':') == std::string::npos) != (Text("AGENT_IP").find(':') == std::string::npos)) {
            return "SERVER_IP and AGENT_IP are not of one kind";
        }
    }
    return config.reportsToServer || Text("SERVER_SOCKET_PATH").empty() ? std::string()
                                                                        : "SERVER_SOCKET_PATH needs SOCKET_TYPE=1";
}

}  // namespace

bool LoadAgentConfig(const std::string& path, const std::string& root, AgentConfig& config, std::string& error)
{
    std::string text;
    if (const std::string fault = ReadFile(path, kMaxFileSize, text); !fault.empty()) {
        error = path + ": " + fault;
        return false;
    }
    std::size_t number = 0;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        ++number;
        const std::string fault = CheckLine(text.substr(start, end - start));
        if (!fault.empty()) {
            error = path + ":" + std::to_string(number).append(": ").append(fault);
            return false;
        }
        start = end + 1;
    }
    NEUtils::Config::ParseConfig(text, false, {});  // a path may look like a number
    NEUtils::Config::ParseConfig(text, true, {});
    config.logKind = Text("LOG_KIND");
    config.logFile = Below(root, Text("LOG_FILE"));
    NEUtils::Config::ParseConfig("LOG_FILE=" + config.logFile, false, {});  // features leave it out of what they tell
    config.logLevel = LevelNumber(Text("LOG_LEVEL"));
    config.logMaxSize = Number("LOG_MAX_SIZE");
    config.logCopies = Number("LOG_COPIES");
    config.logLinesPerDay = Number("LOG_LINES_PER_DAY");
    config.memoryLimitKiB = Number("GUARD_MEMORY_KIB");
    config.cpuLimitPercent = Number("GUARD_CPU_PERCENT");
    config.descriptorLimit = Number("GUARD_DESCRIPTORS");
    config.poolMaxThreads = Number("POOL_MAX_THREADS");
    config.reportSeconds = Number("REPORT_SECONDS");
    config.queueCount = Number("REPORT_QUEUE_COUNT");
    config.queueBytes = Number("REPORT_QUEUE_BYTES");
    const std::string fault = SettleServer(root, config);
    if (!fault.empty()) {
        error = path + ": " + fault;
    }
    return fault.empty();
}
