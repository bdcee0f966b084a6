#include "user_info.h"

#include <sys/stat.h>

#include <charconv>

#include "byte_buffer.h"
#include "util/file.h"
#include "util/text.h"

namespace NEUtils {

namespace {

constexpr char kPasswd[] = "/etc/passwd";

}  // namespace

UserInfo& UserInfo::GetInstance()
{
    static auto& instance = *new UserInfo;  // never destroyed: threads may ask until the end
    return instance;
}

bool UserInfo::GetUserName(unsigned int uid, std::string& name)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    Refresh();
    const auto found = names_.find(uid);
    if (found == names_.end()) {
        return false;
    }
    name = found->second;
    return true;
}

void UserInfo::Refresh()
{
    struct stat status = {};
    if (stat(kPasswd, &status) != 0) {
        return;
    }
    FileState state;
    state.inode = status.st_ino;
    state.size = status.st_size;
    state.changedNs = std::int64_t{status.st_ctim.tv_sec} * 1000000000 + status.st_ctim.tv_nsec;
    ByteBuffer content;
    if (state == state_ || !FileOperation::ReadAll(kPasswd, content)) {
        return;
    }
    state_ = state;
    names_.clear();
    for (const std::string& line : StringProcess::StrSplit(content.ToString(), "\n")) {
        // name:password:uid:...
        const auto fields = StringProcess::StrSplit(line, ":");
        if (fields.size() > 2) {
            const std::string& text = fields[2];
            unsigned int uid = 0;
            const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), uid);
            if (error == std::errc() && stop == text.data() + text.size()) {
                names_.try_emplace(uid, fields[0]);
            }
        }
    }
}

}  // namespace NEUtils
