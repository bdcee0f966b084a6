#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "inotify_watcher.h"
#include "monitor/watch_host.h"
#include "util/unique_fd.h"

namespace NEUtils {

// The kernel: lstat, directories, and as many inotify watchers as are needed.
//
// Several watchers, because each stops at its own limit (10,241 watches), while a tree may have more directories and
// the kernel allow more: without further ones the rest of the tree would not be watched.
//
// Threads  watches: one at a time. ReadRecords: one. The rest: any.
// Locks    the list of watchers, held over no call.
// Limits   those of InotifyWatcher for each; the kernel's for all together. Where the kernel allows a user less than
//          one watcher's limit there is one alone, which leaves others their share.
class InotifyHost : public WatchHost {
public:
    // Called during long work; false ends it.
    explicit InotifyHost(std::function<bool()> goOn) : goOn_(std::move(goOn)) {}

    bool Init();
    void Stop();  // ends all watches

    bool Look(const std::string& path, struct stat& status) override;
    bool ReadLink(const std::string& path, std::string& target) override;
    bool ListDirectory(const std::string& path, std::vector<std::string>& names) override;
    WatchId AddWatch(const std::string& path, std::uint32_t mask, bool isDirectory, WatchId like) override;
    void RemoveWatch(WatchId watch) override;
    void ForgetWatch(WatchId watch) override;
    bool HasRoom() const override { return !isFull_; }
    bool Continue() override { return goOn_(); }

    void TryRoomAgain() { isFull_ = false; }  // others may have given watches back

    // Appends what is pending, as long as there are fewer records than the limit.
    void ReadRecords(std::deque<WatchRecord>& records, std::size_t limit);
    [[nodiscard]] std::vector<int> Descriptors() const;
    [[nodiscard]] std::size_t CountWatches() const;
    [[nodiscard]] std::uint64_t CountOverflows() const;

private:
    struct Watcher {
        InotifyWatcher inotify;
        UniqueFd fd;
    };
    [[nodiscard]] std::vector<std::shared_ptr<Watcher>> Watchers() const;
    [[nodiscard]] std::shared_ptr<Watcher> WatcherOf(WatchId watch) const;
    WatchId AddLike(const std::string& path, std::uint32_t mask, WatchId like);
    bool AddWatcher();

    const std::function<bool()> goOn_;
    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<Watcher>> watchers_;
    bool isFull_ = false;
};

}  // namespace NEUtils
