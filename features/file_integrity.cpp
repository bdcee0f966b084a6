// The feature file_integrity: logs and reports what changes in watched files and trees, and the SHA-256 of changed
// files.
#include <sys/inotify.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "describe.h"
#include "digest_queue.h"
#include "event.h"
#include "feature.h"
#include "feature_counters.h"
#include "file_rules.h"
#include "hips_guard.h"
#include "known_times.h"
#include "logger.h"
#include "loop_thread.h"
#include "monitor.h"
#include "monitor_manager.h"
#include "own_files.h"
#include "policy_text.h"
#include "util/clock.h"
#include "util/key_lines.h"
#include "util/rate_limiter.h"

namespace {

using NEUtils::Sha256;
using NEUtils::Monitor::FileEvent;
using NEUtils::Monitor::FileWatchRule;
using NEUtils::Monitor::WatchState;

constexpr int kCountMs = 5000;
constexpr std::int64_t kRetryMs = 60000;
constexpr std::uint64_t kMostBytes = std::uint64_t{1} << 40U;
constexpr std::uint32_t kContentChange = IN_CREATE | IN_MODIFY | IN_CLOSE_WRITE | IN_MOVED_TO;

struct Settings {
    std::vector<FileWatchRule> rules;
    std::uint64_t digestMaxBytes = 1U << 20U;
};

std::string TakeWatch(const std::string& value, Settings& settings)
{
    if (settings.rules.size() == kMaxPolicyRules) {
        return "is one rule too many";
    }
    return ParseWatch(value, settings.rules.emplace_back());
}

std::string ReadSettings(const std::string& policy, Settings& settings)
{
    const std::string fault = ReadPolicy(
        policy, {{"watch", [&](const auto& value) { return TakeWatch(value, settings); }},
                 {"digest_max_bytes",
                  [&](const auto& value) { return NEUtils::ReadNumber(value, kMostBytes, settings.digestMaxBytes); }}});
    return fault.empty() && settings.rules.empty() ? "it has no watch" : fault;
}

// Of the monitor's text only what has changed: the path stands in an item of its own.
std::string ChangeOf(const FileEvent& event)
{
    return event.change.empty() ? "" : event.change.substr(event.path.size() + 1);
}

// The permissions of a file that is new at its path; a file that replaces another comes with its own.
std::string ModeOf(const FileEvent& event)
{
    char text[8] = "";
    const bool isNew = (event.mask & (IN_CREATE | IN_MOVED_TO)) != 0 && event.status;
    if (isNew) {
        std::snprintf(text, sizeof(text), "%04o", event.status->st_mode & 07777U);
    }
    return text;
}

void LogDigest(const std::string& path, Sha256::Result result, const std::string& digest)
{
    const bool isDone = result == Sha256::kOk;
    const char* fault = result == Sha256::kTooLarge ? "too large" : "cannot be read";
    Event({NEUtils::kMsgFile, "file", isDone ? "File digest." : "File has no digest."}, NEUtils::Clock::WallMs())
        .Add("action", NEUtils::kTagAction, "digest")
        .Add("sha256", NEUtils::kTagDigest, digest)
        .Add("fault", NEUtils::kTagFault, isDone ? "" : fault)
        .Send("path", NEUtils::kTagPath, path);
}

std::uint64_t OverflowsOfMonitor()
{
    return NEUtils::MonitorManager::GetInstance().GetInotifyMonitor().GetOverflowCount();
}

// Watches as long as it lives.
class FileIntegrity {
public:
    explicit FileIntegrity(Settings settings) : digestMaxBytes_(settings.digestMaxBytes)
    {
        for (FileWatchRule& rule : settings.rules) {
            rule.callback = &FileIntegrity::OnChange;
            rule.userData = this;
            rules_.push_back({std::move(rule)});
        }
        digests_.Start(digestMaxBytes_, &LogDigest);
    }
    ~FileIntegrity()
    {
        ticker_.Stop();
        CountOverflows();
        for (const Watched& watched : rules_) {
            if (watched.isAdded) {
                NEUtils::Monitor::RemoveMonitor(watched.rule, NEUtils::Monitor::kInotifyMonitor);
            }
        }
        digests_.Stop();
        counters_.watches = 0;
        counters_.waiting = 0;
        counters_.lacking = 0;
    }
    FileIntegrity(const FileIntegrity&) = delete;
    FileIntegrity& operator=(const FileIntegrity&) = delete;

    // As far as it can; false if the monitor takes none of the rules, and it says why. A path that is missing is
    // waited for, and a rule that was refused is tried again.
    bool Watch()
    {
        AddRules();
        Count();
        const bool isAny =
            std::any_of(rules_.begin(), rules_.end(), [](const Watched& watched) { return watched.isAdded; });
        return isAny && ticker_.Start("FileIntegrity", [this](int stopFd) {
            if (!WaitFor(stopFd, kCountMs)) {
                AddRules();
                Count();
            }
        });
    }

private:
    struct Watched {
        FileWatchRule rule;
        bool isAdded = false;
        WatchState state = NEUtils::Monitor::kNotWatched;
    };

    static void OnChange(const FileEvent& event, void* self) { static_cast<FileIntegrity*>(self)->Handle(event); }

    // Those that the monitor does not have, once a minute: it may have room for them now.
    void AddRules()
    {
        if (!attempts_.Allow(NEUtils::Clock::MonotonicNs() / NEUtils::Clock::kNsPerMs)) {
            return;
        }
        for (Watched& watched : rules_) {
            if (NEUtils::Monitor::GetWatchState(watched.rule) == NEUtils::Monitor::kNotWatched) {
                watched.isAdded = NEUtils::Monitor::AddMonitor(watched.rule, NEUtils::Monitor::kInotifyMonitor);
                KeepCurrentThreadAlive();  // a large tree takes its time
            }
        }
    }

    // Before the ticker runs, then on it alone.
    void Count()
    {
        CountOverflows();
        std::uint64_t watches = 0;
        std::uint64_t waiting = 0;
        for (Watched& watched : rules_) {
            const WatchState state = NEUtils::Monitor::GetWatchState(watched.rule);
            watches += state == NEUtils::Monitor::kWatching ? 1 : 0;
            waiting += state == NEUtils::Monitor::kWaiting ? 1 : 0;
            if (std::exchange(watched.state, state) != state) {
                LogState(watched);
            }
        }
        counters_.watches = watches;
        counters_.waiting = waiting;
        counters_.lacking = rules_.size() - watches - waiting;
    }

    // What has changed is found by comparing, but what came and went, or was only read, is not.
    void CountOverflows()
    {
        const std::uint64_t overflows = OverflowsOfMonitor();
        counters_.overflows += overflows - std::min(overflows, std::exchange(overflows_, overflows));
    }

    static void LogState(const Watched& watched)
    {
        const char* path = watched.rule.path.c_str();
        if (watched.state == NEUtils::Monitor::kWatching) {
            NE_LOG(INFO, "Files are watched.[recursive=%d path=%s]", watched.rule.recursive ? 1 : 0, path);
        } else if (watched.state == NEUtils::Monitor::kWaiting) {
            NE_LOG(WARN, "Path to be watched is not there, it is waited for.[path=%s]", path);
        }
    }

    void Handle(const FileEvent& event)
    {
        ++counters_.seen;
        if (ownFiles_.Hold(event.path, event.status ? &*event.status : nullptr)) {
            ++counters_.filtered;
            return;
        }
        const std::string mode = ModeOf(event);
        Event({NEUtils::kMsgFile, "file", "File changed."}, NEUtils::Clock::WallMs())
            .Add("action", NEUtils::kTagAction, !event.oldPath.empty() ? "rename" : WatchEventNames(event.mask))
            .Add("change", NEUtils::kTagChange, StatusChange(event))
            .Add("mode", NEUtils::kTagMode, mode)
            .Add("owner", NEUtils::kTagOwner, mode.empty() ? "" : UserName(event.status->st_uid))
            .Add("oldPath", NEUtils::kTagOldPath, event.oldPath)
            .Send("path", NEUtils::kTagPath, event.path);
        // A file is often replaced by renaming a new one.
        const bool hasContent = !event.isDirectory && (event.mask & kContentChange) != 0;
        if (hasContent && digestMaxBytes_ > 0 && !digests_.Add(event.path)) {
            ++counters_.lost;
        }
    }

    // A change of the status that the monitor has no text for is one of times, or of what only the times show.
    std::string StatusChange(const FileEvent& event)
    {
        if ((event.mask & IN_DELETE) != 0 || !event.status) {
            times_.Forget(event.path);
            return ChangeOf(event);
        }
        times_.Forget(event.oldPath);
        const std::string times = times_.Update(event.path, *event.status);
        const std::string change = ChangeOf(event);
        return change.empty() && (event.mask & IN_ATTRIB) != 0 ? times : change;
    }

    NEUtils::FeatureCounters& counters_ = NEUtils::FeatureCounters::Of(kFeatureName);
    OwnFiles ownFiles_;
    KnownTimes times_;
    const std::uint64_t digestMaxBytes_;
    std::vector<Watched> rules_;
    NEUtils::RateLimiter attempts_{kRetryMs};
    std::uint64_t overflows_ = OverflowsOfMonitor();
    DigestQueue digests_;
    LoopThread ticker_;
};

std::unique_ptr<FileIntegrity> g_integrity;

}  // namespace

const char kFeatureName[] = "file_integrity";

std::string FindPolicyFault(const std::string& policy)
{
    Settings settings;
    return ReadSettings(policy, settings);
}

bool StartFeature(const std::string& policy)
{
    Settings settings;
    const std::string fault = ReadSettings(policy, settings);
    if (!fault.empty()) {
        LogRefusal(kFeatureName, fault);
        return false;
    }
    auto integrity = std::make_unique<FileIntegrity>(std::move(settings));
    if (!integrity->Watch()) {
        return false;
    }
    g_integrity = std::move(integrity);
    return true;
}

void StopFeature()
{
    g_integrity.reset();
}
