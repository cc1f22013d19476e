// Running one forwarded command in a worker: a new run of this program, with
// the daemon's rights and the client's pipe as its standard output and error.
#include <windows.h>

#include <stdio.h>
#include <string.h>

#include <string>

#include "daemon/daemon_internal.h"
#include "support/log.h"

// One word as the worker's runtime reads it back: in double quotes, with the
// backslashes in front of the closing quote doubled. Words from the request
// never hold a double quote, since the request is split at them.
static std::string QuotedWord(const char *word)
{
    std::string quoted = "\"";
    quoted += word;
    size_t end = quoted.size();
    while (end > 1 && quoted[end - 1] == '\\')
        end--;
    quoted.append(quoted.size() - end, '\\');
    quoted += "\" ";
    return quoted;
}

int BuildWorkerCommandLine(char *out, size_t size, const char *modulePath, int argc, char **argv)
{
    static const char kNoDaemon[] = "\"--nodaemon\" ";
    int forwardFlag = 0;
    for (int i = 1; i < argc; i++)
        if (argv[i] != NULL && strcmp(argv[i], "--daemonmodeforce") == 0)
            forwardFlag = 1;

    int cut = CopyText(out, size, modulePath);
    cut |= AppendText(out, size, " ");
    // Room kept back for the closing flag, which must not be cut away.
    size_t reserve = forwardFlag ? sizeof kNoDaemon - 1 : 0;
    for (int i = 1; i < argc && !cut; i++) {
        std::string word = QuotedWord(argv[i] ? argv[i] : "");
        if (strlen(out) + word.size() + reserve >= size) {
            cut = 1;
            break;
        }
        AppendText(out, size, word.c_str());
    }
    if (forwardFlag)
        cut |= AppendText(out, size, kNoDaemon);
    return cut;
}

int WorkerWait(HANDLE process, DWORD pid, DWORD limitMs, FILE *replyStream)
{
    DWORD code = 1;

    if (WaitForSingleObject(process, limitMs) == WAIT_OBJECT_0) {
        GetExitCodeProcess(process, &code);
        return (int)code;
    }
    LogWrite("ERROR : child worker timeout.\nSending SIGINT to child [pid = %d]...\n", (int)pid);
    if (replyStream != NULL)
        fputs("ERROR : child worker timeout.\n", replyStream);
    // The worker has a process group of its own, so only it gets the break.
    GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT, pid);
    if (WaitForSingleObject(process, WORKER_BREAK_GRACE_MS) == WAIT_TIMEOUT) {
        LogWrite("Terminating child [pid = %d]...\n", (int)pid);
        if (!TerminateProcess(process, 1))
            LogWrite("ERROR: Cannot terminate worker.\nError code is : %d.\n", (int)GetLastError());
    }
    return -1;
}
