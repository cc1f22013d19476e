// The collector inside the running daemon: registrations arrive over the
// daemon's pipe as "--deviceregister" requests, as a registering process
// sends them, for owner processes that the test starts and ends; the daemon's
// log and the replies show what the collector did with the rows.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <windows.h>

#include <string>
#include <vector>

#include "daemon/daemon.h"
#include "harness.h"

namespace {

// ---- probe side: a process that registers through the daemon ---------------

struct ProbeRunner {
    ProbeRunner()
    {
        const char *name = getenv("TZ_GC_REGISTER_NAME");
        if (name == nullptr)
            return;
        // The owner is this process's parent, found by the registering side.
        int result = GarbageCollectorRegisterDevice(name, 3, -1);
        printf("register=%d\n", result);
        fflush(stdout);
        ExitProcess(0);
    }
} probeRunner;

// ---- the test side ---------------------------------------------------------

// One request to the daemon, as the channel's client writes it; the reply up
// to its end marker, or whatever came before the pipe broke. Each transfer is
// bounded, so that a daemon that never answers fails the test instead of
// holding it.
std::string SendRequest(const std::string &text)
{
    if (!WaitNamedPipeA(DAEMON_PIPE_NAME, 10000))
        return "<no pipe instance>";
    HANDLE pipe = CreateFileA(DAEMON_PIPE_NAME, GENERIC_READ | GENERIC_WRITE, 0, NULL, OPEN_EXISTING,
                              FILE_FLAG_OVERLAPPED, NULL);
    if (pipe == INVALID_HANDLE_VALUE)
        return "<cannot open the pipe>";
    HANDLE event = CreateEventA(NULL, TRUE, FALSE, NULL);
    auto transfer = [&](bool write, void *data, DWORD size) -> DWORD {
        OVERLAPPED overlapped;
        ZeroMemory(&overlapped, sizeof overlapped);
        overlapped.hEvent = event;
        ResetEvent(event);
        DWORD count = 0;
        BOOL done = write ? WriteFile(pipe, data, size, NULL, &overlapped) : ReadFile(pipe, data, size, NULL, &overlapped);
        if (!done && GetLastError() != ERROR_IO_PENDING)
            return 0;
        if (WaitForSingleObject(event, 10000) != WAIT_OBJECT_0) {
            CancelIo(pipe);
            GetOverlappedResult(pipe, &overlapped, &count, TRUE);
            return 0;
        }
        if (!GetOverlappedResult(pipe, &overlapped, &count, FALSE) && GetLastError() != ERROR_MORE_DATA)
            return 0;
        return count;
    };
    std::string message = text + "__END__";
    std::string reply;
    if (transfer(true, &message[0], (DWORD)message.size()) == message.size()) {
        char chunk[4096];
        for (DWORD count; (count = transfer(false, chunk, sizeof chunk)) > 0;) {
            reply.append(chunk, count);
            if (reply.size() >= 6 && (reply.compare(reply.size() - 6, 6, "__OK__") == 0 ||
                                      (reply.size() >= 8 && reply.compare(reply.size() - 8, 8, "__FAIL__") == 0)))
                break;
        }
    }
    CloseHandle(event);
    CloseHandle(pipe);
    return reply;
}

std::string Register(const std::string &name, int type, DWORD owner)
{
    return SendRequest("\"--deviceregister\" \"--deviceid\" \"" + name + "\" \"--devicetypeid\" \"" +
                       std::to_string(type) + "\" \"--parentpid\" \"" + std::to_string(owner) + "\" ");
}

bool Accepted(const std::string &reply)
{
    return reply.size() >= 6 && reply.compare(reply.size() - 6, 6, "__OK__") == 0;
}

std::string DeadLine(DWORD pid)
{
    return "Process with pid '" + std::to_string(pid) + "' dead. Cleaning up related devices...\r\n";
}

std::string RegisteredLine(const std::string &name, int type, DWORD owner)
{
    return "Registered device '" + name + "' with type '" + std::to_string(type) + "' and parent process '" +
           std::to_string(owner) + "'.\r\n";
}

struct DaemonCollector : ::testing::Test {
    size_t logStart = 0;
    std::vector<PROCESS_INFORMATION> owners;

    void SetUp() override
    {
        std::string why;
        ASSERT_TRUE(EnsureDaemonRunning(&why)) << why;
        MarkLog();
    }
    void TearDown() override
    {
        for (PROCESS_INFORMATION &owner : owners) {
            TerminateProcess(owner.hProcess, 0);
            CloseHandle(owner.hThread);
            CloseHandle(owner.hProcess);
        }
    }
    // Only what the daemon logs from now on counts.
    void MarkLog() { logStart = ReadFileText(DaemonLogPath()).size(); }
    std::string Log()
    {
        std::string text = ReadFileText(DaemonLogPath());
        return text.size() > logStart ? text.substr(logStart) : "";
    }
    // Milliseconds until `text` is in the log, or -1 after `timeoutMs`.
    long WaitForLog(const std::string &text, DWORD timeoutMs)
    {
        DWORD start = GetTickCount();
        for (;;) {
            if (Log().find(text) != std::string::npos)
                return (long)(GetTickCount() - start);
            if (GetTickCount() - start > timeoutMs)
                return -1;
            Sleep(5);
        }
    }
    DWORD StartOwner(const std::vector<std::string> &args = {}, const RunOptions &options = {})
    {
        owners.push_back(StartProgram(BinPath(args.empty() ? "keeper.exe" : "sleeper.exe"), args, options));
        return owners.back().dwProcessId;
    }
    // Ends an owner; the moment it was told to end.
    DWORD EndOwner(DWORD pid)
    {
        for (PROCESS_INFORMATION &owner : owners) {
            if (owner.dwProcessId == pid) {
                DWORD now = GetTickCount();
                TerminateProcess(owner.hProcess, 0);
                return now;
            }
        }
        return GetTickCount();
    }
    void RestartDaemon()
    {
        StopAndRemoveDaemon();
        std::string why;
        ASSERT_TRUE(EnsureDaemonRunning(&why)) << why;
        MarkLog();
    }
};

TEST_F(DaemonCollector, AllDevicesOfADeadOwnerAreDealtWithAndTheCollectorWaitsOn)
{
    DWORD owner = StartOwner();
    for (const char *name : {"e2e-a", "e2e-b"})
        EXPECT_EQ(Register(name, 3, owner), "__OK__");
    EXPECT_EQ(Register("e2e-odd", 9, owner), "__OK__");
    EXPECT_EQ(Register("e2e-zero", 0, owner), "__OK__") << "a type-0 row is entered, and stays free";
    std::string text = Log();
    EXPECT_NE(text.find("Falling into direct mode.\r\n"), std::string::npos) << text;
    EXPECT_NE(text.find(RegisteredLine("e2e-a", 3, owner)), std::string::npos);
    EXPECT_NE(text.find(RegisteredLine("e2e-zero", 0, owner)), std::string::npos);
    ASSERT_GE(WaitForLog("GarbageCollector : putting process '" + std::to_string(owner) + "' to wait list...", 2000),
              0);
    Sleep(200);

    DWORD ended = EndOwner(owner);
    long seen = WaitForLog(DeadLine(owner), 5000);
    ASSERT_GE(seen, 0) << Log();
    printf("the daemon saw the owner's end %lu ms after it was ended\n", (unsigned long)(GetTickCount() - ended));
    WaitForLog("ERROR: Unknown device type '0'.", 2000);
    text = Log();
    size_t dead = text.find(DeadLine(owner));
    std::string after = text.substr(dead);
    // Type 3 needs nothing; 9 is unknown; the free type-0 row still names the owner.
    EXPECT_NE(after.find("ERROR: Unknown device type '9'.\r\n"), std::string::npos) << after;
    EXPECT_NE(after.find("ERROR: Unknown device type '0'.\r\n"), std::string::npos);
    EXPECT_LT(after.find("ERROR: Unknown device type '9'."), after.find("ERROR: Unknown device type '0'."));
    EXPECT_EQ(after.find("Removing"), std::string::npos);
    EXPECT_NE(after.find("GarbageCollector : Waiting for something happen...\r\n"), std::string::npos)
        << "the collector goes on waiting";
    EXPECT_EQ(after.find("Cannot monitor client processes"), std::string::npos);
}

TEST_F(DaemonCollector, AFullTableRefusesTheNextDeviceAndADeathFreesItsRowsAtOnce)
{
    RestartDaemon();  // a fresh table of 128 free rows
    DWORD first = StartOwner();
    int accepted = 0;
    std::string refused;
    for (int i = 0; i <= DEVICE_TABLE_ROWS; i++) {
        std::string reply = Register("full-" + std::to_string(i), 3, first);
        if (Accepted(reply))
            accepted++;
        else
            refused = reply;
    }
    EXPECT_EQ(accepted, DEVICE_TABLE_ROWS);
    EXPECT_NE(refused.find("ERROR: Too many mounted devices.\r\n"), std::string::npos) << refused;
    EXPECT_EQ(refused.substr(refused.size() - 8), "__FAIL__");
    EXPECT_NE(Log().find("ERROR: Too many mounted devices.\r\n"), std::string::npos);
    Sleep(300);

    // The owner of all 128 rows dies: the first registration that is taken
    // again marks the moment its rows were freed.
    DWORD probeOwner = StartOwner();
    DWORD ended = EndOwner(first);
    DWORD freed = 0;
    for (int tries = 0; tries < 400; tries++) {
        if (Accepted(Register("after-death", 3, probeOwner))) {
            freed = GetTickCount();
            break;
        }
        Sleep(5);
    }
    ASSERT_NE(freed, 0u) << "the rows of the dead owner were not freed";
    printf("rows of a dead owner were free again %lu ms after it was ended\n", (unsigned long)(freed - ended));
    EXPECT_LT(freed - ended, 1000u);

    // And all of them: 127 more fit, and the next one does not.
    int again = 0;
    for (int i = 0; i < DEVICE_TABLE_ROWS; i++)
        again += Accepted(Register("again-" + std::to_string(i), 3, probeOwner));
    EXPECT_EQ(again, DEVICE_TABLE_ROWS - 1);
}

TEST_F(DaemonCollector, ARegisteringProcessMakesItsParentTheOwner)
{
    // sleeper.exe runs this program as a probe, which registers through the
    // daemon with no owner of its own; the sleeper, its parent, becomes the
    // owner, and its end frees the row.
    RunOptions options;
    options.env = {{"TZ_GC_REGISTER_NAME", "via-parent"}};
    char self[MAX_PATH] = {0};
    GetModuleFileNameA(NULL, self, sizeof self);
    DWORD parent = StartOwner({self}, options);
    ASSERT_GE(WaitForLog(RegisteredLine("via-parent", 3, parent), 10000), 0) << Log();
    ASSERT_GE(WaitForLog("GarbageCollector : putting process '" + std::to_string(parent) + "' to wait list...", 2000),
              0);
    Sleep(200);
    EndOwner(parent);
    EXPECT_GE(WaitForLog(DeadLine(parent), 5000), 0) << Log();
}

TEST_F(DaemonCollector, AnOwnerGoneBeforeTheScanEndsTheCollectorUntilTheDaemonRestarts)
{
    // An owner that is gone by the time the collector scans: Wine keeps an
    // ended process openable for a while, and from another process even
    // longer, so the owner named here is a process id that no process has.
    const DWORD gone = 4000000;
    HANDLE none = OpenProcess(SYNCHRONIZE, FALSE, gone);
    ASSERT_EQ(none, (HANDLE)NULL) << "process id " << gone << " is taken";
    EXPECT_EQ(Register("too-late", 3, gone), "__OK__");
    ASSERT_GE(WaitForLog("ERROR: Cannot monitor client processes.\r\nError code is : 6.\r\n", 5000), 0) << Log();
    std::string text = Log();
    EXPECT_NE(text.find("ERROR: Wait failed with code [0xffffffff].\r\n"), std::string::npos);
    EXPECT_NE(text.find("<- GarbageCollectorHandler()...\r\n"), std::string::npos);

    // From now on this daemon removes nothing: a later owner's end goes unseen.
    DWORD later = StartOwner();
    EXPECT_EQ(Register("unwatched", 3, later), "__OK__");
    Sleep(200);
    EndOwner(later);
    EXPECT_EQ(WaitForLog(DeadLine(later), 1500), -1);

    // A new daemon has a collector again.
    RestartDaemon();
    DWORD fresh = StartOwner();
    EXPECT_EQ(Register("fresh", 3, fresh), "__OK__");
    ASSERT_GE(WaitForLog("GarbageCollector : putting process '" + std::to_string(fresh) + "' to wait list...", 2000),
              0);
    Sleep(200);
    EndOwner(fresh);
    EXPECT_GE(WaitForLog(DeadLine(fresh), 5000), 0) << Log();
}

}  // namespace
