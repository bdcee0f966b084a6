// A file system and a kernel that watches it, in memory, for the tracker of files: every order of changes, records and
// looks can be had, and a change may come before any look.
#pragma once

#include <sys/inotify.h>

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "monitor/watch_host.h"
#include "monitor/watch_scope.h"

struct SimulatedSystem : NEUtils::WatchHost {
    struct Inode {
        bool isDirectory = false;
        std::string target;  // of a link
        int device = 1;
        mode_t mode = 0644;
        long size = 0;
        long changes = 0;
        std::map<std::string, int> entries;
    };

    SimulatedSystem() { inodes[1].isDirectory = true; }

    // The inode of a path's last name itself, by the mounts; 0 if there is none.
    int At(const std::string& path) const
    {
        int at = Mounted(1);
        for (std::size_t start = 1; start < path.size() && at != 0;) {
            const std::size_t end = std::min(path.find('/', start), path.size());
            const auto entry = inodes.at(at).entries.find(path.substr(start, end - start));
            at = entry == inodes.at(at).entries.end() ? 0 : Mounted(entry->second);
            start = end + 1;
        }
        return at;
    }
    int Mounted(int inode) const
    {
        const auto mount = mounts.find(inode);
        return mount == mounts.end() ? inode : Mounted(mount->second.root);
    }
    static std::string Name(const std::string& path) { return path.substr(path.rfind('/') + 1); }
    int Above(const std::string& path) const { return At(NEUtils::Monitor::ParentOf(path)); }
    // Whether a condition holds for a file or one below it; what is mounted does not count.
    bool Any(int top, const std::function<bool(int)>& condition) const
    {
        const auto& entries = inodes.at(top).entries;
        return condition(top) || std::any_of(entries.begin(), entries.end(),
                                             [&](const auto& entry) { return Any(entry.second, condition); });
    }
    bool IsMountedOn(int top) const
    {
        return Any(top, [this](int inode) { return mounts.count(inode) != 0; });
    }
    bool Holds(int top, int inode) const
    {
        return Any(top, [inode](int one) { return one == inode; });
    }

    void Create(const std::string& path, bool isDirectory, const std::string& target = {})
    {
        const int above = Above(path);
        if (above == 0 || !inodes[above].isDirectory || At(path) != 0) {
            return;
        }
        inodes[++lastInode] = {isDirectory, target, inodes[above].device, 0644, 0, 0, {}};
        inodes[above].entries[Name(path)] = lastInode;
        Tell(above, IN_CREATE | (isDirectory ? IN_ISDIR : 0U), Name(path));
    }
    void Remove(const std::string& path)
    {
        const int above = Above(path);
        const int inode = At(path);
        if (above == 0 || inode == 0 || !inodes[inode].entries.empty() ||
            IsMountedOn(inodes[above].entries[Name(path)])) {
            return;
        }
        inodes[above].entries.erase(Name(path));
        Tell(above, IN_DELETE | (inodes[inode].isDirectory ? IN_ISDIR : 0U), Name(path));
        End(inode, IN_DELETE_SELF);
    }
    void Change(const std::string& path, bool content)
    {
        if (const int inode = At(path); inode != 0 && Above(path) != 0 && !inodes[inode].isDirectory) {
            ++inodes[inode].changes;
            inodes[inode].size += content ? 1 : 0;
            const std::uint32_t mask = content ? IN_CLOSE_WRITE : IN_ATTRIB;
            Tell(Above(path), mask, Name(path));
            Tell(inode, mask, "");
        }
    }
    void Rename(const std::string& from, const std::string& to, bool exchange)
    {
        const int one = At(from);
        const int other = At(to);
        const int oneAbove = Above(from);
        const int otherAbove = Above(to);
        if (one == 0 || oneAbove == 0 || otherAbove == 0 || !inodes[otherAbove].isDirectory || Holds(one, otherAbove) ||
            (other != 0 && Holds(other, oneAbove)) || inodes[oneAbove].device != inodes[otherAbove].device ||
            IsMountedOn(inodes[oneAbove].entries[Name(from)]) ||
            (other != 0 && IsMountedOn(inodes[otherAbove].entries[Name(to)])) || (exchange && other == 0) ||
            (!exchange && other != 0 &&
             (inodes[one].isDirectory != inodes[other].isDirectory || !inodes[other].entries.empty()))) {
            return;
        }
        inodes[oneAbove].entries.erase(Name(from));
        inodes[otherAbove].entries[Name(to)] = one;
        TellMove(one, oneAbove, Name(from), otherAbove, Name(to));
        if (exchange) {
            inodes[oneAbove].entries[Name(from)] = other;
            TellMove(other, otherAbove, Name(to), oneAbove, Name(from));
        } else if (other != 0) {
            End(other, IN_DELETE_SELF);
        }
    }
    // An empty file system, or, as a bind mount and alone, so that no circles arise, another directory.
    void Mount(const std::string& path, const std::string& bind)
    {
        const int inode = At(path);
        if (inode == 0 || !inodes[inode].isDirectory || path == "/" || mounts.size() > (bind.empty() ? 1 : 0)) {
            return;
        }
        int root = bind.empty() ? ++lastInode : At(bind);
        if (root == 0 || !inodes[root].isDirectory || Holds(root, inode) || Holds(inode, root)) {
            return;
        }
        if (bind.empty()) {
            inodes[root].isDirectory = true;
            inodes[root].device = lastInode;
        }
        mounts[inode] = {root, path, ++lastMount};
        mountsChanged = true;
    }
    void Unmount(int which)
    {
        for (auto mount = mounts.begin(); mount != mounts.end(); ++mount) {
            if (which-- == 0 && !IsMountedOn(mount->second.root)) {
                const int device = inodes[mount->second.root].device;
                mounts.erase(mount);
                mountsChanged = true;
                for (const auto& [inode, wd] : std::map<int, int>(watches)) {
                    if (device != 1 && inodes[inode].device == device) {
                        End(inode, IN_UNMOUNT);
                    }
                }
                return;
            }
        }
    }
    std::string MountInfo() const
    {
        std::string text = "1 0 0:1 / / rw - ext4 none rw\n";
        for (const auto& [inode, mount] : mounts) {
            text += std::to_string(mount.id) + " 1 0:1 / " + mount.path + " rw - tmpfs none rw\n";
        }
        return text;
    }

    void Tell(int inode, std::uint32_t mask, const std::string& name, std::uint32_t cookie = 0)
    {
        const auto watch = watches.find(inode);
        if (watch == watches.end() || (masks[inode] & mask) == 0) {
            return;
        }
        const NEUtils::WatchRecord record = {static_cast<NEUtils::WatchId>(watch->second), mask, cookie, name};
        const bool isEqual = !records.empty() && records.back().watch == record.watch && records.back().mask == mask &&
                             records.back().name == name && cookie == 0;
        if (!isEqual && records.size() < maxRecords) {
            records.push_back(record);
        } else if (!isEqual) {
            overflowed = true;
        }
    }
    void TellMove(int inode, int from, const std::string& name, int to, const std::string& newName)
    {
        const std::uint32_t kind = inodes[inode].isDirectory ? IN_ISDIR : 0U;
        ++lastCookie;
        Tell(from, IN_MOVED_FROM | kind, name, lastCookie);
        Tell(to, IN_MOVED_TO | kind, newName, lastCookie);
        ++inodes[inode].changes;
    }
    void End(int inode, std::uint32_t mask)
    {
        Tell(inode, mask, "");
        if (const auto watch = watches.find(inode); watch != watches.end()) {
            if (records.size() < maxRecords) {
                records.push_back({static_cast<NEUtils::WatchId>(watch->second), IN_IGNORED, 0, ""});
            }
            watches.erase(watch);
        }
    }

    bool Look(const std::string& path, struct stat& status) override
    {
        const int inode = Find(path);
        if (inode != 0) {
            const Inode& file = inodes[inode];
            const mode_t type = file.isDirectory ? S_IFDIR : file.target.empty() ? S_IFREG : S_IFLNK;
            status = {};
            status.st_dev = static_cast<dev_t>(file.device);
            status.st_ino = static_cast<ino_t>(inode);
            status.st_mode = file.mode | type;
            status.st_size = file.size;
            status.st_ctim.tv_nsec = file.changes;
        }
        return inode != 0;
    }
    bool ReadLink(const std::string& path, std::string& target) override
    {
        const int inode = Find(path);
        target = inode == 0 ? "" : inodes[inode].target;
        return !target.empty();
    }
    bool ListDirectory(const std::string& path, std::vector<std::string>& names) override
    {
        const int inode = Find(path);
        if (inode != 0) {
            for (const auto& [name, entry] : inodes[inode].entries) {
                names.push_back(name);
            }
        }
        return inode != 0 && inodes[inode].isDirectory;
    }
    NEUtils::WatchId AddWatch(const std::string& path, std::uint32_t mask, bool isDirectory,
                              NEUtils::WatchId /*like*/) override
    {
        const int inode = Find(path);
        if (inode == 0 || (watches.count(inode) == 0 && watches.size() >= maxWatches)) {
            return 0;
        }
        const auto [watch, isNew] = watches.try_emplace(inode, lastWatch + 1);
        lastWatch += isNew ? 1 : 0;
        const bool adds = (mask & IN_MASK_ADD) != 0 && !isNew;
        masks[inode] = (adds ? masks[inode] : 0) | mask |
                       (isDirectory ? IN_MOVE | IN_CREATE | IN_DELETE | IN_DELETE_SELF : 0U) | IN_UNMOUNT;
        return static_cast<NEUtils::WatchId>(watch->second);
    }
    void RemoveWatch(NEUtils::WatchId watch) override
    {
        std::erase_if(watches, [watch](const auto& one) { return static_cast<NEUtils::WatchId>(one.second) == watch; });
    }
    void ForgetWatch(NEUtils::WatchId /*watch*/) override {}
    bool HasRoom() const override { return watches.size() < maxWatches; }
    bool Continue() override { return true; }
    int Find(const std::string& path) const
    {
        if (meanwhile) {
            meanwhile();
        }
        return At(path);
    }

    struct MountPoint {
        int root;
        std::string path;
        int id;
    };
    std::map<int, Inode> inodes;
    std::map<int, MountPoint> mounts;  // by the inode that is hidden
    std::map<int, int> watches;        // wd by inode
    std::map<int, std::uint32_t> masks;
    std::deque<NEUtils::WatchRecord> records;
    std::function<void()> meanwhile;  // before each look
    std::size_t maxWatches = 1000000;
    std::size_t maxRecords = 1000000;
    int lastInode = 1;
    int lastWatch = 0;
    int lastMount = 1;
    std::uint32_t lastCookie = 0;
    bool mountsChanged = false;
    bool overflowed = false;
};
