// Stand-ins for operations whose code is still being written: each fails
// with -1 and says so. Delete an entry when its real code lands.
#include "support/log.h"
#include "frontend/frontend.h"

int EntryMain(int, char **)
{
    LogReport("ERROR: %s is not available in this build.\n", "EntryMain");
    return -1;
}

int ProcessCommand(int, char **)
{
    LogReport("ERROR: %s is not available in this build.\n", "ProcessCommand");
    return -1;
}

int BuildCommandString(char *, size_t, int, char **, struct CommandOptions *)
{
    LogReport("ERROR: %s is not available in this build.\n", "BuildCommandString");
    return 1;
}

int CommandOptionsInit(struct CommandOptions *)
{
    LogReport("ERROR: %s is not available in this build.\n", "CommandOptionsInit");
    return -1;
}

int ParseCommandLine(struct CommandOptions *, int, char **)
{
    LogReport("ERROR: %s is not available in this build.\n", "ParseCommandLine");
    return -1;
}

int ServiceTypeFromName(const char *)
{
    LogReport("ERROR: %s is not available in this build.\n", "ServiceTypeFromName");
    return -1;
}

int ServiceStartTypeFromName(const char *)
{
    LogReport("ERROR: %s is not available in this build.\n", "ServiceStartTypeFromName");
    return -1;
}

DWORD GetParentPid(void)
{
    LogReport("ERROR: %s is not available in this build.\n", "GetParentPid");
    return (DWORD)-1;
}

struct CommandOptions CommandOptions;
int ServiceMode;
