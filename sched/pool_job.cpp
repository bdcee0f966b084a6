#include "pool_job.h"

#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

#include "thread_pool.h"

namespace NEUtils {

struct PoolJob::State {
    std::mutex mutex;
    std::condition_variable ended;
    ThreadPool* pool = nullptr;
    std::string name;
    std::function<void()> work;
    std::thread::id worker;  // who works at the moment
    bool stopping = true;
    bool requested = false;
    bool queued = false;  // the pool has a turn that will look at requested
    std::weak_ptr<Turn> turn;
};

// A job in the pool. Also one that is dropped, or that throws, makes way for the next.
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
        Work();
        lock.lock();
    }
    End();
}

void PoolJob::Turn::Work() const
{
    const struct Working {  // also where it throws
        State& state;
        ~Working()
        {
            const std::lock_guard<std::mutex> lock(state.mutex);
            state.worker = {};
            state.ended.notify_all();
        }
    } working{*state};
    state->work();  // only a stop changes it, and that waits
}

// Under the lock: whoever asks from now on makes a new turn.
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
    const std::lock_guard<std::mutex> lock(state_->mutex);
    state_->pool = &pool;
    state_->name = name;
    state_->work = std::move(work);
    state_->stopping = false;
    state_->requested = false;
}

bool PoolJob::Request()
{
    std::shared_ptr<Turn> turn;
    ThreadPool* pool;
    std::string name;
    {
        const std::lock_guard<std::mutex> lock(state_->mutex);
        if (state_->stopping) {
            return false;
        }
        state_->requested = true;
        if (state_->queued) {
            return true;
        }
        turn = std::make_shared<Turn>(state_);  // a pool that is full drops it
        state_->turn = turn;
        state_->queued = true;
        pool = state_->pool;
        name = state_->name;
    }
    return pool->AddThread(&Turn::Run, turn.get(), name.c_str(), turn);
}

void PoolJob::Stop()
{
    std::function<void()> work;
    std::unique_lock<std::mutex> lock(state_->mutex);
    state_->stopping = true;
    const auto self = std::this_thread::get_id();
    state_->ended.wait(lock, [&] { return state_->worker == std::thread::id() || state_->worker == self; });
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
