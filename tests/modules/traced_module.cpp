// A real module that asks the program which has loaded it; a definition may rename an entry point away.
#include "module_entry.h"

extern "C" int OnEntry(const char* entry, const char* policy);

int InitModule(void)
{
    return OnEntry("init" BUILD_TAG, "");
}

int StartModule(const char* policy)
{
    return OnEntry("start" BUILD_TAG, policy);
}

int StopModule(const char* policy)
{
    return OnEntry("stop" BUILD_TAG, policy);
}

int DeinitModule(void)
{
    return OnEntry("deinit" BUILD_TAG, "");
}
