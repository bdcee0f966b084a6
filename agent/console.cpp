#include "console.h"

#include <cstdio>

#include "logger.h"

namespace {

constexpr char kName[] = "AgentConsole";

}  // namespace

void Complain(const std::string& text)
{
    std::fprintf(stderr, "sentrel-agent: %s\n", text.c_str());
}

void SubscribeConsole()
{
    NEUtils::MessageBus::Subscribe(NEUtils::kNormalLog, kName, [](const NENormalLog& record) {
        if (record.level >= WARN) {
            Complain(std::string(record.levelName) + ": " + record.content);
        }
    });
}

void UnsubscribeConsole()
{
    NEUtils::MessageBus::Unsubscribe(NEUtils::kNormalLog, kName);
}
