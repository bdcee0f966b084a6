#include "monitor/watch_keeper.h"

#include <sys/inotify.h>

namespace NEUtils {

// What the rules want to learn by a watch of the file itself; 0: nothing.
std::uint32_t WatchKeeper::MaskOf(const WatchedFile& file, const std::string& path) const
{
    std::uint32_t mask = 0;
    if (file.entries != nullptr) {
        mask |= file.entries->holdsWay ? IN_CREATE : 0U;
        for (const WatchRulePtr& rule : file.entries->inside) {
            mask |= rule->rule.mask & IN_ALL_EVENTS;
        }
    }
    if (file.isKnown && (file.parent == nullptr || file.parent->entries->holdsWay)) {
        for (const WatchRulePtr& rule : state_.rules.OwnersOf(path)) {
            mask |= rule->rule.mask & IN_ALL_EVENTS;
        }
    }
    return mask;
}

WatchedFile* WatchKeeper::Ensure(WatchedFile& file, const std::string& path)
{
    const std::uint32_t mask = MaskOf(file, path);
    if (mask == 0) {
        Drop(file);
        state_.tree.SetLacking(file, false);
        return nullptr;
    }
    const WatchId like = file.watch != 0 ? file.watch : state_.tree.WatchOf(file.status);
    const WatchId watch = state_.host.AddWatch(path, mask | IN_MASK_ADD, file.isDirectory, like);
    if (watch == 0) {
        Drop(file);
        CountLack(file, path);
        return nullptr;
    }
    if (watch == file.watch) {
        return nullptr;
    }
    Drop(file);
    WatchedFile* const moved = file.isDirectory ? FindMoved(file, watch) : nullptr;
    if (moved == nullptr) {
        state_.tree.SetWatch(file, watch);
    }
    return moved;
}

WatchedFile* WatchKeeper::FindMoved(const WatchedFile& file, WatchId watch)
{
    for (WatchedFile* other : state_.tree.WatchedBy(watch)) {
        struct stat status = {};
        if (other != &file &&
            !(state_.host.Look(other->Path(), status) && other->status.IsSameFile(FileStatus(status)))) {
            return other;
        }
    }
    return nullptr;
}

// A link that leads nowhere cannot be watched, which is no lack.
void WatchKeeper::CountLack(WatchedFile& file, const std::string& path)
{
    struct stat status = {};
    state_.tree.SetLacking(file, !S_ISLNK(file.status.mode) && state_.host.Look(path, status) &&
                                     file.status.IsSameFile(FileStatus(status)));
}

void WatchKeeper::Narrow(WatchedFile& file, const std::string& path)
{
    if (MaskOf(file, path) == 0) {
        Drop(file);
        state_.tree.SetLacking(file, false);
    }
    if (file.watch == 0) {
        return;
    }
    std::uint32_t mask = 0;
    for (const WatchedFile* one : state_.tree.WatchedBy(file.watch)) {
        mask |= MaskOf(*one, one->Path());
    }
    if (state_.host.AddWatch(path, mask, file.isDirectory, file.watch) != file.watch) {
        state_.Suspect(path);
    }
}

void WatchKeeper::Drop(WatchedFile& file)
{
    const WatchId watch = file.watch;
    if (watch == 0) {
        return;
    }
    state_.tree.SetWatch(file, 0);
    if (state_.tree.WatchedBy(watch).empty()) {
        state_.host.RemoveWatch(watch);
    } else if (WatchedFile& other = *state_.tree.WatchedBy(watch).front(); true) {
        Narrow(other, other.Path());
    }
}

}  // namespace NEUtils
