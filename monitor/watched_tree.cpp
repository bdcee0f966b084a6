#include "monitor/watched_tree.h"

#include <sys/inotify.h>

#include <algorithm>
#include <utility>

#include "monitor/watch_scope.h"

namespace NEUtils {

namespace {

bool IsEqual(const timespec& one, const timespec& other)
{
    return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

}  // namespace

FileStatus::FileStatus(const struct stat& status)
    : device(status.st_dev),
      inode(status.st_ino),
      mode(status.st_mode),
      uid(status.st_uid),
      gid(status.st_gid),
      links(status.st_nlink),
      size(status.st_size),
      written(status.st_mtim),
      changed(status.st_ctim)
{
}

bool FileStatus::IsSameFile(const FileStatus& other) const
{
    return inode == other.inode && device == other.device && S_ISDIR(mode) == S_ISDIR(other.mode);
}

std::uint32_t FileStatus::Differences(const FileStatus& now) const
{
    std::uint32_t bits = 0;
    const bool isFile = !S_ISDIR(mode);
    if (isFile && (size != now.size || !IsEqual(written, now.written))) {
        bits |= IN_MODIFY | IN_CLOSE_WRITE;
    }
    if (mode != now.mode || uid != now.uid || gid != now.gid ||
        (isFile && (links != now.links || (bits == 0 && !IsEqual(changed, now.changed))))) {
        bits |= IN_ATTRIB;
    }
    return bits;
}

struct stat FileStatus::AsStat() const
{
    struct stat status = {};
    status.st_dev = device;
    status.st_ino = inode;
    status.st_mode = mode;
    status.st_uid = uid;
    status.st_gid = gid;
    status.st_nlink = links;
    status.st_size = size;
    status.st_mtim = written;
    status.st_ctim = changed;
    return status;
}

std::string WatchedFile::Path() const
{
    if (parent == nullptr) {
        return "/";
    }
    return Monitor::EntryOf(parent->entries->path, name);
}

WatchedTree::WatchedTree()
{
    MakeDirectory(root_);
}

WatchedFile* WatchedTree::Entry(const WatchedFile& directory, std::string_view name)
{
    if (directory.entries == nullptr) {
        return nullptr;
    }
    const auto found = directory.entries->files.find(name);
    return found == directory.entries->files.end() ? nullptr : found->second.get();
}

WatchedFile* WatchedTree::Find(const std::string& path)
{
    WatchedFile* file = &root_;
    for (std::size_t start = 1; start < path.size() && file != nullptr;) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        file = Entry(*file, std::string_view(path).substr(start, end - start));
        start = end + 1;
    }
    return file;
}

WatchedFile& WatchedTree::Add(WatchedFile& directory, const std::string& name)
{
    if (WatchedFile* there = Entry(directory, name); there != nullptr) {
        return *there;
    }
    MakeDirectory(directory);
    auto file = std::make_unique<WatchedFile>();
    file->parent = &directory;
    file->name = name;
    WatchedFile& added = *file;
    directory.entries->files.emplace(added.name, std::move(file));
    return added;
}

WatchedFile& WatchedTree::AddPath(const std::string& path)
{
    WatchedFile* file = &root_;
    for (std::size_t start = 1; start < path.size();) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        file = &Add(*file, path.substr(start, end - start));
        start = end + 1;
    }
    return *file;
}

void WatchedTree::MakeDirectory(WatchedFile& file)
{
    if (file.entries == nullptr) {
        auto entries = std::make_unique<WatchedFile::Entries>();
        entries->path = file.Path();
        file.entries = std::move(entries);
        file.isDirectory = file.isDirectory || !file.isKnown;
    }
}

void WatchedTree::Remove(WatchedFile& file)
{
    const auto end = [this](WatchedFile& one) {
        SetWatch(one, 0);
        SetLacking(one, false);
    };
    if (file.entries != nullptr && !file.entries->files.empty()) {
        ForEach(file, end);
    }
    end(file);
    if (file.parent == nullptr) {  // the root has always its place
        file.entries->files.clear();
        file.status = {};
        file.isKnown = false;
        return;
    }
    WatchedFile& directory = *file.parent;
    See(directory);
    const auto place = directory.entries->files.find(file.name);
    const std::unique_ptr<WatchedFile> removed = std::move(place->second);  // outlives its key
    directory.entries->files.erase(place);
}

void WatchedTree::Move(WatchedFile& file, WatchedFile& directory, const std::string& name)
{
    MakeDirectory(directory);
    const std::string to = Monitor::EntryOf(directory.entries->path, name);
    const std::size_t length = file.Path().size();
    std::string newName = name;
    std::vector<std::pair<WatchedFile::Entries*, std::string>> paths;
    ForEach(file, [&](WatchedFile& one) {
        if (one.entries != nullptr) {
            paths.emplace_back(one.entries.get(), to + one.entries->path.substr(length));
        }
    });
    auto& entries = directory.entries->files;
    entries.reserve(entries.size() + 1);
    // From here on nothing needs memory.
    auto& files = file.parent->entries->files;
    auto node = files.extract(files.find(file.name));
    file.parent = &directory;
    file.name.swap(newName);
    node.key() = file.name;
    entries.insert(std::move(node));
    for (auto& [moved, path] : paths) {
        moved->path.swap(path);
    }
}

void WatchedTree::Prune(WatchedFile* file)
{
    while (file != nullptr && file->parent != nullptr && !file->isKnown && file->watch == 0 &&
           (file->entries == nullptr || (file->entries->files.empty() && !file->entries->holdsWay))) {
        WatchedFile* const above = file->parent;
        Remove(*file);
        file = above;
    }
}

void WatchedTree::ForEach(WatchedFile& top, const std::function<void(WatchedFile&)>& function)
{
    if (top.entries == nullptr) {
        function(top);
        return;
    }
    std::vector<WatchedFile*> waiting{&top};
    while (!waiting.empty()) {
        WatchedFile& file = *waiting.back();
        waiting.pop_back();
        function(file);
        if (file.entries != nullptr) {
            for (const auto& [name, entry] : file.entries->files) {
                waiting.push_back(entry.get());
            }
        }
    }
}

void WatchedTree::SetStatus(WatchedFile& file, const FileStatus& status)
{
    if (file.watch != 0 && !file.status.IsSameFile(status)) {
        ForgetInode(file);
        inodes_[{status.device, status.inode}] = file.watch;
    }
    file.status = status;
    See(file);
    if (status.IsSeen()) {
        file.isDirectory = S_ISDIR(status.mode);
    }
}

void WatchedTree::ForgetInode(const WatchedFile& file)
{
    const auto inode = inodes_.find({file.status.device, file.status.inode});
    if (inode != inodes_.end() && inode->second == file.watch) {
        inodes_.erase(inode);
    }
}

void WatchedTree::SetWatch(WatchedFile& file, WatchId watch)
{
    See(file);
    if (file.watch == watch) {
        return;
    }
    if (watch != 0) {
        inodes_[{file.status.device, file.status.inode}] = watch;
        watches_[watch].push_back(&file);
    }
    if (const auto old = watches_.find(file.watch); old != watches_.end()) {
        auto& files = old->second;
        files.erase(std::remove(files.begin(), files.end(), &file), files.end());
        if (files.empty()) {
            ForgetInode(file);
            watches_.erase(old);
        }
    }
    file.watch = watch;
    if (watch != 0) {
        SetLacking(file, false);
    }
}

std::vector<WatchedFile*> WatchedTree::WatchedBy(WatchId watch) const
{
    const auto found = watches_.find(watch);
    return found == watches_.end() ? std::vector<WatchedFile*>() : found->second;
}

WatchedFile* WatchedTree::OnlyWatchedBy(WatchId watch) const
{
    const auto found = watches_.find(watch);
    return found == watches_.end() || found->second.size() != 1 ? nullptr : found->second.front();
}

WatchId WatchedTree::WatchOf(const FileStatus& status) const
{
    const auto found = inodes_.find({status.device, status.inode});
    return found == inodes_.end() ? 0 : found->second;
}

// Whoever looks at a known directory again reads all below it.
std::vector<std::string> WatchedTree::SeenInRound() const
{
    std::vector<std::string> paths;
    std::vector<const WatchedFile*> waiting{&root_};
    while (!waiting.empty()) {
        const WatchedFile& file = *waiting.back();
        waiting.pop_back();
        if (file.seenIn == round_) {
            paths.push_back(file.Path());
        }
        if (file.entries != nullptr && (file.seenIn != round_ || !file.isKnown)) {
            for (const auto& [name, entry] : file.entries->files) {
                waiting.push_back(entry.get());
            }
        }
    }
    return paths;
}

void WatchedTree::SetLacking(WatchedFile& file, bool lacks)
{
    if (lacks != file.lacksWatch) {
        if (lacks) {
            lacking_.insert(&file);
        } else {
            lacking_.erase(&file);
        }
        file.lacksWatch = lacks;
    }
}

}  // namespace NEUtils
