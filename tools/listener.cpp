#include "listener.h"

#include <cerrno>

#include "errors.h"
#include "util/errno_text.h"

namespace {

constexpr int kMostAtOnce = 64;  // so that who connects without end does not keep the event loop here

}  // namespace

std::string Listener::Open()
{
    ready_.reset();
    socket_ = std::make_unique<ListenSocket>();
    std::string fault = socket_->Open(endpoint_);
    if (!fault.empty()) {
        return fault;
    }
    isPaused_ = false;
    ready_.reset(event_new(base_, socket_->GetFd(), EV_READ | EV_PERSIST, &OnReady, this));
    if (ready_ == nullptr || event_add(ready_.get(), nullptr) != 0) {
        ready_.reset();
        return "no event";
    }
    return {};
}

void Listener::OnReady(int, short, void* self)
{
    static_cast<Listener*>(self)->AcceptSome();
}

void Listener::AcceptSome()
{
    for (int i = 0; i < kMostAtOnce; ++i) {
        sockaddr_storage peer = {};
        socklen_t length = sizeof(peer);
        auto* address = reinterpret_cast<sockaddr*>(&peer);
        const int fd = accept4(socket_->GetFd(), address, &length, SOCK_NONBLOCK | SOCK_CLOEXEC);
        const int error = errno;
        if (fd >= 0) {
            onAccept_(fd, address, length);
        } else if (error == EAGAIN) {
            return;
        } else if (error != EINTR && error != ECONNABORTED) {
            // Without descriptors, for example, the same connection would come up again at once.
            Complain(std::string("cannot accept for now: ") + NEUtils::ErrnoText(error).Get());
            event_del(ready_.get());
            isPaused_ = true;
            return;
        }
    }
}

void Listener::Check()
{
    if (isPaused_ && ready_ != nullptr) {
        isPaused_ = event_add(ready_.get(), nullptr) != 0;
    }
    CheckFile();
}

void Listener::CheckFile()
{
    const ListenSocket::FileState state = socket_->CheckFile();
    const bool isListening = ready_ != nullptr;  // not after an Open that failed
    if (state == ListenSocket::kRemoved || (!isListening && state == ListenSocket::kInPlace)) {
        const std::string fault = Open();
        if (fault.empty()) {
            Complain(GetName() + " was removed, and is made anew");
        } else if (!isReplaced_) {
            Complain(GetName() + " was removed, and cannot be made anew: " + fault);
        }
        isReplaced_ = !fault.empty();
    } else if (state == ListenSocket::kReplaced && !isReplaced_) {
        Complain(GetName() + " was replaced: nobody reaches this collector there");
        isReplaced_ = true;
    }
}
