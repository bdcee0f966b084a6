#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "monitor/move_pairs.h"
#include "monitor/tracker_state.h"
#include "monitor/tree_reader.h"

namespace NEUtils {

// What a record of the kernel's means: from the state, the record, and what lstat says, to another state, events and
// watches. Records are taken in their order. What they say of a file is notified also when it is gone by now.
class RecordHandler {
public:
    RecordHandler(TrackerState& state, TreeReader& reader) : state_(state), reader_(reader) {}

    void Handle(const WatchRecord& record, std::int64_t nowNs);

    // Gives up the first halves of renames that are older, or all: those files have left.
    void EndMovesBefore(std::int64_t timeNs);
    [[nodiscard]] bool HasMoves() const { return !moves_.IsEmpty(); }

private:
    using Move = MovePairs::Move;

    // An entry of a watched directory that a record is about.
    struct Place {
        WatchedFile* directory;
        const std::string& name;
        std::string path;
        [[nodiscard]] WatchedFile* File() const { return WatchedTree::Entry(*directory, name); }
    };

    void HandleOwn(WatchedFile& file, const WatchRecord& record);
    void HandleEntry(Place place, const WatchRecord& record, std::int64_t nowNs);
    void HandleEnd(const WatchRecord& record);

    bool FindAgain(Place& place);
    void FinishMove(const Move& from, Place& place, bool isDirectory);
    void Create(const Place& place, bool isDirectory, bool isMoved);
    void CreateKnown(const Place& place, WatchedFile& file, const TrackerState::Look& look, bool isDirectory,
                     bool isMoved);
    void CreateUnseen(const Place& place, bool isDirectory, bool isMoved);
    void Delete(const Place& place, bool isDirectory);
    void EndMove(const Move& move);
    template <typename Condition>
    void EndMoves(Condition condition);
    void ChangeOwn(WatchedFile& file, const WatchRecord& record);
    void ChangeEntry(const Place& place, const WatchRecord& record);
    bool FindStatus(WatchedFile& file, std::uint32_t mask, bool isOwn, Monitor::FileEvent& event);
    std::string FindChange(WatchedFile& file, const std::string& path, const FileStatus& now, bool isOwn);

    TrackerState& state_;
    TreeReader& reader_;
    MovePairs moves_;
    std::size_t records_ = 0;

    // The last change text, which both records of a change need: that of the file's own watch and its directory's.
    struct {
        const WatchedFile* file = nullptr;
        bool wasOwn = false;
        timespec changed = {};
        std::string text;
    } last_;
};

}  // namespace NEUtils
