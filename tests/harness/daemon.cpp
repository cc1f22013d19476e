// Bringing the daemon service up and down for the end-to-end tests.
#include "harness.h"

namespace {
const char *const kService = "tzdeviced";
const char *const kPipe = "\\\\.\\pipe\\tzdevice-bc72a506-0e0c-4bff-b6f8-c2b6aa32e906";
}  // namespace

std::string MachineLogDir()
{
    char profile[MAX_PATH] = {0};
    if (!GetEnvironmentVariableA("ALLUSERSPROFILE", profile, sizeof profile))
        lstrcpynA(profile, "C:\\ProgramData", sizeof profile);
    std::string dir = profile;
    CreateDirectoryA(dir.c_str(), NULL);
    CreateDirectoryA((dir + "\\Tessarine").c_str(), NULL);
    CreateDirectoryA((dir + "\\Tessarine\\var").c_str(), NULL);
    CreateDirectoryA((dir + "\\Tessarine\\var\\log").c_str(), NULL);
    return dir + "\\Tessarine\\var\\log";
}

std::string DaemonLogPath()
{
    return MachineLogDir() + "\\tzdeviced.log";
}

std::string WorkerLogPath()
{
    return MachineLogDir() + "\\tzdevice.log";
}

bool WaitDaemonPipe(DWORD timeoutMs)
{
    for (DWORD waited = 0;; waited += 100) {
        if (WaitNamedPipeA(kPipe, 100))
            return true;
        if (waited >= timeoutMs)
            return false;
        Sleep(100);
    }
}

bool EnsureDaemonRunning(std::string *why)
{
    MachineLogDir();
    if (ServiceStateOf(kService) == SERVICE_RUNNING && WaitDaemonPipe(2000))
        return true;
    if (!ServicePresent(kService)) {
        RunResult install = RunTool({"--daemoninstall"});
        if (install.exitCode != 0) {
            if (why)
                *why = "install failed: " + install.err;
            return false;
        }
    }
    if (ServiceStateOf(kService) != SERVICE_RUNNING) {
        RunResult start = RunTool({"--servicestart", kService});
        if (start.exitCode != 0) {
            if (why)
                *why = "start failed: " + start.err;
            return false;
        }
    }
    if (!WaitServiceState(kService, SERVICE_RUNNING, 10000) || !WaitDaemonPipe(10000)) {
        if (why)
            *why = "daemon did not come up";
        return false;
    }
    return true;
}

void StopAndRemoveDaemon()
{
    RemoveServiceQuietly(kService);
    WaitServiceState(kService, 0, 5000);
}
