#pragma once

#include "neutils_api.h"

// What a feature library defines, also one written in C. The loader looks these names up, and closes a library
// again that lacks one of the first four.
//
// Order    InitModule, any number of StartModule and StopModule in turn, DeinitModule; and again.
// Threads  any, one call at a time. After a crash StopModule and DeinitModule run in the signal handler of the
//          thread that had it, which may be the module's own: it must not wait for itself.
// Owns     the policy text belongs to the caller and is valid during the call only.
// Errors   InitModule and StartModule give 0 on failure, and have then left nothing behind. The results of the
//          other two are ignored. No exception may leave them.
// Limits   the library is unmapped when it is closed: no thread, callback, task or destructor of a thread may
//          be left by then. Build it with neutils_add_feature (README): a unique symbol would keep it in memory, and
//          a replaced file would not come into use. A log subscriber is removed with UnsubscribeAndWait, a log file
//          with Unregister.
#ifdef __cplusplus
extern "C" {
#endif

NEUTILS_API int InitModule(void);
NEUTILS_API int StartModule(const char* policy);
NEUTILS_API int StopModule(const char* policy);
NEUTILS_API int DeinitModule(void);

// Optional: whether StartModule could use this text. 1: yes. 0: no, with the reason in an ERROR record. It starts
// nothing and leaves nothing behind, and may come before InitModule: it is how a policy is checked without a start.
NEUTILS_API int CheckPolicy(const char* policy);

#ifdef __cplusplus
}
#endif
