// Creating a service (and starting it), and changing a service's configuration.
#include "devices/devices.h"
#include "devices/service_internal.h"
#include "support/log.h"

static const int SERVICE_WAIT_MS = 10000;
// Rights on a service this program creates, and on one that existed before.
static const DWORD CREATED_ACCESS = DELETE | SERVICE_QUERY_STATUS | SERVICE_START | SERVICE_STOP;
static const DWORD EXISTING_ACCESS = SERVICE_QUERY_STATUS | SERVICE_START | SERVICE_STOP;

int ServiceAdd(const char *name, const char *displayName, int type, int startType, const char *path,
               unsigned char failIfExists, const char *account, const char *password, int start, int quiet)
{
    SC_HANDLE manager = NULL;
    SC_HANDLE service = NULL;
    SERVICE_STATUS status;
    char fullPath[MAX_PATH];
    DWORD code = 0;
    int expanded = 0;

    LogEnter("ServiceAdd");
    LogWrite("Name         : [%s]\n", ServiceText(name));
    LogWrite("Display name : [%s]\n", ServiceText(displayName));
    LogWrite("Type         : [%d]\n", type);
    LogWrite("Start type   : [%d]\n", startType);
    LogWrite("Path         : [%s]\n", ServiceText(path));
    LogWrite("FailIfExists : [%d]\n", (int)failIfExists);
    LogWrite("Account      : [%s]\n", ServiceText(account));
    LogWrite("Password     : [%s]\n", password != NULL ? "Specified" : "Not specified");
    LogWrite("Start        : [%d]\n", start);
    SetLastError(ERROR_INVALID_PARAMETER);
    code = ERROR_INVALID_PARAMETER;

    if (name == NULL) {
        LogReport("ERROR: Service's name is not valid.\n");
        goto failed;
    }
    if (path == NULL) {
        LogReport("ERROR: Service's path is not valid.\n");
        goto failed;
    }
    // A bare file name means a program next to this one.
    expanded = ExpandRelativePath(fullPath, sizeof fullPath, path, 0);
    if (expanded != 0) {
        code = (DWORD)expanded;
        goto failed;
    }
    manager = OpenSCManagerA(NULL, NULL, SC_MANAGER_CONNECT | SC_MANAGER_CREATE_SERVICE);
    if (manager == NULL) {
        code = GetLastError();
        goto failed;
    }

    LogWrite("Creating new service...\n");
    service = CreateServiceA(manager, name, displayName, CREATED_ACCESS, (DWORD)type, (DWORD)startType,
                             SERVICE_ERROR_IGNORE, fullPath, NULL, NULL, NULL, account, password);
    if (service == NULL) {
        code = GetLastError();
        LogWrite("CreateService() failed.\n");
        if (code != ERROR_SERVICE_EXISTS || failIfExists)
            goto failed;
        // The existing service keeps its configuration.
        LogWrite("Service already exists, going to open existing one.\n");
        service = OpenServiceA(manager, name, EXISTING_ACCESS);
        if (service == NULL) {
            code = GetLastError();
            goto failed;
        }
    }

    if (start) {
        LogWrite("Starting new service...\n");
        if (!StartServiceA(service, 0, NULL)) {
            code = GetLastError();
            if (code != ERROR_SERVICE_ALREADY_RUNNING)
                goto failed;
        }
        // Unlike a plain start, a service that doesn't come up is a failure here.
        if (ServiceWaitUntilRunning(service, SERVICE_START_PENDING, SERVICE_RUNNING, SERVICE_WAIT_MS, 1) != 0) {
            code = GetLastError();
            goto failed;
        }
    }
    ServiceCloseHandles(&manager, &service);
    LogLeave("ServiceAdd");
    return 0;

failed:
    if (!quiet)
        LogReport("ERROR: Cannot create service.\nError code is %d.\n", (int)code);
    if (code != ERROR_SERVICE_EXISTS) {
        // Whatever was made must not stay half made. Without a service
        // handle both steps fail and only their warnings are left.
        LogWrite("Cleaning up unusable service...\n");
        if (!ControlService(service, SERVICE_CONTROL_STOP, &status)) {
            DWORD stopCode = GetLastError();
            LogWrite("WARNING: Cannot send stop to service.\nError code is : %d.\n", (int)stopCode);
        }
        if (!DeleteService(service)) {
            DWORD deleteCode = GetLastError();
            LogWrite("WARNING: Cannot delete service '%s'.\nError code is : %d.\n", ServiceText(name), (int)deleteCode);
        }
    }
    ServiceCloseHandles(&manager, &service);
    LogLeave("ServiceAdd");
    return code == ERROR_SERVICE_EXISTS ? (int)code : ServiceResult(code);
}

int ServiceChange(const char *name, const char *displayName, int type, int startType, const char *path)
{
    SC_HANDLE manager = NULL;
    SC_HANDLE service = NULL;
    char fullPath[MAX_PATH];
    DWORD code = ERROR_INVALID_PARAMETER;
    int result = 0;

    LogEnter("ServiceChange");
    SetLastError(ERROR_INVALID_PARAMETER);
    if (name == NULL)
        goto failed;
    LogWrite("Name         : [%s]\n", name);
    LogWrite("Display name : [%s]\n", ServiceText(displayName));
    LogWrite("Type         : [%d]\n", type);
    LogWrite("Start type   : [%d]\n", startType);
    LogWrite("Path         : [%s]\n", ServiceText(path));
    if (path != NULL) {
        result = ExpandRelativePath(fullPath, sizeof fullPath, path, 0);
        if (result != 0) {
            code = (DWORD)result;
            goto failed;
        }
    }
    if (ServiceOpen(&manager, &service, name, SERVICE_CHANGE_CONFIG, 0) != 0) {
        code = GetLastError();
        goto failed;
    }
    // The display name is only logged; the error control is always reset
    // to "ignore". -1 for a type or start type is SERVICE_NO_CHANGE.
    if (!ChangeServiceConfigA(service, (DWORD)type, (DWORD)startType, SERVICE_ERROR_IGNORE,
                              path != NULL ? fullPath : NULL, NULL, NULL, NULL, NULL, NULL, NULL)) {
        code = GetLastError();
        goto failed;
    }
    result = 0;
    goto done;

failed:
    LogReport("ERROR: Cannot change service parameters.\nError code is %d.\n", (int)code);
    result = ServiceResult(code);
done:
    ServiceCloseHandles(&manager, &service);
    LogLeave("ServiceChange");
    return result;
}
