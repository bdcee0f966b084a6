#pragma once

#include <linux/cn_proc.h>

#include <cstdint>
#include <map>
#include <utility>
#include <vector>

namespace NEUtils {

// Decides when a process has ended, for a monitor that gets the exits of first threads alone. The first thread
// of a process can end before the others: its exit is then held until they have ended too.
//
// Threads  one.
// Limits   1,024 exits are held; one above that counts as the end of its process.
// Source   /proc/<pid>/stat, and only for a process that is still there when its exit is read.
class LeaderExits {
public:
    // Takes the exit of a first thread. True: its process has ended. False: it lives on, the exit is held.
    bool HasEnded(proc_event& exit);

    // A thread has taken the place of the first one by an exec: the process goes on under its id.
    void Forget(int pid);

    // A new process has the id, so the one before has ended. True: its exit was held and is taken out.
    bool TakeReplaced(int pid, proc_event& exit);

    // Takes the exit of a further thread: the last one's status is that of the process.
    void TakeThreadExit(const proc_event& exit);

    // Takes out the held exits whose processes have ended, with the status that the process ended with where it
    // can still be read.
    std::vector<proc_event> TakeEnded();

    bool IsEmpty() const { return held_.empty(); }

    // The processes whose thread exits shall come. None after 100 of those until the next TakeEnded: a process without
    // its first thread could otherwise flood the monitor with them.
    std::vector<int> GetFollowed() const;
    bool HasChanged() { return std::exchange(changed_, false); }  // who is followed, since the last call

private:
    struct Held {
        proc_event exit;
        std::uint64_t startTicks;
    };

    std::map<int, Held> held_;
    std::size_t threadExits_ = 0;
    bool changed_ = false;
};

}  // namespace NEUtils
