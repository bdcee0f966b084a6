#pragma once

#include <functional>
#include <memory>
#include <string>

#include "neutils_api.h"
#include "process_record.h"

namespace NEUtils {

// Hands a record to its owner about every process that starts, executes a program or ends, however short it
// lives, except those of white-listed processes: the platform's management tooling, a few system daemons,
// and the children of both. Such a process is known from its exec on: its fork gets a record, its end does not.
//
// Source   trace programs in the kernel, which see everything at the moment it happens: Linux 5.8 with BTF,
//          CAP_BPF and CAP_PERFMON. Otherwise the process connector (CAP_NET_ADMIN, the first pid and network
//          namespace), whose events are completed from /proc: what ends or executes something else within
//          microseconds then has a record that is not whole. A library built without the programs has the connector
//          alone.
// Threads  callbacks run on the tracer's thread, "process-tracer", one at a time. Start, Stop and the destructor
//          belong to one owner, everything else may be called by any. A callback may stop the tracer, but neither
//          start nor destroy it. With the connector a second thread, "process-reader", reads /proc.
// Locks    none is held while a callback runs.
// Blocks   Stop waits for half a second of callbacks, and with the connector for one look at /proc.
// Errors   logged. What did not reach the reader, or what there was no memory for, is counted.
// Limits   arguments of 16 KiB together, then argsCut; paths of 4,095 bytes. Rights may be dropped once Start has
//          returned; container names then need the right to read /proc of others.
class NEUTILS_API ProcessTracer {
public:
    using Settings = TracerSettings;
    using Counts = TracerCounts;
    using Source = TracerSettings::Source;
    static constexpr Source kNone = TracerSettings::kNone;
    static constexpr Source kAuto = TracerSettings::kAuto;
    static constexpr Source kTrace = TracerSettings::kTrace;
    static constexpr Source kConnector = TracerSettings::kConnector;

    using Callback = std::function<void(const ProcessRecord&)>;
    // Called after records have been lost, with all that were so far: compare your processes with /proc.
    using LossCallback = std::function<void(const Counts::Kinds& lost)>;

    ProcessTracer();
    ~ProcessTracer();  // stops it if it runs
    ProcessTracer(const ProcessTracer&) = delete;
    ProcessTracer& operator=(const ProcessTracer&) = delete;

    // False, with the reason logged, if the source cannot be had; then nothing runs. Everything that happens once it
    // has returned true gets a record.
    [[nodiscard]] bool Start(const Settings& settings, Callback callback, LossCallback onLoss = nullptr);
    // What happened before is still told, as far as that takes half a second; the rest counts as lost. Called by a
    // callback, it drops what was not read yet. No callback runs afterwards, but the one that it is called from.
    void Stop();

    Source GetSource() const;               // kTrace, kConnector, or kNone while it does not run
    std::string GetFallbackReason() const;  // why it is not kTrace; empty where it is or was not wanted
    Counts GetCounts() const;
    // How many milliseconds ago the tracer's thread last came round, a second at most on an idle host; -1 while it does
    // not run. Any thread, takes no lock.
    long long GetBeatAgeMs() const;

    // What /proc says of a living process, as the record of an exec without time: for a table of those that were
    // there before. Its start time is exact to 10 ms. False if the process is gone or may not be looked at.
    static bool ReadProcess(int pid, ProcessRecord& record);

    static const char* GetSourceName(Source source);  // "none", "auto", "trace", "connector"

private:
    class Session;

    std::unique_ptr<Session> session_;
};

}  // namespace NEUtils
