// Whether this process may administer the machine: a member of the
// Administrators group that can also open the service manager with all access.
#include "support/log.h"
#include "support/security.h"

// Opens the service manager with all access and closes it again.
static BOOL CanManageServices(void)
{
    SC_HANDLE manager = OpenSCManagerA(NULL, NULL, SC_MANAGER_ALL_ACCESS);
    if (manager == NULL)
        return FALSE;
    CloseServiceHandle(manager);
    return TRUE;
}

DWORD CheckForAdminGroups(const TOKEN_GROUPS *groups, PSID administrators, BOOL (*canManage)(void))
{
    BOOL found = FALSE;
    // Group attributes are not looked at: a deny-only group counts too.
    for (DWORD i = 0; groups != NULL && administrators != NULL && i < groups->GroupCount && !found; i++)
        found = EqualSid(administrators, groups->Groups[i].Sid);
    if (!found)
        return 1;

    // Membership alone is not enough; the service manager decides.
    LogWrite("Trying privilege function...\n");
    return canManage() ? 0 : 1;
}

DWORD CheckForAdmin(void)
{
    HANDLE token = NULL;
    TOKEN_GROUPS *groups = NULL;
    PSID administrators = NULL;
    SID_IDENTIFIER_AUTHORITY ntAuthority = {SECURITY_NT_AUTHORITY};
    DWORD size = 0;
    DWORD result = 0;

    LogEnter("CheckForAdmin");
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token)) {
        result = (DWORD)LastErrorOr();
        goto failed;
    }
    // The first call only tells the size; it is expected to fail.
    if (!GetTokenInformation(token, TokenGroups, NULL, 0, &size) && GetLastError() != ERROR_INSUFFICIENT_BUFFER) {
        result = (DWORD)LastErrorOr();
        goto failed;
    }
    groups = (TOKEN_GROUPS *)LocalAlloc(LPTR, size);
    if (groups == NULL) {
        result = (DWORD)LastErrorOr();
        goto failed;
    }
    if (!GetTokenInformation(token, TokenGroups, groups, size, &size)) {
        result = (DWORD)LastErrorOr();
        goto failed;
    }
    if (!AllocateAndInitializeSid(&ntAuthority, 2, SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_ADMINS, 0, 0, 0, 0,
                                  0, 0, &administrators)) {
        result = (DWORD)LastErrorOr();
        goto failed;
    }

    result = CheckForAdminGroups(groups, administrators, CanManageServices);
    goto done;

failed:
    LogReport("ERROR: Cannot to check for admin privilege.\nError code is : %d.\n", (int)result);
done:
    if (token != NULL)
        CloseHandle(token);
    if (administrators != NULL)
        FreeSid(administrators);
    if (groups != NULL)
        LocalFree(groups);
    LogWrite("Admin check status : [%d]\n", (int)result);
    return result;
}
