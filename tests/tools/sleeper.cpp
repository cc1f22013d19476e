// A parent that outlives its child: runs the rest of its own command line as
// a child process with the same standard handles and environment, waits for
// it, and then sleeps until it is killed. Tests use it as a process that owns
// what the child registered, and end it to see what happens to that.
#include <windows.h>

#include <string.h>

int main()
{
    // The tail of our own command line, after the program's (maybe quoted) path.
    const char *line = GetCommandLineA();
    if (*line == '"') {
        line = strchr(line + 1, '"');
        line = line ? line + 1 : "";
    } else {
        while (*line && *line != ' ' && *line != '\t')
            line++;
    }
    while (*line == ' ' || *line == '\t')
        line++;

    if (*line) {
        char child[32768];
        lstrcpynA(child, line, sizeof child);
        STARTUPINFOA startup;
        ZeroMemory(&startup, sizeof startup);
        startup.cb = sizeof startup;
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
        startup.hStdOutput = GetStdHandle(STD_OUTPUT_HANDLE);
        startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
        PROCESS_INFORMATION process;
        if (CreateProcessA(NULL, child, NULL, NULL, TRUE, 0, NULL, NULL, &startup, &process)) {
            WaitForSingleObject(process.hProcess, INFINITE);
            CloseHandle(process.hThread);
            CloseHandle(process.hProcess);
        }
    }
    for (;;)
        Sleep(INFINITE);
}
