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
