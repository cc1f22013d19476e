// A raw client of the daemon's pipe for the hostile tests: it writes whatever
// bytes a test gives it, in as many writes as it likes, and reads the reply
// with a time limit, so that a daemon which never answers fails the test
// instead of hanging it. Also the handle and liveness checks that every
// hostile case ends with.
#pragma once

#include <windows.h>

#include <string>

#include "harness.h"

namespace hostile {

const char *const kPipe = "\\\\.\\pipe\\tzdevice-bc72a506-0e0c-4bff-b6f8-c2b6aa32e906";
const char *const kService = "tzdeviced";

struct Reply {
    std::string bytes;     // everything read, markers included
    bool ok = false;       // ended in "__OK__"
    bool fail = false;     // ended in "__FAIL__"
    bool closed = false;   // the server broke the connection
    bool timedOut = false; // nothing ended the reply within the limit
    DWORD error = 0;       // the error that ended the reading
};

// Opens one client end, overlapped so that every transfer can be bounded.
// Returns INVALID_HANDLE_VALUE when no instance was free within `waitMs`.
inline HANDLE Connect(DWORD waitMs = 30000)
{
    DWORD start = GetTickCount();
    for (;;) {
        HANDLE pipe = CreateFileA(kPipe, GENERIC_READ | GENERIC_WRITE, 0, NULL, OPEN_EXISTING, FILE_FLAG_OVERLAPPED,
                                  NULL);
        if (pipe != INVALID_HANDLE_VALUE)
            return pipe;
        DWORD spent = GetTickCount() - start;
        if (spent >= waitMs)
            return INVALID_HANDLE_VALUE;
        // Busy instances: queue like the real client does; no pipe yet: poll.
        if (!WaitNamedPipeA(kPipe, waitMs - spent))
            Sleep(50);
    }
}

// One overlapped transfer bounded by `timeoutMs`; cancelled when it runs out.
// Returns true when it completed; `done` gets the byte count.
inline bool Transfer(HANDLE pipe, bool write, void *data, DWORD size, DWORD timeoutMs, DWORD *done, DWORD *error)
{
    OVERLAPPED overlapped = {};
    overlapped.hEvent = CreateEventA(NULL, TRUE, FALSE, NULL);
    *done = 0;
    *error = 0;
    BOOL started = write ? WriteFile(pipe, data, size, NULL, &overlapped) : ReadFile(pipe, data, size, NULL, &overlapped);
    DWORD code = started ? 0 : GetLastError();
    bool completed = false;
    if (started || code == ERROR_IO_PENDING || code == ERROR_MORE_DATA) {
        if (WaitForSingleObject(overlapped.hEvent, timeoutMs) != WAIT_OBJECT_0) {
            CancelIo(pipe);
            GetOverlappedResult(pipe, &overlapped, done, TRUE);
            *error = WAIT_TIMEOUT;
        } else if (GetOverlappedResult(pipe, &overlapped, done, FALSE) || GetLastError() == ERROR_MORE_DATA) {
            completed = true;
        } else {
            *error = GetLastError();
        }
    } else {
        *error = code;
    }
    CloseHandle(overlapped.hEvent);
    return completed;
}

inline bool Send(HANDLE pipe, const std::string &bytes, DWORD timeoutMs = 10000)
{
    DWORD done = 0, error = 0;
    return Transfer(pipe, true, (void *)bytes.data(), (DWORD)bytes.size(), timeoutMs, &done, &error) &&
           done == bytes.size();
}

// Reads until a marker ends the reply, the server breaks the connection, or
// `timeoutMs` has passed in all. The markers are searched in the whole reply
// so far, so a marker split over two reads is still seen.
inline Reply ReadReply(HANDLE pipe, DWORD timeoutMs = 60000)
{
    Reply reply;
    DWORD start = GetTickCount();
    char chunk[4096];
    for (;;) {
        DWORD spent = GetTickCount() - start;
        if (spent >= timeoutMs) {
            reply.timedOut = true;
            return reply;
        }
        DWORD count = 0, error = 0;
        if (!Transfer(pipe, false, chunk, sizeof chunk, timeoutMs - spent, &count, &error)) {
            reply.bytes.append(chunk, count);
            reply.error = error;
            if (error == WAIT_TIMEOUT)
                reply.timedOut = true;
            else
                reply.closed = true;
            break;
        }
        reply.bytes.append(chunk, count);
        size_t size = reply.bytes.size();
        if (size >= 6 && reply.bytes.compare(size - 6, 6, "__OK__") == 0) {
            reply.ok = true;
            break;
        }
        if (size >= 8 && reply.bytes.compare(size - 8, 8, "__FAIL__") == 0) {
            reply.fail = true;
            break;
        }
    }
    return reply;
}

// Connect, send one request as it stands (no marker added), read the reply.
inline Reply Exchange(const std::string &request, DWORD timeoutMs = 60000)
{
    Reply reply;
    HANDLE pipe = Connect();
    if (pipe == INVALID_HANDLE_VALUE) {
        reply.error = GetLastError();
        reply.closed = true;
        return reply;
    }
    if (Send(pipe, request))
        reply = ReadReply(pipe, timeoutMs);
    else
        reply.closed = true;
    CloseHandle(pipe);
    return reply;
}

// Quotes words the way the command tool does: each in double quotes, one blank after.
inline std::string Quoted(std::initializer_list<std::string> words)
{
    std::string text;
    for (const std::string &word : words)
        text += "\"" + word + "\" ";
    return text;
}

inline DWORD DaemonPid()
{
    return ServicePid(kService);
}

// Waits until the daemon's handle count is no more than `limit`; returns the
// last count seen. Workers and client threads finish a moment after their
// reply, so a count is only meaningful once it has settled.
inline long SettledHandleCount(DWORD pid, long limit, DWORD timeoutMs = 5000)
{
    long count = CountProcessHandles(pid);
    for (DWORD waited = 0; count > limit && waited < timeoutMs; waited += 100) {
        Sleep(100);
        count = CountProcessHandles(pid);
    }
    return count;
}

// A normal forwarded command, as any caller runs it.
inline RunResult ForwardedStatus()
{
    return RunTool({"--daemonmodeforce", "--servicestatusget", kService});
}

}  // namespace hostile
