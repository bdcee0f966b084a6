#include "start_reasons.h"

#include <cstring>

#include "logger.h"

namespace {

constexpr char kName[] = "AgentReasons";
constexpr char kLoader[] = "Try load library.";  // an INFO record
constexpr std::size_t kMost = 4096;

thread_local std::string* t_reasons = nullptr;

void OnRecord(const NENormalLog& record)
{
    if (t_reasons == nullptr || t_reasons->size() >= kMost) {
        return;
    }
    if (record.level >= WARN || std::strncmp(record.content, kLoader, sizeof(kLoader) - 1) == 0) {
        t_reasons->append(t_reasons->empty() ? "" : "; ").append(record.content);
    }
}

}  // namespace

StartReasons::StartReasons()
{
    t_reasons = &text_;
}

StartReasons::~StartReasons()
{
    t_reasons = nullptr;
}

void StartReasons::Subscribe()
{
    NEUtils::MessageBus::Subscribe(NEUtils::kNormalLog, kName, &OnRecord);
}

void StartReasons::Unsubscribe()
{
    NEUtils::MessageBus::Unsubscribe(NEUtils::kNormalLog, kName);
}
