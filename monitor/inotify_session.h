#pragma once

#include <sys/stat.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "file_watch.h"
#include "inotify_watcher.h"
#include "util/call_gate.h"
#include "util/unique_fd.h"

namespace NEUtils {

// All that an inotify monitor has between its Init and its DeInit: rules, watches, and what is known of the
// watched files. Whoever works with it holds it, so that nothing goes away under him.
//
// The paths of watches are kept here, since they change with renames and the watcher keeps the first ones. A
// watch belongs to one path: of a directory to the one where it was found last, of a file with several
// names to the first.
// All directories above a rule's path are watched too, as far as they are there, to see that path go and come.
//
// Threads  Run: one. The others: any.
// Locks    mutex_ for the tables, never held over a system call on a file, a callback or a record. Changes
//          of rules wait for each other without it.
class InotifySession {
public:
    using Rule = Monitor::FileWatchRule;

    ~InotifySession();
    bool Init();
    bool AddRule(const Rule& rule);
    bool RemoveRule(const Rule& rule);
    Monitor::WatchState GetState(const Rule& rule);
    void Run();   // until Stop
    void Stop();  // for good
    std::size_t GetWatchCount() const { return watcher_.GetWatchCount(); }
    std::size_t GetLackingCount();
    std::uint64_t GetOverflowCount() const { return watcher_.GetOverflowCount(); }

private:
    struct Watching {
        explicit Watching(const Rule& asGiven);

        const Rule given;
        const Rule rule;  // links on the way to its path are resolved
        CallGate gate;
        std::vector<std::string> above;  // the watched directories above the path; under mutex_
        std::size_t lacking = 0;         // directories without a watch; under mutex_
        bool lackTold = false;           // under mutex_
    };
    using WatchingPtr = std::shared_ptr<Watching>;

    // A file as it was last seen.
    struct Known {
        explicit Known(const struct stat& seen);
        bool IsSameFile(const struct stat& now) const;
        std::uint32_t Differences(const struct stat& now) const;  // IN_ bits

        struct Status {
            ino_t inode = 0;
            mode_t mode = 0;
            uid_t uid = 0;
            gid_t gid = 0;
            nlink_t links = 0;
            off_t size = 0;
            timespec written = {};
            timespec changed = {};
        } status;
        int wd = 0;
        bool isDirectory = false;
        bool createTold = false;  // found by reading: its record of creation may still come
        bool untold = false;      // found for a new rule: others that cover it have not heard of it
    };
    using KnownFiles = std::map<std::string, Known>;

    // What a walk does about what it finds.
    enum Mode {
        kSilent,   // takes note
        kNews,     // reports what is new
        kMoved,    // the same, for whoever wants to know of renames too
        kCompare,  // and what is different
    };

    // The first half of a rename.
    struct Move {
        std::uint32_t cookie;
        std::string path;
        bool isDirectory;
        std::int64_t since;
    };

    // Who hears of an event: the entries' rules, or those of the path itself.
    enum Audience { kAll, kEntryRules, kOwnRules };

    // What a look at a path has brought.
    struct Finding {
        bool covered = false;
        bool isNew = false;
        bool replaced = false;        // there was another file at the path
        std::uint32_t different = 0;  // IN_ bits
    };

    // One of the paths that a rename has changed.
    struct Renamed {
        std::string old;
        std::string now;
        bool isDirectory;
    };

    class Change;

    bool Settle(const WatchingPtr& watching, Mode mode);
    void WatchAbove(const WatchingPtr& watching);
    void SettleAtOrBelow(const std::string& path);
    bool TakeUp(const std::string& top, Mode mode);
    Finding TakeNote(const std::string& path, const struct stat& status, Mode mode);
    bool EnsureWatch(const std::string& path, bool isDirectory);
    bool SetMask(const std::string& path, bool isDirectory, int wd, std::uint32_t mask);
    void Assign(int wd, const std::string& path, bool isDirectory);  // under mutex_
    void DropUnknownRecord(const std::string& path);
    void CountLack(const std::string& path);
    void TellLack();
    void TakeOut(const std::string& top);
    void DropUnneeded(const Watching& removed);
    bool IsCovered(const std::string& path) const;  // under mutex_

    std::uint32_t WatchMask(const std::string& path, bool isDirectory) const;  // under mutex_
    std::vector<WatchingPtr> Covering(const std::string& path);
    bool IsLookedInto(const std::string& path);

    void Handle(const InotifyWatcher::Event& event);
    void HandleOwn(const std::string& path, const InotifyWatcher::Event& event);
    void HandleEntry(const std::string& path, const InotifyWatcher::Event& event);
    void Forget(int wd);
    void OnCreated(const std::string& path, bool isDirectory, bool moved);
    void OnDeleted(const std::string& path, bool isDirectory, bool moved);
    void OnRenamed(const Move& from, const std::string& path);
    void OnChanged(const std::string& path, std::uint32_t mask, bool isDirectory, Audience audience);
    bool IsSettled(const std::string& from, const std::string& path);
    std::vector<Renamed> Rename(const std::string& from, const std::string& path);
    void TellRenamed(const std::vector<Renamed>& renamed);
    template <typename Condition>
    void EndMoves(Condition condition);
    std::vector<WatchingPtr> RootsBelow(const std::string& path);
    void Compare();

    void Report(Monitor::FileEvent& event, std::uint32_t wanted, Audience audience);
    static void Call(Watching& watching, Monitor::FileEvent event);

    InotifyWatcher watcher_;
    UniqueFd watcherFd_;
    UniqueFd stopEvent_;
    std::atomic<bool> stopping_{false};

    std::mutex mutex_;
    std::vector<WatchingPtr> rules_;
    KnownFiles known_;
    std::unordered_map<int, std::string> paths_;  // by watch descriptor
    bool changing_ = false;
    std::condition_variable changed_;

    // Of the thread in Run alone:
    std::vector<Move> moves_;
    std::uint64_t overflows_ = 0;
    struct {  // the last change text, which both watches of a file want that has its own rule
        std::string path;
        std::string text;
        Audience audience = kAll;
        timespec changed = {};
    } lastChange_;
};

}  // namespace NEUtils
