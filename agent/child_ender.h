#pragma once

// Ends the processes that this one has started, again and again from a second after the call until the process has
// ended itself: a stop writes to the log, and would wait there for a gzip that hangs.
//
// Threads  any; it makes a thread that nobody waits for.
// Limits   the agent starts no other processes than those that compress its log.
void EndChildrenFromNowOn();
