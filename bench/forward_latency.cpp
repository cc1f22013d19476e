// Median wall time of one `--servicestatusget tzdeviced` forwarded to the
// daemon (with --daemonmodeforce) against the same command run locally, plus
// the pieces in between: a bare pipe round trip ("STOP", no worker) and an
// empty request (one worker, no command). The daemon must be installed and
// running. Usage: bench_forward_latency.exe [runs]
#include <windows.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "daemon/daemon.h"

static double Now()
{
    static LARGE_INTEGER frequency;
    LARGE_INTEGER counter;
    if (frequency.QuadPart == 0)
        QueryPerformanceFrequency(&frequency);
    QueryPerformanceCounter(&counter);
    return (double)counter.QuadPart * 1000.0 / (double)frequency.QuadPart;
}

static std::string ToolPath()
{
    char path[MAX_PATH] = {0};
    GetModuleFileNameA(NULL, path, MAX_PATH);
    char *slash = strrchr(path, '\\');
    if (slash)
        slash[1] = 0;
    return std::string(path) + "tzdevice.exe";
}

// Runs the tool with `tail` behind its quoted path; returns milliseconds.
static double RunTool(const std::string &tail, DWORD *exitCode)
{
    std::string line = "\"" + ToolPath() + "\" " + tail;
    STARTUPINFOA startup;
    PROCESS_INFORMATION process;
    ZeroMemory(&startup, sizeof startup);
    ZeroMemory(&process, sizeof process);
    startup.cb = sizeof startup;
    HANDLE nul = CreateFileA("NUL", GENERIC_WRITE, FILE_SHARE_WRITE, NULL, OPEN_EXISTING, 0, NULL);
    SetHandleInformation(nul, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = nul;
    startup.hStdError = nul;
    std::vector<char> buffer(line.begin(), line.end());
    buffer.push_back(0);
    double start = Now();
    if (!CreateProcessA(NULL, buffer.data(), NULL, NULL, TRUE, 0, NULL, NULL, &startup, &process)) {
        CloseHandle(nul);
        return -1;
    }
    WaitForSingleObject(process.hProcess, INFINITE);
    double spent = Now() - start;
    GetExitCodeProcess(process.hProcess, exitCode);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    CloseHandle(nul);
    return spent;
}

// One raw request on the pipe, read to the disconnect; milliseconds.
static double RawRequest(const char *bytes)
{
    double start = Now();
    if (!WaitNamedPipeA(DAEMON_PIPE_NAME, 30000))
        return -1;
    HANDLE pipe = CreateFileA(DAEMON_PIPE_NAME, GENERIC_READ | GENERIC_WRITE, 0, NULL, OPEN_EXISTING, 0, NULL);
    if (pipe == INVALID_HANDLE_VALUE)
        return -1;
    DWORD count = 0;
    WriteFile(pipe, bytes, (DWORD)strlen(bytes), &count, NULL);
    char reply[4096];
    while (ReadFile(pipe, reply, sizeof reply, &count, NULL) && count > 0) {
    }
    CloseHandle(pipe);
    return Now() - start;
}

static double Median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[values.size() / 2];
}

int main(int argc, char **argv)
{
    int runs = argc > 1 ? atoi(argv[1]) : 21;
    if (runs < 1)
        runs = 21;
    std::vector<double> local, forwarded, bare, empty;
    DWORD code = 0;
    for (int i = 0; i < runs; i++) {
        local.push_back(RunTool("--servicestatusget tzdeviced", &code));
        if (code != 0)
            printf("local run %d exited %lu\n", i, code);
        forwarded.push_back(RunTool("--daemonmodeforce --servicestatusget tzdeviced", &code));
        if (code != 0)
            printf("forwarded run %d exited %lu\n", i, code);
        bare.push_back(RawRequest("STOP__END__"));
        empty.push_back(RawRequest("__END__"));
    }
    printf("runs: %d\n", runs);
    printf("local     --servicestatusget : %8.1f ms median\n", Median(local));
    printf("forwarded --servicestatusget : %8.1f ms median\n", Median(forwarded));
    printf("raw pipe round trip (STOP)   : %8.1f ms median\n", Median(bare));
    printf("raw empty request (1 worker) : %8.1f ms median\n", Median(empty));
    return 0;
}
