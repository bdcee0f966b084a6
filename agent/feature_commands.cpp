#include "feature_commands.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <utility>

#include "basecomm.h"
#include "hips_guard.h"
#include "logger.h"
#include "report_messages.h"
#include "thread_pool.h"
#include "tlv.h"
#include "util/clock.h"

using namespace NEUtils;

namespace {

constexpr std::size_t kMaxCommands = 16;
constexpr std::size_t kMaxBody = std::size_t{128} << 10U;
constexpr char kNoStatus[] = R"({"problems":["the status is too long to be sent"]})";
constexpr std::uint32_t kTypes[] = {kMsgPolicy, kMsgStatus};

TLVValue ResultItem(int result)
{
    TLVValue item;
    item.Init(kTagResult, result);
    return item;
}

FeatureHost::Outcome Malformed(const char* reason)
{
    return {kCommandMalformed, reason};
}

}  // namespace

void FeatureCommands::Start()
{
    job_.Start(ThreadPool::GetInstance(), "features", [this] { CarryOut(); });
}

bool FeatureCommands::Listen()
{
    bool registered = true;
    for (const std::uint32_t type : kTypes) {
        registered = RegisterControlMsgHandler(type, &FeatureCommands::OnMessage, this) && registered;
    }
    return registered;
}

void FeatureCommands::OnMessage(std::uint32_t type, void* message, void* self)
{
    SentrelAgentMsg header;
    std::memcpy(&header, message, sizeof(header));
    const char* body = static_cast<const char*>(message) + sizeof(header);
    Command command = {type, header.seq, {}};
    auto& own = *static_cast<FeatureCommands*>(self);
    if (const std::string refusal = own.refusal_(); !refusal.empty()) {
        if (own.refusals_.Allow(Clock::MonotonicNs() / Clock::kNsPerMs)) {
            NE_LOG(WARN, "Command of the server is refused.[type=%u reason=%s]", type, refusal.c_str());
        }
        own.Answer(command, {kCommandRefused, refusal}, {});
        return;
    }
    if (header.length > kMaxBody) {
        own.Answer(command, Malformed("it is longer than 128 KiB"), {});
        return;
    }
    command.body.assign(body, header.length);
    own.Queue(command);
}

void FeatureCommands::Queue(const Command& command)
{
    bool full = false;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto isSame = [&command](const Command& other) { return other.type == command.type; };
        if (!NEUtils::IsRequestMessage(command.type)) {  // of the agent itself: one of a kind is enough, and has room
            if (std::any_of(commands_.begin(), commands_.end(), isSame)) {
                return;
            }
        } else {
            full = commands_.size() >= kMaxCommands;
        }
        if (!full) {
            commands_.push_back(command);
        }
    }
    if (full) {
        Answer(command, {kCommandBusy, "16 commands wait already"}, {});
    } else if (!job_.Request()) {
        NE_LOG(WARN, "The pool takes no more jobs, commands wait.");  // for the next one
    }
}

void FeatureCommands::CarryOut()
{
    for (Command command; Take(command);) {
        KeepCurrentThreadAlive();  // commands may come without end
        const FeatureHost::Outcome outcome = command.type == kMsgStatus ? FeatureHost::Outcome() : Apply(command);
        if (IsRequestMessage(command.type)) {
            Answer(command, outcome, status_());
        }
    }
}

bool FeatureCommands::Take(Command& command)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_ || commands_.empty()) {
        return false;
    }
    command = std::move(commands_.front());
    commands_.pop_front();
    if (command.type != kMsgStatus) {
        applying_ = std::this_thread::get_id();
    }
    return true;
}

FeatureHost::Outcome FeatureCommands::Apply(Command& command)
{
    const struct Applying {  // also where it throws
        FeatureCommands& own;
        ~Applying()
        {
            const std::lock_guard<std::mutex> lock(own.mutex_);
            own.applying_ = {};
            own.applied_.notify_all();
        }
    } applying{*this};
    if (command.type == kApplyKept) {
        features_.Start();
        return {};
    }
    if (command.type == kReload) {
        features_.Reload();
        return {};
    }
    return ApplyPolicy(command);
}

FeatureHost::Outcome FeatureCommands::ApplyPolicy(Command& command)
{
    TLVAnalyzer items(reinterpret_cast<unsigned char*>(command.body.data()), static_cast<int>(command.body.size()));
    std::string feature;
    std::string text;
    int enable = -1;
    if (!items.Analyze(kSwapReport)) {
        return Malformed("it is not made of whole items");
    }
    if (!items[kTagFeature].AsString(feature)) {
        return Malformed("it names no feature");
    }
    if (!items[kTagEnable].AsInt(enable) || enable < 0 || enable > 1) {
        return Malformed("it says neither on nor off");
    }
    const bool hasText = items.Has(kTagPolicy);
    if (hasText && !items.JoinText(kTagPolicy, text)) {
        return Malformed("an item of its policy is longer than 2048 bytes");
    }
    if (text.find('\0') != std::string::npos) {
        return Malformed("its policy holds a zero byte");
    }
    NE_LOG(INFO, "Policy has come from the server.[feature=%s enable=%d size=%zu]", Printable(feature).c_str(), enable,
           text.size());
    FeatureHost::Outcome outcome =
        features_.Apply(feature, enable == 1, hasText ? std::optional<std::string>(text) : std::nullopt);
    if (outcome.result != kCommandDone) {
        NE_LOG(ERROR, "Policy of the server has failed.[feature=%s reason=%s]", Printable(feature).c_str(),
               outcome.reason.c_str());
    }
    return outcome;
}

// Whether it arrives is the server's to see: it has the channel's other end.
void FeatureCommands::Answer(const Command& command, const FeatureHost::Outcome& outcome, const std::string& status)
{
    TLVPacker items;
    items.Add(ResultItem(outcome.result));
    items.AddText(kTagReason, outcome.reason);
    items.AddText(kTagStatus, status.size() <= kMaxStatusText ? status : std::string(kNoStatus));
    if (items.Pack(kSwapReport) != 0 || items.GetSize() > kMaxMsgBody) {
        NE_LOG(ERROR, "Command cannot be answered.[type=%u size=%u]", command.type, items.GetSize());
        return;
    }
    const SentrelAgentMsg header = {kMsgVersion, ResponseType(command.type), command.seq, items.GetSize()};
    std::string message(reinterpret_cast<const char*>(&header), sizeof(header));
    message.append(reinterpret_cast<const char*>(items.GetBuffer()), items.GetSize());
    SendControlMsg(message.data(), static_cast<unsigned int>(message.size()));
}

void FeatureCommands::StopApplying()
{
    std::unique_lock<std::mutex> lock(mutex_);
    stopping_ = true;
    applied_.wait(lock, [this] { return applying_ == std::thread::id() || applying_ == std::this_thread::get_id(); });
}

void FeatureCommands::Stop()
{
    for (const std::uint32_t type : kTypes) {
        UnregisterControlMsgHandler(type, &FeatureCommands::OnMessage);
    }
    job_.Stop();
}
