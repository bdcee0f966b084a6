#include "monitor/record_handler.h"

#include <sys/inotify.h>

#include <algorithm>
#include <utility>

#include "attribute.h"
#include "monitor/renamer.h"
#include "monitor/watch_scope.h"

namespace NEUtils {

namespace {

constexpr std::uint32_t kContentEvents =
    IN_ACCESS | IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE | IN_CLOSE_NOWRITE | IN_OPEN;
constexpr std::uint32_t kChangingEvents = IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE;
constexpr std::size_t kExchangeRecords = 8;  // within which both records of an exchange stand

bool IsEqual(const timespec& one, const timespec& other)
{
    return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

}  // namespace

void RecordHandler::Handle(const WatchRecord& record, std::int64_t nowNs)
{
    ++records_;
    if ((record.mask & IN_IGNORED) != 0) {
        HandleEnd(record);
        return;
    }
    std::vector<std::string> paths;
    if (WatchedFile* only = state_.tree.OnlyWatchedBy(record.watch); only == nullptr) {
        for (const WatchedFile* file : state_.tree.WatchedBy(record.watch)) {
            paths.push_back(file->Path());
        }
    } else if (record.name.empty()) {
        HandleOwn(*only, record);
    } else if (only->entries != nullptr) {
        HandleEntry({only, record.name, Monitor::EntryOf(only->entries->path, record.name)}, record, nowNs);
    }
    for (const std::string& path : paths) {  // each may change what is known of the others
        WatchedFile* file = state_.tree.Find(path);
        if (file == nullptr || file->watch != record.watch) {
            continue;
        }
        if (record.name.empty()) {
            HandleOwn(*file, record);
        } else if (file->entries != nullptr) {
            HandleEntry({file, record.name, Monitor::EntryOf(path, record.name)}, record, nowNs);
        }
    }
}

// The kernel has ended a watch. If the file is still known, the record of its end is to come, or it was unmounted.
void RecordHandler::HandleEnd(const WatchRecord& record)
{
    const std::vector<WatchedFile*> files = state_.tree.WatchedBy(record.watch);
    for (WatchedFile* file : files) {
        state_.tree.SetWatch(*file, 0);
        state_.Suspect(file->Path(), {true, true});
        if (file->entries != nullptr && file->entries->holdsWay) {
            state_.Unplace(state_.rules.OnWayAtOrBelow(file->Path()));
        }
    }
    state_.host.ForgetWatch(record.watch);
}

void RecordHandler::HandleOwn(WatchedFile& file, const WatchRecord& record)
{
    const std::string path = file.Path();
    const bool isAboveBlind = file.parent != nullptr && file.parent->watch == 0;
    if ((record.mask & IN_UNMOUNT) != 0) {
        state_.Suspect(path, {true, true});
    } else if ((record.mask & kContentEvents) != 0) {
        ChangeOwn(file, record);
    } else if (isAboveBlind && (record.mask & (IN_DELETE_SELF | IN_MOVE_SELF)) != 0) {
        state_.Suspect(path);
    }
}

void RecordHandler::HandleEntry(Place place, const WatchRecord& record, std::int64_t nowNs)
{
    if (place.directory->entries->inside.empty() && !place.directory->entries->holdsWay) {
        return;
    }
    const bool isDirectory = (record.mask & IN_ISDIR) != 0;
    const bool isMovedTo = (record.mask & IN_MOVED_TO) != 0;
    const std::optional<Move> pair = isMovedTo && HasMoves() ? moves_.Take(record.cookie) : std::nullopt;
    if (HasMoves()) {
        EndMoves([&place](const Move& move) { return move.path == place.path; });
        if (!FindAgain(place)) {
            return;
        }
    }
    if ((record.mask & kContentEvents) != 0) {
        ChangeEntry(place, record);
        return;
    }
    if (place.directory->entries->holdsWay) {
        state_.Unplace(state_.rules.OnWay(place.path));
    }
    if (pair.has_value()) {
        FinishMove(*pair, place, isDirectory);
    } else if (isMovedTo || (record.mask & IN_CREATE) != 0) {
        Create(place, isDirectory, isMovedTo);
    } else if ((record.mask & IN_MOVED_FROM) != 0) {
        moves_.Add({record.cookie, place.path, isDirectory, records_, nowNs});
    } else if ((record.mask & IN_DELETE) != 0) {
        Delete(place, isDirectory);
    }
}

// The end of a move may have taken the directory along.
bool RecordHandler::FindAgain(Place& place)
{
    place.directory = state_.tree.Find(Monitor::ParentOf(place.path));
    return place.directory != nullptr && place.directory->entries != nullptr;
}

void RecordHandler::FinishMove(const Move& from, Place& place, bool isDirectory)
{
    EndMoves([&from](const Move& move) { return Monitor::IsAtOrBelow(move.path, from.path); });
    WatchedFile* const old = state_.tree.Find(from.path);
    if (old == nullptr || !old->isKnown || Monitor::IsAtOrBelow(from.path, place.path) ||
        Monitor::IsAtOrBelow(place.path, from.path)) {
        EndMove(from);
        if (FindAgain(place)) {
            Create(place, isDirectory, true);
        }
        return;
    }
    if (!FindAgain(place)) {
        EndMove(from);
        return;
    }
    const WatchedFile::Entries& entries = *place.directory->entries;
    WatchedFile* const target = place.File();
    if (target == nullptr && state_.rules.Covering(entries.inside, entries.holdsWay, place.path).empty()) {
        EndMove(from);
        return;
    }
    TrackerState::Look look(std::in_place);
    if (!state_.host.Look(place.path, *look)) {
        look.reset();
    }
    const FileStatus now = look.has_value() ? FileStatus(*look) : FileStatus();
    if (target != nullptr && target->isKnown && now.IsSeen() && target->status.IsSameFile(now) &&
        !old->status.IsSameFile(now)) {
        // Both stand where they belong: the second half of an exchange, which was seen with the first.
        target->wasRead = false;
        state_.Suspect(from.path);
        state_.Suspect(place.path);
        return;
    }
    if (old->status.IsSeen() && !old->status.IsSameFile(now)) {  // it is elsewhere by now, or was never that file
        state_.Suspect(from.path);
        state_.Suspect(place.path);
    }
    Renamer(state_, reader_).Rename(*old, from.path, *place.directory, place.name, look);
}

void RecordHandler::EndMovesBefore(std::int64_t timeNs)
{
    EndMoves([timeNs](const Move& move) { return move.sinceNs <= timeNs; });
}

template <typename Condition>
void RecordHandler::EndMoves(Condition condition)
{
    while (const std::optional<Move> move = moves_.TakeIf(condition)) {
        EndMove(*move);
    }
}

void RecordHandler::EndMove(const Move& move)
{
    WatchedFile* const file = state_.tree.Find(move.path);
    state_.Unplace(state_.rules.OnWayAtOrBelow(move.path));
    if (file == nullptr || !file->isKnown) {
        return;
    }
    state_.Suspect(move.path);
    if (file->cameOver != 0 && move.record - file->cameOver <= kExchangeRecords) {
        struct stat status = {};
        if (state_.host.Look(move.path, status) && file->status.IsSameFile(FileStatus(status))) {
            file->cameOver = 0;
            return;  // what left is the file that this one came in exchange for
        }
    }
    reader_.Remove(*file, move.path, true);
}

void RecordHandler::Create(const Place& place, bool isDirectory, bool isMoved)
{
    const WatchedFile::Entries& entries = *place.directory->entries;
    const WatchRuleList covering = state_.rules.Covering(entries.inside, entries.holdsWay, place.path);
    if (covering.empty()) {
        return;
    }
    WatchedFile* const file = place.File();
    struct stat status = {};
    const bool isThere = state_.host.Look(place.path, status);
    if (file != nullptr && file->isKnown) {
        CreateKnown(place, *file, isThere ? TrackerState::Look(status) : std::nullopt, isDirectory, isMoved);
    } else if (!isThere || S_ISDIR(status.st_mode) != isDirectory) {
        CreateUnseen(place, isDirectory, isMoved);
    } else {
        reader_.Create(*place.directory, place.name, place.path, status, isMoved);
    }
}

// The record is about a file at a path that is known already.
void RecordHandler::CreateKnown(const Place& place, WatchedFile& file, const TrackerState::Look& look, bool isDirectory,
                                bool isMoved)
{
    const bool isSame = look.has_value() && file.status.IsSameFile(FileStatus(*look));
    if (file.wasRead && (isSame || (!look.has_value() && !isMoved))) {
        // It was notified when it was found by reading, but for a rule that was just being added.
        file.wasRead = false;
        for (const WatchRulePtr& rule : state_.Covering(file, place.path)) {
            if (rule.get() == file.notHeardBy) {
                state_.NotifyCreated({rule}, place.path, file.isDirectory, look, isMoved);
            }
        }
        file.notHeardBy = nullptr;
        return;
    }
    if (isSame) {
        state_.Suspect(place.path);
        return;
    }
    if (file.isDirectory) {  // else it is replaced, for which no event of its own is due
        reader_.Remove(file, place.path, isMoved);
    } else {
        reader_.Forget(file);
    }
    if (look.has_value() && S_ISDIR(look->st_mode) == isDirectory) {
        reader_.Create(*place.directory, place.name, place.path, *look, isMoved);
        if (WatchedFile* now = place.File(); now != nullptr && isMoved) {
            now->cameOver = records_;
        }
    } else {
        CreateUnseen(place, isDirectory, isMoved);
    }
}

// It is gone, and maybe something else is there, whose own record is to come. Its end will have a record too.
void RecordHandler::CreateUnseen(const Place& place, bool isDirectory, bool isMoved)
{
    WatchedFile& file = state_.tree.Add(*place.directory, place.name);
    state_.NotifyCreated(state_.Covering(file, place.path), place.path, isDirectory, std::nullopt, isMoved);
    BeKnown(state_, file, place.path, std::nullopt);
    file.isDirectory = isDirectory;
    file.wasRead = false;
    if (isDirectory) {
        state_.Suspect(place.path);
    }
}

void RecordHandler::Delete(const Place& place, bool isDirectory)
{
    if (WatchedFile* file = place.File(); file != nullptr && file->isKnown) {
        reader_.Remove(*file, place.path, false);
        return;
    }
    // It came and went before its directory was read.
    WatchedFile unknown;
    unknown.isDirectory = isDirectory;
    const WatchedFile::Entries& entries = *place.directory->entries;
    state_.NotifyDeleted(state_.rules.Covering(entries.inside, entries.holdsWay, place.path), place.path, unknown,
                         false);
}

void RecordHandler::ChangeOwn(WatchedFile& file, const WatchRecord& record)
{
    const std::string path = file.Path();
    const WatchRuleList owners = state_.rules.OwnersOf(path);
    if (owners.empty() || !file.isKnown) {
        return;
    }
    Monitor::FileEvent event = {path, {}, 0, file.isDirectory, {}, {}};
    if (FindStatus(file, record.mask, true, event)) {  // else the file has lost this path
        state_.NotifyChanged(owners, record.mask & kContentEvents, event);
    }
}

void RecordHandler::ChangeEntry(const Place& place, const WatchRecord& record)
{
    const WatchedFile::Entries& entries = *place.directory->entries;
    WatchedFile* file = place.File();
    // A file with a watch of its own has a record of its own for the rules that are for this path alone.
    const bool forOwners = entries.holdsWay && (file == nullptr || file->watch == 0);
    const WatchRuleList rules = state_.rules.Covering(entries.inside, forOwners, place.path);
    if (rules.empty()) {
        return;
    }
    Monitor::FileEvent event = {place.path, {}, 0, (record.mask & IN_ISDIR) != 0, {}, {}};
    if (file == nullptr || !file->isKnown) {  // the record of its creation is to come, or was lost
        reader_.Read(place.path, {});
        file = place.File();
    }
    if (file != nullptr && file->isKnown) {
        FindStatus(*file, record.mask, false, event);
    }
    state_.NotifyChanged(rules, record.mask & kContentEvents, event);
}

// The status for an event about a known file, and the change text. False if another file is at the path.
bool RecordHandler::FindStatus(WatchedFile& file, std::uint32_t mask, bool isOwn, Monitor::FileEvent& event)
{
    if ((mask & kChangingEvents) == 0) {
        if (file.status.IsSeen()) {
            event.status = file.status.AsStat();
        }
        return true;
    }
    struct stat status = {};
    if (!state_.host.Look(event.path, status)) {
        // The end of a name changes the status of its file, which is no news beside that end.
        return !isOwn || (mask & kContentEvents) != IN_ATTRIB;
    }
    event.status = status;
    const FileStatus now(status);
    if (!file.status.IsSameFile(now)) {
        return false;
    }
    event.change = FindChange(file, event.path, now, isOwn);
    return true;
}

std::string RecordHandler::FindChange(WatchedFile& file, const std::string& path, const FileStatus& now, bool isOwn)
{
    std::string text;
    Monitor::UpdateAttrAndLog(path, Monitor::AttributeOf(now.AsStat()), text);
    state_.tree.SetStatus(file, now);
    if (!text.empty()) {
        last_ = {&file, isOwn, now.changed, text};
    } else if (last_.file == &file && last_.wasOwn != isOwn && IsEqual(last_.changed, now.changed)) {
        text = last_.text;
    }
    return text;
}

}  // namespace NEUtils
