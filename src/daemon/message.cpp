// Serving one client of the daemon's pipe: read the request, let the parser
// in service mode decide whether it is allowed, run it, and end the reply
// with "__OK__" or "__FAIL__".
//
// A command runs on this thread when the parser sets directMode (it needs the
// daemon's memory); every other command runs in a worker process that writes
// straight into the pipe.
#include <windows.h>

#include <fcntl.h>
#include <io.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "daemon/daemon.h"
#include "daemon/daemon_internal.h"
#include "frontend/frontend.h"
#include "support/log.h"

static const char kEndMark[] = "__END__";
enum { END_MARK_LENGTH = sizeof kEndMark - 1 };

static const char kCannotProcess[] = "ERROR: Cannot process command.\nError code is : %d.\nWorker exit code is : %d.\n";

// Reads one request into `buffer` (DAEMON_REQUEST_BUFFER bytes) and cuts the
// end mark off. The end mark is looked for in each read from where that read
// starts. 0, or -1 with the thread's last error telling why: the platform's
// error, ERROR_MORE_DATA for a request too long, WAIT_TIMEOUT for a client
// that has not sent its whole request within REQUEST_IDLE_MS.
static int ReadRequest(HANDLE pipe, HANDLE event, char *buffer)
{
    ULONGLONG deadline = GetTickCount64() + REQUEST_IDLE_MS;
    DWORD total = 0;

    for (;;) {
        OVERLAPPED overlapped;
        DWORD count = 0;
        ZeroMemory(&overlapped, sizeof overlapped);
        overlapped.hEvent = event;
        ResetEvent(event);
        if (!ReadFile(pipe, buffer + total, REQUEST_READ_LIMIT - total, NULL, &overlapped) &&
            GetLastError() != ERROR_IO_PENDING)
            return -1;  // ERROR_MORE_DATA among others: a request too long for the buffer

        ULONGLONG now = GetTickCount64();
        DWORD left = now < deadline ? (DWORD)(deadline - now) : 0;
        if (WaitForSingleObject(event, left) != WAIT_OBJECT_0) {
            CancelIo(pipe);
            GetOverlappedResult(pipe, &overlapped, &count, TRUE);  // the read has let go of the buffer
            SetLastError(WAIT_TIMEOUT);
            return -1;
        }
        if (!GetOverlappedResult(pipe, &overlapped, &count, FALSE) || count == 0)
            return -1;

        buffer[total + count] = 0;  // the search stops at the end of this read
        if (strstr(buffer + total, kEndMark) != NULL) {
            buffer[total + count - END_MARK_LENGTH] = 0;
            return 0;
        }
        total += count;
        if (total >= REQUEST_READ_LIMIT) {
            SetLastError(ERROR_MORE_DATA);
            return -1;
        }
    }
}

// A text stream over a duplicate of the pipe handle, so that closing the
// stream leaves the pipe itself open. Null on failure, last error set.
static FILE *OpenReplyStream(HANDLE pipe)
{
    HANDLE copy = NULL;
    if (!DuplicateHandle(GetCurrentProcess(), pipe, GetCurrentProcess(), &copy, 0, FALSE, DUPLICATE_SAME_ACCESS))
        return NULL;
    int descriptor = _open_osfhandle((intptr_t)copy, _O_TEXT);
    if (descriptor == -1) {
        DWORD code = GetLastError();
        CloseHandle(copy);
        SetLastError(code ? code : ERROR_TOO_MANY_OPEN_FILES);
        return NULL;
    }
    FILE *stream = _fdopen(descriptor, "wt");
    if (stream == NULL) {
        _close(descriptor);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    }
    return stream;
}

// Runs the command on this thread, with what it prints for the user going
// into `replyStream`. Only this thread's output is pointed there, so direct
// commands of several clients at once each answer their own client.
static int RunDirect(int argc, char **argv, FILE *replyStream)
{
    SetThreadStreams(replyStream, replyStream);
    int result = ProcessCommand(argc, argv);
    fflush(replyStream);
    SetThreadStreams(NULL, NULL);
    return result;
}

// A client that does not take its reply would hold its instance for ever:
// every write into the pipe waits for the reader. When the reply is not
// done by its deadline, the client is disconnected, which ends those writes.
static VOID CALLBACK ReplyDeadline(PVOID pipe, BOOLEAN)
{
    LogWrite("ERROR: Client did not take its reply in time, disconnecting.\n");
    CancelIoEx((HANDLE)pipe, NULL);
    DisconnectNamedPipe((HANDLE)pipe);
}

// Starts a worker on the words that passed the rights check, with the pipe as
// its output, and waits for it. 0 with *workerResult set, or -1 with the
// error of CreateProcessA.
static int RunWorker(HANDLE pipe, int argc, char **argv, FILE *replyStream, int *workerResult)
{
    static char desktop[] = "winsta0\\default";
    STARTUPINFOA startup;
    PROCESS_INFORMATION process;
    char modulePath[MAX_PATH];
    char commandLine[WORKER_COMMAND_LINE_SIZE];
    static_assert(sizeof(STARTUPINFOA) == 104, "the worker's startup record is 104 bytes");

    ZeroMemory(&startup, sizeof startup);
    ZeroMemory(&process, sizeof process);
    ZeroMemory(modulePath, sizeof modulePath);
    startup.cb = sizeof startup;
    startup.lpDesktop = desktop;
    startup.dwFlags = STARTF_USESTDHANDLES | STARTF_USESHOWWINDOW;
    startup.wShowWindow = SW_HIDE;
    startup.hStdOutput = pipe;
    startup.hStdError = pipe;

    GetModuleFileNameA(NULL, modulePath, MAX_PATH);
    if (BuildWorkerCommandLine(commandLine, sizeof commandLine, modulePath, argc, argv))
        LogWrite("WARNING: Worker command line cut to %d characters.\n", (int)strlen(commandLine));
    LogWrite("Executing [%s]...\n", commandLine);

    if (!CreateProcessA(NULL, commandLine, NULL, NULL, TRUE, CREATE_NEW_PROCESS_GROUP | NORMAL_PRIORITY_CLASS, NULL,
                        NULL, &startup, &process))
        return -1;
    *workerResult = WorkerWait(process.hProcess, process.dwProcessId, WORKER_TIMEOUT_MS, replyStream);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    return 0;
}

DWORD WINAPI DaemonProcessMessage(LPVOID index)
{
    struct PipeInstance *instance = &pipeInstances[(uintptr_t)index % DAEMON_PIPE_INSTANCES];
    HANDLE pipe = instance->handle;
    char messageBuffer[DAEMON_REQUEST_BUFFER];
    struct CommandOptions options;
    int workerResult = 1;
    int argc = 0;
    char **argv = NULL;
    FILE *replyStream = NULL;
    HANDLE event = NULL;
    HANDLE deadline = NULL;
    DWORD threadCode = (DWORD)-1;

    LogEnter("DaemonProcessMessage");
    ZeroMemory(messageBuffer, sizeof messageBuffer);
    ZeroMemory(&options, sizeof options);
    CommandOptionsInit(&options);

    LogWrite("Setting up overlapped mode...\n");
    event = CreateEventA(NULL, FALSE, FALSE, NULL);
    if (event == NULL || event == INVALID_HANDLE_VALUE) {
        event = NULL;
        goto failed;
    }
    LogWrite("Reading string message...\n");
    if (ReadRequest(pipe, event, messageBuffer) != 0)
        goto failed;
    LogWrite("Received string message [%s]...\n", messageBuffer);
    if (!CreateTimerQueueTimer(&deadline, NULL, ReplyDeadline, pipe, REPLY_DEADLINE_MS, 0, WT_EXECUTEONLYONCE))
        deadline = NULL;

    // From here on the failure path can answer the client.
    replyStream = OpenReplyStream(pipe);
    if (replyStream == NULL)
        goto failed;

    // "STOP" needs no action: the control handler does the stopping.
    if (strcmp(messageBuffer, "STOP") != 0) {
        SplitQuotedArgs(&argc, &argv, messageBuffer);
        // The rights check: in service mode the parser refuses what an
        // unprivileged caller may not ask for.
        if (ParseCommandLine(&options, argc, argv) != 0) {
            fputs("ERROR: This command needs administrator rights.\n", replyStream);
        } else if (options.directMode) {
            LogWrite("Falling into direct mode.\n");
            workerResult = RunDirect(argc, argv, replyStream);
        } else if (RunWorker(pipe, argc, argv, replyStream, &workerResult) != 0) {
            goto failed;
        }
    }

    FlushFileBuffers(pipe);
    fputs(workerResult != 0 ? "__FAIL__" : "__OK__", replyStream);
    fflush(replyStream);
    threadCode = 0;
    goto finished;

failed : {
    int code = (int)GetLastError();
    LogWrite(kCannotProcess, code, workerResult);
    if (replyStream != NULL) {
        fprintf(replyStream, kCannotProcess, code, workerResult);
        fflush(replyStream);
    }
}

finished:
    if (replyStream != NULL)
        fclose(replyStream);  // closes the duplicate only
    FlushFileBuffers(pipe);
    // Waits for a deadline that is firing, so it can't touch the next client.
    if (deadline != NULL)
        DeleteTimerQueueTimer(NULL, deadline, INVALID_HANDLE_VALUE);
    DisconnectNamedPipe(pipe);
    FreeArgs(argc, argv);
    if (event != NULL)
        CloseHandle(event);
    // Hand the instance back: the loop listens on it again.
    instance->needsReset = 1;
    SetEvent(pipeEvents[instance - pipeInstances]);
    LogLeave("DaemonProcessMessage");
    ExitThread(threadCode);
}
