#pragma once

#include <atomic>
#include <string>

#include "logger.h"

namespace NEUtils {

// As MessageBus::Subscribe, for a subscriber that ignores records below a level. The logger looks at the level, which
// may change at any time and lives as long as the subscriber, and does not format what nobody takes.
bool SubscribeFromLevel(const std::atomic<unsigned int>& minLevel, const std::string& kind, const std::string& name,
                        MessageBus::Subscriber subscriber);

}  // namespace NEUtils
