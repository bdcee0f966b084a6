#include "retry_plan.h"

#include <algorithm>
#include <utility>

namespace {

constexpr RetryPlan::Milliseconds kFirstDelay{1000};
constexpr RetryPlan::Milliseconds kLongestDelay{60000};
constexpr RetryPlan::Milliseconds kLeastSpread{2000};
constexpr RetryPlan::Milliseconds kGoodLife{10000};

}  // namespace

bool RetryPlan::IsDue(bool isUp, Time now)
{
    if (isUp) {
        if (now - upSince_ > kGoodLife) {
            delay_ = kFirstDelay;
        }
        return false;
    }
    if (std::exchange(wasUp_, false)) {
        PutOff(now);
    }
    return now >= nextTry_;
}

void RetryPlan::SetResult(bool isUp, Time now)
{
    wasUp_ = isUp;
    upSince_ = now;
    if (!isUp) {
        PutOff(now);
    }
}

void RetryPlan::PutOff(Time now)
{
    nextTry_ = now + delay_ + chance_(std::max(delay_ / 2, kLeastSpread));
    delay_ = std::min(delay_ * 2, kLongestDelay);
}
