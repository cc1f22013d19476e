// A pipe pair with settable modes on both ends, which an anonymous pipe
// can't give: a one-instance named pipe with a name of its own per call.
#include "support/log.h"
#include "support/security.h"

// Read and then incremented by each call. Only a command's main thread
// makes pipe pairs, so no lock guards it.
static unsigned int pipeCounter;

int CreatePipeEx(struct PipePair *pipe, SECURITY_ATTRIBUTES *attributes, DWORD size, DWORD readFlags,
                 DWORD writeFlags, DWORD timeout)
{
    char name[MAX_PATH];
    HANDLE readEnd = INVALID_HANDLE_VALUE;
    HANDLE writeEnd = INVALID_HANDLE_VALUE;
    int result = 0;

    if (pipe == NULL) {
        SetLastError(ERROR_INVALID_PARAMETER);
        result = ERROR_INVALID_PARAMETER;
        goto failed;
    }
    if (size == 0)
        size = 4096;
    FormatText(name, sizeof name, "\\\\.\\Pipe\\tzdevice-anon.%08x.%08x", (unsigned int)GetCurrentProcessId(),
               pipeCounter++);

    readEnd = CreateNamedPipeA(name, readFlags | PIPE_ACCESS_INBOUND, PIPE_TYPE_MESSAGE | PIPE_READMODE_BYTE | PIPE_WAIT,
                               1, size, size, timeout, attributes);
    if (readEnd == INVALID_HANDLE_VALUE) {
        result = LastErrorOr();
        goto failed;
    }
    writeEnd = CreateFileA(name, GENERIC_WRITE, 0, attributes, OPEN_EXISTING, writeFlags | FILE_ATTRIBUTE_NORMAL, NULL);
    if (writeEnd == INVALID_HANDLE_VALUE) {
        result = LastErrorOr();
        goto failed;
    }
    pipe->read = readEnd;
    pipe->write = writeEnd;
    return 0;

failed:
    LogReport("ERROR: Cannot create pipe pair.\nError code is : %d.\n", result);
    // Only what this call made is closed; the record is left empty, so a
    // caller's own clean-up closes nothing twice.
    if (readEnd != INVALID_HANDLE_VALUE)
        CloseHandle(readEnd);
    if (pipe != NULL) {
        pipe->read = NULL;
        pipe->write = NULL;
    }
    return result;
}
