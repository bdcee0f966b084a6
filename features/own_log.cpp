#include "own_log.h"

#include <cstdlib>
#include <memory>

#include "config.h"

OwnLog::OwnLog()
{
    if (!NEUtils::Config::GetConfigValue("LOG_FILE", path_) || path_.empty() || path_[0] != '/') {
        path_.clear();
        return;
    }
    const std::size_t slash = path_.rfind('/');  // the file itself may be rolled away at the moment
    const std::unique_ptr<char, decltype(&std::free)> folder(
        realpath(slash == 0 ? "/" : path_.substr(0, slash).c_str(), nullptr), &std::free);
    if (folder != nullptr && slash != 0) {
        path_ = folder.get() + path_.substr(slash);
    }
}

bool OwnLog::IsIn(const std::string& path) const
{
    const std::unique_ptr<char, decltype(&std::free)> real(realpath(path.c_str(), nullptr), &std::free);
    return real != nullptr && !path_.empty() &&
           (path_ == real.get() || path_.substr(0, path_.rfind('/')) == real.get());
}

bool OwnLog::Holds(const std::string& path) const
{
    return !path_.empty() && path.compare(0, path_.size(), path_) == 0 &&
           (path.size() == path_.size() || path[path_.size()] == '.');
}
