// Administrator check, security attributes, privileges, pipe pairs, random bytes.
#pragma once

#include <windows.h>

// Two ends of one pipe, the write end first.
struct PipePair {
    HANDLE write;
    HANDLE read;
};

// 0: administrator; 1: not; anything else: the check failed.
DWORD CheckForAdmin(void);
// The decision inside CheckForAdmin, over a token's groups: 1 when none is
// `administrators`; otherwise 0 when `canManage` says the service manager
// opens with all access, else 1.
DWORD CheckForAdminGroups(const TOKEN_GROUPS *groups, PSID administrators, BOOL (*canManage)(void));
int SetUpSecurityAttributesEverybody(SECURITY_ATTRIBUTES *attributes);
int SetUpSecurityAttributesCurrentUser(SECURITY_ATTRIBUTES *attributes, const char *account);
void FreeSecurityAttributes(SECURITY_ATTRIBUTES *attributes);
int CreatePipeEx(struct PipePair *pipe, SECURITY_ATTRIBUTES *attributes, DWORD size, DWORD readFlags,
                 DWORD writeFlags, DWORD timeout);
// 0 on success, 1 on failure.
int EnablePrivilege(const char *name, int enable);
// Raw bytes, or hexadecimal text when `hex` is set (the buffer then needs size + 1).
int RndFill(char *buffer, int size, int hex);
