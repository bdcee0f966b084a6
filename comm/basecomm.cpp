#include "basecomm.h"

#include <signal.h>

#include <atomic>
#include <map>
#include <mutex>
#include <utility>

#include "comm/sig_pipe.h"
#include "logger.h"

namespace NEUtils {

namespace {

using Components = std::map<BaseCommMethod, std::shared_ptr<NetCommBase>>;

constexpr std::pair<BaseCommMethod, const char*> g_componentName[] = {
    {kSocketClient, "Socket client"},
    {kKafkaClient, "Nimbara kafka client"},
    {kRestfulClient, "libevent restful client"},
    {kWebSocket, "WebSocket client or server"},
};

std::mutex g_componentsMutex;
Components& g_components = *new Components;  // never destroyed: threads may send while the process ends
std::atomic<bool> g_initialised{false};

const char* ResultText(bool success)
{
    return success ? "success" : "failed";
}

const char* Name(BaseCommMethod method)
{
    for (const auto& [known, name] : g_componentName) {
        if (known == method) {
            return name;
        }
    }
    return "unknown";
}

Components Copy()
{
    const std::lock_guard<std::mutex> lock(g_componentsMutex);
    return g_components;
}

// Calls an operation of every component. False if one fails.
template <typename Operation>
bool ForEach(const Components& components, Operation operation)
{
    bool all = !components.empty();
    for (const auto& [method, component] : components) {
        all = operation(Name(method), *component) && all;
    }
    return all;
}

// Calls an operation that must succeed with one component only.
template <typename Operation>
int Send(Operation operation)
{
    int result = kSendRefused;
    bool sent = false;
    for (const auto& [method, component] : Copy()) {
        result = operation(*component);
        sent = sent || result == kSendDone;
    }
    if (sent) {
        return kSendDone;
    }
    NE_LOG(ERROR, "No valid component to send this message.");
    return result;
}

}  // namespace

NetCommBase::~NetCommBase() = default;

bool SetSigPipeHandler()
{
    static const bool g_setSigStatus = [] {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        action.sa_flags = SA_RESTART;
        return sigaction(SIGPIPE, &action, nullptr) == 0;
    }();
    if (!g_setSigStatus) {
        NE_LOG(ERROR, "SetSigPipeHandler failed.");
    }
    return g_setSigStatus;
}

std::uint32_t NextMsgSeq()
{
    static std::atomic<std::uint32_t> last{0};
    return ++last;
}

bool RegisterComponent(BaseCommMethod method, std::shared_ptr<NetCommBase> component)
{
    if (component == nullptr) {
        NE_LOG(ERROR, "Register failed: component is NULL.");
        return false;
    }
    const std::lock_guard<std::mutex> lock(g_componentsMutex);
    g_components[method].swap(component);  // what it replaces ends after the lock
    return true;
}

bool BaseCommInit()
{
    const Components components = Copy();
    if (components.empty()) {
        NE_LOG(ERROR, "BaseComm init failed: no components.");
        return false;
    }
    if (g_initialised.exchange(true)) {
        NE_LOG(INFO, "BaseComm already init.");
        return true;
    }
    const bool handled = SetSigPipeHandler();
    const bool initialised = ForEach(components, [](const char* name, NetCommBase& component) {
        const bool done = component.Init();
        NE_LOG(done ? INFO : ERROR, "Component init. [name=%s, result=%s]", name, ResultText(done));
        return done;
    });
    g_initialised = handled && initialised;
    return g_initialised;
}

bool BaseCommStart()
{
    const Components components = Copy();
    if (components.empty()) {
        NE_LOG(ERROR, "BaseComm start failed: no components.");
    }
    return ForEach(components, [](const char* name, NetCommBase& component) {
        const bool done = component.Start();
        NE_LOG(done ? INFO : ERROR, "Component start. [name=%s, result=%s]", name, ResultText(done));
        return done;
    });
}

bool BaseCommStop()
{
    const Components components = Copy();
    if (components.empty()) {
        NE_LOG(ERROR, "BaseComm stop failed: no components.");
    }
    return ForEach(components, [](const char*, NetCommBase& component) { return component.Stop(); });
}

bool BaseCommDeInit()
{
    const Components components = Copy();
    if (components.empty()) {
        NE_LOG(ERROR, "BaseComm deInit failed: no components.");
    }
    g_initialised = false;
    return ForEach(components, [](const char*, NetCommBase& component) { return component.DeInit(); });
}

bool BaseCommStatusCheck()
{
    const Components components = Copy();
    if (components.empty()) {
        NE_LOG(ERROR, "No communication status to check");
    }
    return ForEach(components, [](const char* name, NetCommBase& component) {
        if (component.StatusCheck()) {
            return true;
        }
        NE_LOG(INFO, "Component reboot. [name=%s]", name);
        component.Stop();
        return component.Start();
    });
}

int SendControlMsg(const char* message, unsigned int length)
{
    return Send([&](NetCommBase& component) { return component.SendControlMsg(message, length); });
}

int SendLogWithTopicHeader(const std::string& topic, const std::string& log, bool withHeader)
{
    return Send([&](NetCommBase& component) { return component.SendLogWithTopicHeader(topic, log, withHeader); });
}

bool RegisterControlMsgHandler(std::uint32_t type, MsgHandler handler, void* userData)
{
    return ForEach(Copy(), [&](const char*, NetCommBase& component) {
        return component.RegisterMsgHandler(type, handler, userData);
    });
}

bool UnregisterControlMsgHandler(std::uint32_t type, MsgHandler handler)
{
    return ForEach(Copy(),
                   [&](const char*, NetCommBase& component) { return component.UnregisterMsgHandler(type, handler); });
}

}  // namespace NEUtils
