#include "comm/connection.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <exception>

#include "logger.h"
#include "util/clock.h"
#include "util/stop_signals.h"
#include "util/thread_name.h"

namespace NEUtils {

namespace {

constexpr int kWaitMs = 1000;

void LogDown(const char* reason)
{
    NE_LOG(ERROR, "Channel to the server is down.[reason=%s]", reason);
}

}  // namespace

bool Connection::Create(int family)
{
    if (!proxy_.Create(family)) {
        return false;
    }
    fd_ = proxy_.GetFd();
    return true;
}

bool Connection::Start()
{
    const StopSignalsBlocked inherited;
    up_ = true;
    try {
        thread_ = std::thread([self = shared_from_this()] { self->Run(); });
    } catch (const std::exception&) {
        up_ = false;
        return false;
    }
    return true;
}

void Connection::Run()
{
    SetThreadName("SocketRecv");
    try {
        while (up_) {
            RunOnce();
        }
    } catch (const std::exception& error) {
        Fail(error.what());
    }
    NoteBeat(0);
    finished_ = true;
}

void Connection::NoteBeat(std::int64_t nowNs)
{
    if (callbacks_.beatNs != nullptr) {
        *callbacks_.beatNs = nowNs;
    }
}

// A request is repeated only when the socket can take it. Otherwise both sides could wait for each other to read.
void Connection::RunOnce()
{
    const std::int64_t now = Clock::MonotonicNs();
    NoteBeat(now);
    const bool isDue = now >= nextRepeatNs_;
    pollfd wanted = {fd_, static_cast<short>(isDue ? POLLIN | POLLOUT : POLLIN), 0};
    if (poll(&wanted, 1, kWaitMs) <= 0) {
        return;
    }
    if ((wanted.revents & ~POLLOUT) != 0) {
        Receive();
    }
    if (up_ && (wanted.revents & POLLOUT) != 0) {
        nextRepeatNs_ = now + callbacks_.repeatRequest(*this) * Clock::kNsPerMs;
    }
}

void Connection::Receive()
{
    const long count = proxy_.Recv(reader_.Space(), static_cast<long>(reader_.SpaceSize()));
    if (count < 0) {
        Fail("the server has closed it, or it is broken");
        return;
    }
    reader_.Filled(static_cast<std::size_t>(count));
    while (up_) {
        SentrelAgentMsg header;
        const unsigned char* message = nullptr;
        const MessageReader::Result result = reader_.Next(header, message);
        if (result == MessageReader::kMessage) {
            HandOver(header, message);
            NoteBeat(Clock::MonotonicNs());  // a handler may take its time, and there may be many messages
            continue;
        }
        if (result == MessageReader::kTooLong && !std::exchange(discardLogged_, true)) {
            NE_LOG(ERROR, "Received message is too long, what was received is discarded.[type=%u length=%u]",
                   header.type, header.length);
        }
        return;
    }
}

void Connection::HandOver(const SentrelAgentMsg& header, const unsigned char* message)
{
    const std::size_t size = sizeof(header) + header.length;
    copy_.resize(std::max(copy_.size(), size / sizeof(copy_[0]) + 1));  // room for a NUL
    std::memcpy(copy_.data(), message, size);
    reinterpret_cast<char*>(copy_.data())[size] = '\0';
    callbacks_.onMessage(header, copy_.data());
}

bool Connection::Send(const char* messages, std::size_t length, std::int64_t endNs)
{
    const std::int64_t limitMs = std::max<std::int64_t>((endNs - Clock::MonotonicNs()) / Clock::kNsPerMs, 0);
    // After a send that was cut short the next one must not go on in the middle of that message.
    const bool sent = up_ && proxy_.SendWithin(reinterpret_cast<const unsigned char*>(messages),
                                               static_cast<long>(length), static_cast<int>(limitMs));
    if (!sent && MarkDown()) {
        Shutdown();
        sendFailed_ = true;
    }
    return sent;
}

void Connection::LogFailedSend()
{
    if (sendFailed_.exchange(false)) {
        LogDown("a message could not be sent, or not in time");
    }
}

void Connection::Shutdown()
{
    if (const int descriptor = fd_; descriptor != -1) {
        shutdown(descriptor, SHUT_RDWR);
    }
}

void Connection::Fail(const char* reason)
{
    if (MarkDown()) {
        Shutdown();
        LogDown(reason);
    }
}

void Connection::Join()
{
    std::unique_lock<std::mutex> lock(joinMutex_);
    if (std::exchange(joining_, true)) {
        joinEnd_.wait(lock, [this] { return joined_; });
        return;
    }
    lock.unlock();
    if (thread_.joinable()) {
        thread_.join();
    }
    lock.lock();
    joined_ = true;
    joinEnd_.notify_all();
}

}  // namespace NEUtils
