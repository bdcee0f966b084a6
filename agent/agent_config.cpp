#include "agent_config.h"

#include <arpa/inet.h>

#include <climits>
#include <filesystem>
#include <functional>
#include <iterator>
#include <utility>

#include "config.h"
#include "logger.h"
#include "text_file.h"
#include "util/key_lines.h"

namespace {

constexpr std::size_t kMaxFileSize = 1U << 20;
constexpr std::size_t kMaxSocketPath = 107;
constexpr const char* kLevels[] = {"DEBUG", "INFO", "WARN", "ERROR", "FATAL"};

// Takes a value. Gives what is wrong with it, or nothing.
using Take = std::function<std::string(const std::string& value)>;

Take NumberUpTo(std::uint64_t most, unsigned int& number)
{
    return [most, &number](const std::string& value) {
        std::uint64_t read = number;
        std::string fault = NEUtils::ReadNumber(value, most, read);
        number = static_cast<unsigned int>(read);
        return fault;
    };
}

Take LogKind(std::string& kind)
{
    return [&kind](const std::string& value) {
        kind = value;  // not the startup kind: it is never written
        const bool written = value == NEUtils::kNormalLog || value == NEUtils::kDotLog;
        return std::string(written ? "" : "is not one of NormalLog, DotLog");
    };
}

Take LogLevel(unsigned int& level)
{
    return [&level](const std::string& value) {
        for (unsigned int number = 0; number < std::size(kLevels); ++number) {
            if (value == kLevels[number]) {
                level = number;
                return std::string();
            }
        }
        return std::string("is not one of DEBUG, INFO, WARN, ERROR, FATAL");
    };
}

std::string CheckPath(const std::string& value)
{
    return value.empty() || value.back() == '/' ? "is not the path of a file" : "";
}

Take PathOf(std::string& path)
{
    return [&path](const std::string& value) {
        path = value;
        return CheckPath(value);
    };
}

std::string CheckSocketType(const std::string& value)
{
    return value == "1" || value == "2" ? "" : "is not one of 1 (local), 2 (network)";
}

std::string CheckAddress(const std::string& value)
{
    in6_addr address;
    const bool numeric =
        inet_pton(AF_INET, value.c_str(), &address) == 1 || inet_pton(AF_INET6, value.c_str(), &address) == 1;
    return numeric ? "" : "is not an IPv4 or IPv6 address";
}

std::string CheckPort(const std::string& value)
{
    unsigned int port = 0;
    return NumberUpTo(65535, port)(value).empty() ? "" : "is not a port number";
}

// Keeps a value for the library or the features, once it is checked.
Take Shared(AgentConfig& config, const char* key, const Take& check)
{
    return [&config, key, check](const std::string& value) {
        config.shared[key] = value;
        return check(value);
    };
}

std::map<std::string, Take> Keys(AgentConfig& config)
{
    std::map<std::string, Take> keys = {
        {"LOG_KIND", LogKind(config.logKind)},
        {"LOG_FILE", PathOf(config.logFile)},
        {"LOG_LEVEL", LogLevel(config.logLevel)},
        {"LOG_MAX_SIZE", NumberUpTo(1U << 28U, config.logMaxSize)},
        {"LOG_COPIES", NumberUpTo(100, config.logCopies)},
        {"LOG_LINES_PER_DAY", NumberUpTo(INT_MAX, config.logLinesPerDay)},
        {"GUARD_MEMORY_KIB", NumberUpTo(INT_MAX, config.memoryLimitKiB)},
        {"GUARD_CPU_PERCENT", NumberUpTo(10000, config.cpuLimitPercent)},
        {"GUARD_DESCRIPTORS", NumberUpTo(INT_MAX, config.descriptorLimit)},
        {"POOL_MAX_THREADS", NumberUpTo(64, config.poolMaxThreads)},
        {"REPORT_SECONDS", NumberUpTo(86400, config.reportSeconds)},
        {"REPORT_QUEUE_COUNT", NumberUpTo(1000000, config.queueCount)},
        {"REPORT_QUEUE_BYTES", NumberUpTo(1U << 30U, config.queueBytes)},
        {"EVENT_FILE", PathOf(config.eventFile)},
        {"EVENT_MAX_SIZE", NumberUpTo(1U << 30U, config.eventMaxSize)},
        {"EVENT_COPIES", NumberUpTo(100, config.eventCopies)},
    };
    const std::pair<const char*, Take> shared[] = {
        {"TrivaneRole", [](const std::string&) { return std::string(); }},
        {"SOCKET_TYPE", CheckSocketType},
        {"SERVER_SOCKET_PATH", CheckPath},
        {"SERVER_IP", CheckAddress},
        {"SERVER_PORT", CheckPort},
        {"AGENT_IP", CheckAddress},
    };
    for (const auto& [key, check] : shared) {
        keys[key] = Shared(config, key, check);
    }
    return keys;
}

std::string TakeLine(const std::map<std::string, Take>& keys, const std::string& name, const std::string& value)
{
    const auto key = keys.find(name);
    if (key == keys.end()) {
        return "unknown key " + NEUtils::Excerpt(name);
    }
    for (const char byte : value) {
        if (static_cast<unsigned char>(byte) < ' ') {
            return name + ": the value holds a control character (a carriage return, say)";
        }
    }
    const std::string fault = key->second(value);
    return fault.empty() ? fault : name + ": " + NEUtils::Excerpt(value) + " " + fault;
}

// Makes a path absolute that may start at the install root.
std::string Below(const std::string& root, const std::string& path)
{
    return std::filesystem::path(path[0] == '/' ? path : root + "/" + path).lexically_normal().string();
}

std::string CheckNetwork(std::map<std::string, std::string>& shared)
{
    for (const char* key : {"SERVER_IP", "SERVER_PORT", "AGENT_IP"}) {
        if (shared[key].empty() || shared[key] == "0") {
            return std::string("reports over the network need ") + key;
        }
    }
    const bool mixed =
        (shared["SERVER_IP"].find(':') == std::string::npos) != (shared["AGENT_IP"].find(':') == std::string::npos);
    return mixed ? "SERVER_IP and AGENT_IP are not of one kind" : "";
}

std::string ValueOf(const AgentConfig& config, const std::string& key)
{
    const auto found = config.shared.find(key);
    return found == config.shared.end() ? std::string() : found->second;
}

// Finds out where reports go to; gives what is wrong with it.
std::string CheckServer(const std::string& root, AgentConfig& config)
{
    const bool typed = config.shared.count("SOCKET_TYPE") != 0;
    std::string& path = config.shared["SERVER_SOCKET_PATH"];
    if (typed && config.shared["SOCKET_TYPE"] == "1") {
        if (path.empty()) {
            return "SOCKET_TYPE=1 needs SERVER_SOCKET_PATH";
        }
        path = Below(root, path);
        config.reportsToServer = true;
        return path.size() > kMaxSocketPath ? "SERVER_SOCKET_PATH: longer than 107 characters: " + path : "";
    }
    config.reportsToServer = typed || !config.shared["SERVER_IP"].empty();
    if (config.reportsToServer) {
        return CheckNetwork(config.shared);
    }
    return path.empty() ? "" : "SERVER_SOCKET_PATH needs SOCKET_TYPE=1";
}

}  // namespace

std::string LoadAgentConfig(const std::string& path, const std::string& root, AgentConfig& config)
{
    std::string text;
    if (const std::string fault = ReadTextFile(path, kMaxFileSize, text); !fault.empty()) {
        return path + ": " + fault;
    }
    const auto keys = Keys(config);
    const auto fault = NEUtils::ReadKeyLines(
        text, [&keys](const std::string& key, const std::string& value) { return TakeLine(keys, key, value); });
    if (!fault.reason.empty()) {
        return path + ":" + std::to_string(fault.line) + ": " + NEUtils::Printable(fault.reason);
    }
    config.logFile = Below(root, config.logFile);
    config.eventFile = config.eventFile.empty() ? "" : Below(root, config.eventFile);
    config.shared["LOG_FILE"] = config.logFile;  // features leave both out of what they watch
    config.shared["EVENT_FILE"] = config.eventFile;
    if (config.eventFile == config.logFile) {
        return path + ": EVENT_FILE is the log file";
    }
    const std::string server = CheckServer(root, config);
    return server.empty() ? server : path + ": " + server;
}

void PublishConfig(const AgentConfig& config)
{
    for (const auto& [key, value] : config.shared) {
        if (!value.empty()) {
            NEUtils::Config::ParseConfig(std::string(key).append("=").append(value), false, {});
        }
    }
}

std::string TakeChanges(const AgentConfig& loaded, AgentConfig& running)
{
    AgentConfig next = loaded;
    next.logKind = running.logKind;
    next.eventFile = running.eventFile;
    next.eventMaxSize = running.eventMaxSize;
    next.eventCopies = running.eventCopies;
    next.logFile = running.logFile;
    next.poolMaxThreads = running.poolMaxThreads;
    next.queueCount = running.queueCount;
    next.queueBytes = running.queueBytes;
    next.reportsToServer = running.reportsToServer;
    next.shared = running.shared;
    std::string fixed;
    const auto add = [&fixed](bool differs, const std::string& key) {
        if (differs) {
            fixed += (fixed.empty() ? "" : ",") + key;
        }
    };
    add(next.logKind != loaded.logKind, "LOG_KIND");
    add(next.poolMaxThreads != loaded.poolMaxThreads, "POOL_MAX_THREADS");
    add(next.queueCount != loaded.queueCount, "REPORT_QUEUE_COUNT");
    add(next.queueBytes != loaded.queueBytes, "REPORT_QUEUE_BYTES");
    add(next.eventMaxSize != loaded.eventMaxSize, "EVENT_MAX_SIZE");
    add(next.eventCopies != loaded.eventCopies, "EVENT_COPIES");
    auto all = loaded.shared;
    all.insert(next.shared.begin(), next.shared.end());  // also what has been taken out
    for (const auto& entry : all) {
        add(ValueOf(next, entry.first) != ValueOf(loaded, entry.first), entry.first);
    }
    running = std::move(next);
    return fixed;
}

// What the guard makes of the configured limits, settled in one place: without one of the two the defaults hold.
UseLimits LimitsOf(const AgentConfig& config)
{
    const AgentConfig defaults;
    const bool given = config.memoryLimitKiB > 0 && config.cpuLimitPercent > 0;
    const AgentConfig& used = given ? config : defaults;
    UseLimits limits;
    limits.memoryKiB = used.memoryLimitKiB;
    limits.cpuPercent = used.cpuLimitPercent;
    if (given && ValueOf(config, "TrivaneRole") == "broker") {
        limits.cpuPercent /= 2;
    }
    limits.descriptors = static_cast<int>(config.descriptorLimit);
    return limits;
}
