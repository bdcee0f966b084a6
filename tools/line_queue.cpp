#include "line_queue.h"

#include <signal.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <system_error>
#include <utility>

#include "util/thread_name.h"

namespace {

using namespace std::chrono_literals;

constexpr auto kRest = 10ms;  // of a thread that was idle, so that more lines join the first one
constexpr std::size_t kRestEnd = std::size_t{32} << 10U;  // so many bytes need not wait
constexpr auto kRetryPeriod = 1s;
constexpr auto kStopLimit = 500ms;
constexpr auto kStopPeriod = 10ms;
constexpr std::size_t kMaxWrite = std::size_t{64} << 10U;
constexpr std::size_t kMaxKept = std::size_t{1} << 20U;  // of an emptied buffer

// SIGURG cuts a blocking call short: it has no other use here, and does nothing where it is not handled.
void HandleSignal()
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGURG, &action, nullptr);  // without SA_RESTART
}

// For a scope: all signals but SIGURG stay with the other threads, since a new thread inherits the mask.
class SignalsBlocked {
public:
    SignalsBlocked()
    {
        sigset_t all;
        sigfillset(&all);
        sigdelset(&all, SIGURG);
        pthread_sigmask(SIG_SETMASK, &all, &old_);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &old_, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t old_;
};

// As many whole lines as go out at once, so that lines of another writer come between two of them only.
std::string_view FirstLines(std::string_view lines)
{
    if (lines.size() <= kMaxWrite) {
        return lines;
    }
    const std::size_t last = lines.rfind('\n', kMaxWrite - 1);
    return lines.substr(0, last == std::string_view::npos ? kMaxWrite : last + 1);
}

std::uint64_t CountLines(std::string_view text)
{
    return static_cast<std::uint64_t>(std::ranges::count(text, '\n'));
}

}  // namespace

LineQueue::~LineQueue()
{
    Stop();
}

bool LineQueue::Start(const char* name)
{
    HandleSignal();
    wake_.Reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wake_.IsValid()) {
        return false;
    }
    const SignalsBlocked inherited;
    try {
        thread_ = std::thread([this, name] {
            NEUtils::SetThreadName(name);
            Run();
        });
    } catch (const std::system_error&) {
        return false;
    }
    return true;
}

std::uint64_t LineQueue::Add(std::string_view line, std::size_t limit)
{
    std::uint64_t added = 0;
    bool isAwaited = false;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (progress_.hasFailed || bytes_ + line.size() + 1 > limit) {
            return 0;
        }
        const std::size_t before = lines_.size();
        lines_.append(line).push_back('\n');
        isAwaited = before == 0 || (before < kRestEnd && lines_.size() >= kRestEnd);
        bytes_ += line.size() + 1;
        added_ += 1 + CountLines(line);
        added = added_;
    }
    if (isAwaited) {
        changed_.notify_one();
    }
    return added;
}

std::uint64_t LineQueue::CountAdded() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return added_;
}

LineQueue::Progress LineQueue::GetProgress() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return progress_;
}

void LineQueue::Wake()
{
    if (!isAwake_.exchange(true)) {
        eventfd_write(wake_.Get(), 1);
    }
}

// Before the owner looks at the progress: what comes after the look wakes it up again.
void LineQueue::ClearWake()
{
    eventfd_t count = 0;
    eventfd_read(wake_.Get(), &count);
    isAwake_ = false;
}

void LineQueue::Run()
{
    std::string batch;
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stopping_ && !progress_.hasFailed) {
        if (lines_.empty()) {
            changed_.wait(lock);
            changed_.wait_for(lock, kRest, [this] { return closing_ || stopping_ || lines_.size() >= kRestEnd; });
            continue;
        }
        batch.swap(lines_);
        lock.unlock();
        WriteAll(batch);
        batch.clear();
        if (batch.capacity() > kMaxKept) {
            std::string().swap(batch);
        }
        lock.lock();
    }
    finished_ = true;
    changed_.notify_all();
}

void LineQueue::WriteAll(std::string_view rest)
{
    bool goesOn = true;
    while (goesOn && !rest.empty()) {
        const Output::Result result = output_.Write(FirstLines(rest));
        const std::string_view taken = rest.substr(0, result.count);
        rest.remove_prefix(taken.size());
        goesOn = Record(taken, result);
    }
}

// Notes what a write has done, and waits a while after a passing fault. False: no further write.
bool LineQueue::Record(std::string_view taken, const Output::Result& result)
{
    const std::uint64_t count = CountLines(taken);
    std::unique_lock<std::mutex> lock(mutex_);
    const bool isNews = count > 0 || result.isFinal || result.fault != progress_.fault;
    bytes_ -= taken.size();
    progress_.written += count;
    progress_.fault = result.fault;
    progress_.hasFailed = result.isFinal;
    if (isNews) {
        Wake();
        changed_.notify_all();
    }
    if (!result.fault.empty() && !result.isFinal) {
        changed_.wait_for(lock, kRetryPeriod, [this] { return stopping_; });
    }
    return !stopping_ && !progress_.hasFailed;
}

bool LineQueue::WaitUntilWritten(std::chrono::steady_clock::time_point deadline)
{
    std::unique_lock<std::mutex> lock(mutex_);
    closing_ = true;
    changed_.notify_all();
    changed_.wait_until(lock, deadline, [this] { return progress_.written == added_ || finished_; });
    return progress_.written == added_;
}

bool LineQueue::Stop()
{
    if (!thread_.joinable()) {
        return true;
    }
    const auto deadline = std::chrono::steady_clock::now() + kStopLimit;
    std::unique_lock<std::mutex> lock(mutex_);
    stopping_ = true;
    changed_.notify_all();
    // Again and again: the signal may come right before the thread blocks.
    while (!finished_ && std::chrono::steady_clock::now() < deadline) {
        pthread_kill(thread_.native_handle(), SIGURG);
        changed_.wait_for(lock, kStopPeriod);
    }
    if (!finished_) {
        return false;
    }
    lock.unlock();
    thread_.join();
    return true;
}
