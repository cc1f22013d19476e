// Starting, stopping and deleting services. A service that won't stop in
// time is killed; a service is deleted first and stopped afterwards.
#include "devices/devices.h"
#include "devices/service_internal.h"
#include "support/log.h"

// How long a start or a deletion waits for the service.
static const int SERVICE_WAIT_MS = 10000;

int ServiceStart(const char *name, DWORD argc, const char **argv)
{
    SC_HANDLE manager = NULL;
    SC_HANDLE service = NULL;
    DWORD code = 0;
    int result = 0;

    LogEnter("ServiceStart");
    if (ServiceOpen(&manager, &service, name, SERVICE_QUERY_STATUS | SERVICE_START, 0) != 0) {
        code = GetLastError();
        goto failed;
    }
    if (!StartServiceA(service, argc, argv)) {
        code = GetLastError();
        goto failed;
    }
    // A service slow to start (or one that stopped again) still counts as started.
    ServiceWaitUntilRunning(service, SERVICE_START_PENDING, SERVICE_RUNNING, SERVICE_WAIT_MS, 1);
    goto done;

failed:
    LogReport("ERROR: Cannot start service '%s'.\nError code is %d.\n", ServiceText(name), (int)code);
    result = ServiceResult(code);
done:
    ServiceCloseHandles(&manager, &service);
    LogLeave("ServiceStart");
    return result;
}

int ServiceStop(const char *name, int timeout)
{
    SC_HANDLE manager = NULL;
    SC_HANDLE service = NULL;
    SERVICE_STATUS status;
    int result = 0;

    LogEnter("ServiceStop");
    result = ServiceOpen(&manager, &service, name, SERVICE_QUERY_STATUS | SERVICE_STOP, 0);
    if (result != 0) {
        LogReport("ERROR: Cannot stop service '%s'.\nError code is %d.\n", ServiceText(name), result);
        goto done;
    }
    LogWrite("Sending STOP to service...\n");
    // A service that is stopped already fails here and is fine: the wait
    // then sees the state it wants at once.
    if (!ControlService(service, SERVICE_CONTROL_STOP, &status)) {
        DWORD code = GetLastError();
        LogWrite("WARNING: Cannot send STOP signal to service.\nError code is : %d.\n", (int)code);
    }
    if (ServiceWaitUntilRunning(service, SERVICE_STOP_PENDING, SERVICE_STOPPED, timeout, 1) != 0)
        ServiceKill(service, 1);

done:
    ServiceCloseHandles(&manager, &service);
    LogLeave("ServiceStop");
    return result;
}

int ServiceDelete(const char *name, int quiet)
{
    SC_HANDLE manager = NULL;
    SC_HANDLE service = NULL;
    SERVICE_STATUS status;
    DWORD code = 0;
    int result = 0;

    LogEnter("ServiceDelete");
    if (ServiceOpen(&manager, &service, name, DELETE | SERVICE_QUERY_STATUS | SERVICE_STOP, quiet) != 0) {
        code = GetLastError();
        goto failed;
    }
    LogWrite("Deleting service '%s'...\n", name);
    if (!DeleteService(service)) {
        code = GetLastError();
        goto failed;
    }
    // Deleted first; the open handle still stops it, and the service
    // manager removes it once it has stopped.
    LogWrite("Sending STOP to '%s' service...\n", name);
    if (ControlService(service, SERVICE_CONTROL_STOP, &status) == 1 &&
        ServiceWaitUntilRunning(service, SERVICE_STOP_PENDING, SERVICE_STOPPED, SERVICE_WAIT_MS, 1) != 0)
        ServiceKill(service, 1);
    goto done;

failed:
    if (!quiet)
        LogReport("ERROR: Cannot delete service '%s'.\nError code is %d.\n", ServiceText(name), (int)code);
    result = ServiceResult(code);
done:
    ServiceCloseHandles(&manager, &service);
    LogLeave("ServiceDelete");
    return result;
}
