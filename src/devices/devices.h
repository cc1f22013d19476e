// Devices, drivers and system services.
#pragma once

#include <windows.h>

// System service control. 0 is success; a failure is the platform's error or -1.
int ServiceOpen(SC_HANDLE *manager, SC_HANDLE *service, const char *name, DWORD access, int quiet);
int ServiceChange(const char *name, const char *displayName, int type, int startType, const char *path);
int ServiceGetStatus(SERVICE_STATUS *status, const char *name, int quiet);
// On success *config is a block the caller frees with free().
int ServiceGetConfig(QUERY_SERVICE_CONFIGA **config, const char *name, int quiet);
int ServiceExists(const char *name);
int ServiceWaitUntilRunning(SC_HANDLE service, DWORD fromState, DWORD toState, int timeout, int quiet);
int ServiceStart(const char *name, DWORD argc, const char **argv);
int ServiceAdd(const char *name, const char *displayName, int type, int startType, const char *path,
               unsigned char failIfExists, const char *account, const char *password, int start, int quiet);
int ServiceKill(SC_HANDLE service, int quiet);
int ServiceStop(const char *name, int timeout);
int ServiceDelete(const char *name, int quiet);
