#include "config.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <utility>

#include "frame/stop_deferral.h"
#include "logger.h"
#include "util/file.h"
#include "util/text.h"
#include "util/unique_fd.h"

namespace NEUtils {

namespace {

constexpr std::size_t kMaxConfigSize = 64U << 20;

bool ReadText(int fd, std::string& text)
{
    struct stat status = {};
    if (fstat(fd, &status) != 0) {
        return false;
    }
    if (S_ISREG(status.st_mode) && status.st_size > 0 && static_cast<std::uint64_t>(status.st_size) <= kMaxConfigSize) {
        text.reserve(static_cast<std::size_t>(status.st_size));  // growing step by step would hold it twice
    }
    char piece[16384];
    for (;;) {
        const ssize_t count = FileOperation::Read(fd, piece, sizeof(piece));
        if (count <= 0) {
            return count == 0;
        }
        if (text.size() + static_cast<std::size_t>(count) > kMaxConfigSize) {
            errno = EFBIG;
            return false;
        }
        text.append(piece, static_cast<std::size_t>(count));
    }
}

bool EnvEquals(const char* name, const char* expected)
{
    const char* value = Env::GetEnv(name);
    return value != nullptr && std::string(value) == expected;
}

}  // namespace

template <typename Value>
std::unordered_map<std::string, Value>& Config::GetConfigMap()
{
    static auto& table = *new std::unordered_map<std::string, Value>;  // never destroyed: threads may read it
    return table;
}

template NEUTILS_API std::unordered_map<std::string, std::string>& Config::GetConfigMap<std::string>();
template NEUTILS_API std::unordered_map<std::string, int>& Config::GetConfigMap<int>();

std::mutex& Config::Mutex()
{
    static auto& mutex = *new std::mutex;
    return mutex;
}

void Config::Store(std::string_view line, bool asInteger, const std::map<std::string, std::string>& keyNames)
{
    const StopDeferral untilStored;
    const std::size_t equals = line.find('=');
    if (equals == std::string_view::npos) {
        return;
    }
    // Kept untrimmed, a carriage return included, because a value may end in a blank that counts.
    std::string key(line.substr(0, equals));
    std::string value(line.substr(equals + 1));
    const auto renamed = keyNames.find(key);
    if (renamed != keyNames.end()) {
        key = renamed->second;
    }
    int number = 0;
    const bool isNumber = asInteger && Convert::StringToInt(value, number);
    const FrameLock lock(Mutex());
    if (!lock) {
        return;
    }
    if (isNumber) {
        GetConfigMap<int>()[key] = number;
    } else {
        GetConfigMap<std::string>()[key] = std::move(value);
    }
}

bool Config::ParseConfig(const std::string& text, bool asInteger, const std::map<std::string, std::string>& keyNames)
{
    // One line after the other: a list of all would take many times the text.
    std::string_view rest = text;
    for (std::size_t end; (end = rest.find('\n')) != std::string_view::npos; rest.remove_prefix(end + 1)) {
        Store(rest.substr(0, end), asInteger, keyNames);
    }
    Store(rest, asInteger, keyNames);
    return true;
}

bool Config::ParseConfigByFile(const std::string& path, bool asInteger,
                               const std::map<std::string, std::string>& keyNames)
{
    const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd.IsValid()) {
        const int error = errno;
        NE_LOG(ERROR, "Open file failed when parse config.[errno=%d][path=%s]", error, path.c_str());
        return false;
    }
    std::string text;
    if (!ReadText(fd.Get(), text)) {
        const int error = errno;
        NE_LOG(ERROR, "Read file failed when parse config.[errno=%d][path=%s]", error, path.c_str());
        return false;
    }
    return ParseConfig(text, asInteger, keyNames);
}

namespace {

template <typename Value>
bool Find(const std::unordered_map<std::string, Value>& table, const std::string& key, Value& value)
{
    const auto found = table.find(key);
    if (found == table.end()) {
        return false;
    }
    value = found->second;
    return true;
}

}  // namespace

bool Config::GetConfigValue(const std::string& key, std::string& value)
{
    const FrameLock lock(Mutex());
    return lock && Find(GetConfigMap<std::string>(), key, value);
}

bool Config::GetConfigValue(const std::string& key, int& value)
{
    const FrameLock lock(Mutex());
    return lock && Find(GetConfigMap<int>(), key, value);
}

const char* Env::GetEnv(const char* name)
{
    return name == nullptr ? nullptr : secure_getenv(name);
}

std::string Env::GetEnvString(const std::string& name)
{
    const char* value = GetEnv(name.c_str());
    return value == nullptr ? std::string() : std::string(value);
}

bool Env::IseKarvEnv()
{
    return EnvEquals("WORK_PLACE", "ekarv");
}

bool Env::IsManagerPlane()
{
    return EnvEquals("AGENT_LOCATION", "manager");
}

bool Env::IsIndieAgentEnv()
{
    return EnvEquals("AGENT_LOCATION", "indie");
}

}  // namespace NEUtils
