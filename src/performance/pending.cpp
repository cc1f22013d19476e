// Stand-ins for operations whose code is still being written: each fails
// with -1 and says so. Delete an entry when its real code lands.
#include "support/log.h"
#include "performance/performance.h"

int PdhInit(void)
{
    LogReport("ERROR: %s is not available in this build.\n", "PdhInit");
    return -1;
}

DWORD WINAPI PdhMonitor(LPVOID)
{
    LogReport("ERROR: %s is not available in this build.\n", "PdhMonitor");
    return (DWORD)-1;
}

int PdhGetCpuLoad(double *, double *, double *)
{
    LogReport("ERROR: %s is not available in this build.\n", "PdhGetCpuLoad");
    return -1;
}

int PdhLookupPerfIndexByEnglishName(const char *)
{
    LogReport("ERROR: %s is not available in this build.\n", "PdhLookupPerfIndexByEnglishName");
    return -1;
}

int PdhLookupPerfLocalName(char *, DWORD, const char *)
{
    LogReport("ERROR: %s is not available in this build.\n", "PdhLookupPerfLocalName");
    return -1;
}

double PdhInstantLoad(double, long long, int)
{
    LogReport("ERROR: %s is not available in this build.\n", "PdhInstantLoad");
    return 0.0;
}

void PdhUpdateAverages(double, double *)
{
    LogReport("ERROR: %s is not available in this build.\n", "PdhUpdateAverages");
}

