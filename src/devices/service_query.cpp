// Reading a service's status and configuration, and whether it exists.
#include <stdlib.h>

#include "devices/devices.h"
#include "devices/service_internal.h"
#include "support/log.h"

int ServiceGetStatus(SERVICE_STATUS *status, const char *name, int quiet)
{
    SC_HANDLE manager = NULL;
    SC_HANDLE service = NULL;
    DWORD code = 0;

    if (status == NULL) {
        code = ERROR_INVALID_PARAMETER;
        goto failed;
    }
    if (ServiceOpen(&manager, &service, name, SERVICE_QUERY_STATUS, quiet) != 0) {
        code = GetLastError();
        goto failed;
    }
    if (!QueryServiceStatus(service, status)) {
        code = GetLastError();
        goto failed;
    }
    ServiceCloseHandles(&manager, &service);
    return 0;

failed:
    if (!quiet)
        LogReport("ERROR: Cannot retrieve status for service '%s'.\nError code is %d.\n", ServiceText(name), (int)code);
    ServiceCloseHandles(&manager, &service);
    SetLastError(code);
    return ServiceResult(code);
}

int ServiceGetConfig(QUERY_SERVICE_CONFIGA **config, const char *name, int quiet)
{
    SC_HANDLE manager = NULL;
    SC_HANDLE service = NULL;
    QUERY_SERVICE_CONFIGA *block = NULL;
    DWORD needed = 0;
    DWORD code = 0;

    if (config == NULL) {
        code = ERROR_INVALID_PARAMETER;
        goto failed;
    }
    *config = NULL;
    if (ServiceOpen(&manager, &service, name, SERVICE_QUERY_CONFIG, quiet) != 0) {
        code = GetLastError();
        goto failed;
    }
    // The first call only tells the size.
    if (!QueryServiceConfigA(service, NULL, 0, &needed) && GetLastError() != ERROR_INSUFFICIENT_BUFFER) {
        code = GetLastError();
        goto failed;
    }
    block = (QUERY_SERVICE_CONFIGA *)malloc(needed ? needed : 1);
    if (block == NULL) {
        code = ERROR_NOT_ENOUGH_MEMORY;
        goto failed;
    }
    if (!QueryServiceConfigA(service, block, needed, &needed)) {
        code = GetLastError();
        goto failed;
    }
    *config = block;
    ServiceCloseHandles(&manager, &service);
    return 0;

failed:
    if (!quiet)
        LogReport("ERROR: Cannot retrieve config for service '%s'.\nError code is %d.\n", ServiceText(name), (int)code);
    free(block);
    ServiceCloseHandles(&manager, &service);
    SetLastError(code);
    return ServiceResult(code);
}

int ServiceExists(const char *name)
{
    SERVICE_STATUS status;
    if (ServiceGetStatus(&status, name, 1) == 0) {
        SetLastError(ERROR_ALREADY_EXISTS);
        return 1;
    }
    SetLastError(ERROR_FILE_NOT_FOUND);
    return 0;
}
