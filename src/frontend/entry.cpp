// Program entry: the service face with --servicemode alone, else the command
// tool, which runs its one command here or forwards it to the daemon.
#include <windows.h>

#include <fcntl.h>
#include <io.h>
#include <stdio.h>
#include <string.h>

#include "daemon/daemon.h"
#include "frontend/frontend.h"
#include "support/log.h"
#include "support/security.h"

static int ServiceModeMain(void)
{
    char baseDirectory[MAX_PATH];
    int exitCode = -1;

    memset(baseDirectory, 0, sizeof baseDirectory);
    ServiceMode = 1;
    LogSetFile(LogFilePath("tzdeviced.log"));
    LogWrite("\n\nTZDEVICED64-4.0.368\n");
    LogWrite("[Build Dec 12 2013 17:25:01]\n");

    // The service works in the program's directory when it can; it starts
    // all the same when it cannot.
    if (ExpandRelativePath(baseDirectory, sizeof baseDirectory, NULL, 0) == 0) {
        LogWrite("Setting current directory to [%s]...\n", baseDirectory);
        if (!SetCurrentDirectoryA(baseDirectory))
            LogWrite("WARNING: Cannot to set base directory.\nError code is : %d.\n", (int)GetLastError());
    }

    exitCode = DaemonEntry();
    LogWrite("Exit code : %d\n", exitCode);
    return exitCode;
}

// Local for an administrator (unless --daemonmodeforce), when no daemon
// runs, or with --nodaemon; otherwise in the daemon.
static int RunsLocally(void)
{
    if (!CommandOptions.forceDaemon && CheckForAdmin() == 0)
        return 1;
    if (DaemonIsRunning(1) != 0)
        return 1;
    return CommandOptions.noDaemon ? 1 : 0;
}

static int CommandModeMain(int argc, char **argv)
{
    static char commandString[COMMAND_STRING_SIZE];
    static char replyBuffer[REPLY_BUFFER_SIZE];
    int exitCode = -1;

    LogSetFile(LogFilePath("tzdevice.log"));
    LogWrite("\n\nTZDEVICE64-4.0.368\n");
    LogWrite("[Build Dec 12 2013 17:25:01]\n");

    // A bad command line does not stop the decision: ProcessCommand parses
    // the same words again and reports it.
    ParseCommandLine(&CommandOptions, argc, argv);

    if (RunsLocally()) {
        exitCode = ProcessCommand(argc, argv);
    } else {
        memset(replyBuffer, 0, sizeof replyBuffer);
        BuildCommandString(commandString, sizeof commandString, argc, argv, &CommandOptions);
        // The string is sent as text: a percent sign in a word stays a percent sign.
        if (DaemonSendText(&exitCode, replyBuffer, (int)sizeof replyBuffer, commandString) == 0) {
            replyBuffer[sizeof replyBuffer - 1] = 0;
            // The reply's lines already end in CR LF: write its bytes as they stand.
            fflush(stdout);
            int mode = _setmode(_fileno(stdout), _O_BINARY);
            printf("%s", replyBuffer);
            fflush(stdout);
            if (mode != -1)
                _setmode(_fileno(stdout), mode);
        }
    }
    LogWrite("Exit code : %d\n", exitCode);
    return exitCode;
}

int EntryMain(int argc, char **argv)
{
    if (argc == 2 && argv[1] != NULL && strcmp(argv[1], "--servicemode") == 0)
        return ServiceModeMain();
    return CommandModeMain(argc, argv);
}
