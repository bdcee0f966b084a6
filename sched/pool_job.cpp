#include "pool_job.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <new>
#include <thread>
#include <utility>

#include "hips_guard.h"
#include "thread_pool.h"

namespace NEUtils {

namespace {

constexpr std::chrono::seconds kBeatPeriod{10};

}  // namespace

struct PoolJob::State {
    std::mutex mutex;
    std::condition_variable ended;
    ThreadPool* pool = nullptr;
    std::string name;
    std::function<void()> work;
    std::thread::id worker;  // the thread that runs the work now
    bool stopping = true;
    bool requested = false;
    bool queued = false;  // the pool has a turn, which will look at requested
    std::weak_ptr<Turn> turn;
};

// A job in the pool. The next request makes a new one, also after one that the pool dropped or that threw.
struct PoolJob::Turn {
    explicit Turn(std::shared_ptr<State> ofJob) : state(std::move(ofJob)) {}
    ~Turn()
    {
        const std::lock_guard<std::mutex> lock(state->mutex);
        if (!over) {
            End();
        }
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

    static void* Run(void* turn)
    {
        static_cast<Turn*>(turn)->RunRequests();
        return nullptr;
    }
    void RunRequests();
    void Work() const;
    void End();

    const std::shared_ptr<State> state;
    bool over = false;
};

void PoolJob::Turn::RunRequests()
{
    std::unique_lock<std::mutex> lock(state->mutex);
    while (state->requested && !state->stopping) {
        state->requested = false;
        state->worker = std::this_thread::get_id();
        lock.unlock();
        KeepCurrentThreadAlive();
        Work();
        lock.lock();
    }
    End();
}

void PoolJob::Turn::Work() const
{
    const struct Working {  // its end is noted also where the work throws
        State& state;
        ~Working()
        {
            const std::lock_guard<std::mutex> lock(state.mutex);
            state.worker = {};
            state.ended.notify_all();
        }
    } working{*state};
    state->work();  // only a stop changes it, and a stop waits
}

// Under the lock: a request from now on makes a new turn.
void PoolJob::Turn::End()
{
    over = true;
    state->queued = false;
}

PoolJob::PoolJob() : state_(std::make_shared<State>()) {}

PoolJob::~PoolJob()
{
    Stop();
}

void PoolJob::Start(ThreadPool& pool, const std::string& name, std::function<void()> work)
{
    std::string ownName = name;
    const std::lock_guard<std::mutex> lock(state_->mutex);
    state_->pool = &pool;
    state_->name.swap(ownName);
    state_->work.swap(work);
    state_->stopping = false;
    state_->requested = false;
}

bool PoolJob::Request()
{
    try {
        std::unique_lock<std::mutex> lock(state_->mutex);
        if (state_->stopping) {
            return false;
        }
        state_->requested = true;
        if (state_->queued) {
            return true;
        }
        const std::string name = state_->name;
        const auto turn = std::make_shared<Turn>(state_);
        state_->turn = turn;
        state_->queued = true;
        ThreadPool* pool = state_->pool;
        lock.unlock();
        return pool->AddThread(&Turn::Run, turn.get(), name.c_str(), turn);  // a pool that is full drops it
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void PoolJob::Stop()
{
    std::function<void()> work;
    std::unique_lock<std::mutex> lock(state_->mutex);
    state_->stopping = true;
    const auto self = std::this_thread::get_id();
    const auto isOver = [&] { return state_->worker == std::thread::id() || state_->worker == self; };
    while (!state_->ended.wait_for(lock, kBeatPeriod, isOver)) {
        KeepCurrentThreadAlive();  // the caller does not hang: where the work does, its worker is found
    }
    if (state_->worker != self) {
        work.swap(state_->work);  // destroyed after the lock is gone
    }
    const auto turn = state_->turn.lock();
    ThreadPool* pool = state_->pool;
    lock.unlock();
    if (turn != nullptr) {
        pool->DropJobs(turn);
    }
}

bool PoolJob::IsStopping() const
{
    const std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->stopping;
}

}  // namespace NEUtils
