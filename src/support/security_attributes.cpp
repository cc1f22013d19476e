// The two kinds of SECURITY_ATTRIBUTES handed to the platform: one for the
// daemon's pipe (everybody may read and write, inheritable), one for the
// current user and optionally one more account (not inheritable).
#include <windows.h>
#include <aclapi.h>

#include "support/log.h"
#include "support/security.h"

// Wraps `acl` in a new descriptor and fills the record. 0 or the last error.
static int FillAttributes(SECURITY_ATTRIBUTES *attributes, PACL acl, BOOL inherit)
{
    PSECURITY_DESCRIPTOR descriptor = LocalAlloc(LPTR, SECURITY_DESCRIPTOR_MIN_LENGTH);
    if (descriptor == NULL)
        return LastErrorOr();
    if (!InitializeSecurityDescriptor(descriptor, SECURITY_DESCRIPTOR_REVISION))
        return LastErrorOr();
    if (!SetSecurityDescriptorDacl(descriptor, TRUE, acl, FALSE))
        return LastErrorOr();
    attributes->nLength = sizeof(SECURITY_ATTRIBUTES);
    attributes->lpSecurityDescriptor = descriptor;
    attributes->bInheritHandle = inherit;
    return 0;
}

int SetUpSecurityAttributesEverybody(SECURITY_ATTRIBUTES *attributes)
{
    SID_IDENTIFIER_AUTHORITY worldAuthority = {SECURITY_WORLD_SID_AUTHORITY};
    SID_IDENTIFIER_AUTHORITY ntAuthority = {SECURITY_NT_AUTHORITY};
    PSID world = NULL;
    PSID administrators = NULL;
    PACL acl = NULL;
    EXPLICIT_ACCESS_A entries[2];
    int result = 0;

    ZeroMemory(entries, sizeof entries);
    if (attributes == NULL) {
        SetLastError(ERROR_INVALID_PARAMETER);
        result = ERROR_INVALID_PARAMETER;
        goto failed;
    }
    // The two SIDs are built once per daemon start and kept: the list
    // holds copies, and nothing else refers to them.
    if (!AllocateAndInitializeSid(&worldAuthority, 1, SECURITY_WORLD_RID, 0, 0, 0, 0, 0, 0, 0, &world)) {
        result = LastErrorOr();
        goto failed;
    }
    if (!AllocateAndInitializeSid(&ntAuthority, 2, SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_ADMINS, 0, 0, 0, 0,
                                  0, 0, &administrators)) {
        result = LastErrorOr();
        goto failed;
    }

    entries[0].grfAccessPermissions = GENERIC_READ | GENERIC_WRITE;
    entries[0].grfAccessMode = SET_ACCESS;
    entries[0].grfInheritance = NO_INHERITANCE;
    entries[0].Trustee.TrusteeForm = TRUSTEE_IS_SID;
    entries[0].Trustee.TrusteeType = TRUSTEE_IS_WELL_KNOWN_GROUP;
    entries[0].Trustee.ptstrName = (LPSTR)world;
    entries[1].grfAccessPermissions = MAXIMUM_ALLOWED;
    entries[1].grfAccessMode = SET_ACCESS;
    entries[1].grfInheritance = NO_INHERITANCE;
    entries[1].Trustee.TrusteeForm = TRUSTEE_IS_SID;
    entries[1].Trustee.TrusteeType = TRUSTEE_IS_GROUP;
    entries[1].Trustee.ptstrName = (LPSTR)administrators;

    // The list call returns its code directly; the report uses the thread's
    // last error all the same, as every other step here does.
    if (SetEntriesInAclA(2, entries, NULL, &acl) != ERROR_SUCCESS) {
        result = LastErrorOr();
        goto failed;
    }
    result = FillAttributes(attributes, acl, TRUE);
    if (result != 0)
        goto failed;
    return 0;

failed:
    LogReport("ERROR: Cannot set up security attributes.\nError code is : %d.\n", result);
    return result;
}

int SetUpSecurityAttributesCurrentUser(SECURITY_ATTRIBUTES *attributes, const char *account)
{
    char userName[256];
    DWORD userNameSize = sizeof userName;
    PACL acl = NULL;
    EXPLICIT_ACCESS_A entries[2];
    int result = 0;

    ZeroMemory(entries, sizeof entries);
    userName[0] = 0;
    if (attributes == NULL) {
        SetLastError(ERROR_INVALID_PARAMETER);
        result = ERROR_INVALID_PARAMETER;
        goto failed;
    }
    // A failure leaves the name empty, and the list call then fails on it.
    GetUserNameA(userName, &userNameSize);
    userName[sizeof userName - 1] = 0;

    entries[0].grfAccessPermissions = GENERIC_ALL;
    entries[0].grfAccessMode = SET_ACCESS;
    entries[0].grfInheritance = NO_INHERITANCE;
    entries[0].Trustee.TrusteeForm = TRUSTEE_IS_NAME;
    entries[0].Trustee.TrusteeType = TRUSTEE_IS_USER;
    entries[0].Trustee.ptstrName = userName;
    entries[1].grfAccessPermissions = GENERIC_READ | GENERIC_WRITE;
    entries[1].grfAccessMode = SET_ACCESS;
    entries[1].grfInheritance = NO_INHERITANCE;
    entries[1].Trustee.TrusteeForm = TRUSTEE_IS_NAME;
    entries[1].Trustee.TrusteeType = TRUSTEE_IS_USER;
    entries[1].Trustee.ptstrName = (LPSTR)account;

    if (SetEntriesInAclA(account != NULL ? 2 : 1, entries, NULL, &acl) != ERROR_SUCCESS) {
        result = LastErrorOr();
        goto failed;
    }
    result = FillAttributes(attributes, acl, FALSE);
    if (result != 0)
        goto failed;
    return 0;

failed:
    LogReport("ERROR: Cannot set up security attributes.\nError code is: %d.\n", result);
    return result;
}

void FreeSecurityAttributes(SECURITY_ATTRIBUTES *attributes)
{
    BOOL present = FALSE;
    BOOL defaulted = FALSE;
    PACL acl = NULL;

    if (attributes == NULL || attributes->lpSecurityDescriptor == NULL)
        return;
    if (!GetSecurityDescriptorDacl(attributes->lpSecurityDescriptor, &present, &acl, &defaulted))
        present = FALSE;
    LocalFree(attributes->lpSecurityDescriptor);
    if (present && acl != NULL)
        LocalFree(acl);
    // Cleared so that a second call is a no-op instead of a double free.
    attributes->lpSecurityDescriptor = NULL;
}
