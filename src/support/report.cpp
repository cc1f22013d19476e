// How the program tells the user and the log about what happens.
#include "support/log.h"

#include <stdarg.h>
#include <stdio.h>
#include <windows.h>

static thread_local FILE *threadOutput;
static thread_local FILE *threadError;

FILE *OutputStream(void)
{
    return threadOutput ? threadOutput : stdout;
}

FILE *ErrorStream(void)
{
    return threadError ? threadError : stderr;
}

void SetThreadStreams(FILE *output, FILE *error)
{
    threadOutput = output;
    threadError = error;
}

void LogReport(const char *format, ...)
{
    char text[LOG_RECORD_LIMIT + 1];
    va_list args;
    va_start(args, format);
    if (vsnprintf(text, sizeof text, format, args) < 0)
        text[0] = 0;
    va_end(args);
    fputs(text, ErrorStream());
    fflush(ErrorStream());
    LogWrite("%s", text);
}

void PrintError(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    vfprintf(ErrorStream(), format, args);
    va_end(args);
    fflush(ErrorStream());
}

void LogEnter(const char *name)
{
    LogWrite("-> %s()...\n", name);
}

void LogLeave(const char *name)
{
    LogWrite("<- %s()...\n", name);
}

int LastErrorOr(void)
{
    DWORD code = GetLastError();
    return code ? (int)code : -1;
}
