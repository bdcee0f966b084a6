#include "monitor/mount_watch.h"

#include <fcntl.h>
#include <poll.h>

#include "byte_buffer.h"
#include "util/file.h"

namespace NEUtils {

namespace {

constexpr char kMountsFile[] = "/proc/self/mountinfo";

}  // namespace

void MountWatch::Open()
{
    fd_.Reset(open(kMountsFile, O_RDONLY | O_CLOEXEC));
}

bool MountWatch::TakeChange()
{
    pollfd notice = {fd_.Get(), POLLPRI, 0};
    const bool isNew = poll(&notice, 1, 0) > 0 && (notice.revents & POLLPRI) != 0;
    return isChanged_.exchange(false) || isNew;
}

bool MountWatch::Read(std::string& text) const
{
    ByteBuffer bytes;
    if (!fd_.IsValid() || !FileOperation::ReadAllNosize(kMountsFile, bytes)) {
        return false;
    }
    text.assign(reinterpret_cast<const char*>(bytes.GetBuffer()), bytes.GetSize());
    return true;
}

}  // namespace NEUtils
