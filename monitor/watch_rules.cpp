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

std::vector<std::string> WatchRules::SetWay(WatchRule& rule, std::string path, std::vector<std::string> way)
{
    std::vector<std::string> directories;
    for (const auto& list : {rule.way, way}) {
        std::transform(list.begin(), list.end(), std::back_inserter(directories), &Monitor::ParentOf);
    }
    std::sort(directories.begin(), directories.end());
    directories.erase(std::unique(directories.begin(), directories.end()), directories.end());
    CountWay(rule, -1);
    rule.rule.path = std::move(path);
    rule.way = std::move(way);
    CountWay(rule, 1);
    return directories;
}

void WatchRules::CountWay(const WatchRule& rule, int step)
{
    const auto self =
        std::find_if(rules_.begin(), rules_.end(), [&rule](const auto& one) { return one.get() == &rule; });
    for (const std::string& path : rule.way) {
        const std::string directory = Monitor::ParentOf(path);
        if ((wayDirectories_[directory] += step) == 0) {
            wayDirectories_.erase(directory);
        }
        WatchRuleList& list = onWay_[path];
        if (step > 0 && self != rules_.end()) {
            list.push_back(*self);
        } else {
            list.erase(std::find_if(list.begin(), list.end(), [&rule](const auto& one) { return one.get() == &rule; }));
        }
        if (list.empty()) {
            onWay_.erase(path);
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
