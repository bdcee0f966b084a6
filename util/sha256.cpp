#include "sha256.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>

#include "util/file.h"
#include "util/unique_fd.h"

namespace NEUtils {

namespace {

constexpr std::size_t kPieceSize = 65536;

class Hasher {
public:
    Hasher() : context_(EVP_MD_CTX_new(), EVP_MD_CTX_free)
    {
        good_ = context_ != nullptr && EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) == 1;
    }

    void Add(const void* data, std::size_t length)
    {
        good_ = good_ && EVP_DigestUpdate(context_.get(), data, length) == 1;
    }

    bool Finish(std::string& digest)
    {
        unsigned char bytes[EVP_MAX_MD_SIZE];
        unsigned int size = 0;
        if (!good_ || EVP_DigestFinal_ex(context_.get(), bytes, &size) != 1) {
            return false;
        }
        constexpr char kDigits[] = "0123456789abcdef";
        digest.clear();
        for (unsigned int i = 0; i < size; ++i) {
            digest += kDigits[bytes[i] >> 4];
            digest += kDigits[bytes[i] & 15];
        }
        return true;
    }

private:
    std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context_;
    bool good_;
};

Sha256::Result ResultOf(int error)
{
    switch (error) {
    case ENOENT:
    case ENOTDIR:
        return Sha256::kGone;
    case ELOOP:  // a link
    case ENXIO:  // a socket, or a device without a driver
    case ENODEV:
        return Sha256::kNotRegular;
    default:
        return Sha256::kUnreadable;
    }
}

Sha256::Result Open(const std::string& path, std::uint64_t maxSize, UniqueFd& fd)
{
    fd.Reset(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC));
    struct stat status = {};
    if (!fd.IsValid() || fstat(fd.Get(), &status) != 0) {
        return ResultOf(errno);
    }
    if (!S_ISREG(status.st_mode)) {
        return Sha256::kNotRegular;
    }
    return static_cast<std::uint64_t>(status.st_size) > maxSize ? Sha256::kTooLarge : Sha256::kOk;
}

// To the end: files of /proc do not tell their size.
Sha256::Result Hash(int fd, std::uint64_t maxSize, Hasher& hasher, const std::function<bool()>& goOn)
{
    const auto piece = std::make_unique_for_overwrite<char[]>(kPieceSize);
    std::uint64_t total = 0;
    for (;;) {
        if (goOn && !goOn()) {
            return Sha256::kStopped;
        }
        const ssize_t count = FileOperation::Read(fd, piece.get(), kPieceSize);
        if (count <= 0) {
            return count == 0 ? Sha256::kOk : Sha256::kUnreadable;
        }
        total += static_cast<std::uint64_t>(count);
        if (total > maxSize) {
            return Sha256::kTooLarge;
        }
        hasher.Add(piece.get(), static_cast<std::size_t>(count));
    }
}

}  // namespace

bool Sha256::Digest(const void* data, std::size_t length, std::string& digest)
{
    Hasher hasher;
    hasher.Add(data, length);
    return hasher.Finish(digest);
}

Sha256::Result Sha256::DigestFile(const std::string& path, std::uint64_t maxSize, std::string& digest,
                                  const std::function<bool()>& goOn)
{
    UniqueFd fd;
    Result result = Open(path, maxSize, fd);
    if (result != kOk) {
        return result;
    }
    Hasher hasher;
    result = Hash(fd.Get(), maxSize, hasher, goOn);
    if (result != kOk) {
        return result;
    }
    return hasher.Finish(digest) ? kOk : kUnreadable;
}

}  // namespace NEUtils
