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

constexpr int kSendSeconds = 10;
constexpr int kWaitMs = 1000;
constexpr std::int64_t kRepeatPeriodNs = 3 * Clock::kNsPerSecond;

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
    std::int64_t nextRepeatNs = Clock::MonotonicNs() + kRepeatPeriodNs;
    try {
        while (up_) {
            bool moreDue = false;
            const std::int64_t now = Clock::MonotonicNs();
            if (now >= nextRepeatNs) {
                moreDue = callbacks_.repeatRequests(*this);
                nextRepeatNs = moreDue ? now : now + kRepeatPeriodNs;
            }
            pollfd wanted = {fd_, POLLIN, 0};
            if (poll(&wanted, 1, moreDue ? 0 : kWaitMs) > 0) {
                Receive();
            }
            const std::int64_t sendSince = sendSince_;
            if (sendSince != 0 && now - sendSince > kSendSeconds * Clock::kNsPerSecond) {
                Fail("a message could not be sent, or not in time");
            }
        }
    } catch (const std::exception& error) {
        Fail(error.what());
    }
    finished_ = true;
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

bool Connection::Send(const char* message, std::size_t length)
{
    // Whoever waited for a send that was cut short must not go on in the middle of that message.
    sendSince_ = Clock::MonotonicNs();
    const bool sent = up_ && proxy_.Send(reinterpret_cast<const unsigned char*>(message), static_cast<long>(length));
    sendSince_ = 0;
    return sent;
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
        NE_LOG(ERROR, "Channel to the server is down.[reason=%s]", reason);
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
