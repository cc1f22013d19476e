// The client side of the daemon's pipe: one request out, one reply back.
//
// On the wire a request is its text followed by the 7 bytes "__END__", in a
// single write; a reply is any output followed by "__OK__" or "__FAIL__",
// after which the server disconnects. Markers are found by a text search in
// each read, starting where that read starts.
#include <windows.h>

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "daemon/daemon.h"
#include "devices/devices.h"
#include "support/log.h"

static const char kEndMark[] = "__END__";
static const char kOkMark[] = "__OK__";
static const char kFailMark[] = "__FAIL__";

enum {
    WAIT_FOR_INSTANCE_MS = 30000,
    // The formatted text, the end mark and the terminating zero.
    REQUEST_SIZE = DAEMON_SEND_LIMIT + sizeof kEndMark,
};

// What a reply's last read ends in: the mark, the length of the mark and the
// exit code it stands for. "__OK__" is looked for first.
struct ReplyMark {
    const char *text;
    DWORD length;
    int exitCode;
};
static const ReplyMark replyMarks[] = {
    {kOkMark, sizeof kOkMark - 1, 0},
    {kFailMark, sizeof kFailMark - 1, -1},
};

// Sends `request` (text already cut to DAEMON_SEND_LIMIT characters, in a
// buffer of REQUEST_SIZE bytes) and, when `reply` has room, reads the reply
// into it. 0 when the write went out and, if a reply was wanted, a mark came.
static int SendRequest(int *exitCode, char *reply, int replySize, char *request)
{
    OVERLAPPED overlapped;
    DWORD written = 0;
    DWORD count = 0;
    DWORD offset = 0;
    HANDLE pipe = NULL;
    HANDLE event = NULL;
    int result = -1;

    LogEnter("DaemonSend");
    ZeroMemory(&overlapped, sizeof overlapped);

    LogWrite("Waiting for communication pipe availible...\n");
    if (!WaitNamedPipeA(DAEMON_PIPE_NAME, WAIT_FOR_INSTANCE_MS))
        goto failed;

    LogWrite("Opening communication pipe...\n");
    pipe = CreateFileA(DAEMON_PIPE_NAME, GENERIC_READ | GENERIC_WRITE, 0, NULL, OPEN_EXISTING, 0, NULL);
    if (pipe == INVALID_HANDLE_VALUE)
        goto failed;

    AppendText(request, REQUEST_SIZE, kEndMark);
    LogWrite("Sending message [%s] to daemon...\n", request);
    // The handle is synchronous: the write has finished when WriteFile
    // returns, and GetOverlappedResult only collects its outcome.
    WriteFile(pipe, request, (DWORD)strlen(request), NULL, &overlapped);
    if (!GetOverlappedResult(pipe, &overlapped, &written, TRUE))
        goto failed;

    if (reply == NULL || replySize <= 0)
        goto answered;  // send and forget

    LogWrite("Setting up overlapped mode...\n");
    event = CreateEventA(NULL, FALSE, FALSE, NULL);
    if (event == INVALID_HANDLE_VALUE) {
        event = NULL;
        goto failed;
    }
    overlapped.hEvent = event;
    LogWrite("Reading response from daemon...\n");
    reply[0] = 0;

    for (;;) {
        const ReplyMark *found = NULL;
        if (event != NULL)
            ResetEvent(event);
        // A buffer filled to its last byte without a mark: the reply is
        // longer than the caller can take.
        if ((DWORD)replySize - 1 <= offset) {
            SetLastError(ERROR_MORE_DATA);
            goto failed;
        }
        if (!ReadFile(pipe, reply + offset, (DWORD)replySize - 1 - offset, NULL, &overlapped) &&
            GetLastError() != ERROR_IO_PENDING)
            goto failed;
        if (!GetOverlappedResult(pipe, &overlapped, &count, TRUE) || count == 0)
            goto failed;
        // Terminated right behind this read, so the search never runs past it.
        reply[offset + count] = 0;
        for (const ReplyMark &mark : replyMarks) {
            if (strstr(reply + offset, mark.text) != NULL) {
                found = &mark;
                break;
            }
        }
        if (found != NULL) {
            // Cut as many bytes from the end of this read as the mark is
            // long, wherever in the read the mark stood.
            reply[offset + count - found->length] = 0;
            if (exitCode != NULL)
                *exitCode = found->exitCode;
            break;
        }
        offset += count;
    }

answered:
    LogWrite("Daemon response [%s]\n", reply != NULL ? reply : "");
    result = 0;
    goto closing;

failed:
    LogReport("ERROR: Cannot send message to daemon.\nError code is : %d.\n", (int)GetLastError());

closing:
    if (pipe != NULL && pipe != INVALID_HANDLE_VALUE) {
        DisconnectNamedPipe(pipe);  // a server's call: fails on this end, and that is fine
        CloseHandle(pipe);
    }
    if (event != NULL)
        CloseHandle(event);
    LogLeave("DaemonSend");
    return result;
}

int DaemonSend(int *exitCode, char *reply, int replySize, const char *format, ...)
{
    char request[REQUEST_SIZE];
    va_list args;

    va_start(args, format);
    if (vsnprintf(request, DAEMON_SEND_LIMIT + 1, format, args) < 0)
        request[0] = 0;
    va_end(args);
    return SendRequest(exitCode, reply, replySize, request);
}

int DaemonSendText(int *exitCode, char *reply, int replySize, const char *text)
{
    char request[REQUEST_SIZE];

    CopyText(request, DAEMON_SEND_LIMIT + 1, text != NULL ? text : "");
    return SendRequest(exitCode, reply, replySize, request);
}

int DaemonIsRunning(int quiet)
{
    SERVICE_STATUS status;
    int result;

    LogEnter("DaemonIsRunning");
    ZeroMemory(&status, sizeof status);
    if (ServiceGetStatus(&status, DAEMON_SERVICE_NAME, quiet) != 0)
        result = -1;
    else
        result = status.dwCurrentState == SERVICE_RUNNING ? 0 : 1;
    LogWrite("Daemon check status : [%d]\n", result);
    LogLeave("DaemonIsRunning");
    return result;
}
