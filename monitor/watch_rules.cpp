#include "monitor/watch_rules.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "monitor/watch_scope.h"

namespace NEUtils {

WatchRulePtr WatchRules::Find(const Monitor::FileWatchRule& given) const
{
    const auto found = std::find_if(rules_.begin(), rules_.end(),
                                    [&given](const WatchRulePtr& rule) { return Monitor::IsSame(rule->given, given); });
    return found == rules_.end() ? nullptr : *found;
}

void WatchRules::Add(const WatchRulePtr& rule)
{
    rules_.push_back(rule);
}

void WatchRules::Remove(const WatchRulePtr& rule)
{
    rules_.erase(std::remove(rules_.begin(), rules_.end(), rule), rules_.end());
}

// Where memory runs out in the middle the rule may stand at a name too many, which does no harm.
std::vector<std::string> WatchRules::SetWay(const WatchRulePtr& rule, std::string path, std::vector<std::string> way)
{
    std::vector<std::string> directories;
    for (const auto& list : {rule->way, way}) {
        std::transform(list.begin(), list.end(), std::back_inserter(directories), &Monitor::ParentOf);
    }
    std::sort(directories.begin(), directories.end());
    directories.erase(std::unique(directories.begin(), directories.end()), directories.end());
    for (const std::string& name : way) {
        AddName(rule, name);
    }
    rule->rule.path.swap(path);
    rule->way.swap(way);
    for (const std::string& name : way) {  // those of before
        if (std::find(rule->way.begin(), rule->way.end(), name) == rule->way.end()) {
            RemoveName(rule, name);
        }
    }
    return directories;
}

void WatchRules::AddName(const WatchRulePtr& rule, const std::string& name)
{
    int& names = wayDirectories_[Monitor::ParentOf(name)];
    WatchRuleList rules = OnWay(name);
    if (std::find(rules.begin(), rules.end(), rule) == rules.end()) {
        rules.push_back(rule);
        WatchRuleList& list = onWay_[name];
        names += list.empty() ? 1 : 0;
        list.swap(rules);
    }
}

void WatchRules::RemoveName(const WatchRulePtr& rule, const std::string& name)
{
    const auto directory = wayDirectories_.find(Monitor::ParentOf(name));
    const auto found = onWay_.find(name);
    if (found == onWay_.end()) {
        return;
    }
    WatchRuleList& list = found->second;
    list.erase(std::remove(list.begin(), list.end(), rule), list.end());
    if (list.empty()) {
        onWay_.erase(found);
        if (--directory->second == 0) {
            wayDirectories_.erase(directory);
        }
    }
}

bool WatchRules::StopsAtMount(const WatchRule& rule, const std::string& directory) const
{
    if (directory == rule.rule.path) {  // a link may lead it anywhere, after the rule was added too
        const MountTable::Mount* mount = mounts.Of(directory);
        return rule.given.recursive && mount != nullptr && mount->isPseudo;
    }
    const MountTable::Mount* mount = mounts.At(directory);
    return mount != nullptr && (mount->isPseudo || !rule.rule.crossMounts);
}

WatchRuleList WatchRules::Inside(const WatchRuleList& above, const std::string& directory) const
{
    WatchRuleList inside;
    const auto add = [&](const WatchRulePtr& rule) {
        if (Monitor::LooksInto(rule->rule, directory) && !StopsAtMount(*rule, directory)) {
            inside.push_back(rule);
        }
    };
    std::for_each(above.begin(), above.end(), add);
    for (const WatchRulePtr& rule : OwnersOf(directory)) {
        add(rule);
    }
    return inside;
}

WatchRuleList WatchRules::Covering(const WatchRuleList& inside, bool holdsWay, const std::string& path) const
{
    WatchRuleList covering;
    std::copy_if(inside.begin(), inside.end(), std::back_inserter(covering), [&path](const WatchRulePtr& rule) {
        return rule->rule.excludes.empty() || Monitor::Covers(rule->rule, path);
    });
    if (holdsWay) {
        const WatchRuleList owners = OwnersOf(path);
        covering.insert(covering.end(), owners.begin(), owners.end());
    }
    return covering;
}

WatchRuleList WatchRules::OnWay(const std::string& path) const
{
    const auto found = onWay_.find(path);
    return found == onWay_.end() ? WatchRuleList() : found->second;
}

bool WatchRules::HoldsWay(const std::string& directory) const
{
    const auto found = wayDirectories_.find(directory);
    return found != wayDirectories_.end() && found->second > 0;
}

WatchRuleList WatchRules::OwnersOf(const std::string& path) const
{
    WatchRuleList owners = OnWay(path);
    owners.erase(std::remove_if(owners.begin(), owners.end(),
                                [&path](const WatchRulePtr& rule) { return rule->rule.path != path; }),
                 owners.end());
    return owners;
}

WatchRuleList WatchRules::OnWayAtOrBelow(const std::string& path) const
{
    WatchRuleList rules;
    std::copy_if(rules_.begin(), rules_.end(), std::back_inserter(rules), [&path](const WatchRulePtr& rule) {
        return std::any_of(rule->way.begin(), rule->way.end(),
                           [&path](const std::string& name) { return Monitor::IsAtOrBelow(name, path); });
    });
    return rules;
}

}  // namespace NEUtils
