// The device daemon: the pipe protocol and its client, the service host, the
// running of one request, and the collector of devices whose owners died.
#pragma once

#include <windows.h>

#include "support/log.h"

#define DAEMON_PIPE_NAME "\\\\.\\pipe\\tzdevice-bc72a506-0e0c-4bff-b6f8-c2b6aa32e906"
#define DAEMON_SERVICE_NAME "tzdeviced"
#define DAEMON_DISPLAY_NAME "Tessarine Device Server"

enum {
    DAEMON_PIPE_INSTANCES = 16,
    DAEMON_REQUEST_BUFFER = 16384,  // the server reads at most one byte less
    DAEMON_SEND_LIMIT = 16384,      // text the client formats, at most
    DAEMON_REGISTER_REPLY = 4096,
    DEVICE_TABLE_ROWS = 128,
    DEVICE_NAME_SIZE = 260,
};

// Channel (client side). DaemonSend formats its request; DaemonSendText sends
// a ready text as it stands, so that percent signs travel as plain text.
int DaemonSend(int *exitCode, char *reply, int replySize, const char *format, ...)
    TZ_PRINTF(4, 5);
int DaemonSendText(int *exitCode, char *reply, int replySize, const char *text);
int DaemonIsRunning(int quiet);
int SplitQuotedArgs(int *argc, char ***argv, const char *commandString);
void FreeArgs(int argc, char **argv);

// Service host.
int DaemonEntry(void);
void WINAPI ServiceMain(DWORD argc, LPSTR *argv);
void WINAPI ServiceControlHandler(DWORD control);
int DaemonInstall(void);
int DaemonRemove(void);

// One client's request.
DWORD WINAPI DaemonProcessMessage(LPVOID index);

// Device garbage collector.
struct DeviceRecord {
    int type;  // 0 free, 1 network adapter, 2 printer, 3 nothing to remove
    char name[DEVICE_NAME_SIZE];
    int parent;
};
int GarbageCollectorInit(void);
void GarbageCollectorCleanUp(void);
int GarbageCollectorRegisterDevice(const char *name, int type, int parentPid);
DWORD WINAPI GarbageCollectorHandler(LPVOID unused);
