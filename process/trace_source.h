#pragma once

#include <string>

#include "process_record.h"

namespace NEUtils {

// Where a source puts its records.
class RecordSink {
public:
    virtual ~RecordSink() = default;

    virtual void Put(ProcessRecord& record) = 0;
    virtual void PutLoss() = 0;           // some were lost since the last call
    virtual void Rest(bool isQuiet) = 0;  // called once a round; isQuiet: nothing came in this one
};

// One way to learn about processes.
//
// Threads  Open by the owner; Run on the tracer's thread until RequestStop, which any may call; AddCounts by any.
class TraceSource {
public:
    virtual ~TraceSource() = default;

    // From here on nothing is missed. False with the reason if it cannot be had.
    virtual bool Open(std::string& reason) = 0;
    virtual void Run(RecordSink& sink) = 0;
    // With toEnd, what happened by then is still put, as far as that takes half a second.
    virtual void RequestStop(bool toEnd) = 0;
    virtual TracerCounts GetCounts() const = 0;
};

}  // namespace NEUtils
