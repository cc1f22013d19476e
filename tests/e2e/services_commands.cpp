// The service commands of the tool, run as a real process against Wine's
// service manager: what each prints, on which stream, and its exit code.
#include <gtest/gtest.h>
#include <windows.h>

#include <string>
#include <vector>

#include "harness.h"

namespace {

std::string Plain(const std::string &text)
{
    std::string plain;
    for (char c : text)
        if (c != '\r')
            plain.push_back(c);
    return plain;
}

std::string ConfiguredPath(const std::string &name)
{
    std::string path;
    SC_HANDLE manager = OpenSCManagerA(NULL, NULL, SC_MANAGER_CONNECT);
    SC_HANDLE service = OpenServiceA(manager, name.c_str(), SERVICE_QUERY_CONFIG);
    std::vector<char> block(8192);
    DWORD needed = 0;
    if (service && QueryServiceConfigA(service, (QUERY_SERVICE_CONFIGA *)block.data(), (DWORD)block.size(), &needed))
        path = ((QUERY_SERVICE_CONFIGA *)block.data())->lpBinaryPathName;
    if (service)
        CloseServiceHandle(service);
    if (manager)
        CloseServiceHandle(manager);
    return path;
}

struct ServiceCommands : ::testing::Test {
    std::string profile = MakeLogProfile("svccmd");
    std::vector<std::string> made;

    RunResult Tool(const std::vector<std::string> &args)
    {
        RunResult result = RunTool(args, WithProfile(profile));
        result.out = Plain(result.out);
        result.err = Plain(result.err);
        return result;
    }
    // Runs a command that should succeed silently.
    void Quietly(const std::vector<std::string> &args)
    {
        RunResult result = Tool(args);
        EXPECT_EQ(0u, result.exitCode) << args[0] << "\n" << result.err;
        EXPECT_EQ("", result.err) << args[0];
        EXPECT_EQ("", result.out) << args[0];
    }
    std::string Printed(const std::string &command, const std::string &name)
    {
        RunResult result = Tool({command, name});
        EXPECT_EQ(0u, result.exitCode) << command << "\n" << result.err;
        EXPECT_EQ("", result.err);
        return result.out;
    }
    std::string Made(const std::string &tag)
    {
        std::string name = "tze-" + tag + "-" + std::to_string(GetCurrentProcessId());
        made.push_back(name);
        return name;
    }
    void TearDown() override
    {
        for (const auto &name : made)
            RemoveServiceQuietly(name);
        RemoveTree(profile);
    }
};

std::string OpenError(const std::string &what, const std::string &name, int code)
{
    return "ERROR: Cannot open service.\nError code is " + std::to_string(code) + ".\nERROR: Cannot " + what +
           " service '" + name + "'.\nError code is " + std::to_string(code) + ".\n";
}

TEST_F(ServiceCommands, AddStatusStartStopDeleteOfOneService)
{
    std::string name = Made("flow");
    // Added and started at once; a bare file name is a program next to the tool.
    Quietly({"--serviceadd", name, "--servicepath", "testservice.exe", "--servicestarttype", "DEMAND"});
    EXPECT_EQ(BinPath("testservice.exe"), ConfiguredPath(name));
    EXPECT_EQ("4\n", Printed("--servicestatusget", name));
    EXPECT_EQ("16\n", Printed("--servicetypeget", name));
    EXPECT_EQ("3\n", Printed("--servicestarttypeget", name));

    RunResult again = Tool({"--servicestart", name});
    EXPECT_EQ(1056u, again.exitCode);
    EXPECT_EQ("ERROR: Cannot start service '" + name + "'.\nError code is 1056.\n", again.err);

    // The tool always refuses to add over an existing service.
    RunResult twice = Tool({"--serviceadd", name, "--servicepath", "testservice.exe slowstop"});
    EXPECT_EQ(1073u, twice.exitCode);
    EXPECT_EQ("ERROR: Cannot create service.\nError code is 1073.\n", twice.err);
    EXPECT_EQ("4\n", Printed("--servicestatusget", name));
    EXPECT_EQ(BinPath("testservice.exe"), ConfiguredPath(name));

    Quietly({"--servicestop", name});
    EXPECT_EQ("1\n", Printed("--servicestatusget", name));
    Quietly({"--servicestop", name});  // stopped already: still 0
    Quietly({"--servicestart", name});
    EXPECT_EQ("4\n", Printed("--servicestatusget", name));

    // An unknown type word leaves the type alone; the start type changes.
    Quietly({"--servicechange", name, "--servicetype", "NO_SUCH_TYPE", "--servicestarttype", "DISABLED"});
    EXPECT_EQ("16\n", Printed("--servicetypeget", name));
    EXPECT_EQ("4\n", Printed("--servicestarttypeget", name));

    // Deleted while running: stopped and gone.
    Quietly({"--servicedel", name});
    for (int i = 0; i < 50 && ServicePresent(name); i++)
        Sleep(100);
    RunResult gone = Tool({"--servicestatusget", name});
    EXPECT_EQ(1060u, gone.exitCode);
    EXPECT_EQ("", gone.out);
    EXPECT_EQ(OpenError("retrieve status for", name, 1060), gone.err);
    gone = Tool({"--servicedel", name});
    EXPECT_EQ(1060u, gone.exitCode);
    EXPECT_EQ(OpenError("delete", name, 1060), gone.err);
    std::string log = Plain(ReadFileText(LogFileIn(profile)));
    EXPECT_NE(std::string::npos, log.find("Deleting service '" + name + "'...\n"));
    EXPECT_NE(std::string::npos, log.find("Password     : [Not specified]\n"));
}

TEST_F(ServiceCommands, UsbFilterServiceStartsAndStops)
{
    if (ServicePresent("tzusbd"))
        GTEST_SKIP() << "a tzusbd service exists in this prefix";
    RunResult missing = Tool({"--usbstart"});
    EXPECT_EQ(1060u, missing.exitCode);
    EXPECT_EQ(OpenError("start", "tzusbd", 1060), missing.err);
    missing = Tool({"--usbstop"});
    EXPECT_EQ(1060u, missing.exitCode);
    EXPECT_EQ(OpenError("stop", "tzusbd", 1060), missing.err);

    // A stand-in service under the filter's name.
    made.push_back("tzusbd");
    Quietly({"--serviceadd", "tzusbd", "--servicepath", "testservice.exe", "--servicestarttype", "DEMAND"});
    Quietly({"--usbstop"});
    EXPECT_EQ((DWORD)SERVICE_STOPPED, ServiceStateOf("tzusbd"));
    Quietly({"--usbstart"});
    EXPECT_EQ((DWORD)SERVICE_RUNNING, ServiceStateOf("tzusbd"));
}

}  // namespace
