// Test library: runs programs of this build as real processes, captures their
// two streams and their full 32-bit exit code, reads logs, manages services.
#pragma once

#include <windows.h>

#include <string>
#include <utility>
#include <vector>

struct RunOptions {
    // Variables set (or, with an empty value, removed) in the child's environment.
    std::vector<std::pair<std::string, std::string>> env;
    DWORD timeoutMs = 120000;
    std::string workDir;  // empty: the test's own
};

struct RunResult {
    std::string out;
    std::string err;
    DWORD exitCode = 0;
    bool timedOut = false;
    DWORD pid = 0;
};

// Directory of the running test program, where every program of the build lives.
std::string BinDir();
// Full path of a program in BinDir().
std::string BinPath(const std::string &exeName);
// Quotes one word so that the C runtime's argv parsing gives it back unchanged.
std::string QuoteArg(const std::string &word);

// Runs `exe` with `args` (argv[1..]) and waits for it.
RunResult RunProgram(const std::string &exe, const std::vector<std::string> &args, const RunOptions &options = {});
// Runs tzdevice.exe.
RunResult RunTool(const std::vector<std::string> &args, const RunOptions &options = {});
// Runs `exe` with an exact command line (after the quoted program path).
RunResult RunCommandLine(const std::string &exe, const std::string &tail, const RunOptions &options = {});

// Starts a program and returns without waiting; the caller ends and closes it.
PROCESS_INFORMATION StartProgram(const std::string &exe, const std::vector<std::string> &args,
                                 const RunOptions &options = {});

// Files and folders.
std::string ReadFileText(const std::string &path);
bool WriteFileText(const std::string &path, const std::string &text);
bool FileExists(const std::string &path);
std::string MakeTempDir(const std::string &tag);
void RemoveTree(const std::string &path);

// A fresh ALLUSERSPROFILE folder with Tessarine\var\log in it, so that a run's
// log lands in a file of its own. Returns the profile folder.
std::string MakeLogProfile(const std::string &tag);
std::string LogFileIn(const std::string &profile, const std::string &fileName = "tzdevice.log");
// A RunOptions whose ALLUSERSPROFILE is `profile`.
RunOptions WithProfile(const std::string &profile);

// Counts how often `needle` occurs in `haystack`.
size_t CountOf(const std::string &haystack, const std::string &needle);

// Services, straight through the service manager.
bool ServicePresent(const std::string &name);
// Current state (SERVICE_STOPPED...), or 0 when the service can't be queried.
DWORD ServiceStateOf(const std::string &name);
// Waits up to `timeoutMs` for `state`; true when reached.
bool WaitServiceState(const std::string &name, DWORD state, DWORD timeoutMs);
// Stops (killing if it must) and deletes a service; no error if it is absent.
void RemoveServiceQuietly(const std::string &name);
// Process id of a running service, or 0.
DWORD ServicePid(const std::string &name);

// Number of entries a process has in the system handle list.
long CountProcessHandles(DWORD pid);

// The daemon service of this prefix. EnsureDaemonRunning installs it with
// "tzdevice.exe --daemoninstall" if needed, starts it with "--servicestart",
// and waits until its pipe accepts connections. It also makes the machine-wide
// log folder, so that the daemon and its workers write their logs there.
bool EnsureDaemonRunning(std::string *why = nullptr);
// Stops and deletes the daemon service, whatever state it is in.
void StopAndRemoveDaemon();
// Where the daemon's and its workers' logs land.
std::string MachineLogDir();
std::string DaemonLogPath();
std::string WorkerLogPath();
// True when a pipe instance of the daemon can be opened within `timeoutMs`.
bool WaitDaemonPipe(DWORD timeoutMs);

// Fuzzing: the seed (TZ_FUZZ_SEED replays one), the iteration count
// (TZ_FUZZ_ITERATIONS, default 100000), whether Wine's heap checking is on,
// and whether every heap of the process is still well formed.
unsigned SeedFromEnvironment();
long IterationsFromEnvironment();
bool HeapCheckedRun();
bool HeapsIntact();
