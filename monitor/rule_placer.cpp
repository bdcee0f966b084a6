#include "monitor/rule_placer.h"

#include <algorithm>
#include <utility>

#include "monitor/watch_scope.h"

namespace NEUtils {

namespace {

constexpr int kMaxLinks = 40;  // as many as the kernel follows
constexpr int kMaxRounds = 8;  // of a way that changes while it is being watched

// The names of a path, last first.
std::vector<std::string> NamesOf(const std::string& path)
{
    std::vector<std::string> names;
    for (std::size_t start = 0; start < path.size();) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        if (end > start) {
            names.push_back(path.substr(start, end - start));
        }
        start = end + 1;
    }
    std::reverse(names.begin(), names.end());
    return names;
}

void AddName(std::vector<std::string>& names, const std::string& name)
{
    if (std::find(names.begin(), names.end(), name) == names.end()) {
        names.push_back(name);
    }
}

}  // namespace

RulePlacer::Way RulePlacer::Resolve(const Monitor::FileWatchRule& given) const
{
    if (given.recursive) {
        Way way = Follow(given.path, true);
        if (way.isDirectory) {
            return way;
        }
    }
    return Follow(given.path, false);
}

RulePlacer::Way RulePlacer::Follow(const std::string& path, bool followsLast) const
{
    Way way;
    way.path.assign(1, '/');
    way.isThere = true;
    way.isDirectory = true;
    int links = 0;
    std::vector<std::string> left = NamesOf(path);
    if (left.empty()) {
        way.names.emplace_back("/");
    }
    while (!left.empty() && way.isThere) {
        const std::string name = std::move(left.back());
        left.pop_back();
        if (name == "." || name == "..") {
            if (name == "..") {
                way.path = Monitor::ParentOf(way.path);
            }
            continue;
        }
        const std::string next = Monitor::EntryOf(way.path, name);
        AddName(way.names, next);
        struct stat status = {};
        std::string target;
        const bool isFound = state_.host.Look(next, status);
        if (isFound && S_ISLNK(status.st_mode) && (!left.empty() || followsLast) && ++links <= kMaxLinks &&
            state_.host.ReadLink(next, target) && !target.empty()) {
            std::vector<std::string> names = NamesOf(target);
            left.insert(left.end(), names.begin(), names.end());
            if (target[0] == '/') {
                way.path = std::string(1, '/');
            }
            continue;
        }
        way.isDirectory = isFound && S_ISDIR(status.st_mode);
        way.isThere = isFound && (way.isDirectory || left.empty());
        way.path = next;
    }
    for (auto name = left.rbegin(); name != left.rend(); ++name) {  // as if they were there
        way.path = Monitor::EntryOf(way.path, *name);
        AddName(way.names, way.path);
    }
    return way;
}

void RulePlacer::Place(const WatchRulePtr& rule, bool isNew)
{
    rule->placedIn = state_.tree.Round();
    Way way = Resolve(rule->given);
    for (int round = 0; round < kMaxRounds; ++round) {
        const std::string before = rule->rule.path;
        const bool leaves = way.path != before && !isNew && !rule->isElsewhere;
        if (leaves) {  // while the tree still knows what the rule has covered
            if (WatchedFile* file = state_.tree.Find(before); file != nullptr && file->isKnown) {
                state_.NotifyDeleted({rule}, before, *file, true);
            }
        }
        rule->isElsewhere = rule->isElsewhere || leaves;  // also if it comes back in the next round
        SetWay(rule, way);
        if (leaves) {
            reader_.Uncover(before);
        }
        Way again = Resolve(rule->given);
        if (again.path == way.path && again.names == way.names) {
            break;
        }
        way = std::move(again);
    }
    TreeReader::Manner manner;
    manner.silentFor = isNew ? rule.get() : nullptr;
    manner.newFor = rule->isElsewhere ? rule : nullptr;
    reader_.Read(rule->rule.path, manner);
    rule->isElsewhere = false;
    const WatchedFile* file = state_.tree.Find(rule->rule.path);
    rule->isThere = file != nullptr && file->isKnown;
}

void RulePlacer::TakeOut(const WatchRulePtr& rule)
{
    const std::string path = rule->rule.path;
    Way nowhere;
    nowhere.path = path;
    SetWay(rule, nowhere);
    state_.unplaced.erase(std::remove(state_.unplaced.begin(), state_.unplaced.end(), rule), state_.unplaced.end());
    WatchedTree::ForEach(state_.tree.Root(), [&rule](WatchedFile& file) {
        file.notHeardBy = file.notHeardBy == rule.get() ? nullptr : file.notHeardBy;
    });
    reader_.Uncover(path);
    state_.rules.Remove(rule);  // last: what is not done yet is done at the next try
    rule->isThere = false;
}

void RulePlacer::SetWay(const WatchRulePtr& rule, Way way)
{
    for (const std::string& directory : state_.rules.SetWay(rule, std::move(way.path), std::move(way.names))) {
        WatchWay(directory);
    }
}

void RulePlacer::WatchWay(const std::string& directory)
{
    if (!state_.rules.HoldsWay(directory)) {
        if (WatchedFile* file = state_.tree.Find(directory); file != nullptr && file->entries != nullptr) {
            file->entries->holdsWay = false;
            reader_.Keeper().Narrow(*file, directory);
            state_.tree.Prune(file);
        }
        return;
    }
    WatchedFile& file = state_.tree.AddPath(directory);
    WatchedTree::MakeDirectory(file);
    file.entries->holdsWay = true;
    struct stat status = {};
    if (!state_.host.Look(directory, status)) {
        return;
    }
    if (!file.status.IsSameFile(FileStatus(status))) {
        if (file.isKnown) {  // the reading that follows, or a record, says so
            state_.Suspect(directory);
            return;
        }
        reader_.Keeper().Drop(file);
        state_.tree.SetStatus(file, FileStatus(status));
    }
    static_cast<void>(reader_.Keeper().Ensure(file, directory));
}

}  // namespace NEUtils
