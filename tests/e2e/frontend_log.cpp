// What a run of the command tool leaves in its log: banners, argument lines
// (with the service password masked), the double parse, the owner process,
// the friendly name read from the wide command line, appending across runs.
#include <gtest/gtest.h>
#include <windows.h>

#include <regex>
#include <string>
#include <vector>

#include "harness.h"

namespace {

const DWORD kFail = 0xFFFFFFFF;

std::string Plain(const std::string &text)
{
    std::string plain;
    for (char c : text)
        if (c != '\r')
            plain.push_back(c);
    return plain;
}

struct LoggedRun : ::testing::Test {
    std::string profile = MakeLogProfile("felog");

    RunResult Run(const std::vector<std::string> &args) { return RunTool(args, WithProfile(profile)); }
    std::string Raw() const { return ReadFileText(LogFileIn(profile)); }
    std::string Log() const { return Plain(Raw()); }
    void TearDown() override { RemoveTree(profile); }
};

// The record prefix of a line written by process `pid`.
std::string Prefix(DWORD pid)
{
    return "\\[" + std::to_string(pid) + "\\]\\[\\d+\\] \\d\\d:\\d\\d:\\d\\d \\d\\d\\d ";
}

TEST_F(LoggedRun, RunStartsWithBannersAndEndsWithItsExitCode)
{
    RunResult r = Run({"--usbstop"});
    EXPECT_EQ((DWORD)ERROR_SERVICE_DOES_NOT_EXIST, r.exitCode);
    std::string log = Log();
    std::regex opening("^" + Prefix(r.pid) + "\n\nTZDEVICE64-4\\.0\\.368\n" + Prefix(r.pid) +
                       "\\[Build Dec 12 2013 17:25:01\\]\n");
    EXPECT_TRUE(std::regex_search(log, opening)) << log;
    std::regex closing(Prefix(r.pid) + "Exit code : 1060\n$");
    EXPECT_TRUE(std::regex_search(log, closing)) << log;
    EXPECT_EQ(1u, CountOf(log, "-> ProcessCommand()...\n"));
    EXPECT_EQ(1u, CountOf(log, "<- ProcessCommand()...\n"));
    // The file is written in text mode.
    EXPECT_NE(std::string::npos, Raw().find(" \r\n\r\nTZDEVICE64-4.0.368\r\n"));
}

TEST_F(LoggedRun, ArgumentsAreLoggedOncePerParseWithPasswordsMasked)
{
    RunResult r = Run({"--servicepass", "secret", "--servicename", "--servicepass", "--servicepass", "pw-two", "--usbstop"});
    EXPECT_EQ((DWORD)ERROR_SERVICE_DOES_NOT_EXIST, r.exitCode);
    std::string log = Log();
    for (const char *line : {"argv[1][--servicepass]\n", "argv[2][**PASS**]\n", "argv[3][--servicename]\n",
                             "argv[4][--servicepass]\n", "argv[5][**PASS**]\n", "argv[6][**PASS**]\n",
                             "argv[7][--usbstop]\n"})
        EXPECT_EQ(2u, CountOf(log, std::string(" ") + line)) << line;
    EXPECT_EQ(std::string::npos, log.find("secret"));
    EXPECT_EQ(std::string::npos, log.find("pw-two"));
}

TEST_F(LoggedRun, NoArgumentsLogsNoArgumentLines)
{
    RunResult r = Run({});
    EXPECT_EQ(0u, r.exitCode);
    EXPECT_EQ(0u, CountOf(Log(), "argv["));
    EXPECT_EQ(1u, CountOf(Log(), " Nothing to do.\n"));
}

TEST_F(LoggedRun, RecordsAreAppendedAcrossRuns)
{
    Run({});
    std::string first = Raw();
    Run({"--bogus"});
    std::string both = Raw();
    ASSERT_GT(both.size(), first.size());
    EXPECT_EQ(first, both.substr(0, first.size()));
    EXPECT_EQ(2u, CountOf(both, "TZDEVICE64-4.0.368"));
    EXPECT_EQ(1u, CountOf(both, "Exit code : 0"));
    EXPECT_EQ(1u, CountOf(both, "Exit code : -1"));
}

TEST_F(LoggedRun, OwnerIsTheCallingProcessAskedOnce)
{
    RunResult r = Run({});
    std::string log = Log();
    EXPECT_EQ(1u, CountOf(log, "-> GetParentPid()...\n"));
    EXPECT_EQ(1u, CountOf(log, "Parent PID for current process [" + std::to_string(r.pid) + "] is [" +
                                   std::to_string(GetCurrentProcessId()) + "].\n"));
}

TEST_F(LoggedRun, GivenOwnerIsNotLookedUp)
{
    Run({"--parentpid", "77"});
    EXPECT_EQ(0u, CountOf(Log(), "GetParentPid"));
}

TEST_F(LoggedRun, DaemonUseFlagsAreLogged)
{
    RunResult r = Run({"--daemonmodeforce", "--nodaemon"});
    EXPECT_EQ(0u, r.exitCode);
    EXPECT_EQ(2u, CountOf(Log(), " Forcing daemon use.\n"));
    EXPECT_EQ(2u, CountOf(Log(), " Forbiding daemon use.\n"));
}

TEST_F(LoggedRun, ExcludedPathsAreLoggedAsEachParseSeesThem)
{
    // The first parse cuts the word and turns its first path's slashes in
    // place; the second parse sees only that first path, already turned.
    Run({"--ispathbusy", "--path", "C:\\", "--exclude", "C:/a;C:/b"});
    std::string log = Log();
    EXPECT_EQ(1u, CountOf(log, " Adding [C:/a] to excluded processes...\n"));
    EXPECT_EQ(1u, CountOf(log, " Adding [C:/b] to excluded processes...\n"));
    EXPECT_EQ(1u, CountOf(log, " Adding [C:\\a] to excluded processes...\n"));
}

TEST(LogLocation, WithoutALogFolderRecordsGoToStandardError)
{
    std::string bare = MakeTempDir("felognone");
    RunResult r = RunTool({}, WithProfile(bare));
    EXPECT_EQ(0u, r.exitCode);
    std::string err = Plain(r.err);
    EXPECT_NE(std::string::npos, err.find("\n\nTZDEVICE64-4.0.368\n"));
    // "Nothing to do." once to the user and once as a record.
    EXPECT_EQ(2u, CountOf(err, "Nothing to do.\n"));
    EXPECT_FALSE(FileExists(LogFileIn(bare)));
    RemoveTree(bare);
}

// Starts the tool with a wide command line, as a caller with a non-ANSI
// device name would, and returns its exit code.
DWORD RunWide(const std::wstring &tail, const std::string &profile)
{
    std::string exe = BinPath("tzdevice.exe");
    std::wstring wideExe(exe.begin(), exe.end());
    std::wstring line = L"\"" + wideExe + L"\" " + tail;

    char saved[MAX_PATH] = {0};
    DWORD had = GetEnvironmentVariableA("ALLUSERSPROFILE", saved, sizeof saved);
    SetEnvironmentVariableA("ALLUSERSPROFILE", profile.c_str());

    SECURITY_ATTRIBUTES inherit = {sizeof inherit, NULL, TRUE};
    HANDLE nul = CreateFileA("NUL", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit,
                             OPEN_EXISTING, 0, NULL);
    STARTUPINFOW startup;
    ZeroMemory(&startup, sizeof startup);
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = startup.hStdOutput = startup.hStdError = nul;
    PROCESS_INFORMATION process;
    ZeroMemory(&process, sizeof process);
    DWORD exitCode = 0xDEADBEEF;
    if (CreateProcessW(wideExe.c_str(), &line[0], NULL, NULL, TRUE, 0, NULL, NULL, &startup, &process)) {
        WaitForSingleObject(process.hProcess, 60000);
        GetExitCodeProcess(process.hProcess, &exitCode);
        CloseHandle(process.hThread);
        CloseHandle(process.hProcess);
    }
    CloseHandle(nul);
    SetEnvironmentVariableA("ALLUSERSPROFILE", had ? saved : NULL);
    return exitCode;
}

TEST_F(LoggedRun, FriendlyNameIsReadAsUtf8FromTheWideCommandLine)
{
    DWORD code = RunWide(L"--setdefaultaudio --friendlyname \"Ger\u00e4t \u2013 \u03a9mega \u2713\"", profile);
    EXPECT_EQ(kFail, code);
    std::string log = Log();
    EXPECT_EQ(2u, CountOf(log, " Friendly name [Ger\xC3\xA4t \xE2\x80\x93 \xCE\xA9mega \xE2\x9C\x93].\n")) << log;
    EXPECT_EQ(1u, CountOf(log, " ERROR: Command '--setdefaultaudio' is not available in this build.\n"));
}

TEST_F(LoggedRun, FriendlyNameFillsItsBufferExactlyOrIsASyntaxError)
{
    // 341 three-byte characters and the terminator fill the 1024 bytes.
    std::wstring fits(341, L'\u2713');
    std::string fitsUtf8;
    for (int i = 0; i < 341; i++)
        fitsUtf8 += "\xE2\x9C\x93";
    EXPECT_EQ(kFail, RunWide(L"--setdefaultvoice --friendlyname " + fits, profile));
    EXPECT_EQ(2u, CountOf(Log(), " Friendly name [" + fitsUtf8 + "].\n"));
    EXPECT_EQ(1u, CountOf(Log(), "not available in this build"));

    EXPECT_EQ(kFail, RunWide(L"--setdefaultvoice --friendlyname " + fits + L"x", profile));
    EXPECT_EQ(1u, CountOf(Log(), " ERROR: Syntax error.\n"));
    EXPECT_EQ(2u, CountOf(Log(), " Friendly name ["));
}

}  // namespace
