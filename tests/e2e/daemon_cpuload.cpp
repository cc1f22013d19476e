// The load monitor inside the daemon, seen through --cpuload: with Wine's own
// pdh.dll, and with a stand-in pdh.dll (tests/tools/fakepdh) beside a copy of
// tzdevice.exe that is installed as the daemon, so that the service loads it
// and its figures follow from known counter values.
#include <gtest/gtest.h>
#include <stdio.h>
#include <windows.h>

#include <string>

#include "harness.h"

namespace {

std::string Figures(double fast, double middle, double slow)
{
    char text[64];
    snprintf(text, sizeof text, "%8.2lf %8.2lf %8.2lf\r\n", fast, middle, slow);
    return text;
}

int Processors()
{
    SYSTEM_INFO system;
    GetSystemInfo(&system);
    return (int)system.dwNumberOfProcessors;
}

struct DaemonCpuLoad : ::testing::Test {
    size_t logStart = 0;
    std::string dir;

    void MarkLog() { logStart = ReadFileText(DaemonLogPath()).size(); }
    std::string Log()
    {
        std::string text = ReadFileText(DaemonLogPath());
        return text.size() > logStart ? text.substr(logStart) : "";
    }
    bool WaitFor(const std::string &path, const std::string &text, DWORD timeoutMs, bool daemonLog)
    {
        for (DWORD waited = 0;; waited += 50) {
            std::string content = daemonLog ? Log() : ReadFileText(path);
            if (content.find(text) != std::string::npos)
                return true;
            if (waited >= timeoutMs)
                return false;
            Sleep(50);
        }
    }
    bool WaitForLog(const std::string &text, DWORD timeoutMs) { return WaitFor("", text, timeoutMs, true); }

    // Installs and starts the daemon from a copy of tzdevice.exe with the
    // stand-in `variant` of pdh.dll beside it.
    void StartDaemonWithStandIn(const std::string &variant, const std::string &settings)
    {
        StopAndRemoveDaemon();
        if (dir.empty())
            dir = MakeTempDir("cpuload");
        std::string exe = dir + "\\tzdevice.exe";
        ASSERT_TRUE(CopyFileA(BinPath("tzdevice.exe").c_str(), exe.c_str(), FALSE));
        std::string dll = BinDir() + "\\..\\fakepdh-" + variant + "\\pdh.dll";
        ASSERT_TRUE(CopyFileA(dll.c_str(), (dir + "\\pdh.dll").c_str(), FALSE)) << dll;
        DeleteFileA((dir + "\\fakepdh.log").c_str());
        WriteFileText(dir + "\\fakepdh.cfg", settings);
        MarkLog();
        RunResult install = RunProgram(exe, {"--daemoninstall"});
        ASSERT_EQ(install.exitCode, 0u) << install.err;
        RunResult start = RunProgram(exe, {"--servicestart", "tzdeviced"});
        ASSERT_EQ(start.exitCode, 0u) << start.err;
        ASSERT_TRUE(WaitServiceState("tzdeviced", SERVICE_RUNNING, 10000));
        ASSERT_TRUE(WaitDaemonPipe(10000));
    }
    RunResult CpuLoad()
    {
        std::string exe = dir.empty() ? BinPath("tzdevice.exe") : dir + "\\tzdevice.exe";
        return RunProgram(exe, {"--daemonmodeforce", "--cpuload"});
    }
    void TearDown() override
    {
        if (dir.empty())
            return;
        // Put the daemon of this build back.
        StopAndRemoveDaemon();
        RemoveTree(dir);
        EnsureDaemonRunning();
    }
};

TEST_F(DaemonCpuLoad, WineCountersEndTheMonitorAndTheFiguresStayZero)
{
    StopAndRemoveDaemon();
    MarkLog();
    std::string why;
    ASSERT_TRUE(EnsureDaemonRunning(&why)) << why;
    ASSERT_TRUE(WaitForLog("ERROR: Cannot monitor average CPU load.\r\n", 5000)) << Log();
    std::string text = Log();
    // The monitor starts before the collector.
    EXPECT_LT(text.find("<- PdhInit()...\r\n"), text.find("GarbageCollectorInit : Creating reset event...\r\n"));
    EXPECT_NE(text.find("Using english names...\r\n"), std::string::npos);
    EXPECT_NE(text.find("ERROR: Cannot add CPU queue counter to PDH query.\r\n"), std::string::npos);
    EXPECT_NE(text.find("PDH code is : 0xc0000bb9.\r\n"), std::string::npos);

    RunResult load = RunTool({"--cpuload"});
    EXPECT_EQ(load.exitCode, 0u) << load.err;
    EXPECT_EQ(load.out, "    0.00     0.00     0.00\r\n");
}

TEST_F(DaemonCpuLoad, AStandInLibraryGivesTheFiguresOfTheRulesThroughTheDaemon)
{
    StartDaemonWithStandIn("english", "cpu=100\nqueue=5\n");
    if (HasFatalFailure())
        return;
    // The first sample and two turns of the loop, five seconds apart.
    ASSERT_TRUE(WaitFor(dir + "\\fakepdh.log", "collect 3\n", 15000, false)) << ReadFileText(dir + "\\fakepdh.log");
    Sleep(500);
    RunResult load = CpuLoad();
    EXPECT_EQ(load.exitCode, 0u) << load.err;
    double work = Processors() + 3.0;  // every processor busy, three threads beyond the free two
    EXPECT_EQ(load.out, Figures(0.08 * work * 1.92, 0.0165 * work * 1.9835, 0.0055 * work * 1.9945));
    std::string text = Log();
    EXPECT_NE(text.find("Using english names...\r\n"), std::string::npos) << text;
    EXPECT_NE(text.find("PdhMonitor : Entering performance monitor loop...\r\n"), std::string::npos);
    EXPECT_EQ(text.find("Cannot monitor average CPU load"), std::string::npos);
}

TEST_F(DaemonCpuLoad, AStandInWithoutEnglishCountersTakesTheLocalNames)
{
    StartDaemonWithStandIn("local", "cpu=100\nqueue=5\n");
    if (HasFatalFailure())
        return;
    // Wine's "Counter 009" knows none of the four names, so the paths come
    // out empty and adding the processor counter fails.
    ASSERT_TRUE(WaitForLog("ERROR: Cannot monitor average CPU load.\r\n", 5000)) << Log();
    std::string text = Log();
    EXPECT_EQ(text.find("Using english names"), std::string::npos);
    EXPECT_NE(text.find("CPU            : []\r\n"), std::string::npos) << text;
    EXPECT_NE(text.find("CPU Load       : [\\(_Total)\\]\r\n"), std::string::npos);
    EXPECT_NE(text.find("ERROR: Cannot add CPU counter to PDH query.\r\n"), std::string::npos);
    EXPECT_NE(ReadFileText(dir + "\\fakepdh.log").find("add \\(_Total)\\\n"), std::string::npos);
    RunResult load = CpuLoad();
    EXPECT_EQ(load.out, "    0.00     0.00     0.00\r\n");
}

}  // namespace
