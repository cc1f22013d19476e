// The daemon as a service: registration with the service manager, its state
// reports, the 16 pipe instances and the loop that waits on them, and the stop.
// Each connected client is served on a thread of its own (message.cpp).
#include <windows.h>

#include <stdint.h>

#include "daemon/daemon.h"
#include "daemon/daemon_internal.h"
#include "performance/performance.h"
#include "support/log.h"
#include "support/security.h"

enum {
    PIPE_OPEN_MODE = PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
    PIPE_MODE = PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE,
    PIPE_DEFAULT_TIMEOUT_MS = 120000,
    STOP_EVENT_INDEX = DAEMON_PIPE_INSTANCES,
    ACCEPTED_CONTROLS = SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN,
};

struct PipeInstance pipeInstances[DAEMON_PIPE_INSTANCES];
HANDLE pipeEvents[DAEMON_PIPE_INSTANCES + 1];

static SERVICE_STATUS serviceStatus;
static SERVICE_STATUS_HANDLE serviceStatusHandle;
static HANDLE stopEvent;

static char serviceName[] = DAEMON_SERVICE_NAME;

// Instances whose client is on a thread right now. Written by the loop only.
static bool serving[DAEMON_PIPE_INSTANCES];

static void ReportState(DWORD state)
{
    serviceStatus.dwCurrentState = state;
    SetServiceStatus(serviceStatusHandle, &serviceStatus);
}

static void CloseIfOpen(HANDLE *handle)
{
    if (*handle != NULL && *handle != INVALID_HANDLE_VALUE)
        CloseHandle(*handle);
    *handle = NULL;
}

int DaemonEntry(void)
{
    SERVICE_TABLE_ENTRYA table[] = {{serviceName, ServiceMain}, {NULL, NULL}};
    int result = 0;

    LogEnter("DaemonEntry");
    // Returns when the service has stopped; from a plain console it fails.
    if (!StartServiceCtrlDispatcherA(table)) {
        LogReport("ERROR: Cannot start service daemon.\nError code is : %d.\n", (int)GetLastError());
        result = -1;
    }
    LogLeave("DaemonEntry");
    return result;
}

// Makes the 16 instances, each with its event set so that the loop listens
// on it first. 0, or -1 when one of them failed.
static int CreatePipeInstances(SECURITY_ATTRIBUTES *attributes)
{
    for (int i = 0; i < DAEMON_PIPE_INSTANCES; i++) {
        struct PipeInstance *instance = &pipeInstances[i];
        HANDLE event = CreateEventA(NULL, TRUE, FALSE, NULL);
        if (event == NULL)
            return -1;
        pipeEvents[i] = event;
        instance->overlapped.hEvent = event;
        instance->handle = CreateNamedPipeA(DAEMON_PIPE_NAME, PIPE_OPEN_MODE, PIPE_MODE, PIPE_UNLIMITED_INSTANCES, 0,
                                            0, PIPE_DEFAULT_TIMEOUT_MS, attributes);
        if (instance->handle == INVALID_HANDLE_VALUE)
            return -1;
        instance->needsReset = 1;
        SetEvent(event);
    }
    return 0;
}

// At the stop, the instances that serve nobody are closed at once, so that a
// client that connects now (the control handler's "STOP" among them) gets a
// broken pipe instead of a write that nobody will ever read. Under Wine that
// write would otherwise hold the control handler, and with it the service
// manager and the stop. Instances with a client on a thread stay open until
// the end of ServiceMain.
static void CloseIdleInstances(void)
{
    for (int i = 0; i < DAEMON_PIPE_INSTANCES; i++)
        if (!serving[i])
            CloseIfOpen(&pipeInstances[i].handle);
}

// The wait loop. Returns when the stop event is set or the wait fails.
static void ServeClients(void)
{
    pipeEvents[STOP_EVENT_INDEX] = stopEvent;
    LogWrite("Entering server loop...\n");
    for (;;) {
        LogWrite("Waiting for events...\n");
        // The lowest signalled index wins, and the stop event is last: a
        // connection is taken before a stop.
        DWORD signalled = WaitForMultipleObjects(DAEMON_PIPE_INSTANCES + 1, pipeEvents, FALSE, INFINITE);
        if (signalled > WAIT_OBJECT_0 + STOP_EVENT_INDEX)
            return;
        DWORD index = signalled - WAIT_OBJECT_0;
        if (index == STOP_EVENT_INDEX) {
            LogWrite("STOP event signaled.\n");
            LogWrite("Server loop exited...\n");
            CloseIdleInstances();
            return;
        }
        struct PipeInstance *instance = &pipeInstances[index];
        ResetEvent(pipeEvents[index]);
        if (instance->needsReset) {
            LogWrite("Pipe [%d] reset...\n", (int)index);
            instance->needsReset = 0;
            serving[index] = false;
            ZeroMemory(&instance->overlapped, sizeof instance->overlapped);
            instance->overlapped.hEvent = pipeEvents[index];
            // A client that connected before the listen (a fresh instance
            // accepts at once) completes no I/O and signals nothing: the
            // event is set here so that it is served like any other.
            if (!ConnectNamedPipe(instance->handle, &instance->overlapped)) {
                DWORD code = GetLastError();
                if (code == ERROR_PIPE_CONNECTED || code == ERROR_NO_DATA)
                    SetEvent(pipeEvents[index]);
            }
        } else {
            LogWrite("Connection on pipe [%d]...\n", (int)index);
            serving[index] = true;
            HANDLE thread = CreateThread(NULL, 0, DaemonProcessMessage, (LPVOID)(uintptr_t)index, 0, NULL);
            if (thread != NULL)
                CloseHandle(thread);  // the thread runs on; nobody waits for it
        }
    }
}

void WINAPI ServiceMain(DWORD, LPSTR *)
{
    // Lives as long as the service: the pipes were made with it.
    SECURITY_ATTRIBUTES attributes;

    LogEnter("ServiceMain");
    ZeroMemory(&attributes, sizeof attributes);
    ZeroMemory(&serviceStatus, sizeof serviceStatus);
    serviceStatus.dwServiceType = SERVICE_WIN32;
    serviceStatus.dwCurrentState = SERVICE_STOPPED;

    serviceStatusHandle = RegisterServiceCtrlHandlerA(DAEMON_SERVICE_NAME, ServiceControlHandler);
    if (serviceStatusHandle == NULL)
        goto instances;

    ReportState(SERVICE_START_PENDING);
    PdhInit();
    GarbageCollectorInit();
    stopEvent = CreateEventA(NULL, FALSE, FALSE, NULL);
    // From here the daemon counts as running, before its pipes exist.
    serviceStatus.dwControlsAccepted |= ACCEPTED_CONTROLS;
    ReportState(SERVICE_RUNNING);

    LogWrite("Initializing security attributes...\n");
    if (SetUpSecurityAttributesEverybody(&attributes) != 0)
        goto stopping;
    LogWrite("Initializing named pipe server...\n");
    if (CreatePipeInstances(&attributes) != 0)
        goto stopping;
    ServeClients();

stopping:
    GarbageCollectorCleanUp();
    ReportState(SERVICE_STOP_PENDING);
    FreeSecurityAttributes(&attributes);
    CloseIfOpen(&stopEvent);
    serviceStatus.dwControlsAccepted &= ~(DWORD)ACCEPTED_CONTROLS;
    ReportState(SERVICE_STOPPED);

instances:
    // Threads still serving a client are not waited for.
    for (int i = 0; i < DAEMON_PIPE_INSTANCES; i++) {
        CloseIfOpen(&pipeEvents[i]);
        pipeInstances[i].overlapped.hEvent = NULL;
        CloseIfOpen(&pipeInstances[i].handle);
    }
    LogLeave("ServiceMain");
}

// Log lines of the controls that only get a line.
struct ControlLine {
    DWORD control;
    const char *line;
};
static const ControlLine controlLines[] = {
    {SERVICE_CONTROL_PAUSE, "Received PAUSE control code...\n"},
    {SERVICE_CONTROL_CONTINUE, "Received CONTINUE control code...\n"},
    {SERVICE_CONTROL_INTERROGATE, "Received INTERROGATE control code...\n"},
};

void WINAPI ServiceControlHandler(DWORD control)
{
    LogEnter("ServiceControlHandler");
    if (control == SERVICE_CONTROL_STOP || control == SERVICE_CONTROL_SHUTDOWN) {
        LogWrite("Received SHUTDOWN or STOP control code...\n");
        ReportState(SERVICE_STOP_PENDING);
        SetEvent(stopEvent);
        // A courtesy to the loop; its answer is not read.
        DaemonSend(NULL, NULL, 0, "STOP");
        LogWrite("Received PAUSE control code...\n");
    } else if (control >= 128 && control <= 255) {
        LogWrite("Received user defined code [%d]...\n", (int)control);
    } else {
        const char *line = NULL;
        for (const ControlLine &entry : controlLines)
            if (entry.control == control)
                line = entry.line;
        if (line != NULL)
            LogWrite("%s", line);
        else
            LogWrite("Received wrong code [%d]...\n", (int)control);
    }
    SetServiceStatus(serviceStatusHandle, &serviceStatus);
    LogLeave("ServiceControlHandler");
}
