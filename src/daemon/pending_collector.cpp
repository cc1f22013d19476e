// Stand-ins for operations whose code is still being written: each fails
// with -1 and says so. Delete an entry when its real code lands.
#include "support/log.h"
#include "daemon/daemon.h"

int GarbageCollectorInit(void)
{
    LogReport("ERROR: %s is not available in this build.\n", "GarbageCollectorInit");
    return -1;
}

void GarbageCollectorCleanUp(void)
{
    LogReport("ERROR: %s is not available in this build.\n", "GarbageCollectorCleanUp");
}

int GarbageCollectorRegisterDevice(const char *, int, int)
{
    LogReport("ERROR: %s is not available in this build.\n", "GarbageCollectorRegisterDevice");
    return -1;
}

DWORD WINAPI GarbageCollectorHandler(LPVOID)
{
    LogReport("ERROR: %s is not available in this build.\n", "GarbageCollectorHandler");
    return (DWORD)-1;
}

