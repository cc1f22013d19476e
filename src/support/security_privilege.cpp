// Switching one privilege of the process token on or off.
#include "support/log.h"
#include "support/security.h"

int EnablePrivilege(const char *name, int enable)
{
    HANDLE token = NULL;
    TOKEN_PRIVILEGES privileges;
    int failed = 0;
    DWORD code = 0;

    ZeroMemory(&privileges, sizeof privileges);
    if (!LookupPrivilegeValueA(NULL, name, &privileges.Privileges[0].Luid)) {
        code = GetLastError();
        failed = 1;
    } else if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES, &token)) {
        code = GetLastError();
        failed = 1;
    } else {
        privileges.PrivilegeCount = 1;
        privileges.Privileges[0].Attributes = enable ? SE_PRIVILEGE_ENABLED : 0;
        // Success of the call is success here: a privilege the token lacks
        // (ERROR_NOT_ALL_ASSIGNED) is not looked for.
        if (!AdjustTokenPrivileges(token, FALSE, &privileges, sizeof privileges, NULL, NULL)) {
            code = GetLastError();
            failed = 1;
        }
    }

    if (token != NULL)
        CloseHandle(token);
    // The same words for disabling, and no line end.
    if (failed)
        LogReport("ERROR. Cannot enable privilege to current process (%d).", (int)code);
    return failed;
}
