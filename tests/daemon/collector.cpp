// The device garbage collector run in a probe process, without the service:
// the probe (this program again, TZ_GC_PROBE names the case) starts the
// collector with GarbageCollectorInit, registers devices for real owner
// processes (keeper.exe), ends owners and prints what it saw; the test reads
// the probe's output and its log. The collector's state lasts for its process,
// so each case is a process of its own.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <windows.h>

#include <string>
#include <vector>

#include "daemon/daemon.h"
#include "harness.h"
#include "support/log.h"

namespace {

// ---- the probe side -------------------------------------------------------

std::string Env(const char *name)
{
    const char *value = getenv(name);
    return value ? value : "";
}

std::string ProbeLog()
{
    return ReadFileText(Env("TZ_PROBE_LOG"));
}

// Waits until `text` is in the probe's log; the milliseconds it took, or -1.
long WaitForLogText(const std::string &text, DWORD timeoutMs)
{
    DWORD start = GetTickCount();
    for (;;) {
        if (ProbeLog().find(text) != std::string::npos)
            return (long)(GetTickCount() - start);
        if (GetTickCount() - start > timeoutMs)
            return -1;
        Sleep(2);
    }
}

PROCESS_INFORMATION StartOwner()
{
    return StartProgram(BinPath("keeper.exe"), {});
}

void EndOwner(PROCESS_INFORMATION &owner)
{
    TerminateProcess(owner.hProcess, 0);
    WaitForSingleObject(owner.hProcess, 5000);
    CloseHandle(owner.hThread);
    CloseHandle(owner.hProcess);
}

std::string DeadLine(DWORD pid)
{
    return "Process with pid '" + std::to_string(pid) + "' dead. Cleaning up related devices...";
}

// Registers `count` devices of type 3 for `owner`; how many were accepted.
int Fill(int count, int owner, const char *tag)
{
    int accepted = 0;
    for (int i = 0; i < count; i++) {
        std::string name = std::string(tag) + "-" + std::to_string(i);
        if (GarbageCollectorRegisterDevice(name.c_str(), 3, owner) == 0)
            accepted++;
    }
    return accepted;
}

// Devices of every type for one owner, its death, and the table filled,
// emptied by a death and filled again.
void ProbeLifecycle()
{
    printf("init=%d\n", GarbageCollectorInit());
    printf("idle=%ld\n", WaitForLogText("GarbageCollector : Waiting for something happen...", 5000));

    PROCESS_INFORMATION owner = StartOwner();
    int pid = (int)owner.dwProcessId;
    printf("owner1=%d\n", pid);
    std::string longName(300, 'P');
    // In this order, so that the type-0 row comes last and stays free.
    std::string results;
    results += std::to_string(GarbageCollectorRegisterDevice("net-1", 1, pid));
    results += " " + std::to_string(GarbageCollectorRegisterDevice(longName.c_str(), 2, pid));
    results += " " + std::to_string(GarbageCollectorRegisterDevice("plain-1", 3, pid));
    results += " " + std::to_string(GarbageCollectorRegisterDevice("odd-1", 9, pid));
    results += " " + std::to_string(GarbageCollectorRegisterDevice("zero-1", 0, pid));
    printf("register=%s\n", results.c_str());
    Sleep(300);
    EndOwner(owner);
    printf("dead1=%ld\n", WaitForLogText(DeadLine((DWORD)pid), 5000));
    WaitForLogText("ERROR: Unknown device type '0'.", 2000);

    // Every row is free again: the table takes 128 devices and not one more.
    PROCESS_INFORMATION second = StartOwner();
    int secondPid = (int)second.dwProcessId;
    printf("owner2=%d\n", secondPid);
    printf("fill=%d\n", Fill(DEVICE_TABLE_ROWS + 1, secondPid, "fill"));
    Sleep(300);

    // The rows of the dead owner are free as soon as a registration succeeds.
    DWORD ended = GetTickCount();
    TerminateProcess(second.hProcess, 0);
    int tries = 0;
    while (GarbageCollectorRegisterDevice("first-after", 3, (int)GetCurrentProcessId()) != 0 && tries < 2500) {
        tries++;
        Sleep(2);
    }
    printf("freedms=%lu\n", (unsigned long)(GetTickCount() - ended));
    WaitForSingleObject(second.hProcess, 5000);
    CloseHandle(second.hThread);
    CloseHandle(second.hProcess);
    printf("refill=%d\n", Fill(DEVICE_TABLE_ROWS, (int)GetCurrentProcessId(), "refill"));
}

// An owner that is gone before the collector opens it ends the collector.
void ProbeOwnerGoneBeforeScan()
{
    printf("init=%d\n", GarbageCollectorInit());
    WaitForLogText("GarbageCollector : Waiting for something happen...", 5000);
    PROCESS_INFORMATION gone = StartOwner();
    int gonePid = (int)gone.dwProcessId;
    EndOwner(gone);
    // Wine keeps an ended process openable for a moment; wait until it is not.
    DWORD waited = 0;
    for (HANDLE probe; (probe = OpenProcess(SYNCHRONIZE, FALSE, (DWORD)gonePid)) != NULL && waited < 5000; waited += 20) {
        CloseHandle(probe);
        Sleep(20);
    }
    printf("openable=%lu\n", (unsigned long)waited);
    printf("register=%d\n", GarbageCollectorRegisterDevice("late", 3, gonePid));
    printf("ended=%ld\n", WaitForLogText("<- GarbageCollectorHandler()", 5000));

    // Nobody collects any more: a later owner's death goes unseen.
    PROCESS_INFORMATION later = StartOwner();
    printf("owner=%lu\n", (unsigned long)later.dwProcessId);
    printf("later=%d\n", GarbageCollectorRegisterDevice("later", 3, (int)later.dwProcessId));
    Sleep(200);
    EndOwner(later);
    Sleep(1000);
}

// 63 owners fit in one wait with the reset event; the 64th makes the wait fail.
void ProbeSixtyFourOwners()
{
    printf("init=%d\n", GarbageCollectorInit());
    std::vector<PROCESS_INFORMATION> owners;
    for (int i = 0; i < 65; i++)
        owners.push_back(StartOwner());
    int accepted = 0;
    for (int i = 0; i < 63; i++)
        accepted += GarbageCollectorRegisterDevice(("dev-" + std::to_string(i)).c_str(), 3,
                                                   (int)owners[i].dwProcessId) == 0;
    printf("accepted=%d\n", accepted);
    Sleep(500);
    printf("first=%lu\n", (unsigned long)owners[0].dwProcessId);
    TerminateProcess(owners[0].hProcess, 0);
    printf("dead=%ld\n", WaitForLogText(DeadLine(owners[0].dwProcessId), 5000));
    int more63 = GarbageCollectorRegisterDevice("dev-63", 3, (int)owners[63].dwProcessId);
    int more64 = GarbageCollectorRegisterDevice("dev-64", 3, (int)owners[64].dwProcessId);
    printf("more=%d %d\n", more63, more64);
    printf("ended=%ld\n", WaitForLogText("<- GarbageCollectorHandler()", 5000));
    for (PROCESS_INFORMATION &owner : owners)
        EndOwner(owner);
}

// 128 distinct owners in one scan: the collector gives up holding the mutex,
// and a later registration takes the abandoned mutex and carries on.
void ProbeFullScan()
{
    // Before the collector exists there is no mutex: the rows go in unguarded.
    int accepted = 0;
    for (int i = 0; i < DEVICE_TABLE_ROWS; i++)
        accepted += GarbageCollectorRegisterDevice(("dev-" + std::to_string(i)).c_str(), 3, 0x7fff0000 - 4 * i) == 0;
    printf("accepted=%d\n", accepted);
    printf("init=%d\n", GarbageCollectorInit());
    printf("ended=%ld\n", WaitForLogText("<- GarbageCollectorHandler()", 5000));
    printf("after=%d\n", GarbageCollectorRegisterDevice("after", 3, (int)GetCurrentProcessId()));
}

struct ProbeRunner {
    ProbeRunner()
    {
        std::string probe = Env("TZ_GC_PROBE");
        if (probe.empty())
            return;
        LogSetFile(Env("TZ_PROBE_LOG").c_str());
        if (probe == "lifecycle")
            ProbeLifecycle();
        else if (probe == "gone")
            ProbeOwnerGoneBeforeScan();
        else if (probe == "sixtyfour")
            ProbeSixtyFourOwners();
        else if (probe == "fullscan")
            ProbeFullScan();
        fflush(stdout);
        fflush(stderr);
        ExitProcess(0);
    }
} probeRunner;

// ---- the test side ---------------------------------------------------------

std::string Field(const std::string &out, const std::string &name)
{
    size_t at = out.find(name + "=");
    if (at == std::string::npos)
        return "<missing " + name + ">";
    size_t end = out.find_first_of("\r\n", at);
    return out.substr(at + name.size() + 1, end - at - name.size() - 1);
}

// The message parts of the log's records, in order, without their prefix.
std::vector<std::string> Messages(const std::string &log)
{
    std::vector<std::string> lines;
    size_t at = 0;
    while (at < log.size()) {
        size_t end = log.find("\r\n", at);
        if (end == std::string::npos)
            end = log.size();
        std::string line = log.substr(at, end - at);
        if (!line.empty() && line[0] == '[') {
            // "[pid][tid] hh:mm:ss mmm message"
            size_t stamp = line.find("] ");
            if (stamp != std::string::npos && line.size() >= stamp + 15)
                line = line.substr(stamp + 15);
        }
        lines.push_back(line);
        at = end + 2;
    }
    return lines;
}

// Index of the first message equal to `text` at or after `from`, or -1.
long Find(const std::vector<std::string> &lines, const std::string &text, size_t from = 0)
{
    for (size_t i = from; i < lines.size(); i++)
        if (lines[i] == text)
            return (long)i;
    return -1;
}

size_t Count(const std::vector<std::string> &lines, const std::string &text)
{
    size_t count = 0;
    for (const std::string &line : lines)
        count += line == text;
    return count;
}

struct CollectorProbe : ::testing::Test {
    std::string dir = MakeTempDir("collector");
    std::string log = dir + "\\probe.log";
    RunResult run;
    std::vector<std::string> lines;

    void Run(const std::string &probe)
    {
        RunOptions options;
        options.timeoutMs = 120000;
        options.env = {{"TZ_GC_PROBE", probe}, {"TZ_PROBE_LOG", log}};
        char self[MAX_PATH] = {0};
        GetModuleFileNameA(NULL, self, sizeof self);
        run = RunProgram(self, {}, options);
        lines = Messages(ReadFileText(log));
    }
    void TearDown() override { RemoveTree(dir); }
};

TEST_F(CollectorProbe, DevicesOfADeadOwnerAreRemovedByTypeAndTheirRowsFreed)
{
    Run("lifecycle");
    ASSERT_EQ(Field(run.out, "init"), "0") << run.err;
    // Start order: the thread before the mutex.
    long event = Find(lines, "GarbageCollectorInit : Creating reset event...");
    long thread = Find(lines, "GarbageCollectorInit : Creating collector thread...");
    long mutex = Find(lines, "GarbageCollectorInit : Creating collector mutex...");
    ASSERT_GE(event, 0) << ReadFileText(log);
    EXPECT_LT(event, thread);
    EXPECT_LT(thread, mutex);
    // With no devices the wait is on the reset event alone.
    long handler = Find(lines, "-> GarbageCollectorHandler()...");
    ASSERT_GE(handler, 0);
    EXPECT_EQ(lines[handler + 1].find("GarbageCollector : putting"), std::string::npos);
    EXPECT_NE(Field(run.out, "idle"), "-1");

    std::string owner = Field(run.out, "owner1");
    EXPECT_EQ(Field(run.out, "register"), "0 0 0 0 0");
    EXPECT_GE(Find(lines, "Registered device 'net-1' with type '1' and parent process '" + owner + "'."), 0);
    // A name of 260 characters or more is kept as its first 260.
    std::string kept(DEVICE_NAME_SIZE, 'P');
    EXPECT_GE(Find(lines, "Registered device '" + kept + "' with type '2' and parent process '" + owner + "'."), 0);
    EXPECT_GE(Find(lines, "Registered device 'zero-1' with type '0' and parent process '" + owner + "'."), 0);
    // Several devices of one owner share one place in the wait list: each
    // scan lists the owner once.
    std::string putting = "GarbageCollector : putting process '" + owner + "' to wait list...";
    EXPECT_GE(Count(lines, putting), 1u);
    bool inScan = false;
    for (const std::string &line : lines) {
        if (line == putting) {
            EXPECT_FALSE(inScan) << "the owner twice in one scan";
            inScan = true;
        } else if (line == "GarbageCollector : Waiting for something happen...") {
            inScan = false;
        }
    }

    long dead = Find(lines, "Process with pid '" + owner + "' dead. Cleaning up related devices...");
    ASSERT_GE(dead, 0) << ReadFileText(log);
    EXPECT_NE(Field(run.out, "dead1"), "-1");
    // Rows in table order; the removers of printers and adapters are not in
    // this build, which the log says instead of pretending.
    std::vector<std::string> expected = {
        "Removing network adapter [net-1]...",
        "ERROR: NetworkDelByDeviceId is not available in this build: device [net-1] was not removed.",
        "Removing printer [" + kept + "]...",
        "ERROR: PrinterRemove is not available in this build: device [" + kept + "] was not removed.",
        "ERROR: Unknown device type '9'.",
        "ERROR: Unknown device type '0'.",
        "GarbageCollector : Waiting for something happen...",
    };
    for (size_t i = 0; i < expected.size(); i++)
        EXPECT_EQ(lines[dead + 1 + i], expected[i]) << i;

    // All of the dead owner's rows and the type-0 row are free: 128 fit, the
    // 129th is refused.
    EXPECT_EQ(Field(run.out, "fill"), "128");
    EXPECT_EQ(CountOf(run.err, "ERROR: Too many mounted devices.\r\n"), CountOf(ReadFileText(log), "ERROR: Too many mounted devices.\r\n"))
        << "the same words on standard error and in the log";
    EXPECT_GE(CountOf(run.err, "ERROR: Too many mounted devices."), 1u);
    // A full table's owner dies: all 128 rows come back, and the time that
    // took is what the probe measured.
    long freed = atol(Field(run.out, "freedms").c_str());
    EXPECT_LT(freed, 1000) << "rows of a dead owner are free within a second";
    printf("rows of a dead owner were free again %ld ms after its end\n", freed);
    EXPECT_EQ(Field(run.out, "refill"), "127");
    EXPECT_EQ(CountOf(run.err, "ERROR: Cannot monitor client processes"), 0u);
}

TEST_F(CollectorProbe, AnOwnerGoneBeforeTheScanEndsTheCollector)
{
    Run("gone");
    EXPECT_EQ(Field(run.out, "init"), "0");
    EXPECT_EQ(Field(run.out, "register"), "0");
    EXPECT_NE(Field(run.out, "ended"), "-1") << ReadFileText(log);
    long failed = Find(lines, "ERROR: Wait failed with code [0xffffffff].");
    ASSERT_GE(failed, 0) << ReadFileText(log);
    EXPECT_EQ(lines[failed + 1], "ERROR: Cannot monitor client processes.");
    EXPECT_EQ(lines[failed + 2], "Error code is : 6.") << "the null handle of the dead owner";
    EXPECT_EQ(lines[failed + 3], "<- GarbageCollectorHandler()...");
    EXPECT_NE(run.err.find("ERROR: Wait failed with code [0xffffffff].\r\nERROR: Cannot monitor client processes."),
              std::string::npos)
        << run.err;
    // Registrations still go into the table, but no one waits on the owners.
    EXPECT_EQ(Field(run.out, "later"), "0");
    EXPECT_EQ(Find(lines, "Process with pid '" + Field(run.out, "owner") + "' dead. Cleaning up related devices..."),
              -1);
}

TEST_F(CollectorProbe, SixtyFourOwnersMakeTheWaitFailAndEndTheCollector)
{
    Run("sixtyfour");
    EXPECT_EQ(Field(run.out, "init"), "0");
    EXPECT_EQ(Field(run.out, "accepted"), "63");
    EXPECT_NE(Field(run.out, "dead"), "-1") << "63 owners and the reset event fit one wait";
    EXPECT_EQ(Field(run.out, "more"), "0 0");
    EXPECT_NE(Field(run.out, "ended"), "-1") << ReadFileText(log);
    long failed = Find(lines, "ERROR: Wait failed with code [0xffffffff].");
    ASSERT_GE(failed, 0);
    long last = -1;
    for (size_t i = 0; i < lines.size(); i++)
        if (lines[i].find("Registered device 'dev-64' ") == 0)
            last = (long)i;
    EXPECT_GT(failed, last);
    EXPECT_GE(last, 0);
    EXPECT_EQ(lines[failed + 1], "ERROR: Cannot monitor client processes.");
    EXPECT_EQ(lines[failed + 2], "Error code is : 87.");
    EXPECT_EQ(Count(lines, "ERROR: Wait failed with code [0xffffffff]."), 1u);
}

TEST_F(CollectorProbe, OneHundredTwentyEightOwnersInOneScanEndTheCollectorHoldingTheMutex)
{
    Run("fullscan");
    EXPECT_EQ(Field(run.out, "accepted"), "128");
    EXPECT_EQ(Field(run.out, "init"), "0");
    EXPECT_NE(Field(run.out, "ended"), "-1");
    long handler = Find(lines, "-> GarbageCollectorHandler()...");
    ASSERT_GE(handler, 0) << ReadFileText(log);
    size_t putting = 0;
    for (const std::string &line : lines)
        putting += line.find("GarbageCollector : putting process '") == 0;
    EXPECT_EQ(putting, 128u);
    long tooMany = Find(lines, "ERROR: Too many mounted devices.", handler);
    ASSERT_GE(tooMany, 0);
    EXPECT_EQ(lines[tooMany + 1], "ERROR: Cannot monitor client processes.");
    EXPECT_EQ(Find(lines, "GarbageCollector : Waiting for something happen..."), -1);
    // The mutex was abandoned: the next registration owns it and finds the table full.
    EXPECT_EQ(Field(run.out, "after"), "-1");
    EXPECT_GE(Find(lines, "ERROR: Too many mounted devices.", tooMany + 1), 0);
}

}  // namespace
