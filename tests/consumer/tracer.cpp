// Uses the library of the process tracer the way another program does.
#include <unistd.h>

#include "process_tracer.h"

using NEUtils::ProcessRecord;
using NEUtils::ProcessTracer;

int main()
{
    ProcessRecord self;
    ProcessTracer tracer;
    return ProcessTracer::ReadProcess(getpid(), self) && !self.args.empty() &&
                   tracer.GetSource() == ProcessTracer::kNone && tracer.GetCounts().seen.Total() == 0
               ? 0
               : 1;
}
