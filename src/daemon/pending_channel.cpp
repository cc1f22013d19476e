// Stand-ins for operations whose code is still being written: each fails
// with -1 and says so. Delete an entry when its real code lands.
#include "support/log.h"
#include "daemon/daemon.h"

int DaemonSend(int *, char *, int, const char *, ...)
{
    LogReport("ERROR: %s is not available in this build.\n", "DaemonSend");
    return -1;
}

int DaemonSendText(int *, char *, int, const char *)
{
    LogReport("ERROR: %s is not available in this build.\n", "DaemonSendText");
    return -1;
}

int DaemonIsRunning(int)
{
    LogReport("ERROR: %s is not available in this build.\n", "DaemonIsRunning");
    return -1;
}

int SplitQuotedArgs(int *, char ***, const char *)
{
    LogReport("ERROR: %s is not available in this build.\n", "SplitQuotedArgs");
    return 0;
}

void FreeArgs(int, char **)
{
    LogReport("ERROR: %s is not available in this build.\n", "FreeArgs");
}

int DaemonEntry(void)
{
    LogReport("ERROR: %s is not available in this build.\n", "DaemonEntry");
    return -1;
}

void WINAPI ServiceMain(DWORD, LPSTR *)
{
    LogReport("ERROR: %s is not available in this build.\n", "ServiceMain");
    return ;
}

void WINAPI ServiceControlHandler(DWORD)
{
    LogReport("ERROR: %s is not available in this build.\n", "ServiceControlHandler");
    return ;
}

int DaemonInstall(void)
{
    LogReport("ERROR: %s is not available in this build.\n", "DaemonInstall");
    return -1;
}

int DaemonRemove(void)
{
    LogReport("ERROR: %s is not available in this build.\n", "DaemonRemove");
    return -1;
}

DWORD WINAPI DaemonProcessMessage(LPVOID)
{
    LogReport("ERROR: %s is not available in this build.\n", "DaemonProcessMessage");
    return (DWORD)-1;
}

