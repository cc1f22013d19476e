// Waiting for a service to change state, and killing a service's process
// when it won't stop.
#include "devices/devices.h"
#include "devices/service_internal.h"
#include "support/log.h"
#include "support/security.h"

// Polling step of every wait on a service.
static const int SERVICE_POLL_MS = 500;

int ServiceWaitUntilRunning(SC_HANDLE service, DWORD fromState, DWORD toState, int timeout, int quiet)
{
    SERVICE_STATUS status;
    DWORD code = ERROR_SERVICE_REQUEST_TIMEOUT;

    LogWrite("Waiting until service state changed from [%d] to [%d]...\n", (int)fromState, (int)toState);
    while (timeout > 0) {
        if (!QueryServiceStatus(service, &status)) {
            code = GetLastError();
            goto failed;
        }
        if (status.dwCurrentState == toState) {
            LogWrite("Service reached state [%d]. Going to finish.\n", (int)status.dwCurrentState);
            // The same code as a timeout, on purpose: callers read it either way.
            SetLastError(ERROR_SERVICE_REQUEST_TIMEOUT);
            return 0;
        }
        if (status.dwCurrentState != fromState) {
            code = GetLastError();
            // Written whatever `quiet` says: the service went somewhere unplanned.
            LogReport("ERROR: Unexpected service state [%d] reached.\n", (int)status.dwCurrentState);
            goto failed;
        }
        LogWrite("Service is still in [%d] state...\n", (int)status.dwCurrentState);
        Sleep(SERVICE_POLL_MS);
        timeout -= SERVICE_POLL_MS;
    }
    code = ERROR_SERVICE_REQUEST_TIMEOUT;

failed:
    if (!quiet)
        LogReport("ERROR: Service doesn't response.\nError code is : %d.\n", (int)code);
    else
        LogWrite("WARNING: Service doesn't response.\nError code is : %d.\n", (int)code);
    SetLastError(code);
    return -1;
}

int ServiceKill(SC_HANDLE service, int quiet)
{
    SERVICE_STATUS_PROCESS status;
    DWORD needed = 0;
    HANDLE process = NULL;
    DWORD code = 0;
    int result = 0;

    LogWrite("Retrieving service's PID...\n");
    ZeroMemory(&status, sizeof status);
    if (!QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, (BYTE *)&status, sizeof status, &needed)) {
        code = GetLastError();
        goto failed;
    }
    if (EnablePrivilege("SeDebugPrivilege", 1) != 0) {
        code = GetLastError();
        goto failed;
    }
    process = OpenProcess(PROCESS_TERMINATE, FALSE, status.dwProcessId);
    if (process == NULL) {
        code = GetLastError();
        goto failed;
    }
    if (!TerminateProcess(process, (UINT)-1)) {
        code = GetLastError();
        goto failed;
    }
    goto done;

failed:
    result = -1;
    if (quiet)
        LogWrite("WARNING: Cannot terminate service process.\nError code is : %d.\n", (int)code);
    else
        LogReport("WARNING: Cannot terminate service process.\nError code is : %d.\n", (int)code);
done:
    if (process != NULL)
        CloseHandle(process);
    EnablePrivilege("SeDebugPrivilege", 0);
    return result;
}
