// Splitting a request back into words, and the worker's command line and wait.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <windows.h>

#include <string>
#include <vector>

#include "daemon/daemon.h"
#include "daemon/daemon_internal.h"
#include "harness.h"

namespace {

// This program doubles as a worker for the wait tests: TZ_WORKER_PROBE=sleep
// sleeps for a long time, =exitN exits with N at once.
struct WorkerProbe {
    WorkerProbe()
    {
        const char *probe = getenv("TZ_WORKER_PROBE");
        if (probe == nullptr)
            return;
        if (strcmp(probe, "sleep") == 0)
            Sleep(60000);
        if (strncmp(probe, "exit", 4) == 0)
            ExitProcess((UINT)atoi(probe + 4));
        ExitProcess(99);
    }
} workerProbe;

std::vector<std::string> Split(const char *text, int *countOut = nullptr)
{
    int argc = -7;
    char **argv = nullptr;
    EXPECT_EQ(0, SplitQuotedArgs(&argc, &argv, text));
    std::vector<std::string> words;
    if (countOut)
        *countOut = argc;
    if (argv == nullptr)
        return words;
    EXPECT_EQ(nullptr, argv[0]) << "element 0 stands for the program name and stays null";
    for (int i = 1; i < argc; i++)
        words.push_back(argv[i] ? argv[i] : "<null>");
    FreeArgs(argc, argv);
    return words;
}

TEST(SplitQuotedArgs, SplitsWhatTheClientSends)
{
    int count = 0;
    auto words = Split("\"--deviceid\" \"abc\" \"--targetuser\" \"user1\" \"--parentpid\" \"1204\" ", &count);
    EXPECT_EQ(7, count);
    EXPECT_EQ((std::vector<std::string>{"--deviceid", "abc", "--targetuser", "user1", "--parentpid", "1204"}),
              words);
    // Words keep their blanks and percent signs; no escapes are undone.
    EXPECT_EQ((std::vector<std::string>{"a b", "100%", "c\\d"}), Split("\"a b\" \"100%\" \"c\\d\" "));
}

TEST(SplitQuotedArgs, EdgeCasesOfTheQuoting)
{
    int count = 0;
    // No quotes at all: the whole string is the one word.
    EXPECT_EQ((std::vector<std::string>{"--cpuload"}), Split("--cpuload", &count));
    EXPECT_EQ(2, count);
    // Empty string: count 1, only the null element.
    EXPECT_TRUE(Split("", &count).empty());
    EXPECT_EQ(1, count);
    // An empty word has no piece of its own: the blank after it is taken for
    // a word, and the next word for the separator.
    EXPECT_EQ((std::vector<std::string>{"--a", " ", " "}), Split("\"--a\" \"\" \"--b\" ", &count));
    EXPECT_EQ(4, count);
    // A double quote inside a word ends the word.
    EXPECT_EQ((std::vector<std::string>{"a", " "}), Split("\"a\"b\" "));
}

TEST(SplitQuotedArgs, NullStringLeavesTheResultUntouched)
{
    int argc = 42;
    char **argv = (char **)&argc;
    EXPECT_EQ(0, SplitQuotedArgs(&argc, &argv, nullptr));
    EXPECT_EQ(42, argc);
    EXPECT_EQ((char **)&argc, argv);
}

TEST(FreeArgs, AcceptsEveryShapeItIsGiven)
{
    FreeArgs(3, nullptr);
    char **empty = (char **)calloc(1, sizeof(char *));
    FreeArgs(0, empty);  // count under 1: the array alone
    char **some = (char **)calloc(3, sizeof(char *));
    some[2] = _strdup("x");  // element 1 null, element 2 set
    FreeArgs(3, some);
}

TEST(WorkerCommandLine, IsTheCheckedWordsQuotedAgainBehindThePath)
{
    char line[WORKER_COMMAND_LINE_SIZE];
    char *one[] = {NULL, (char *)"--cpuload"};
    EXPECT_EQ(0, BuildWorkerCommandLine(line, sizeof line, "C:\\bin\\tzdevice.exe", 2, one));
    EXPECT_STREQ("C:\\bin\\tzdevice.exe \"--cpuload\" ", line) << "a well-formed request comes out as it came in";
    // An empty request gives the path and the blank.
    EXPECT_EQ(0, BuildWorkerCommandLine(line, sizeof line, "C:\\t.exe", 1, one));
    EXPECT_STREQ("C:\\t.exe ", line);
    // A word ending in backslashes keeps them: they are doubled in front of the quote.
    char *path[] = {NULL, (char *)"--servicepath", (char *)"C:\\dir\\", (char *)"a\\b"};
    EXPECT_EQ(0, BuildWorkerCommandLine(line, sizeof line, "C:\\t.exe", 4, path));
    EXPECT_STREQ("C:\\t.exe \"--servicepath\" \"C:\\dir\\\\\" \"a\\b\" ", line);
    // Text between the quoted words never reaches the worker: only words do.
    int argc = 0;
    char **argv = NULL;
    SplitQuotedArgs(&argc, &argv, "\"--servicestatusget\" \"x\"  --serviceadd evil \"--quiet\" ");
    EXPECT_EQ(0, BuildWorkerCommandLine(line, sizeof line, "C:\\t.exe", argc, argv));
    EXPECT_STREQ("C:\\t.exe \"--servicestatusget\" \"x\" \"--quiet\" ", line);
    FreeArgs(argc, argv);
}

TEST(WorkerCommandLine, KeepsWholeWordsAndNeverForwardsAgain)
{
    char line[WORKER_COMMAND_LINE_SIZE];
    std::vector<char *> words(101, (char *)"abcdefgh");
    words[0] = NULL;
    memset(line, 'Z', sizeof line);
    EXPECT_EQ(1, BuildWorkerCommandLine(line, sizeof line, "C:\\t.exe", 101, words.data()));
    // "C:\t.exe " and 46 words of 11 characters: one more would not fit in 519.
    EXPECT_EQ(9u + 46 * 11, strlen(line));
    EXPECT_EQ(std::string("\"abcdefgh\" "), std::string(line).substr(strlen(line) - 11));

    words[50] = (char *)"--daemonmodeforce";
    EXPECT_EQ(1, BuildWorkerCommandLine(line, sizeof line, "C:\\t.exe", 101, words.data()));
    EXPECT_LT(strlen(line), (size_t)WORKER_COMMAND_LINE_SIZE);
    EXPECT_EQ(std::string("\"--nodaemon\" "), std::string(line).substr(strlen(line) - 13));

    // A path that fills the buffer on its own leaves no room for any word.
    std::string longPath(600, 'p');
    char *one[] = {NULL, (char *)"--a"};
    EXPECT_EQ(1, BuildWorkerCommandLine(line, sizeof line, longPath.c_str(), 2, one));
    EXPECT_EQ(std::string(WORKER_COMMAND_LINE_SIZE - 1, 'p'), std::string(line));
}

PROCESS_INFORMATION StartProbe(const char *probe)
{
    RunOptions options;
    options.env = {{"TZ_WORKER_PROBE", probe}};
    char self[MAX_PATH] = {0};
    GetModuleFileNameA(NULL, self, MAX_PATH);
    return StartProgram(self, {}, options);
}

std::string StreamText(FILE *stream)
{
    fflush(stream);
    rewind(stream);
    std::string text;
    int c;
    while ((c = fgetc(stream)) != EOF)
        text += (char)c;
    return text;
}

TEST(WorkerWait, ExitCodeOfAWorkerThatEnds)
{
    for (int code : {0, 3, -1}) {
        PROCESS_INFORMATION child = StartProbe(("exit" + std::to_string(code)).c_str());
        ASSERT_NE(nullptr, child.hProcess);
        FILE *reply = tmpfile();
        ASSERT_NE(nullptr, reply);
        EXPECT_EQ(code, WorkerWait(child.hProcess, child.dwProcessId, 20000, reply));
        EXPECT_EQ("", StreamText(reply)) << "nothing is added for a worker that ends";
        fclose(reply);
        CloseHandle(child.hThread);
        CloseHandle(child.hProcess);
    }
}

TEST(WorkerWait, WorkerOverTheLimitIsTerminated)
{
    PROCESS_INFORMATION child = StartProbe("sleep");
    ASSERT_NE(nullptr, child.hProcess);
    FILE *reply = tmpfile();
    ASSERT_NE(nullptr, reply);
    DWORD start = GetTickCount();
    EXPECT_EQ(-1, WorkerWait(child.hProcess, child.dwProcessId, 500, reply));
    DWORD spent = GetTickCount() - start;
    EXPECT_GE(spent, 450u);
    EXPECT_LT(spent, 5000u);
    EXPECT_EQ("ERROR : child worker timeout.\n", StreamText(reply));
    // Gone soon after, with exit code 1 from the termination.
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(child.hProcess, 5000));
    DWORD code = 0;
    GetExitCodeProcess(child.hProcess, &code);
    EXPECT_EQ(1u, code);
    fclose(reply);
    CloseHandle(child.hThread);
    CloseHandle(child.hProcess);
}

}  // namespace
