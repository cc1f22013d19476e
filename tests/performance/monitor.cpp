// The load monitor run for real in a probe process: with Wine's own pdh.dll,
// and with test stand-ins (tests/tools/fakepdh) that report known counter
// values. A stand-in is put beside a copy of this program, where
// LoadLibraryA("pdh.dll") finds it first; the copy then runs as a probe child
// (TZ_PDH_PROBE names the case), starts the monitor with PdhInit and prints
// the figures that PdhGetCpuLoad gives after each sample.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <windows.h>

#include <string>
#include <vector>

#include "harness.h"
#include "performance/performance.h"
#include "support/log.h"

namespace {

// ---- the probe side -------------------------------------------------------

std::string Env(const char *name)
{
    const char *value = getenv(name);
    return value ? value : "";
}

std::string OwnFolder()
{
    char path[MAX_PATH] = {0};
    GetModuleFileNameA(NULL, path, sizeof path);
    std::string text(path);
    return text.substr(0, text.find_last_of('\\'));
}

void PrintFigures(const char *label)
{
    double fast = 0, middle = 0, slow = 0;
    PdhGetCpuLoad(&fast, &middle, &slow);
    printf("%s=%8.2lf %8.2lf %8.2lf\n", label, fast, middle, slow);
    fflush(stdout);
}

// Waits until `text` is in the probe's own log, or the time is up.
void WaitForLogText(const std::string &text, DWORD timeoutMs)
{
    std::string log = Env("TZ_PROBE_LOG");
    for (DWORD waited = 0; waited < timeoutMs; waited += 50) {
        if (ReadFileText(log).find(text) != std::string::npos)
            return;
        Sleep(50);
    }
}

void ProbeMonitor()
{
    printf("init=%d\n", PdhInit());
    fflush(stdout);
    DWORD start = GetTickCount();
    typedef LONG(WINAPI * CountFn)(void);
    CountFn collectCount = reinterpret_cast<CountFn>(reinterpret_cast<void (*)(void)>(
        GetProcAddress(GetModuleHandleA("pdh.dll"), "FakePdhCollectCount")));
    int turns = atoi(Env("TZ_PDH_TURNS").c_str());
    int idleAfter = atoi(Env("TZ_PDH_IDLE_AFTER").c_str());
    for (int turn = 1; turn <= turns && collectCount != nullptr; turn++) {
        // The first sample and `turn` turns of the loop; the figures are
        // stored right after the collection, and the next comes 5 s later.
        DWORD waited = 0;
        while (collectCount() < turn + 1 && waited < 8000) {
            Sleep(20);
            waited += 20;
        }
        printf("at%d=%lu\n", turn, (unsigned long)(GetTickCount() - start));
        Sleep(300);
        PrintFigures(("turn" + std::to_string(turn)).c_str());
        if (turn == idleAfter)
            WriteFileText(OwnFolder() + "\\fakepdh.cfg", "cpu=0\nqueue=0\n");
    }
    DWORD settle = (DWORD)atoi(Env("TZ_PDH_SETTLE").c_str());
    if (settle > 0)
        WaitForLogText("<- PdhMonitor()", settle);
    PrintFigures("final");
}

void ProbeLookup()
{
    std::string names = Env("TZ_PDH_NAMES");
    size_t at = 0;
    while (at <= names.size()) {
        size_t bar = names.find('|', at);
        std::string name = names.substr(at, bar == std::string::npos ? std::string::npos : bar - at);
        char local[2048] = {0};
        int index = PdhLookupPerfIndexByEnglishName(name.c_str());
        int translated = PdhLookupPerfLocalName(local, sizeof local, name.c_str());
        printf("index[%s]=%d\nlocal[%s]=%d [%s]\n", name.c_str(), index, name.c_str(), translated, local);
        if (bar == std::string::npos)
            break;
        at = bar + 1;
    }
}

struct ProbeRunner {
    ProbeRunner()
    {
        std::string probe = Env("TZ_PDH_PROBE");
        if (probe.empty())
            return;
        if (!Env("TZ_PROBE_LOG").empty())
            LogSetFile(Env("TZ_PROBE_LOG").c_str());
        if (probe == "monitor")
            ProbeMonitor();
        else if (probe == "lookup")
            ProbeLookup();
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

std::string Figures(double fast, double middle, double slow)
{
    char text[64];
    snprintf(text, sizeof text, "%8.2lf %8.2lf %8.2lf", fast, middle, slow);
    return text;
}

int Processors()
{
    SYSTEM_INFO system;
    GetSystemInfo(&system);
    return (int)system.dwNumberOfProcessors;
}

std::string SelfPath()
{
    char self[MAX_PATH] = {0};
    GetModuleFileNameA(NULL, self, sizeof self);
    return self;
}

// A folder with a copy of this program and, unless `variant` is empty, one
// stand-in pdh.dll; the probe's log lands in it too.
struct PdhProbe : ::testing::Test {
    std::string dir = MakeTempDir("pdh");
    std::string log = dir + "\\probe.log";
    std::string exe = SelfPath();

    void UseStandIn(const std::string &variant, const std::string &settings)
    {
        exe = dir + "\\probe.exe";
        ASSERT_TRUE(CopyFileA(SelfPath().c_str(), exe.c_str(), FALSE));
        std::string dll = BinDir() + "\\..\\fakepdh-" + variant + "\\pdh.dll";
        ASSERT_TRUE(CopyFileA(dll.c_str(), (dir + "\\pdh.dll").c_str(), FALSE)) << dll;
        WriteFileText(dir + "\\fakepdh.cfg", settings);
    }
    RunResult Run(const std::string &probe, std::vector<std::pair<std::string, std::string>> env)
    {
        RunOptions options;
        options.timeoutMs = 60000;
        options.env = env;
        options.env.push_back({"TZ_PDH_PROBE", probe});
        options.env.push_back({"TZ_PROBE_LOG", log});
        return RunProgram(exe, {}, options);
    }
    std::string Log() { return ReadFileText(log); }
    std::string StandInLog() { return ReadFileText(dir + "\\fakepdh.log"); }
    void TearDown() override { RemoveTree(dir); }
};

// Wine's library has the processor counter but no queue counter: the monitor
// starts, adds the first counter by its English path and ends at the second.
TEST_F(PdhProbe, WineLibraryEndsTheMonitorAtTheQueueCounter)
{
    RunResult run = Run("monitor", {{"TZ_PDH_SETTLE", "5000"}});
    EXPECT_EQ(Field(run.out, "init"), "0");
    std::string text = Log();
    EXPECT_NE(text.find("-> PdhInit()...\r\n"), std::string::npos) << text;
    EXPECT_NE(text.find("Using english names...\r\n"), std::string::npos);
    EXPECT_NE(text.find("CPU Load       : [\\Processor(_Total)\\% Processor Time]\r\n"), std::string::npos);
    EXPECT_NE(text.find("Queue length   : [\\System\\Processor Queue Length]\r\n"), std::string::npos);
    EXPECT_NE(text.find("CPU number     : [" + std::to_string(Processors()) + "]\r\n"), std::string::npos);
    EXPECT_EQ(text.find("ERROR: Cannot add CPU counter"), std::string::npos);
    EXPECT_NE(text.find("ERROR: Cannot add CPU queue counter to PDH query.\r\n"), std::string::npos);
    EXPECT_NE(text.find("ERROR: Cannot monitor average CPU load.\r\nError code is : "), std::string::npos);
    EXPECT_NE(text.find(".\r\nPDH code is : 0xc0000bb9.\r\n"), std::string::npos);
    EXPECT_EQ(text.find("Entering performance monitor loop"), std::string::npos);
    EXPECT_NE(run.err.find("ERROR: Cannot add CPU queue counter to PDH query.\r\n"), std::string::npos) << run.err;
    EXPECT_EQ(Field(run.out, "final"), "    0.00     0.00     0.00");
}

TEST_F(PdhProbe, KnownValuesGiveTheFiguresOfTheRulesEveryFiveSecondsAndIdleDecays)
{
    UseStandIn("english", "cpu=100\nqueue=5\n");
    RunResult run = Run("monitor", {{"TZ_PDH_TURNS", "3"}, {"TZ_PDH_IDLE_AFTER", "2"}});
    EXPECT_EQ(Field(run.out, "init"), "0") << run.err;
    // All processors busy and three threads beyond the two free ones.
    double load = Processors() + 3.0;
    EXPECT_EQ(Field(run.out, "turn1"), Figures(0.08 * load, 0.0165 * load, 0.0055 * load));
    double fast = 0.08 * load * (1 + 0.92), middle = 0.0165 * load * (1 + 0.9835);
    double slow = 0.0055 * load * (1 + 0.9945);
    EXPECT_EQ(Field(run.out, "turn2"), Figures(fast, middle, slow));
    EXPECT_EQ(Field(run.out, "turn3"), Figures(fast * 0.92, middle * 0.9835, slow * 0.9945)) << "idle decays";
    EXPECT_LT(atol(Field(run.out, "at1").c_str()), 2000) << "the first turn follows the first sample at once";
    long step = atol(Field(run.out, "at2").c_str()) - atol(Field(run.out, "at1").c_str());
    EXPECT_GE(step, 4800);
    EXPECT_LE(step, 6500);

    std::string calls = StandInLog();
    EXPECT_EQ(calls.find("open\naddenglish \\Processor(_Total)\\% Processor Time\n"
                         "addenglish \\System\\Processor Queue Length\ncollect 1\n"),
              0u)
        << calls;
    EXPECT_EQ(calls.find("badread"), std::string::npos) << "the processor counter as a double, the queue as an integer";
    EXPECT_EQ(calls.find("unexpected"), std::string::npos);
    EXPECT_EQ(calls.find("lookup"), std::string::npos) << "no name translation on the English path";
    std::string text = Log();
    EXPECT_NE(text.find("Using english names...\r\n"), std::string::npos);
    EXPECT_NE(text.find("PdhMonitor : Entering performance monitor loop...\r\n"), std::string::npos);
    EXPECT_EQ(text.find("ERROR"), std::string::npos) << text;
    EXPECT_TRUE(run.err.empty()) << run.err;
}

// Without PdhAddEnglishCounterA the paths are built from the local names of
// four English names, found through "Counter 009" and the library's
// PdhLookupPerfNameByIndexA (the stand-in answers "Local<index>").
TEST_F(PdhProbe, WithoutEnglishCountersThePathsAreBuiltFromLocalNames)
{
    // What this platform's "Counter 009" knows decides what can be built.
    std::string local[4];
    const char *english[4] = {"Processor", "% Processor Time", "System", "Processor Queue Length"};
    for (int i = 0; i < 4; i++) {
        int index = PdhLookupPerfIndexByEnglishName(english[i]);
        if (index >= 0)
            local[i] = "Local" + std::to_string(index);
    }
    std::string cpuPath = "\\" + local[0] + "(_Total)\\" + local[1];
    std::string queuePath = "\\" + local[2] + "\\" + local[3];

    bool cpuWhole = !local[0].empty() && !local[1].empty();
    bool queueWhole = !local[2].empty() && !local[3].empty();

    UseStandIn("local", "cpu=100\nqueue=5\n");
    RunResult run = Run("monitor", {{"TZ_PDH_TURNS", cpuWhole && queueWhole ? "1" : "0"}, {"TZ_PDH_SETTLE", "2000"}});
    EXPECT_EQ(Field(run.out, "init"), "0");
    std::string text = Log();
    EXPECT_EQ(text.find("Using english names"), std::string::npos);
    EXPECT_NE(text.find("CPU            : [" + local[0] + "]\r\n"), std::string::npos) << text;
    EXPECT_NE(text.find("Total CPU time : [" + local[1] + "]\r\n"), std::string::npos);
    EXPECT_NE(text.find("CPU Load       : [" + cpuPath + "]\r\n"), std::string::npos);
    EXPECT_NE(text.find("Queue length   : [" + queuePath + "]\r\n"), std::string::npos);
    EXPECT_NE(StandInLog().find("add " + cpuPath + "\n"), std::string::npos) << StandInLog();
    for (int i = 0; i < 4; i++) {
        if (!local[i].empty())
            continue;
        // An unknown name: both errors on standard error only, never in the log.
        std::string name = english[i];
        EXPECT_NE(run.err.find("ERROR: Cannot retrieve index of '" + name + "' object.\r\nError code is : "),
                  std::string::npos)
            << run.err;
        EXPECT_NE(run.err.find("ERROR: Cannot translate '" + name + "' name to local.\r\nError code is : "),
                  std::string::npos);
        EXPECT_EQ(text.find("Cannot retrieve index"), std::string::npos);
        EXPECT_EQ(text.find("Cannot translate"), std::string::npos);
    }
    if (!cpuWhole) {
        EXPECT_NE(text.find("ERROR: Cannot add CPU counter to PDH query.\r\n"), std::string::npos);
        EXPECT_NE(text.find("PDH code is : 0xc0000bc0.\r\n"), std::string::npos);
        EXPECT_EQ(Field(run.out, "final"), "    0.00     0.00     0.00");
    } else if (!queueWhole) {
        EXPECT_NE(text.find("ERROR: Cannot add CPU queue counter to PDH query.\r\n"), std::string::npos);
    } else {
        double load = Processors() + 3.0;
        EXPECT_EQ(Field(run.out, "turn1"), Figures(0.08 * load, 0.0165 * load, 0.0055 * load));
    }
}

TEST_F(PdhProbe, AFailedCollectionEndsTheMonitorAndFreezesTheFigures)
{
    UseStandIn("english", "cpu=100\nqueue=5\nfailcollect=1\n");
    RunResult first = Run("monitor", {{"TZ_PDH_SETTLE", "3000"}});
    std::string text = Log();
    EXPECT_NE(text.find("ERROR: Cannot collect first sample from PDH counter.\r\n"), std::string::npos) << text;
    EXPECT_NE(text.find("PDH code is : 0x800007d5.\r\n"), std::string::npos);
    EXPECT_EQ(Field(first.out, "final"), "    0.00     0.00     0.00");

    // The third collection is the second turn of the loop: the first turn's
    // figures stay for the rest of the run.
    DeleteFileA(log.c_str());
    DeleteFileA((dir + "\\fakepdh.log").c_str());
    WriteFileText(dir + "\\fakepdh.cfg", "cpu=100\nqueue=5\nfailcollect=3\n");
    RunResult third = Run("monitor", {{"TZ_PDH_TURNS", "1"}, {"TZ_PDH_SETTLE", "8000"}});
    text = Log();
    EXPECT_NE(text.find("ERROR: Cannot collect sample from PDH counter.\r\n"), std::string::npos) << text;
    EXPECT_NE(text.find("PDH code is : 0x800007d5.\r\n"), std::string::npos);
    EXPECT_NE(text.find("<- PdhMonitor()...\r\n"), std::string::npos);
    double load = Processors() + 3.0;
    EXPECT_EQ(Field(third.out, "turn1"), Figures(0.08 * load, 0.0165 * load, 0.0055 * load));
    EXPECT_EQ(Field(third.out, "final"), Field(third.out, "turn1"));
}

TEST_F(PdhProbe, AMissingRequiredFunctionOrAnUnloadableLibraryStartsNoMonitor)
{
    UseStandIn("nomake", "");
    RunResult run = Run("monitor", {});
    EXPECT_EQ(Field(run.out, "init"), "-1");
    std::string text = Log();
    EXPECT_NE(text.find("ERROR: Cannot import 'PdhMakeCounterPathA' function.\r\n"), std::string::npos) << text;
    EXPECT_NE(text.find("ERROR: Cannot initialize performance API.\r\nError code is : 127.\r\n"),
              std::string::npos);
    EXPECT_EQ(text.find("PdhMonitor"), std::string::npos);
    EXPECT_NE(run.err.find("ERROR: Cannot import 'PdhMakeCounterPathA' function.\r\n"), std::string::npos);
    EXPECT_EQ(Field(run.out, "final"), "    0.00     0.00     0.00");

    // A pdh.dll that is no library at all.
    DeleteFileA(log.c_str());
    WriteFileText(dir + "\\pdh.dll", "not a library\n");
    run = Run("monitor", {});
    EXPECT_EQ(Field(run.out, "init"), "-1");
    text = Log();
    EXPECT_NE(text.find("ERROR: Cannot load 'phd.dll' library.\r\n"), std::string::npos) << text;
    EXPECT_NE(text.find("ERROR: Cannot initialize performance API.\r\nError code is : "), std::string::npos);
    EXPECT_EQ(text.find("Cannot import"), std::string::npos);
}

// Wine's "Counter 009" holds only a marker pair or two; the walk finds what
// is there, ignoring case, and reports the rest on standard error only.
TEST_F(PdhProbe, CounterNamesAreLookedUpInTheEnglishTable)
{
    RunResult run = Run("lookup", {{"TZ_PDH_NAMES", "End Marker|END MARKER|Processor"}});
    EXPECT_EQ(Field(run.out, "index[End Marker]"), "1846") << run.out;
    EXPECT_EQ(Field(run.out, "index[END MARKER]"), "1846");
    EXPECT_EQ(Field(run.out, "index[Processor]"), "-1");
    EXPECT_EQ(Field(run.out, "local[Processor]"), "-1 []");
    EXPECT_NE(run.err.find("ERROR: Cannot retrieve index of 'Processor' object.\r\nError code is : 1168.\r\n"),
              std::string::npos)
        << run.err;
    EXPECT_NE(run.err.find("ERROR: Cannot translate 'Processor' name to local.\r\nError code is : "),
              std::string::npos);
    std::string text = Log();
    EXPECT_NE(text.find("-> PdhLookupPerfIndexByEnglishName()...\r\n"), std::string::npos);
    EXPECT_EQ(text.find("Cannot retrieve index"), std::string::npos) << text;
    EXPECT_EQ(text.find("Cannot translate"), std::string::npos);
}

}  // namespace
