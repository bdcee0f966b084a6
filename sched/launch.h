#pragma once

#include <memory>
#include <utility>

#include "task.h"

namespace NEUtils {

// A launch of a task while it waits, in the pool or the inline queue, and while it runs. It keeps the task, and
// gives back the run lock also where the run never comes.
struct Task::Launch {
    explicit Launch(std::shared_ptr<Task> ofTask, bool holdsTheRunLock = false)
        : task(std::move(ofTask)), holdsRunLock(holdsTheRunLock)
    {
        ++task->launches_;
    }
    ~Launch()
    {
        if (holdsRunLock) {
            task->runLock_ = false;
        }
        --task->launches_;
    }
    Launch(const Launch&) = delete;
    Launch& operator=(const Launch&) = delete;

    // The job in the pool.
    static void* RunInPool(void* launch)
    {
        auto* self = static_cast<Launch*>(launch);
        self->task->Run(std::exchange(self->holdsRunLock, false));
        return nullptr;
    }

    const std::shared_ptr<Task> task;
    bool holdsRunLock;
};

}  // namespace NEUtils
