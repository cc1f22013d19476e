// Helpers shared by the service control files of this folder.
#pragma once

#include <windows.h>

// Closes both handles where set and clears them, so that a second call (or
// one after ServiceOpen failed) closes nothing twice.
void ServiceCloseHandles(SC_HANDLE *manager, SC_HANDLE *service);

// A text for the log that is never null.
inline const char *ServiceText(const char *text)
{
    return text != NULL ? text : "(null)";
}

// The result of a failure: the code, or -1 when it is 0.
inline int ServiceResult(DWORD code)
{
    return code != 0 ? (int)code : -1;
}
