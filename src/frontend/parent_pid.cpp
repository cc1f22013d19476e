// The process that owns what a command creates: the parent of this process,
// or the --parentpid that the run was given.
#include <windows.h>

#include <tlhelp32.h>

#include "frontend/options.h"
#include "support/log.h"

// The answer is kept in the global record, so the process list is walked
// once per process at most.
DWORD GetParentPid(void)
{
    HANDLE snapshot = NULL;
    PROCESSENTRY32 entry;
    BOOL more = FALSE;
    int found = 0;
    DWORD parent = 0;
    DWORD result = (DWORD)-1;
    int error = 0;

    LogEnter("GetParentPid");
    DWORD self = GetCurrentProcessId();
    if (CommandOptions.parentPid != -1) {
        LogWrite("Parent PID for current process [%d] is [%d].\n", (int)self, CommandOptions.parentPid);
        return (DWORD)CommandOptions.parentPid;
    }

    // Only a null snapshot counts as failing here; an invalid handle makes
    // Process32First fail below.
    snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    if (snapshot == NULL) {
        error = (int)GetLastError();
        LogReport("ERROR: Cannot create processes snapshot.\n");
        goto failed;
    }

    ZeroMemory(&entry, sizeof entry);
    entry.dwSize = sizeof entry;
    for (more = Process32First(snapshot, &entry); more; more = Process32Next(snapshot, &entry)) {
        if (entry.th32ProcessID == self && entry.th32ParentProcessID != (DWORD)-1) {
            found = 1;
            parent = entry.th32ParentProcessID;
            break;
        }
    }
    error = (int)GetLastError();
    if (found && (int)parent >= 0) {
        CommandOptions.parentPid = (int)parent;
        LogWrite("Parent PID for current process [%d] is [%d].\n", (int)self, CommandOptions.parentPid);
        result = parent;
        goto close_snapshot;
    }
    // A parent id that is negative as a signed number is reported as not
    // found and then returned as it is.
    if (found)
        result = parent;
    LogReport("ERROR: Current running process [%d] not found.\n", (int)self);

failed:
    PrintError("ERROR: Cannot retrieve parent process pid.\nError code is %d.\n", error);

close_snapshot:
    if (snapshot != NULL && snapshot != INVALID_HANDLE_VALUE)
        CloseHandle(snapshot);
    return result;
}
