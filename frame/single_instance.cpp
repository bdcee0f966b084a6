// How a program runs once: the lock, the pid file and the check of /proc.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <iterator>
#include <memory>
#include <new>

#include "byte_buffer.h"
#include "config.h"
#include "frame/signal_paths.h"
#include "logger.h"
#include "my_program.h"
#include "util/bounded.h"
#include "util/errno_text.h"
#include "util/file.h"

// Kept because log readers look for it: these are records of the process frame, which carry the name of its chief file.
#undef NEUTILS_FILE_NAME
#define NEUTILS_FILE_NAME "my_program.cpp"

namespace NEUtils {

namespace {

constexpr char kRootVariable[] = "RUNTIME_CENTER_PATH";
constexpr std::size_t kMaxLink = 4096;

// The number that the text begins with; what follows its digits does not count.
bool LeadingNumber(const ByteBuffer& content, int& number)
{
    const char* begin = reinterpret_cast<const char*>(content.GetBuffer());
    const char* end = begin;
    while (end != begin + content.GetSize() && *end >= '0' && *end <= '9') {
        ++end;
    }
    const auto [stop, error] = std::from_chars(begin, end, number);
    return error == std::errc() && stop == end;
}

void LogOther(int pid)
{
    NE_LOG(ERROR, "Another program is running. exit.");
    NE_LOG(ERROR, "The other program's process.[pid=%d]", pid);
}

}  // namespace

// True: this process may start as far as the lock goes.
bool MyProgram::LockInstance()
{
    const std::string root = Env::GetEnvString(kRootVariable);
    const std::string path = root + "/conf/agent.lock";
    const InstanceLock::Result result = root.empty() ? InstanceLock::Result::kTaken : lock_.Take(path);
    const int error = errno;
    if (result == InstanceLock::Result::kHeld) {
        LogOther(lock_.Holder());
    } else if (result == InstanceLock::Result::kFailed) {
        NE_LOG(WARN, "Unable to lock the instance, the pid file alone decides.[filePath=%s errorInfo=%s]", path.c_str(),
               ErrnoText(error).Get());
    }
    return result != InstanceLock::Result::kHeld;
}

bool MyProgram::WritePidFile() const
{
    char text[32];
    const int length = snprintf_s(text, std::size(text), "%d", getpid());
    if (length <= 0) {
        return false;
    }
    if (!FileOperation::WriteByDirect(pidFilePath_, text, static_cast<std::size_t>(length), true)) {
        const int error = errno;
        NE_LOG(ERROR, "Unable to set pidfile.[filePath=%s errorInfo=%s]", pidFilePath_.c_str(), ErrnoText(error).Get());
        return false;
    }
    static_cast<void>(chmod(pidFilePath_.c_str(), 0640));
    return true;
}

bool MyProgram::CheckSingletonRunning(std::string& pidFilePath) const
{
    const std::string root = Env::GetEnvString(kRootVariable);
    if (root.empty()) {
        NE_LOG(ERROR, "Get env failed.[env=%s]", kRootVariable);
        return false;
    }
    pidFilePath = root + "/conf/sentrel-agent.pid";
    if (!CheckPidFilePathRun(pidFilePath, root + "/bin/sentrel-agent")) {
        return false;  // the file is another instance's: a stop of this one must not remove it
    }
    SignalPaths::Publish(SignalPaths::pidFile, pidFilePath);
    return true;
}

bool MyProgram::CheckPidFilePathRun(const std::string& pidFile, const std::string& exePath) const
{
    if (!FileAttribute::AccessFile(pidFile)) {
        return true;
    }
    ByteBuffer content;
    if (!FileOperation::ReadAll(pidFile, content) || content.GetSize() == 0) {
        NE_LOG(ERROR, "read file failed.[filePath=%s]", pidFile.c_str());
        return true;
    }
    int pid = 0;
    if (!LeadingNumber(content, pid)) {
        NE_LOG(ERROR, "invalid data.[filePath=%s]", pidFile.c_str());
        return false;
    }
    char procDir[64];
    if (snprintf_s(procDir, std::size(procDir), "/proc/%d", pid) < 0) {
        NE_LOG(ERROR, "Get check directory failed.");
        return false;
    }
    if (!CheckDir(procDir, exePath, pid)) {
        return false;
    }
    // Kept because log readers look for it: written whenever the check passes, also for a live process of
    // another program.
    NE_LOG(INFO, "Can not find proc, maybe it dead, i would start working.[pid=%d]", pid);
    return true;
}

bool MyProgram::CheckDir(const std::string& procDir, const std::string& exePath, int pid) const
{
    if (!FileAttribute::AccessFile(procDir)) {
        return true;
    }
    char linkPath[64];
    if (snprintf_s(linkPath, std::size(linkPath), "/proc/%d/exe", pid) < 0) {
        NE_LOG(ERROR, "Get current exe file name failed.");
        return false;
    }
    const std::unique_ptr<char[]> target(new (std::nothrow) char[kMaxLink + 1]);
    if (target == nullptr) {
        NE_LOG(ERROR, "Alloc current link memory failed.");
        return false;
    }
    memset_s(target.get(), kMaxLink + 1, 0, kMaxLink + 1);
    const ssize_t length = readlink(linkPath, target.get(), kMaxLink);
    if (length < 1) {
        return true;
    }
    if (exePath == target.get()) {
        LogOther(pid);
        return false;
    }
    return true;
}

bool MyProgram::IsPidExist(int pid)
{
    return FileAttribute::AccessFile("/proc/" + std::to_string(pid));
}

}  // namespace NEUtils
