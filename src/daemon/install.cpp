// Adding the daemon to the service manager and taking it away again. Both run
// in the command tool; the daemon's parser refuses them.
#include <windows.h>

#include "daemon/daemon.h"
#include "devices/devices.h"
#include "support/log.h"

static const char kServiceModeArgument[] = " --servicemode";

int DaemonInstall(void)
{
    // The program's path as the platform gives it in MAX_PATH bytes, and the
    // service-mode word behind it; the path is not quoted.
    char path[MAX_PATH + sizeof kServiceModeArgument];
    ZeroMemory(path, sizeof path);

    DWORD length = GetModuleFileNameA(NULL, path, MAX_PATH);
    if (length == 0 || length >= MAX_PATH) {
        if (length != 0)
            SetLastError(ERROR_INSUFFICIENT_BUFFER);  // a cut path would name another program
        goto failed;
    }
    AppendText(path, sizeof path, kServiceModeArgument);
    if (ServiceAdd(DAEMON_SERVICE_NAME, DAEMON_DISPLAY_NAME, SERVICE_WIN32_OWN_PROCESS, SERVICE_AUTO_START, path, 0,
                   NULL, NULL, 0, 0) == 0)
        return 0;

failed:
    LogReport("ERROR: Cannot install service daemon.\nError code is : %d.\n", (int)GetLastError());
    return -1;
}

int DaemonRemove(void)
{
    int result = ServiceDelete(DAEMON_SERVICE_NAME, 0);
    if (result != 0)
        LogReport("ERROR: Cannot remove service daemon.\nError code is : %d.\n", (int)GetLastError());
    return result;
}
