// The smallest feature there is, as the README shows it.
#include <neutils/logger.h>
#include <neutils/module_entry.h>

int InitModule(void)
{
    return 1;
}
int StartModule(const char* policy)
{
    NE_LOG(INFO, "Hello.[policy=%s]", policy);
    return 1;
}
int StopModule(const char*)
{
    return 1;
}
int DeinitModule(void)
{
    return 1;
}
