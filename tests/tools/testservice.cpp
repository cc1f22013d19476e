// A service for the service control tests. Its behaviour is the first word
// after the program on its command line (part of the service's binary path):
//   normal      start at once, stop at once
//   slowstart   stay start-pending for 3 s, then run
//   selfstop    go from start-pending straight to stopped
//   ignorestop  answer STOP with stop-pending and never stop
//   slowstop    stay stop-pending for 2 s after STOP, then stop
//   nostop      accept no STOP control at all
#include <windows.h>

#include <string.h>

static SERVICE_STATUS_HANDLE statusHandle;
static SERVICE_STATUS status;
static HANDLE stopEvent;
static char mode[32] = "normal";

static bool Is(const char *name)
{
    return strcmp(mode, name) == 0;
}

static void Report(DWORD state)
{
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = state;
    status.dwControlsAccepted = (state == SERVICE_RUNNING && !Is("nostop")) ? SERVICE_ACCEPT_STOP : 0;
    status.dwWin32ExitCode = 0;
    status.dwCheckPoint++;
    status.dwWaitHint = 5000;
    SetServiceStatus(statusHandle, &status);
}

static DWORD WINAPI Handler(DWORD control, DWORD, LPVOID, LPVOID)
{
    if (control == SERVICE_CONTROL_STOP) {
        Report(SERVICE_STOP_PENDING);
        if (!Is("ignorestop"))
            SetEvent(stopEvent);
        return NO_ERROR;
    }
    if (control == SERVICE_CONTROL_INTERROGATE)
        return NO_ERROR;
    return ERROR_CALL_NOT_IMPLEMENTED;
}

static void WINAPI Main(DWORD argc, LPSTR *argv)
{
    statusHandle = RegisterServiceCtrlHandlerExA(argc > 0 ? argv[0] : "", Handler, NULL);
    if (statusHandle == NULL)
        return;
    Report(SERVICE_START_PENDING);
    if (Is("selfstop")) {
        Sleep(500);
        Report(SERVICE_STOPPED);
        return;
    }
    if (Is("slowstart"))
        Sleep(3000);
    Report(SERVICE_RUNNING);
    WaitForSingleObject(stopEvent, INFINITE);
    if (Is("slowstop"))
        Sleep(2000);
    Report(SERVICE_STOPPED);
}

int main(int argc, char **argv)
{
    if (argc > 1) {
        strncpy(mode, argv[1], sizeof mode - 1);
        mode[sizeof mode - 1] = 0;
    }
    stopEvent = CreateEventA(NULL, TRUE, FALSE, NULL);
    static char emptyName[] = "";
    SERVICE_TABLE_ENTRYA table[] = {{emptyName, Main}, {NULL, NULL}};
    return StartServiceCtrlDispatcherA(table) ? 0 : 1;
}
