// Bounded formatting and copying into fixed buffers.
#include "support/log.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

int FormatText(char *buffer, size_t size, const char *format, ...)
{
    if (buffer == NULL || size == 0)
        return 1;
    va_list args;
    va_start(args, format);
    int needed = vsnprintf(buffer, size, format, args);
    va_end(args);
    if (needed < 0) {
        buffer[0] = 0;
        return 1;
    }
    return (size_t)needed >= size;
}

int CopyText(char *buffer, size_t size, const char *text)
{
    if (buffer == NULL || size == 0)
        return 1;
    buffer[0] = 0;
    return AppendText(buffer, size, text);
}

int AppendText(char *buffer, size_t size, const char *text)
{
    if (buffer == NULL || size == 0)
        return 1;
    size_t used = strnlen(buffer, size - 1);
    size_t length = text ? strlen(text) : 0;
    size_t room = size - 1 - used;
    size_t taken = length < room ? length : room;
    if (taken)
        memcpy(buffer + used, text, taken);
    buffer[used + taken] = 0;
    return taken < length;
}
