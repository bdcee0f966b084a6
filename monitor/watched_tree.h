#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "monitor/watch_host.h"
#include "monitor/watch_rules.h"

namespace NEUtils {

// What of a file's status is remembered. Inode 0: it has never been seen, only its creation was notified.
struct FileStatus {
    FileStatus() = default;
    explicit FileStatus(const struct stat& status);

    [[nodiscard]] bool IsSeen() const { return inode != 0; }
    [[nodiscard]] bool IsDirectory() const { return S_ISDIR(mode); }
    [[nodiscard]] bool IsSameFile(const FileStatus& other) const;
    // IN_ bits of what is different. A directory's size, links and times follow its entries, which have events of
    // their own.
    [[nodiscard]] std::uint32_t Differences(const FileStatus& now) const;
    [[nodiscard]] struct stat AsStat() const;

    dev_t device = 0;
    ino_t inode = 0;
    mode_t mode = 0;
    uid_t uid = 0;
    gid_t gid = 0;
    nlink_t links = 0;
    off_t size = 0;
    timespec written = {};
    timespec changed = {};
};

// A path in the tree. Only what is known has been notified; the others are on the way to something.
struct WatchedFile {
    struct Entries {
        std::string path;
        std::unordered_map<std::string_view, std::unique_ptr<WatchedFile>> files;  // by name
        WatchRuleList inside;   // the rules that need to learn of the entries
        bool holdsWay = false;  // an entry is on the way to a rule's path
    };

    WatchedFile* parent = nullptr;
    std::string name;
    FileStatus status;
    WatchId watch = 0;
    std::unique_ptr<Entries> entries;       // of a directory
    std::uint64_t seenIn = 0;               // the round in which it was last looked at
    std::size_t cameOver = 0;               // the number of the record by which it replaced another file
    const WatchRule* notHeardBy = nullptr;  // found by reading for this rule, which was just being added
    bool isKnown = false;
    bool isDirectory = false;
    bool wasRead = false;  // found by reading: the kernel's record of its creation may still come
    bool lacksWatch = false;

    [[nodiscard]] std::string Path() const;
};

// What is known of the watched files: paths, inodes, watches. The only place that changes them.
//
// Invariant: what is known is what has been notified. Whoever applies the notified events in their order has exactly
// the known files, as far as rules cover them.
//
// Each file belongs to one path, a watch to all paths under which its inode is known: several names of a file, or
// directories that are mounted twice.
class WatchedTree {
public:
    WatchedTree();

    WatchedFile& Root() { return root_; }
    WatchedFile* Find(const std::string& path);
    static WatchedFile* Entry(const WatchedFile& directory, std::string_view name);
    WatchedFile& Add(WatchedFile& directory, const std::string& name);  // or the one that is there
    WatchedFile& AddPath(const std::string& path);
    // Gives it room for entries. What is known as no directory stays that until its record comes.
    static void MakeDirectory(WatchedFile& file);

    // Takes a file out with all below it, each of which is shown first. Its watches must be gone.
    void Remove(WatchedFile& file);
    void Move(WatchedFile& file, WatchedFile& directory, const std::string& name);
    // Takes out what is neither known nor watched and has nothing below it, upwards.
    void Prune(WatchedFile* file);

    // All known and unknown files at and below one, each before those below it.
    static void ForEach(WatchedFile& top, const std::function<void(WatchedFile&)>& function);

    void SetStatus(WatchedFile& file, const FileStatus& status);
    void SetWatch(WatchedFile& file, WatchId watch);  // 0: none
    [[nodiscard]] std::vector<WatchedFile*> WatchedBy(WatchId watch) const;
    [[nodiscard]] WatchedFile* OnlyWatchedBy(WatchId watch) const;  // null where none or several are
    [[nodiscard]] WatchId WatchOf(const FileStatus& status) const;

    // What was looked at while something was mounted may be something else by now. A round lasts as long as no mount
    // comes or goes; at its end BeginRound forgets, or SeenInRound gives the paths to look at again.
    void See(WatchedFile& file) const { file.seenIn = round_; }
    void BeginRound() { ++round_; }
    [[nodiscard]] std::uint64_t Round() const { return round_; }
    [[nodiscard]] std::vector<std::string> SeenInRound() const;

    void SetLacking(WatchedFile& file, bool lacks);
    [[nodiscard]] const std::unordered_set<WatchedFile*>& Lacking() const { return lacking_; }

private:
    struct InodeHash {
        std::size_t operator()(const std::pair<dev_t, ino_t>& file) const
        {
            return std::hash<ino_t>()(file.second) ^ (std::hash<dev_t>()(file.first) << 1U);
        }
    };
    void ForgetInode(const WatchedFile& file);

    WatchedFile root_;
    std::uint64_t round_ = 1;
    std::unordered_map<WatchId, std::vector<WatchedFile*>> watches_;
    std::unordered_map<std::pair<dev_t, ino_t>, WatchId, InodeHash> inodes_;  // of what is watched
    std::unordered_set<WatchedFile*> lacking_;
};

}  // namespace NEUtils
