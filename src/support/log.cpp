// The diagnostic log: one append-only text file per process, one record per call.
#include "support/log.h"

#include <fcntl.h>
#include <io.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <windows.h>

static char logFileName[MAX_PATH];
static int logDescriptor = -1;

char *LogSetFile(const char *path)
{
    // The name is read only while no descriptor is decided; a longer path is cut.
    CopyText(logFileName, sizeof logFileName, path);
    return logFileName;
}

// Opens the named file once, or settles on the standard error stream.
static int LogDescriptor(void)
{
    if (logDescriptor == -1) {
        if (logFileName[0] == 0)
            logDescriptor = 2;
        else
            logDescriptor = _open(logFileName, _O_RDWR | _O_APPEND | _O_CREAT, _S_IWRITE);
    }
    if (logDescriptor < 0)
        logDescriptor = 2;
    return logDescriptor;
}

int LogWrite(const char *format, ...)
{
    // Both buffers hold the limit plus a terminator, so that a message or a
    // record that reaches the limit is cut at exactly LOG_RECORD_LIMIT characters.
    char record[LOG_RECORD_LIMIT + 1];
    char message[LOG_RECORD_LIMIT + 1];
    char stamp[LOG_TIME_LIMIT];
    memset(record, 0, sizeof record);

    int descriptor = LogDescriptor();

    SYSTEMTIME now;
    GetLocalTime(&now);
    FormatText(stamp, sizeof stamp, "%02d:%02d:%02d %03d", now.wHour, now.wMinute, now.wSecond,
               now.wMilliseconds);

    va_list args;
    va_start(args, format);
    if (vsnprintf(message, sizeof message, format, args) < 0)
        message[0] = 0;
    va_end(args);

    DWORD thread = GetCurrentThreadId();
    DWORD process = GetCurrentProcessId();
    FormatText(record, sizeof record, "[%d][%d] %s %s", (int)process, (int)thread, stamp, message);

    return _write(descriptor, record, (unsigned)strlen(record));
}
