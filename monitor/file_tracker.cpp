#include "monitor/file_tracker.h"

#include <algorithm>
#include <map>
#include <utility>

#include "attribute.h"
#include "monitor/watch_scope.h"

namespace NEUtils {

namespace {

constexpr std::size_t kRetries = 256;  // of files without a watch at a time

}  // namespace

FileTracker::Added FileTracker::AddRule(const WatchRulePtr& rule)
{
    const RulePlacer::Way way = placer_.Resolve(rule->given);
    const MountTable::Mount* mount = state_.rules.mounts.Of(way.path);
    if (!way.isThere && !rule->given.mayBeMissing) {
        return Added::kMissing;
    }
    if (rule->given.recursive && mount != nullptr && mount->isPseudo) {
        return Added::kPseudo;
    }
    rule->isLeaving = true;  // until it is whole
    state_.rules.Add(rule);
    placer_.Place(rule, true);
    rule->isLeaving = false;
    const WatchedFile* file = state_.tree.Find(rule->rule.path);
    const bool isRefused = file != nullptr && file->isKnown && file->lacksWatch;
    if (isRefused) {
        placer_.TakeOut(rule);
    }
    PlaceRules();
    return isRefused ? Added::kNoRoom : Added::kYes;
}

void FileTracker::RemoveRule(const WatchRulePtr& rule)
{
    rule->isLeaving = true;
    placer_.TakeOut(rule);
}

void FileTracker::Handle(const WatchRecord& record, std::int64_t nowNs)
{
    records_.Handle(record, nowNs);
    PlaceRules();
}

void FileTracker::EndMovesBefore(std::int64_t timeNs)
{
    records_.EndMovesBefore(timeNs);
    PlaceRules();
}

void FileTracker::PlaceRules()
{
    while (!state_.unplaced.empty() && state_.host.Continue()) {
        const WatchRulePtr rule = state_.unplaced.back();
        state_.unplaced.pop_back();
        placer_.Place(rule, false);
    }
}

void FileTracker::SetMounts(const std::string& text)
{
    std::vector<std::string> seen = state_.tree.SeenInRound();
    for (const WatchRulePtr& rule : state_.rules.All()) {
        if (rule->placedIn == state_.tree.Round()) {
            seen.insert(seen.end(), rule->way.begin(), rule->way.end());
        }
    }
    for (const std::string& path : seen) {
        state_.Suspect(path, {false, true});
    }
    for (const std::string& path : state_.rules.mounts.Update(text)) {
        state_.Suspect(path, {true, true});
        state_.Unplace(state_.rules.OnWayAtOrBelow(path));
    }
    state_.tree.BeginRound();
}

void FileTracker::LookAgain()
{
    const auto suspects = std::exchange(state_.suspects, {});
    // Mount points first: who reads a directory above one would take what is mounted for another directory.
    for (const bool isRemounted : {true, false}) {
        for (const auto& [path, why] : suspects) {
            if (why.isRemounted == isRemounted) {
                TreeReader::Manner manner;
                manner.isLast = true;
                manner.why = why;
                reader_.Read(path, manner);
                state_.Unplace(state_.rules.OnWay(path));
            }
        }
    }
    PlaceRules();
    std::vector<std::string> lacking;
    if (state_.host.HasRoom()) {
        for (const WatchedFile* file : state_.tree.Lacking()) {
            lacking.push_back(file->Path());
            if (lacking.size() == kRetries) {
                break;
            }
        }
    }
    for (const std::string& path : lacking) {
        TreeReader::Manner manner;
        manner.why.compares = true;
        reader_.Read(path, manner);
    }
}

void FileTracker::Compare()
{
    records_.EndMovesBefore(INT64_MAX);  // their second halves may be lost
    TreeReader::Manner manner;
    manner.isLast = true;
    manner.why.compares = true;
    const WatchRuleList rules = state_.rules.All();
    for (const WatchRulePtr& rule : rules) {
        if (rule->isLeaving) {
            placer_.TakeOut(rule);
        } else {
            reader_.Read(rule->rule.path, manner);
        }
    }
    state_.Unplace(state_.rules.All());
    PlaceRules();
}

std::size_t FileTracker::CountLacking(const WatchRule& rule) const
{
    const auto& lacking = state_.tree.Lacking();
    return static_cast<std::size_t>(std::count_if(lacking.begin(), lacking.end(), [&rule](const WatchedFile* file) {
        return Monitor::Covers(rule.rule, file->Path());
    }));
}

std::vector<FileTracker::Lack> FileTracker::TakeNewLacks()
{
    std::vector<Lack> lacks;
    const bool isLacking = CountLacking() > 0;
    for (const WatchRulePtr& rule : state_.rules.All()) {
        const std::size_t lacking = isLacking && !rule->hasLoggedLack ? CountLacking(*rule) : 0;
        if (lacking > 0) {
            lacks.emplace_back(rule->rule.path, lacking);
        }
        rule->hasLoggedLack = isLacking && (rule->hasLoggedLack || lacking > 0);
    }
    return lacks;
}

void FileTracker::Clear()
{
    WatchedTree::ForEach(state_.tree.Root(), [](WatchedFile& file) {
        if (file.isKnown) {
            BeUnknown(file, file.Path());
        }
    });
    state_.tree.Remove(state_.tree.Root());
    state_.notifications.clear();
    state_.suspects.clear();
}

}  // namespace NEUtils
