#include "feature_counters.h"

#include <mutex>

namespace NEUtils {

namespace {

struct Table {
    std::mutex mutex;
    std::map<std::string, FeatureCounters> counters;
};

// Never destroyed: threads may count until the process is gone.
Table& Counters()
{
    static auto& table = *new Table;
    return table;
}

}  // namespace

FeatureCounters& FeatureCounters::Of(const std::string& feature)
{
    Table& table = Counters();
    const std::lock_guard<std::mutex> lock(table.mutex);
    return table.counters[feature];
}

void FeatureCounters::SetDetail(const std::string& name, const std::string& text)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (text.empty()) {
        details_.erase(name);
    } else {
        details_[name] = text;
    }
}

void FeatureCounters::AddToDetail(const std::string& name, std::uint64_t number)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    Detail& detail = details_[name];
    const std::uint64_t* const before = std::get_if<std::uint64_t>(&detail);
    detail = number + (before == nullptr ? 0 : *before);
}

std::map<std::string, FeatureCounters::Detail> FeatureCounters::GetDetails() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return details_;
}

std::map<std::string, const FeatureCounters*> FeatureCounters::All()
{
    Table& table = Counters();
    std::map<std::string, const FeatureCounters*> all;
    const std::lock_guard<std::mutex> lock(table.mutex);
    for (const auto& [feature, counters] : table.counters) {
        all.emplace(feature, &counters);
    }
    return all;
}

}  // namespace NEUtils
