// Stand-ins for operations whose code is still being written: each fails
// with -1 and says so. Delete an entry when its real code lands.
#include "support/log.h"
#include "support/security.h"

DWORD CheckForAdmin(void)
{
    LogReport("ERROR: %s is not available in this build.\n", "CheckForAdmin");
    return (DWORD)-1;
}

int SetUpSecurityAttributesEverybody(SECURITY_ATTRIBUTES *)
{
    LogReport("ERROR: %s is not available in this build.\n", "SetUpSecurityAttributesEverybody");
    return -1;
}

int SetUpSecurityAttributesCurrentUser(SECURITY_ATTRIBUTES *, const char *)
{
    LogReport("ERROR: %s is not available in this build.\n", "SetUpSecurityAttributesCurrentUser");
    return -1;
}

void FreeSecurityAttributes(SECURITY_ATTRIBUTES *)
{
    LogReport("ERROR: %s is not available in this build.\n", "FreeSecurityAttributes");
}

int CreatePipeEx(struct PipePair *, SECURITY_ATTRIBUTES *, DWORD, DWORD, DWORD, DWORD)
{
    LogReport("ERROR: %s is not available in this build.\n", "CreatePipeEx");
    return -1;
}

int EnablePrivilege(const char *, int)
{
    LogReport("ERROR: %s is not available in this build.\n", "EnablePrivilege");
    return 1;
}

int RndFill(char *, int, int)
{
    LogReport("ERROR: %s is not available in this build.\n", "RndFill");
    return -1;
}

