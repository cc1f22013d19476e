// Stand-ins for operations whose code is still being written: each fails
// with -1 and says so. Delete an entry when its real code lands.
#include "support/log.h"
#include "devices/devices.h"

int ServiceOpen(SC_HANDLE *, SC_HANDLE *, const char *, DWORD, int)
{
    LogReport("ERROR: %s is not available in this build.\n", "ServiceOpen");
    return -1;
}

int ServiceChange(const char *, const char *, int, int, const char *)
{
    LogReport("ERROR: %s is not available in this build.\n", "ServiceChange");
    return -1;
}

int ServiceGetStatus(SERVICE_STATUS *, const char *, int)
{
    LogReport("ERROR: %s is not available in this build.\n", "ServiceGetStatus");
    return -1;
}

int ServiceGetConfig(QUERY_SERVICE_CONFIGA **, const char *, int)
{
    LogReport("ERROR: %s is not available in this build.\n", "ServiceGetConfig");
    return -1;
}

int ServiceExists(const char *)
{
    LogReport("ERROR: %s is not available in this build.\n", "ServiceExists");
    return 0;
}

int ServiceWaitUntilRunning(SC_HANDLE, DWORD, DWORD, int, int)
{
    LogReport("ERROR: %s is not available in this build.\n", "ServiceWaitUntilRunning");
    return -1;
}

int ServiceStart(const char *, DWORD, const char **)
{
    LogReport("ERROR: %s is not available in this build.\n", "ServiceStart");
    return -1;
}

int ServiceAdd(const char *, const char *, int, int, const char *, unsigned char, const char *, const char *, int, int)
{
    LogReport("ERROR: %s is not available in this build.\n", "ServiceAdd");
    return -1;
}

int ServiceKill(SC_HANDLE, int)
{
    LogReport("ERROR: %s is not available in this build.\n", "ServiceKill");
    return -1;
}

int ServiceStop(const char *, int)
{
    LogReport("ERROR: %s is not available in this build.\n", "ServiceStop");
    return -1;
}

int ServiceDelete(const char *, int)
{
    LogReport("ERROR: %s is not available in this build.\n", "ServiceDelete");
    return -1;
}

