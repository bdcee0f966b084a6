#include "commands.h"

#include <sys/time.h>

#include <nlohmann/json.hpp>
#include <utility>

#include "answer.h"

namespace {

using namespace NEUtils;
using nlohmann::ordered_json;

constexpr timeval kAnswerLimit = {10, 0};
constexpr std::size_t kMaxUnderWay = 512;  // those of clients that are gone go on

}  // namespace

bool Commands::Run(const std::string& line, Asker& asker)
{
    Command command;
    const std::string fault = ParseCommand(line, command);
    if (!fault.empty()) {
        asker.Say(FaultText(fault));
        return false;
    }
    if (command.isHelp) {
        SayHelp(asker);
    }
    return command.type != 0 && Send(std::move(command), asker);
}

std::string Commands::FaultText(const std::string& fault) const
{
    return printer_.IsJson() ? ordered_json{{"error", fault}}.dump(-1, ' ', true) : "error: " + fault;
}

void Commands::SayHelp(Asker& asker) const
{
    if (printer_.IsJson()) {
        asker.Say(ordered_json{{"help", kCommandHelp}}.dump());
        return;
    }
    for (const char* line : kCommandHelp) {
        asker.Say(line);
    }
}

bool Commands::Send(Command command, Asker& asker)
{
    if (underWay_.size() >= kMaxUnderWay) {
        asker.Say(FaultText("too many commands are under way"));
        return false;
    }
    const std::uint32_t seq = ++seq_;
    std::set<std::uint64_t> agents = agents_.Broadcast(CommandMessage(command, seq));
    const std::size_t sent = agents.size();
    command.policy.clear();
    UnderWay made = {*this, seq, std::move(command), &asker, std::move(agents), sent};
    UnderWay& underWay = underWay_.try_emplace(seq, std::move(made)).first->second;
    if (sent > 0 && Watch(underWay)) {
        return true;
    }
    SayDone(underWay);
    underWay_.erase(seq);
    return false;
}

bool Commands::Watch(UnderWay& underWay) const
{
    underWay.limit.reset(evtimer_new(base_, &OnLimit, &underWay));
    return underWay.limit != nullptr && evtimer_add(underWay.limit.get(), &kAnswerLimit) == 0;
}

void Commands::OnLimit(int, short, void* underWay)
{
    const auto& command = *static_cast<UnderWay*>(underWay);
    command.owner.End(command.seq);
}

void Commands::SayDone(const UnderWay& underWay) const
{
    const std::string sent = std::to_string(underWay.sent);
    const std::string answered = std::to_string(underWay.answered);
    underWay.asker->Say(printer_.IsJson() ? R"({"command":"done","sent":)" + sent + R"(,"answered":)" + answered + "}"
                                          : "done: sent=" + sent + " answered=" + answered);
}

void Commands::End(std::uint32_t seq)
{
    const auto underWay = underWay_.extract(seq);  // what it says may remove the asker
    if (Asker* asker = underWay.mapped().asker; asker != nullptr) {
        SayDone(underWay.mapped());
        asker->OnCommandEnded();
    }
}

bool Commands::Expects(const Sender& sender, const SentrelAgentMsg& header) const
{
    const auto underWay = underWay_.find(header.seq);
    return underWay != underWay_.end() && header.type == ResponseType(underWay->second.command.type) &&
           underWay->second.waiting.contains(sender.number);
}

std::string Commands::TakeAnswer(const Sender& sender, const SentrelAgentMsg& header, unsigned char* body)
{
    Answer answer;
    std::string fault = ReadAnswer(header, body, answer);
    if (!fault.empty()) {
        return fault;
    }
    UnderWay& underWay = underWay_.at(header.seq);
    const std::string line = (printer_.IsJson() ? AnswerJson : AnswerText)(sender, underWay.command, answer);
    printer_.Print(line);
    if (underWay.asker != nullptr) {
        underWay.asker->SayAnswer(line);
    }
    ++underWay.answered;
    underWay.waiting.erase(sender.number);
    if (underWay.waiting.empty()) {
        End(header.seq);
    }
    return {};
}

void Commands::Forget(const Sender& sender)
{
    for (auto next = underWay_.begin(); next != underWay_.end();) {
        UnderWay& underWay = (next++)->second;
        if (underWay.waiting.erase(sender.number) > 0 && underWay.waiting.empty()) {
            End(underWay.seq);
        }
    }
}

void Commands::Forget(const Asker& asker)
{
    for (auto& [seq, underWay] : underWay_) {
        if (underWay.asker == &asker) {
            underWay.asker = nullptr;
        }
    }
}
