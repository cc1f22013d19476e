// The diagnostic log seen from outside: record format, appending, the record
// limit, the fall-back to standard error, where the file lives, and path
// resolution. The log decides its descriptor once per process, so each case
// runs this same program again as a probe child (TZ_LOG_PROBE names the case).
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <windows.h>

#include <regex>
#include <string>

#include "harness.h"
#include "support/log.h"

namespace {

// ---- the probe side -------------------------------------------------------

std::string Env(const char *name)
{
    const char *value = getenv(name);
    return value ? value : "";
}

void ProbeWrite()
{
    std::string file = Env("TZ_LOG_FILE");
    if (!file.empty())
        LogSetFile(file.c_str());
    std::string message = Env("TZ_LOG_MESSAGE");
    int repeat = atoi(Env("TZ_LOG_REPEAT").c_str());
    if (repeat > 0)
        message = std::string((size_t)repeat, 'x') + message;
    LogWrite("%s", message.c_str());
    LogWrite("second\n");
    std::string late = Env("TZ_LOG_LATE_FILE");
    if (!late.empty()) {
        LogSetFile(late.c_str());
        LogWrite("late\n");
    }
}

void ProbePath()
{
    printf("first=%s\n", LogFilePath(Env("TZ_LOG_NAME").c_str()));
    printf("second=%s\n", LogFilePath("other.log"));
}

struct ProbeRunner {
    ProbeRunner()
    {
        std::string probe = Env("TZ_LOG_PROBE");
        if (probe.empty())
            return;
        if (probe == "write")
            ProbeWrite();
        else if (probe == "path")
            ProbePath();
        fflush(stdout);
        fflush(stderr);
        ExitProcess(0);
    }
} probeRunner;

// ---- the test side ---------------------------------------------------------

RunResult Probe(const std::string &which, RunOptions options)
{
    options.env.push_back({"TZ_LOG_PROBE", which});
    char self[MAX_PATH] = {0};
    GetModuleFileNameA(NULL, self, sizeof self);
    return RunProgram(self, {}, options);
}

const std::regex kRecord(R"(\[(\d+)\]\[(\d+)\] (\d\d):(\d\d):(\d\d) (\d\d\d) )");

struct LogRecords : ::testing::Test {
    std::string dir = MakeTempDir("log");
    std::string file = dir + "\\probe.log";
    void TearDown() override { RemoveTree(dir); }
};

TEST_F(LogRecords, RecordCarriesPidThreadTimeAndMessageWithCrLf)
{
    RunOptions options;
    options.env = {{"TZ_LOG_FILE", file}, {"TZ_LOG_MESSAGE", "hello 5\n"}};
    RunResult run = Probe("write", options);
    ASSERT_EQ(run.exitCode, 0u);
    std::string text = ReadFileText(file);
    std::smatch match;
    ASSERT_TRUE(std::regex_search(text, match, kRecord)) << text;
    EXPECT_EQ(match.position(0), 0);
    EXPECT_EQ(std::stoul(match[1]), run.pid);
    EXPECT_LT(std::stoi(match[3]), 24);
    EXPECT_LT(std::stoi(match[4]), 60);
    EXPECT_EQ(text.substr(match.length(0), 9), "hello 5\r\n");
    EXPECT_EQ(CountOf(text, "\r\n"), 2u);
    EXPECT_EQ(CountOf(text, "\n"), 2u) << "every line end is CR LF";
    EXPECT_TRUE(run.err.empty()) << run.err;
}

TEST_F(LogRecords, RunsAppendAndAMessageWithoutLineEndJoinsTheNextRecord)
{
    RunOptions options;
    options.env = {{"TZ_LOG_FILE", file}, {"TZ_LOG_MESSAGE", "no line end"}};
    Probe("write", options);
    Probe("write", options);
    std::string text = ReadFileText(file);
    EXPECT_EQ(CountOf(text, "no line end["), 2u) << text;
    EXPECT_EQ(CountOf(text, "second\r\n"), 2u);
}

TEST_F(LogRecords, LongMessagesAreCutSoTheRecordIsExactlyTheLimit)
{
    for (int length : {4095, 4096, 5000, 20000}) {
        DeleteFileA(file.c_str());
        RunOptions options;
        options.env = {{"TZ_LOG_FILE", file}, {"TZ_LOG_REPEAT", std::to_string(length)}, {"TZ_LOG_MESSAGE", ""}};
        RunResult run = Probe("write", options);
        ASSERT_EQ(run.exitCode, 0u) << length;
        std::string text = ReadFileText(file);
        size_t second = text.find("second");
        ASSERT_NE(second, std::string::npos);
        size_t start = text.rfind("[" + std::to_string(run.pid) + "][", second);
        // The first record ends where the second begins; it never exceeds the limit.
        std::string first = text.substr(0, start);
        EXPECT_EQ(first.size(), (size_t)LOG_RECORD_LIMIT) << "message of " << length;
        EXPECT_EQ(first.find_first_not_of('x', first.find("x")), std::string::npos);
    }
}

TEST_F(LogRecords, WithoutAFileRecordsGoToStandardErrorAndALaterNameIsIgnored)
{
    RunOptions options;
    options.env = {{"TZ_LOG_MESSAGE", "to stderr\n"}, {"TZ_LOG_LATE_FILE", file}};
    RunResult run = Probe("write", options);
    EXPECT_NE(run.err.find("to stderr"), std::string::npos);
    EXPECT_NE(run.err.find("late"), std::string::npos);
    EXPECT_FALSE(FileExists(file));
}

TEST_F(LogRecords, AFileInAMissingFolderFallsBackToStandardErrorSilently)
{
    RunOptions options;
    options.env = {{"TZ_LOG_FILE", dir + "\\missing\\probe.log"}, {"TZ_LOG_MESSAGE", "fallback\n"}};
    RunResult run = Probe("write", options);
    EXPECT_EQ(run.exitCode, 0u);
    std::smatch match;
    ASSERT_TRUE(std::regex_search(run.err, match, kRecord)) << run.err;
    EXPECT_EQ(match.position(0), 0) << "nothing but records on standard error";
    EXPECT_NE(run.err.find("fallback"), std::string::npos);
}

// ---- where the log lives ---------------------------------------------------

std::string Field(const std::string &out, const std::string &name)
{
    size_t at = out.find(name + "=");
    if (at == std::string::npos)
        return "";
    size_t end = out.find_first_of("\r\n", at);
    return out.substr(at + name.size() + 1, end - at - name.size() - 1);
}

std::string Lower(std::string text)
{
    for (char &c : text)
        c = (char)tolower((unsigned char)c);
    return text;
}

TEST(LogFilePath, UsesTheProfileTreeWhenItExistsAndCachesTheFirstAnswer)
{
    std::string profile = MakeLogProfile("profile");
    RunOptions options = WithProfile(profile);
    options.env.push_back({"TZ_LOG_NAME", "first.log"});
    RunResult run = Probe("path", options);
    EXPECT_EQ(Field(run.out, "first"), profile + "\\Tessarine\\var\\log\\first.log");
    EXPECT_EQ(Field(run.out, "second"), Field(run.out, "first"));
    RemoveTree(profile);
}

TEST(LogFilePath, AProfileWithoutTheTreeSelectsTheFolderBesideTheProgram)
{
    std::string profile = MakeTempDir("bare");
    RunOptions options = WithProfile(profile);
    options.env.push_back({"TZ_LOG_NAME", "x.log"});
    RunResult run = Probe("path", options);
    std::string bin = BinDir();
    std::string expected = bin.substr(0, bin.find_last_of('\\')) + "\\var\\log\\x.log";
    EXPECT_EQ(Lower(Field(run.out, "first")), Lower(expected));
    RemoveTree(profile);
}

// ---- paths relative to the program ----------------------------------------

struct ExpandPath : ::testing::Test {
    static void SetUpTestSuite()
    {
        static std::string log = MakeTempDir("expand") + "\\expand.log";
        LogSetFile(log.c_str());
        LogWrite("expand tests\n");
    }
    std::string Expand(const char *path, int size = MAX_PATH, int *result = nullptr)
    {
        char out[MAX_PATH + 16];
        memset(out, '#', sizeof out);
        int code = ExpandRelativePath(out, size, path, 1);
        if (result)
            *result = code;
        EXPECT_EQ(out[size], '#') << "wrote past the given size";
        return out;
    }
    std::string bin = BinDir();
    std::string parent = bin.substr(0, bin.find_last_of('\\'));
};

TEST_F(ExpandPath, RelativePathsResolveAgainstTheProgramsFolder)
{
    int result = -5;
    EXPECT_EQ(Expand(nullptr, MAX_PATH, &result), bin);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(Expand("tool.exe"), bin + "\\tool.exe");
    EXPECT_EQ(Expand("..\\var\\log"), parent + "\\var\\log");
    EXPECT_EQ(Expand("../var/log/"), parent + "\\var\\log\\");
    EXPECT_EQ(Expand("\\lead"), bin + "\\\\lead") << "a leading backslash counts as relative";
}

TEST_F(ExpandPath, AbsolutePathsKeepTheirDriveAndLoseSlashesAndDots)
{
    EXPECT_EQ(Expand("C:/one/two/../three"), "C:\\one\\three");
    EXPECT_EQ(Expand("D:x"), "D:x");
}

TEST_F(ExpandPath, ASmallBufferGetsACutResultAndNothingBeyond)
{
    int result = -5;
    std::string cut = Expand("C:\\abcdefghijklmnop", 8, &result);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(cut, "C:\\abcd");
}

}  // namespace
