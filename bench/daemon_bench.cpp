// What forwarding through the daemon costs, and whether the daemon keeps its
// size over many requests. Run by scripts/bench with the daemon installed
// and running; prints one table.
//
//   bench_daemon_bench.exe [--samples N] [--requests N] [--seconds N] [--bulkclients N]
//
// - wall time of a cheap command run locally, the same command forwarded
//   through the daemon, and a bare process start (median and 99th percentile);
// - requests per second with 1, 4, 16 and 32 raw pipe clients (32 is more
//   than the 16 pipe instances: the rest queue in WaitNamedPipeA);
// - the daemon's handle count and private bytes before and after a bulk of
//   forwarded requests (10,000 by default).
#include <windows.h>
#include <psapi.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

const char *const kPipe = "\\\\.\\pipe\\tzdevice-bc72a506-0e0c-4bff-b6f8-c2b6aa32e906";
const char *const kService = "tzdeviced";
const char *const kRequest = "\"--servicestatusget\" \"tzdeviced\" __END__";

double Now()
{
    static LARGE_INTEGER frequency = {};
    if (frequency.QuadPart == 0)
        QueryPerformanceFrequency(&frequency);
    LARGE_INTEGER counter;
    QueryPerformanceCounter(&counter);
    return (double)counter.QuadPart * 1000.0 / (double)frequency.QuadPart;
}

std::string ProgramDir()
{
    char path[MAX_PATH] = {0};
    GetModuleFileNameA(NULL, path, sizeof path - 1);
    char *slash = strrchr(path, '\\');
    if (slash)
        *slash = 0;
    return path;
}

// Runs a command line with its output thrown away; returns the wall time in
// milliseconds, or a negative number when it could not start or failed.
double TimedRun(const std::string &commandLine, DWORD expectedExit)
{
    SECURITY_ATTRIBUTES inherit = {sizeof inherit, NULL, TRUE};
    HANDLE nul = CreateFileA("NUL", GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit, OPEN_EXISTING, 0,
                             NULL);
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = nul;
    startup.hStdError = nul;
    PROCESS_INFORMATION process = {};
    std::vector<char> line(commandLine.begin(), commandLine.end());
    line.push_back(0);
    double start = Now();
    double result = -1;
    if (CreateProcessA(NULL, line.data(), NULL, NULL, TRUE, 0, NULL, NULL, &startup, &process)) {
        WaitForSingleObject(process.hProcess, 120000);
        result = Now() - start;
        DWORD code = 0;
        GetExitCodeProcess(process.hProcess, &code);
        if (code != expectedExit)
            result = -1;
        CloseHandle(process.hThread);
        CloseHandle(process.hProcess);
    }
    CloseHandle(nul);
    return result;
}

struct Stats {
    double median = 0;
    double p99 = 0;
    int failures = 0;
};

Stats Summarise(std::vector<double> samples, int failures)
{
    Stats stats;
    stats.failures = failures;
    if (samples.empty())
        return stats;
    std::sort(samples.begin(), samples.end());
    stats.median = samples[samples.size() / 2];
    size_t index = (size_t)((samples.size() - 1) * 0.99 + 0.5);
    stats.p99 = samples[std::min(index, samples.size() - 1)];
    return stats;
}

// One raw client request, read to its marker. True for "__OK__".
bool PipeRequest()
{
    HANDLE pipe = INVALID_HANDLE_VALUE;
    for (int attempt = 0; attempt < 100 && pipe == INVALID_HANDLE_VALUE; attempt++) {
        if (!WaitNamedPipeA(kPipe, 30000))
            continue;
        pipe = CreateFileA(kPipe, GENERIC_READ | GENERIC_WRITE, 0, NULL, OPEN_EXISTING, 0, NULL);
    }
    if (pipe == INVALID_HANDLE_VALUE)
        return false;
    DWORD written = 0;
    bool ok = false;
    if (WriteFile(pipe, kRequest, (DWORD)strlen(kRequest), &written, NULL)) {
        std::string reply;
        char chunk[1024];
        DWORD got = 0;
        while (ReadFile(pipe, chunk, sizeof chunk, &got, NULL) && got > 0) {
            reply.append(chunk, got);
            if (reply.size() >= 6 && reply.compare(reply.size() - 6, 6, "__OK__") == 0) {
                ok = true;
                break;
            }
            if (reply.size() >= 8 && reply.compare(reply.size() - 8, 8, "__FAIL__") == 0)
                break;
        }
    }
    CloseHandle(pipe);
    return ok;
}

struct Load {
    long done = 0;
    long failed = 0;
    double seconds = 0;
};

// `clients` threads send requests until `total` have been sent or `seconds`
// have passed (whichever is given).
Load RunLoad(int clients, long total, double seconds)
{
    std::atomic<long> issued(0), done(0), failed(0);
    double start = Now();
    double deadline = start + seconds * 1000.0;
    std::vector<std::thread> threads;
    for (int i = 0; i < clients; i++) {
        threads.emplace_back([&] {
            for (;;) {
                if (total > 0 ? issued.fetch_add(1) >= total : Now() >= deadline)
                    return;
                (PipeRequest() ? done : failed)++;
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    Load load;
    load.done = done;
    load.failed = failed;
    load.seconds = (Now() - start) / 1000.0;
    return load;
}

DWORD DaemonPid()
{
    DWORD pid = 0;
    SC_HANDLE manager = OpenSCManagerA(NULL, NULL, SC_MANAGER_CONNECT);
    SC_HANDLE service = manager ? OpenServiceA(manager, kService, SERVICE_QUERY_STATUS) : NULL;
    SERVICE_STATUS_PROCESS status;
    DWORD needed = 0;
    if (service && QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, (BYTE *)&status, sizeof status, &needed))
        pid = status.dwProcessId;
    if (service)
        CloseServiceHandle(service);
    if (manager)
        CloseServiceHandle(manager);
    return pid;
}

// Entries of `pid` in the system handle list (information class 16); the
// platform's own handle count of another process is not to be relied on.
long CountHandles(DWORD pid)
{
    struct Entry {
        ULONG ProcessId;
        UCHAR ObjectTypeNumber;
        UCHAR Flags;
        USHORT Handle;
        PVOID Object;
        ACCESS_MASK GrantedAccess;
    };
    typedef LONG(WINAPI * QueryFn)(ULONG, PVOID, ULONG, PULONG);
    QueryFn query = (QueryFn)(void *)GetProcAddress(GetModuleHandleA("ntdll.dll"), "ZwQuerySystemInformation");
    if (!query)
        return -1;
    std::vector<char> buffer(1 << 20);
    for (int attempt = 0; attempt < 8; attempt++) {
        ULONG needed = 0;
        LONG status = query(16, buffer.data(), (ULONG)buffer.size(), &needed);
        if (status == (LONG)0xC0000004) {  // the list grew: a bigger buffer
            buffer.resize(buffer.size() * 2);
            continue;
        }
        if (status != 0)
            return -1;
        ULONG count = *(ULONG *)buffer.data();
        const Entry *entries = (const Entry *)(buffer.data() + sizeof(ULONG_PTR));
        long mine = 0;
        for (ULONG i = 0; i < count; i++)
            if (entries[i].ProcessId == pid)
                mine++;
        return mine;
    }
    return -1;
}

long long PrivateBytes(DWORD pid)
{
    long long bytes = -1;
    HANDLE process = OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, pid);
    if (!process)
        process = OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid);
    if (!process)
        return -1;
    PROCESS_MEMORY_COUNTERS_EX counters = {};
    counters.cb = sizeof counters;
    // Wine leaves PrivateUsage of another process at 0; the working set is
    // the next best measure of growth there.
    if (K32GetProcessMemoryInfo(process, (PROCESS_MEMORY_COUNTERS *)&counters, sizeof counters))
        bytes = counters.PrivateUsage != 0 ? (long long)counters.PrivateUsage : (long long)counters.WorkingSetSize;
    CloseHandle(process);
    return bytes;
}

// Handle count once the daemon has gone quiet: two samples a second apart agree.
long SettledHandles(DWORD pid)
{
    long last = CountHandles(pid);
    for (int i = 0; i < 20; i++) {
        Sleep(1000);
        long now = CountHandles(pid);
        if (now == last)
            return now;
        last = now;
    }
    return last;
}

long Argument(int argc, char **argv, const char *name, long fallback)
{
    for (int i = 1; i + 1 < argc; i++)
        if (strcmp(argv[i], name) == 0)
            return strtol(argv[i + 1], NULL, 10);
    return fallback;
}

}  // namespace

int main(int argc, char **argv)
{
    int samples = (int)Argument(argc, argv, "--samples", 100);
    long requests = Argument(argc, argv, "--requests", 10000);
    double seconds = (double)Argument(argc, argv, "--seconds", 8);
    int bulkClients = (int)Argument(argc, argv, "--bulkclients", 16);
    setvbuf(stdout, NULL, _IONBF, 0);

    DWORD pid = DaemonPid();
    if (pid == 0 || !WaitNamedPipeA(kPipe, 10000)) {
        printf("ERROR: the daemon is not running (pid %lu).\n", pid);
        return 1;
    }
    std::string dir = ProgramDir();
    std::string tool = "\"" + dir + "\\tzdevice.exe\"";
    std::string trivial = "\"" + dir + "\\bench_trivial.exe\"";
    std::string local = tool + " --servicestatusget tzdeviced";
    std::string forwarded = tool + " --daemonmodeforce --servicestatusget tzdeviced";

    // Warm up the file cache and the daemon.
    for (int i = 0; i < 3; i++) {
        TimedRun(trivial, 0);
        TimedRun(local, 0);
        TimedRun(forwarded, 0);
    }

    printf("daemon pid %lu; %d samples of each run, interleaved\n", pid, samples);
    std::vector<double> bare, here, there;
    int bareFailed = 0, hereFailed = 0, thereFailed = 0;
    for (int i = 0; i < samples; i++) {
        double t = TimedRun(trivial, 0);
        t < 0 ? bareFailed++ : (bare.push_back(t), 0);
        t = TimedRun(local, 0);
        t < 0 ? hereFailed++ : (here.push_back(t), 0);
        t = TimedRun(forwarded, 0);
        t < 0 ? thereFailed++ : (there.push_back(t), 0);
    }
    Stats bareStats = Summarise(bare, bareFailed);
    Stats localStats = Summarise(here, hereFailed);
    Stats forwardStats = Summarise(there, thereFailed);

    printf("\n%-46s %10s %10s %8s\n", "run", "median ms", "p99 ms", "failed");
    printf("%-46s %10.1f %10.1f %8d\n", "bare process start (bench_trivial.exe)", bareStats.median, bareStats.p99,
           bareStats.failures);
    printf("%-46s %10.1f %10.1f %8d\n", "local: --servicestatusget tzdeviced", localStats.median, localStats.p99,
           localStats.failures);
    printf("%-46s %10.1f %10.1f %8d\n", "forwarded: --daemonmodeforce --servicestatusget", forwardStats.median,
           forwardStats.p99, forwardStats.failures);
    if (localStats.median > 0 && bareStats.median > 0) {
        printf("forwarded median / local median:                 %.2f\n", forwardStats.median / localStats.median);
        printf("(forwarded - local) / bare process start:        %.2f\n",
               (forwardStats.median - localStats.median) / bareStats.median);
    }

    printf("\n%-10s %10s %10s %10s %12s\n", "clients", "requests", "failed", "seconds", "requests/s");
    for (int clients : {1, 4, 16, 32}) {
        Load load = RunLoad(clients, 0, seconds);
        printf("%-10d %10ld %10ld %10.1f %12.1f\n", clients, load.done, load.failed, load.seconds,
               load.seconds > 0 ? load.done / load.seconds : 0.0);
    }

    long handlesBefore = SettledHandles(pid);
    long long bytesBefore = PrivateBytes(pid);
    Load bulk = RunLoad(bulkClients, requests, 0);
    long handlesAfter = SettledHandles(pid);
    long long bytesAfter = PrivateBytes(pid);
    printf("\n%ld forwarded requests with %d clients in %.1f s (%.1f/s), %ld failed\n", bulk.done + bulk.failed,
           bulkClients, bulk.seconds, bulk.seconds > 0 ? (bulk.done + bulk.failed) / bulk.seconds : 0.0,
           bulk.failed);
    printf("%-16s %14s %14s %14s\n", "daemon", "before", "after", "change");
    printf("%-16s %14ld %14ld %14ld\n", "handles", handlesBefore, handlesAfter, handlesAfter - handlesBefore);
    printf("%-16s %14lld %14lld %14lld\n", "private bytes*", bytesBefore, bytesAfter, bytesAfter - bytesBefore);
    printf("* PrivateUsage, or the working set where the platform reports no private bytes\n");
    printf("daemon pid after the run: %lu (%s)\n", DaemonPid(), DaemonPid() == pid ? "same process" : "CHANGED");
    return bulk.failed == 0 && DaemonPid() == pid ? 0 : 2;
}
