// Opening a service, and the manager behind it when the caller has none yet.
#include "devices/devices.h"
#include "devices/service_internal.h"
#include "support/log.h"

void ServiceCloseHandles(SC_HANDLE *manager, SC_HANDLE *service)
{
    if (service != NULL && *service != NULL) {
        CloseServiceHandle(*service);
        *service = NULL;
    }
    if (manager != NULL && *manager != NULL) {
        CloseServiceHandle(*manager);
        *manager = NULL;
    }
}

int ServiceOpen(SC_HANDLE *manager, SC_HANDLE *service, const char *name, DWORD access, int quiet)
{
    DWORD code = ERROR_INVALID_PARAMETER;

    SetLastError(ERROR_INVALID_PARAMETER);
    if (name == NULL || manager == NULL || service == NULL)
        goto failed;

    if (*manager == NULL) {
        LogWrite("Opening service manager...\n");
        *manager = OpenSCManagerA(NULL, NULL, SC_MANAGER_CONNECT);
        if (*manager == NULL) {
            code = GetLastError();
            goto failed;
        }
    }
    LogWrite("Opening service '%s' with rights '0x%x'...\n", name, (unsigned int)access);
    *service = OpenServiceA(*manager, name, access);
    if (*service == NULL) {
        code = GetLastError();
        goto failed;
    }
    SetLastError(0);
    return 0;

failed:
    if (!quiet)
        LogReport("ERROR: Cannot open service.\nError code is %d.\n", (int)code);
    // The handles are cleared as well as closed: callers close them again
    // on their own failure paths.
    ServiceCloseHandles(manager, service);
    SetLastError((DWORD)ServiceResult(code));
    return ServiceResult(code);
}
