// The service face started outside the service manager: it opens the
// daemon's own log, moves to the program's directory, and ends with the code
// of the service host (which cannot connect to a service manager here; that
// takes about ten seconds under Wine).
#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "harness.h"

namespace {

TEST(ServiceMode, OpensTheDaemonLogAndSetsTheProgramDirectory)
{
    std::string profile = MakeLogProfile("fesvc");
    RunResult r = RunTool({"--servicemode"}, WithProfile(profile));
    std::string log = ReadFileText(LogFileIn(profile, "tzdeviced.log"));
    std::string plain;
    for (char c : log)
        if (c != '\r')
            plain.push_back(c);

    EXPECT_NE(0u, r.exitCode);
    EXPECT_FALSE(FileExists(LogFileIn(profile, "tzdevice.log")));
    EXPECT_NE(std::string::npos, plain.find(" \n\nTZDEVICED64-4.0.368\n"));
    EXPECT_NE(std::string::npos, plain.find(" [Build Dec 12 2013 17:25:01]\n"));
    EXPECT_EQ(std::string::npos, plain.find("TZDEVICE64"));
    EXPECT_EQ(1u, CountOf(plain, " Setting current directory to [" + BinDir() + "]...\n")) << plain;
    EXPECT_EQ(0u, CountOf(plain, "WARNING: Cannot to set base directory."));
    EXPECT_EQ(0u, CountOf(plain, "argv["));
    std::string last = " Exit code : " + std::to_string((int)r.exitCode) + "\n";
    ASSERT_GE(plain.size(), last.size());
    EXPECT_EQ(last, plain.substr(plain.size() - last.size())) << plain;
    RemoveTree(profile);
}

TEST(ServiceMode, AnyFurtherWordMakesItACommandRun)
{
    std::string profile = MakeLogProfile("fesvc2");
    RunResult r = RunTool({"--servicemode", "--usbstop"}, WithProfile(profile));
    EXPECT_EQ((DWORD)ERROR_SERVICE_DOES_NOT_EXIST, r.exitCode);
    EXPECT_FALSE(FileExists(LogFileIn(profile, "tzdeviced.log")));
    EXPECT_EQ(2u, CountOf(ReadFileText(LogFileIn(profile)), "ERROR: Unknown option at [--servicemode]."));
    RemoveTree(profile);
}

}  // namespace
