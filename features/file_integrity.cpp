// The feature file_integrity: tells what changes in watched files and trees, and the SHA-256 of changed files.
#include <sys/inotify.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "digest_queue.h"
#include "feature.h"
#include "feature_counters.h"
#include "file_rules.h"
#include "logger.h"
#include "monitor.h"
#include "own_log.h"
#include "policy_text.h"
#include "report.h"
#include "util/key_lines.h"

namespace {

using NEUtils::Monitor::FileEvent;
using NEUtils::Monitor::FileWatchRule;

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

// Of the monitor's text only what has changed: the path is told by itself.
std::string ChangeOf(const FileEvent& event)
{
    return event.change.empty() ? "" : event.change.substr(event.path.size() + 1);
}

// Watches as long as it lives.
class FileIntegrity {
public:
    explicit FileIntegrity(Settings settings) : settings_(std::move(settings))
    {
        digests_.Start(settings_.digestMaxBytes, &FileIntegrity::TellDigest);
    }
    ~FileIntegrity()
    {
        for (const FileWatchRule& rule : watched_) {
            NEUtils::Monitor::RemoveMonitor(rule, NEUtils::Monitor::kInotifyMonitor);
        }
        digests_.Stop();
        counters_.watches = 0;
        counters_.lacking = 0;
    }
    FileIntegrity(const FileIntegrity&) = delete;
    FileIntegrity& operator=(const FileIntegrity&) = delete;

    // As far as it can; false if there is nothing that could be watched. The monitor says why.
    bool Watch()
    {
        for (FileWatchRule& rule : settings_.rules) {
            rule.callback = &FileIntegrity::OnChange;
            rule.userData = this;
            if (NEUtils::Monitor::AddMonitor(rule, NEUtils::Monitor::kInotifyMonitor)) {
                watched_.push_back(rule);
                NE_LOG(INFO, "Files are watched.[path=%s recursive=%d]", rule.path.c_str(), rule.recursive ? 1 : 0);
            }
        }
        counters_.watches = watched_.size();
        counters_.lacking = settings_.rules.size() - watched_.size();
        return !watched_.empty();
    }

private:
    static void OnChange(const FileEvent& event, void* self) { static_cast<FileIntegrity*>(self)->Handle(event); }

    void Handle(const FileEvent& event)
    {
        ++counters_.seen;
        if (ownLog_.Holds(event.path)) {
            ++counters_.filtered;
            return;
        }
        const std::string action = !event.oldPath.empty() ? "rename" : WatchEventNames(event.mask);
        const std::string change = ChangeOf(event);
        NE_LOG(INFO, "File changed.[action=%s change=%s oldPath=%s path=%s]", action.c_str(), change.c_str(),
               NEUtils::Printable(event.oldPath).c_str(), NEUtils::Printable(event.path).c_str());
        NEUtils::Report(NEUtils::kMsgFile)
            .Add(NEUtils::kTagAction, action)
            .Add(NEUtils::kTagChange, change)
            .Add(NEUtils::kTagOldPath, event.oldPath)
            .Add(NEUtils::kTagPath, event.path)
            .Push();
        // A file is often replaced by renaming a new one.
        const bool hasContent = !event.isDirectory && (event.mask & kContentChange) != 0;
        if (hasContent && settings_.digestMaxBytes > 0 && !digests_.Add(event.path)) {
            ++counters_.lost;
        }
    }

    static void TellDigest(const std::string& path, const std::string& digest)
    {
        NE_LOG(INFO, "File digest.[sha256=%s path=%s]", digest.c_str(), NEUtils::Printable(path).c_str());
        NEUtils::Report(NEUtils::kMsgFile)
            .Add(NEUtils::kTagAction, "digest")
            .Add(NEUtils::kTagDigest, digest)
            .Add(NEUtils::kTagPath, path)
            .Push();
    }

    NEUtils::FeatureCounters& counters_ = NEUtils::FeatureCounters::Of(kFeatureName);
    const OwnLog ownLog_;
    Settings settings_;
    std::vector<FileWatchRule> watched_;
    DigestQueue digests_;
};

std::unique_ptr<FileIntegrity> g_integrity;

}  // namespace

const char kFeatureName[] = "file_integrity";

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
