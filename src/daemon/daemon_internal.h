// What the files of the daemon share among themselves: the pipe instances of
// the service host, the limits of one request, and the worker's steps that the
// tests drive on their own.
#pragma once

#include <windows.h>

#include <stddef.h>
#include <stdio.h>

#include "daemon/daemon.h"

enum {
    REQUEST_READ_LIMIT = DAEMON_REQUEST_BUFFER - 1,  // bytes of one request, end mark included
    REQUEST_IDLE_MS = 120000,     // a client must have sent its whole request by then
    WORKER_TIMEOUT_MS = 120000,   // a worker's run
    WORKER_BREAK_GRACE_MS = 100,  // after the break event, before the worker is terminated
    WORKER_COMMAND_LINE_SIZE = 520,
    REPLY_DEADLINE_MS = 240000,  // from the request to the end of the reply: the worker's run and as long again
};

// One instance of the daemon's pipe. needsReset is 1 while the instance is
// idle and must be listened on, 0 while a listen is pending or a client is
// being served. The client's thread writes it before it sets the event, and
// the loop reads it after the wait, so the event orders the two.
struct PipeInstance {
    OVERLAPPED overlapped;
    HANDLE handle;
    int needsReset;
};

extern struct PipeInstance pipeInstances[DAEMON_PIPE_INSTANCES];
// The instances' events, then the stop event: the array the loop waits on.
extern HANDLE pipeEvents[DAEMON_PIPE_INSTANCES + 1];

// The worker's command line: the program's path, one blank, then each word
// that passed the rights check (argv[1] to argv[argc-1]) as a double quote,
// the word, a double quote and a blank, so that the worker's runtime gives
// back exactly those words (backslashes in front of the closing quote are
// doubled). A request that carried "--daemonmodeforce" gets "--nodaemon"
// behind its words, so the worker never forwards again. Whole words only are
// kept when the line would not fit in `size` bytes with its terminating zero.
// Returns 1 when words were left out.
int BuildWorkerCommandLine(char *out, size_t size, const char *modulePath, int argc, char **argv);

// Waits up to `limitMs` for a started worker and gives its exit code. A worker
// that is still running then gets the break event, 100 ms more, and is
// terminated; the timeout line goes to `replyStream` (if any) and the result
// is -1. Closes no handle.
int WorkerWait(HANDLE process, DWORD pid, DWORD limitMs, FILE *replyStream);
