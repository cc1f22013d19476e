// Service control against Wine's real service manager, in-process. The
// service program is testservice.exe; its first argument in the binary path
// picks how it behaves (see tests/tools/testservice.cpp).
#include <gtest/gtest.h>
#include <stdlib.h>
#include <windows.h>

#include <algorithm>
#include <string>
#include <vector>

#include "capture.h"
#include "devices/devices.h"
#include "harness.h"

namespace {

const std::string kLogPath = TestLogPath();

std::string ServicePath(const std::string &mode)
{
    return BinPath("testservice.exe") + " " + mode;
}

struct Config {
    DWORD type = 0;
    DWORD startType = 0;
    DWORD errorControl = 0;
    std::string path;
    std::string displayName;
};

Config ConfigOf(const std::string &name)
{
    Config config;
    QUERY_SERVICE_CONFIGA *block = NULL;
    EXPECT_EQ(0, ServiceGetConfig(&block, name.c_str(), 0));
    if (block) {
        config.type = block->dwServiceType;
        config.startType = block->dwStartType;
        config.errorControl = block->dwErrorControl;
        config.path = block->lpBinaryPathName ? block->lpBinaryPathName : "";
        config.displayName = block->lpDisplayName ? block->lpDisplayName : "";
        free(block);
    }
    return config;
}

DWORD Elapsed(DWORD since)
{
    return GetTickCount() - since;
}

struct Services : ::testing::Test {
    std::vector<std::string> made;

    std::string Name(const std::string &tag)
    {
        std::string name = "tzt-" + tag + "-" + std::to_string(GetCurrentProcessId());
        made.push_back(name);
        return name;
    }
    // A new service of this test, not started.
    std::string Added(const std::string &tag, const std::string &mode)
    {
        std::string name = Name(tag);
        EXPECT_EQ(0, ServiceAdd(name.c_str(), name.c_str(), SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START,
                                ServicePath(mode).c_str(), 1, NULL, NULL, 0, 0));
        return name;
    }
    // Wine's service manager doesn't notice a killed service process: the
    // state stays where it was. Such a service is only marked for deletion
    // here, since waiting for it to stop would be in vain.
    void Forget(const std::string &name)
    {
        SC_HANDLE manager = OpenSCManagerA(NULL, NULL, SC_MANAGER_CONNECT);
        SC_HANDLE service = OpenServiceA(manager, name.c_str(), DELETE);
        EXPECT_NE(nullptr, service);
        if (service) {
            DeleteService(service);
            CloseServiceHandle(service);
        }
        CloseServiceHandle(manager);
        made.erase(std::remove(made.begin(), made.end(), name), made.end());
    }
    void TearDown() override
    {
        for (const auto &name : made)
            RemoveServiceQuietly(name);
    }
};

TEST_F(Services, AddWithoutStartThenQueryAndChangeConfiguration)
{
    std::string name = Name("cfg");
    size_t mark = LogText().size();
    ASSERT_EQ(0, ServiceAdd(name.c_str(), "Test Display", SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START,
                            ServicePath("normal").c_str(), 1, NULL, "secret", 0, 0));
    std::string log = LogSince(mark);
    EXPECT_NE(std::string::npos, log.find("Password     : [Specified]\n"));
    EXPECT_EQ(std::string::npos, log.find("secret"));
    EXPECT_NE(std::string::npos, log.find("Creating new service...\n"));
    EXPECT_EQ(std::string::npos, log.find("Starting new service"));

    SERVICE_STATUS status;
    ZeroMemory(&status, sizeof status);
    ASSERT_EQ(0, ServiceGetStatus(&status, name.c_str(), 0));
    EXPECT_EQ((DWORD)SERVICE_STOPPED, status.dwCurrentState);
    SetLastError(0);
    EXPECT_EQ(1, ServiceExists(name.c_str()));
    EXPECT_EQ((DWORD)ERROR_ALREADY_EXISTS, GetLastError());

    Config config = ConfigOf(name);
    EXPECT_EQ((DWORD)SERVICE_WIN32_OWN_PROCESS, config.type);
    EXPECT_EQ((DWORD)SERVICE_DEMAND_START, config.startType);
    EXPECT_EQ((DWORD)SERVICE_ERROR_IGNORE, config.errorControl);
    EXPECT_EQ(ServicePath("normal"), config.path);
    EXPECT_EQ("Test Display", config.displayName);

    // Error control set to something else by hand is reset by every change;
    // -1 leaves the type alone, the display name never reaches the service.
    SC_HANDLE manager = OpenSCManagerA(NULL, NULL, SC_MANAGER_CONNECT);
    SC_HANDLE service = OpenServiceA(manager, name.c_str(), SERVICE_CHANGE_CONFIG);
    ASSERT_TRUE(ChangeServiceConfigA(service, SERVICE_NO_CHANGE, SERVICE_NO_CHANGE, SERVICE_ERROR_NORMAL, NULL, NULL,
                                     NULL, NULL, NULL, NULL, NULL));
    CloseServiceHandle(service);
    CloseServiceHandle(manager);
    mark = LogText().size();
    EXPECT_EQ(0, ServiceChange(name.c_str(), "Other Display", -1, SERVICE_DISABLED, NULL));
    EXPECT_NE(std::string::npos, LogSince(mark).find("with rights '0x2'...\n"));
    config = ConfigOf(name);
    EXPECT_EQ((DWORD)SERVICE_WIN32_OWN_PROCESS, config.type);
    EXPECT_EQ((DWORD)SERVICE_DISABLED, config.startType);
    EXPECT_EQ((DWORD)SERVICE_ERROR_IGNORE, config.errorControl);
    EXPECT_EQ(ServicePath("normal"), config.path);
    EXPECT_EQ("Test Display", config.displayName);

    // A relative path is resolved next to the running program.
    EXPECT_EQ(0, ServiceChange(name.c_str(), NULL, -1, -1, "testservice.exe slowstop"));
    config = ConfigOf(name);
    EXPECT_EQ(ServicePath("slowstop"), config.path);
    EXPECT_EQ((DWORD)SERVICE_DISABLED, config.startType);
}

TEST_F(Services, MissingServiceFailsWith1060AndQuietSaysNothing)
{
    const char *missing = "tzt-no-such-service";
    SERVICE_STATUS status;
    {
        StderrCapture capture;
        EXPECT_EQ(1060, ServiceGetStatus(&status, missing, 1));
        QUERY_SERVICE_CONFIGA *config = (QUERY_SERVICE_CONFIGA *)&status;
        EXPECT_EQ(1060, ServiceGetConfig(&config, missing, 1));
        EXPECT_EQ(nullptr, config);
        EXPECT_EQ(1060, ServiceDelete(missing, 1));
        EXPECT_EQ(0, ServiceExists(missing));
        EXPECT_EQ((DWORD)ERROR_FILE_NOT_FOUND, GetLastError());
        EXPECT_EQ("", capture.Take());
    }
    struct Case {
        int result;
        std::string err;
    };
    StderrCapture capture;
    std::vector<Case> cases = {
        {ServiceGetStatus(&status, missing, 0), "ERROR: Cannot open service.\nError code is 1060.\n"
                                                "ERROR: Cannot retrieve status for service 'tzt-no-such-service'.\n"
                                                "Error code is 1060.\n"},
        {ServiceStart(missing, 0, NULL), "ERROR: Cannot open service.\nError code is 1060.\n"
                                         "ERROR: Cannot start service 'tzt-no-such-service'.\nError code is 1060.\n"},
        {ServiceStop(missing, 10000), "ERROR: Cannot open service.\nError code is 1060.\n"
                                      "ERROR: Cannot stop service 'tzt-no-such-service'.\nError code is 1060.\n"},
        {ServiceDelete(missing, 0), "ERROR: Cannot open service.\nError code is 1060.\n"
                                    "ERROR: Cannot delete service 'tzt-no-such-service'.\nError code is 1060.\n"},
        {ServiceChange(missing, NULL, -1, -1, NULL), "ERROR: Cannot open service.\nError code is 1060.\n"
                                                     "ERROR: Cannot change service parameters.\nError code is 1060.\n"},
    };
    std::string expected;
    for (const auto &one : cases) {
        EXPECT_EQ(1060, one.result) << one.err;
        expected += one.err;
    }
    EXPECT_EQ(expected, capture.Take());
}

TEST_F(Services, BadArgumentsFailWith87)
{
    SC_HANDLE manager = NULL;
    SC_HANDLE service = (SC_HANDLE)NULL;
    StderrCapture capture;
    EXPECT_EQ(87, ServiceOpen(&manager, &service, NULL, SERVICE_QUERY_STATUS, 0));
    EXPECT_EQ((DWORD)87, GetLastError());
    EXPECT_EQ(nullptr, manager);
    EXPECT_EQ(87, ServiceChange(NULL, NULL, -1, -1, NULL));
    size_t mark = LogText().size();
    EXPECT_EQ(87, ServiceAdd("tzt-nopath", NULL, SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, NULL, 1, NULL,
                             NULL, 0, 0));
    std::string log = LogSince(mark);
    EXPECT_EQ("ERROR: Cannot open service.\nError code is 87.\n"
              "ERROR: Cannot change service parameters.\nError code is 87.\n"
              "ERROR: Service's path is not valid.\n"
              "ERROR: Cannot create service.\nError code is 87.\n",
              capture.Take());
    // Nothing was made, and the clean-up only leaves its two warnings.
    EXPECT_NE(std::string::npos, log.find("Password     : [Not specified]\n"));
    EXPECT_NE(std::string::npos, log.find("Cleaning up unusable service...\n"));
    EXPECT_NE(std::string::npos, log.find("WARNING: Cannot send stop to service.\n"));
    EXPECT_NE(std::string::npos, log.find("WARNING: Cannot delete service 'tzt-nopath'.\n"));
    EXPECT_FALSE(ServicePresent("tzt-nopath"));
}

TEST_F(Services, AddStartStopDeleteOfOneService)
{
    std::string name = Name("life");
    ASSERT_EQ(0, ServiceAdd(name.c_str(), name.c_str(), SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START,
                            ServicePath("normal").c_str(), 1, NULL, NULL, 1, 0));
    EXPECT_EQ((DWORD)SERVICE_RUNNING, ServiceStateOf(name));

    // Over the existing service: refused with FailIfExists, and left alone.
    {
        StderrCapture capture;
        size_t mark = LogText().size();
        EXPECT_EQ(1073, ServiceAdd(name.c_str(), name.c_str(), SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START,
                                   ServicePath("slowstop").c_str(), 1, NULL, NULL, 1, 0));
        EXPECT_EQ("ERROR: Cannot create service.\nError code is 1073.\n", capture.Take());
        EXPECT_EQ(std::string::npos, LogSince(mark).find("Cleaning up"));
        EXPECT_EQ((DWORD)SERVICE_RUNNING, ServiceStateOf(name));
    }
    // Without FailIfExists it is opened, 1056 counts as started, and the
    // existing configuration stays.
    {
        StderrCapture capture;
        size_t mark = LogText().size();
        EXPECT_EQ(0, ServiceAdd(name.c_str(), "Other", SERVICE_WIN32_OWN_PROCESS, SERVICE_AUTO_START,
                                ServicePath("slowstop").c_str(), 0, NULL, NULL, 1, 0));
        EXPECT_EQ("", capture.Take());
        std::string log = LogSince(mark);
        EXPECT_NE(std::string::npos, log.find("CreateService() failed.\n"));
        EXPECT_NE(std::string::npos, log.find("Service already exists, going to open existing one.\n"));
        EXPECT_NE(std::string::npos, log.find("Service reached state [4]. Going to finish.\n"));
        Config config = ConfigOf(name);
        EXPECT_EQ(ServicePath("normal"), config.path);
        EXPECT_EQ((DWORD)SERVICE_DEMAND_START, config.startType);
    }
    {
        StderrCapture capture;
        EXPECT_EQ(1056, ServiceStart(name.c_str(), 0, NULL));
        EXPECT_EQ("ERROR: Cannot start service '" + name + "'.\nError code is 1056.\n", capture.Take());
    }
    DWORD pid = ServicePid(name);
    ASSERT_NE(0u, pid);
    DWORD started = GetTickCount();
    size_t mark = LogText().size();
    EXPECT_EQ(0, ServiceStop(name.c_str(), 10000));
    EXPECT_LT(Elapsed(started), 3000u);
    EXPECT_EQ((DWORD)SERVICE_STOPPED, ServiceStateOf(name));
    std::string log = LogSince(mark);
    EXPECT_NE(std::string::npos, log.find("Opening service '" + name + "' with rights '0x24'...\n"));
    EXPECT_NE(std::string::npos, log.find("Sending STOP to service...\n"));
    EXPECT_EQ(std::string::npos, log.find("Retrieving service's PID"));

    // A stopped service: a warning in the log, and done at the first poll.
    {
        StderrCapture capture;
        mark = LogText().size();
        EXPECT_EQ(0, ServiceStop(name.c_str(), 10000));
        EXPECT_EQ("", capture.Take());
        log = LogSince(mark);
        EXPECT_NE(std::string::npos, log.find("WARNING: Cannot send STOP signal to service.\nError code is : 1062.\n"));
        EXPECT_NE(std::string::npos, log.find("Service reached state [1]. Going to finish.\n"));
        EXPECT_EQ(std::string::npos, log.find("still in"));
    }

    mark = LogText().size();
    EXPECT_EQ(0, ServiceStart(name.c_str(), 0, NULL));
    EXPECT_EQ((DWORD)SERVICE_RUNNING, ServiceStateOf(name));
    EXPECT_NE(std::string::npos, LogSince(mark).find("with rights '0x14'...\n"));

    // Deleting a running service deletes first and stops after; the
    // service manager then removes it.
    mark = LogText().size();
    EXPECT_EQ(0, ServiceDelete(name.c_str(), 0));
    log = LogSince(mark);
    size_t deleting = log.find("Deleting service '" + name + "'...\n");
    size_t stopping = log.find("Sending STOP to '" + name + "' service...\n");
    EXPECT_NE(std::string::npos, deleting);
    EXPECT_NE(std::string::npos, stopping);
    EXPECT_LT(deleting, stopping);
    EXPECT_NE(std::string::npos, log.find("with rights '0x10024'...\n"));
    EXPECT_NE(std::string::npos, log.find("Service reached state [1]. Going to finish.\n"));
    for (int i = 0; i < 50 && ServicePresent(name); i++)
        Sleep(100);
    EXPECT_FALSE(ServicePresent(name));
}

TEST_F(Services, ServiceThatStopsWhileStartingIsStartedButNotAdded)
{
    // ServiceStart counts it as started, after the unexpected-state line.
    std::string name = Added("selfA", "selfstop");
    {
        StderrCapture capture;
        EXPECT_EQ(0, ServiceStart(name.c_str(), 0, NULL));
        EXPECT_EQ("ERROR: Unexpected service state [1] reached.\n", capture.Take());
        EXPECT_EQ((DWORD)SERVICE_STOPPED, ServiceStateOf(name));
    }
    // ServiceAdd with start set fails and removes the half-made service.
    std::string half = Name("selfB");
    StderrCapture capture;
    size_t mark = LogText().size();
    int result = ServiceAdd(half.c_str(), half.c_str(), SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START,
                            ServicePath("selfstop").c_str(), 1, NULL, NULL, 1, 0);
    std::string err = capture.Take();
    EXPECT_NE(0, result);
    EXPECT_NE(1073, result);
    EXPECT_EQ(0u, err.find("ERROR: Unexpected service state [1] reached.\nERROR: Cannot create service.\nError code is "))
        << err;
    std::string log = LogSince(mark);
    EXPECT_NE(std::string::npos, log.find("WARNING: Service doesn't response.\n"));
    EXPECT_NE(std::string::npos, log.find("Cleaning up unusable service...\n"));
    EXPECT_EQ(std::string::npos, log.find("WARNING: Cannot delete service"));
    EXPECT_FALSE(ServicePresent(half));
}

TEST_F(Services, WaitPollsAndKeepsItsLastErrorRules)
{
    std::string name = Added("wait", "normal");
    SC_HANDLE manager = OpenSCManagerA(NULL, NULL, SC_MANAGER_CONNECT);
    SC_HANDLE service = OpenServiceA(manager, name.c_str(), SERVICE_QUERY_STATUS | SERVICE_STOP);
    ASSERT_NE(nullptr, service);

    // A timeout of 0 never queries: a dead handle would otherwise give 6.
    SetLastError(0);
    size_t mark = LogText().size();
    {
        StderrCapture capture;
        EXPECT_EQ(-1, ServiceWaitUntilRunning(NULL, SERVICE_START_PENDING, SERVICE_RUNNING, 0, 1));
        EXPECT_EQ((DWORD)ERROR_SERVICE_REQUEST_TIMEOUT, GetLastError());
        EXPECT_EQ(-1, ServiceWaitUntilRunning(NULL, SERVICE_START_PENDING, SERVICE_RUNNING, -5, 0));
        EXPECT_EQ("ERROR: Service doesn't response.\nError code is : 1053.\n", capture.Take());
    }
    std::string log = LogSince(mark);
    EXPECT_NE(std::string::npos, log.find("Waiting until service state changed from [2] to [4]...\n"));
    EXPECT_NE(std::string::npos, log.find("WARNING: Service doesn't response.\nError code is : 1053.\n"));

    // Success also leaves 1053 behind.
    SetLastError(0);
    EXPECT_EQ(0, ServiceWaitUntilRunning(service, SERVICE_STOP_PENDING, SERVICE_STOPPED, 1000, 1));
    EXPECT_EQ((DWORD)ERROR_SERVICE_REQUEST_TIMEOUT, GetLastError());

    // A state that is neither end fails at once, whatever `quiet` says.
    {
        StderrCapture capture;
        DWORD started = GetTickCount();
        EXPECT_EQ(-1, ServiceWaitUntilRunning(service, SERVICE_START_PENDING, SERVICE_RUNNING, 10000, 1));
        EXPECT_LT(Elapsed(started), 400u);
        EXPECT_EQ("ERROR: Unexpected service state [1] reached.\n", capture.Take());
    }
    // Only queries the handle: a wait for the running state on a stopped service
    // with from-state stopped uses up its time in 500 ms steps.
    mark = LogText().size();
    DWORD started = GetTickCount();
    EXPECT_EQ(-1, ServiceWaitUntilRunning(service, SERVICE_STOPPED, SERVICE_RUNNING, 1200, 1));
    EXPECT_GE(Elapsed(started), 1400u);
    EXPECT_EQ((DWORD)ERROR_SERVICE_REQUEST_TIMEOUT, GetLastError());
    EXPECT_EQ(3u, CountOf(LogSince(mark), "Service is still in [1] state...\n"));

    // Killing a service that has no process fails with a warning.
    {
        StderrCapture capture;
        EXPECT_EQ(-1, ServiceKill(service, 0));
        EXPECT_EQ(0u, capture.Take().find("WARNING: Cannot terminate service process.\nError code is : "));
    }
    CloseServiceHandle(service);
    CloseServiceHandle(manager);
}

TEST_F(Services, SlowStartAndSlowStopAreWaitedFor)
{
    std::string slowStart = Name("slowstart");
    DWORD started = GetTickCount();
    size_t mark = LogText().size();
    ASSERT_EQ(0, ServiceAdd(slowStart.c_str(), slowStart.c_str(), SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START,
                            ServicePath("slowstart").c_str(), 1, NULL, NULL, 1, 0));
    EXPECT_GE(Elapsed(started), 2500u);
    EXPECT_EQ((DWORD)SERVICE_RUNNING, ServiceStateOf(slowStart));
    EXPECT_NE(std::string::npos, LogSince(mark).find("Service is still in [2] state...\n"));

    std::string slowStop = Name("slowstop");
    ASSERT_EQ(0, ServiceAdd(slowStop.c_str(), slowStop.c_str(), SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START,
                            ServicePath("slowstop").c_str(), 1, NULL, NULL, 1, 0));
    started = GetTickCount();
    mark = LogText().size();
    EXPECT_EQ(0, ServiceStop(slowStop.c_str(), 10000));
    EXPECT_GE(Elapsed(started), 1500u);
    EXPECT_EQ((DWORD)SERVICE_STOPPED, ServiceStateOf(slowStop));
    std::string log = LogSince(mark);
    EXPECT_NE(std::string::npos, log.find("Service is still in [3] state...\n"));
    EXPECT_EQ(std::string::npos, log.find("Retrieving service's PID"));
}

// A process that is gone, or within `timeoutMs`.
bool ProcessEnds(DWORD pid, DWORD timeoutMs)
{
    HANDLE process = OpenProcess(SYNCHRONIZE, FALSE, pid);
    if (process == NULL)
        return true;
    bool ended = WaitForSingleObject(process, timeoutMs) == WAIT_OBJECT_0;
    CloseHandle(process);
    return ended;
}

TEST_F(Services, StopKillsWhatWontStop)
{
    // Stop-pending for ever: the whole timeout, then the kill.
    std::string stuck = Name("ignorestop");
    ASSERT_EQ(0, ServiceAdd(stuck.c_str(), stuck.c_str(), SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START,
                            ServicePath("ignorestop").c_str(), 1, NULL, NULL, 1, 0));
    DWORD pid = ServicePid(stuck);
    ASSERT_NE(0u, pid);
    DWORD started = GetTickCount();
    size_t mark = LogText().size();
    {
        StderrCapture capture;
        EXPECT_EQ(0, ServiceStop(stuck.c_str(), 10000));
        EXPECT_EQ("", capture.Take());
    }
    DWORD took = Elapsed(started);
    EXPECT_GE(took, 9500u);
    EXPECT_LT(took, 13000u);
    std::string log = LogSince(mark);
    EXPECT_EQ(20u, CountOf(log, "Service is still in [3] state...\n"));
    EXPECT_NE(std::string::npos, log.find("WARNING: Service doesn't response.\nError code is : 1053.\n"));
    EXPECT_NE(std::string::npos, log.find("Retrieving service's PID...\n"));
    EXPECT_EQ(std::string::npos, log.find("WARNING: Cannot terminate"));
    EXPECT_TRUE(ProcessEnds(pid, 5000));
    Forget(stuck);

    // No STOP accepted: still running at the first poll, so killed at once.
    std::string deaf = Name("nostop");
    ASSERT_EQ(0, ServiceAdd(deaf.c_str(), deaf.c_str(), SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START,
                            ServicePath("nostop").c_str(), 1, NULL, NULL, 1, 0));
    pid = ServicePid(deaf);
    started = GetTickCount();
    mark = LogText().size();
    {
        StderrCapture capture;
        EXPECT_EQ(0, ServiceStop(deaf.c_str(), 10000));
        EXPECT_EQ("ERROR: Unexpected service state [4] reached.\n", capture.Take());
    }
    EXPECT_LT(Elapsed(started), 2000u);
    EXPECT_NE(std::string::npos, LogSince(mark).find("WARNING: Cannot send STOP signal to service.\n"));
    EXPECT_TRUE(ProcessEnds(pid, 5000));
    Forget(deaf);

    // A timeout of 0 doesn't wait at all: a normal service is killed too.
    std::string hasty = Added("hasty", "normal");
    ASSERT_EQ(0, ServiceStart(hasty.c_str(), 0, NULL));
    pid = ServicePid(hasty);
    mark = LogText().size();
    EXPECT_EQ(0, ServiceStop(hasty.c_str(), 0));
    EXPECT_NE(std::string::npos, LogSince(mark).find("Retrieving service's PID...\n"));
    EXPECT_TRUE(ProcessEnds(pid, 5000));
    Forget(hasty);
}

}  // namespace
