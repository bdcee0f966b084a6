#include "agents.h"

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "endpoint.h"
#include "errors.h"

namespace {

using namespace NEUtils;
using nlohmann::ordered_json;
using std::chrono::steady_clock;

constexpr std::size_t kMaxUnfinished = std::size_t{64} << 20U;
constexpr std::size_t kMaxUnfinishedOfPeer = std::size_t{8} << 20U;
constexpr std::size_t kWorthGivingBack = std::size_t{4} << 20U;
constexpr std::size_t kManyRemoved = 64;

// An address without its port, or a process.
std::string PeerOf(const Sender& sender)
{
    return sender.peer.substr(0, sender.peer.rfind(':'));
}

std::string NameOf(const Sender& sender)
{
    return "agent " + std::to_string(sender.number);
}

}  // namespace

void Agents::Accept(int fd, const sockaddr* address, socklen_t length)
{
    std::string peer = PeerName(fd, address, length);
    if (connections_.size() >= limits_.count) {
        MakeRoom();
    }
    EventPtr<bufferevent> buffers;
    if (connections_.size() < limits_.count) {
        buffers.reset(bufferevent_socket_new(base_, fd, BEV_OPT_CLOSE_ON_FREE));
    }
    if (buffers == nullptr) {
        close(fd);
        ++figures_.refused;
        Complain("connection from " + peer + " refused: " + std::to_string(connections_.size()) + " are open");
        return;
    }
    const Sender sender = {++figures_.agents, std::move(peer)};
    connections_.try_emplace(sender.number, *this, sender, std::move(buffers));
    Note(sender, "connected", "connected from " + sender.peer);
}

// Who connects and stays silent cannot keep the others out for ever.
void Agents::MakeRoom()
{
    const auto silent =
        std::ranges::min_element(connections_, {}, [](const auto& entry) { return entry.second.GetLastMessage(); });
    if (silent != connections_.end() && steady_clock::now() - silent->second.GetLastMessage() > limits_.patience) {
        const std::uint64_t number = silent->first;
        Refuse(silent->second, "it was silent longest, and its place is needed");
        if (const auto left = connections_.find(number); left != connections_.end()) {
            Remove(left->second);
        }
    }
}

Verdict Agents::Take(Connection& connection, const SentrelAgentMsg& header, unsigned char* body)
{
    if (IsResponseMessage(header.type)) {
        return TakeAnswer(connection, header, body);
    }
    if (header.type == kMsgHeartbeat) {  // answered whatever the output does, as long as this program lives
        return {{}, Verdict::kNow};
    }
    Report report;
    std::string fault = ReadReport(header, body, report);
    if (!fault.empty()) {
        return {std::move(fault), Verdict::kNever};
    }
    const Sender& sender = connection.GetSender();
    const std::uint64_t line =
        printer_.PrintReport(printer_.IsJson() ? ReportJson(sender, report) : ReportText(sender, report));
    figures_.bytes += sizeof(header) + header.length;
    if (line == 0) {  // the agent keeps it and sends it again
        ++figures_.unanswered;
        return {{}, Verdict::kNever};
    }
    ++figures_.messages;
    waiting_.push_back({line, sender.number, header});
    return {{}, Verdict::kLater};
}

Verdict Agents::TakeAnswer(Connection& connection, const SentrelAgentMsg& header, unsigned char* body)
{
    const Sender& sender = connection.GetSender();
    if (!commands_.Expects(sender, header)) {
        ++figures_.ignored;
    } else if (std::string fault = commands_.TakeAnswer(sender, header, body); !fault.empty()) {
        return {std::move(fault), Verdict::kNever};
    }
    figures_.bytes += sizeof(header) + header.length;
    return {{}, Verdict::kNever};
}

void Agents::AnswerWritten(std::uint64_t lines)
{
    std::vector<SentrelAgentMsg> requests;
    while (!waiting_.empty() && waiting_.front().line <= lines) {
        const std::uint64_t agent = waiting_.front().agent;
        requests.push_back(waiting_.front().header);
        waiting_.pop_front();
        const bool isLast = waiting_.empty() || waiting_.front().line > lines || waiting_.front().agent != agent;
        if (!isLast) {
            continue;
        }
        if (const auto connection = connections_.find(agent); connection != connections_.end()) {
            connection->second.Answer(std::move(requests));
        }
        requests.clear();
    }
}

void Agents::OnServed(Connection& connection)
{
    const Sender& sender = connection.GetSender();
    SetUnfinished(sender, connection.CountUnfinished());
    if (IsDone()) {
        onChange_();
    }
    if (const auto peer = unfinished_.ofPeers.find(PeerOf(sender));
        peer != unfinished_.ofPeers.end() && peer->second > kMaxUnfinishedOfPeer) {
        Refuse(connection, "too many unfinished bytes of its address or process");
    } else if (unfinished_.all > kMaxUnfinished) {
        RefuseGreediest();
    }
}

void Agents::SetUnfinished(const Sender& sender, std::size_t bytes)
{
    const auto known = unfinished_.ofAgents.find(sender.number);
    const std::size_t before = known == unfinished_.ofAgents.end() ? 0 : known->second;
    if (bytes == before) {
        return;
    }
    const std::string peer = PeerOf(sender);
    unfinished_.all += bytes - before;
    unfinished_.most = std::max(unfinished_.most, unfinished_.all);
    if ((unfinished_.ofPeers[peer] += bytes - before) == 0) {
        unfinished_.ofPeers.erase(peer);
    }
    if (bytes > 0) {
        unfinished_.ofAgents[sender.number] = bytes;
    } else {
        unfinished_.ofAgents.erase(known);
    }
}

// Of the address or process that has most of them.
void Agents::RefuseGreediest()
{
    const auto peer = std::ranges::max_element(unfinished_.ofPeers, {}, [](const auto& entry) { return entry.second; });
    Connection* greediest = nullptr;
    for (auto& [number, connection] : connections_) {
        if (PeerOf(connection.GetSender()) == peer->first &&
            (greediest == nullptr || connection.CountUnfinished() > greediest->CountUnfinished())) {
            greediest = &connection;
        }
    }
    if (greediest != nullptr) {
        Refuse(*greediest, "too many unfinished bytes over all, and most of its address or process");
    }
}

void Agents::OnClosed(Connection& connection)
{
    Note(connection.GetSender(), "disconnected", "disconnected");
    connection.Finish();  // it may have closed its own direction only
}

void Agents::Refuse(Connection& connection, const std::string& why)
{
    const Sender& sender = connection.GetSender();
    ++figures_.refused;
    Complain(NameOf(sender) + " (" + sender.peer + ") refused: " + why);
    if (printer_.IsJson()) {
        Note(sender, "refused", why);
    }
    connection.Finish();
}

void Agents::Remove(Connection& connection)
{
    ++removed_;
    connections_.erase(connection.GetSender().number);
    if (connections_.empty()) {
        onChange_();
    }
}

void Agents::OnFinishing(Connection& connection)
{
    SetUnfinished(connection.GetSender(), 0);
    commands_.Forget(connection.GetSender());
}

std::set<std::uint64_t> Agents::Broadcast(const std::string& message)
{
    const auto shared = std::make_shared<const std::string>(message);
    std::set<std::uint64_t> reached;
    for (auto& [number, connection] : connections_) {
        if (connection.SendCommand(shared)) {
            reached.insert(reached.end(), number);
        } else if (connection.TakesCommands()) {
            Complain(NameOf(connection.GetSender()) + " gets no command: it does not read");
        }
    }
    return reached;
}

void Agents::CheckTime()
{
    const auto now = steady_clock::now();
    for (auto next = connections_.begin(); next != connections_.end();) {
        Connection& connection = (next++)->second;
        if (connection.IsOverdue(now)) {
            Remove(connection);
        } else if (const std::string why = connection.CheckTime(now, limits_.patience); !why.empty()) {
            Refuse(connection, why);
        }
    }
    GiveMemoryBack();
}

// The C library keeps what was freed, which after an attack is far more than is needed again.
void Agents::GiveMemoryBack()
{
    if (removed_ > kManyRemoved || unfinished_.most > unfinished_.all + kWorthGivingBack) {
        malloc_trim(0);
        removed_ = 0;
        unfinished_.most = unfinished_.all;
    }
}

void Agents::FinishAll()
{
    finishing_ = true;
    for (auto next = connections_.begin(); next != connections_.end();) {
        (next++)->second.Finish();
    }
}

void Agents::Note(const Sender& sender, const char* type, const std::string& text)
{
    if (!printer_.IsJson()) {
        Complain(NameOf(sender) + " " + text);
        return;
    }
    printer_.Print(EventJson(sender, type, text));
}
