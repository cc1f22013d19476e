// Bringing the daemon service up and down for the end-to-end tests.
#include "harness.h"

namespace {
const char *const kService = "tzdeviced";
const char *const kPipe = "\\\\.\\pipe\\tzdevice-bc72a506-0e0c-4bff-b6f8-c2b6aa32e906";
}  // namespace

// Makes <base>\Tessarine\var\log and returns it.
static std::string MakeLogTree(const std::string &base)
{
    CreateDirectoryA(base.c_str(), NULL);
    CreateDirectoryA((base + "\\Tessarine").c_str(), NULL);
    CreateDirectoryA((base + "\\Tessarine\\var").c_str(), NULL);
    CreateDirectoryA((base + "\\Tessarine\\var\\log").c_str(), NULL);
    return base + "\\Tessarine\\var\\log";
}

static std::string EnvOr(const char *name, const char *fallback)
{
    char value[MAX_PATH] = {0};
    if (!GetEnvironmentVariableA(name, value, sizeof value))
        return fallback;
    return value;
}

// Services do not always see the profile folder that ordinary programs see
// (Wine gives them C:\users\Public), so the tree is made in both places and
// the daemon's files are looked for in either.
std::string MachineLogDir()
{
    std::string mine = MakeLogTree(EnvOr("ALLUSERSPROFILE", "C:\\ProgramData"));
    std::string shared = EnvOr("PUBLIC", "");
    if (!shared.empty())
        MakeLogTree(shared);
    return mine;
}

static std::string DaemonSideLog(const char *fileName)
{
    std::string mine = MachineLogDir() + "\\" + fileName;
    std::string shared = EnvOr("PUBLIC", "");
    if (!shared.empty()) {
        std::string candidate = shared + "\\Tessarine\\var\\log\\" + fileName;
        if (FileExists(candidate) || !FileExists(mine))
            return candidate;
    }
    return mine;
}

std::string DaemonLogPath()
{
    return DaemonSideLog("tzdeviced.log");
}

std::string WorkerLogPath()
{
    return DaemonSideLog("tzdevice.log");
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
