// Random argument vectors through the option parser, in command mode and in
// the daemon's mode, where the parser is the one rights check between an
// unprivileged caller and an administrator's worker. The words come from the
// option table, typical values, garbage, long words and empty words.
//
// A failure prints the seed; TZ_FUZZ_SEED=<seed> replays the run, and
// TZ_FUZZ_ITERATIONS changes the number of vectors (default 100000).
#include <gtest/gtest.h>

#include <fcntl.h>
#include <io.h>
#include <stdio.h>
#include <malloc.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <random>
#include <string>
#include <vector>

#include "frontend/options.h"
#include "harness.h"
#include "support/log.h"

namespace {

// What the parser does with each word: a value behind it, the command it
// sets, and whether the daemon refuses it.
struct Word {
    const char *text;
    bool value;
    int command;  // 0: none
    bool refused;
};

const Word kWords[] = {
    {"--deviceadd", false, 1, true},        {"--devicedel", false, 2, true},
    {"--devicesgroupdel", false, 3, true},  {"--deviceslist", false, 4, true},
    {"--devicestart", false, 5, true},      {"--devicestop", false, 6, true},
    {"--inffile", true, 0, false},          {"--devicename", true, 0, false},
    {"--deviceid", true, 0, false},         {"--hardwareid", true, 0, false},
    {"--driverpackageadd", false, 7, true}, {"--driverpackagedel", false, 8, true},
    {"--driverpackageverify", false, 9, false}, {"--quiet", false, 0, false},
    {"--printmonitoradd", false, 10, false}, {"--printerscleanup", false, 17, false},
    {"--printmonitordel", false, 11, false}, {"--printeradd", true, 12, false},
    {"--printdriverinstall", false, 14, false}, {"--printdriverremove", false, 15, false},
    {"--printdriverslist", false, 16, false}, {"--printerdel", true, 13, false},
    {"--tzsessiondir", true, 0, false},     {"--remotename", true, 0, false},
    {"--portid", true, 0, false},           {"--ppdfile", true, 0, false},
    {"--gpdfile", true, 0, false},          {"--loopbackadd", false, 18, false},
    {"--loopbackdel", false, 19, false},    {"--name", true, 0, false},
    {"--ip", true, 0, false},               {"--mask", true, 0, false},
    {"--getdefaultaudio", false, 22, false}, {"--getdefaultvoice", false, 23, false},
    {"--setdefaultaudio", false, 24, false}, {"--setdefaultvoice", false, 25, false},
    {"--friendlyname", true, 0, false},     {"--serviceadd", true, 26, true},
    {"--servicedel", true, 27, true},       {"--servicestart", true, 28, true},
    {"--servicestop", true, 29, true},      {"--servicename", true, 0, false},
    {"--servicedisplayname", true, 0, false}, {"--servicetype", true, 0, false},
    {"--servicestarttype", true, 0, false}, {"--servicepath", true, 0, false},
    {"--servicepass", true, 0, false},      {"--serviceaccount", true, 0, false},
    {"--servicestatusget", true, 30, false}, {"--servicetypeget", true, 32, false},
    {"--servicestarttypeget", true, 33, false}, {"--servicechange", true, 31, true},
    {"--usbfilteradd", true, 34, true},     {"--usbfilterdel", true, 35, true},
    {"--usbstart", false, 36, false},       {"--usbstop", false, 37, false},
    {"--daemoninstall", false, 44, true},   {"--daemonremove", false, 45, true},
    {"--networkadd", false, 38, false},     {"--networkdel", false, 39, false},
    {"--networkaliasadd", false, 42, true}, {"--networkaliasdel", false, 43, true},
    {"--networkscleanup", false, 40, false}, {"--networksetprivate", false, 41, false},
    {"--fwruleadd", false, 20, true},       {"--fwruledel", false, 21, true},
    {"--group", true, 0, false},            {"--desc", true, 0, false},
    {"--app", true, 0, false},              {"--protocol", true, 0, false},
    {"--diskmount", false, 46, false},      {"--diskunmount", false, 47, false},
    {"--port", true, 0, false},             {"--localpath", true, 0, false},
    {"--remotepath", true, 0, false},       {"--identityfile", true, 0, false},
    {"--targetuser", true, 0, false},       {"--private", false, 0, false},
    {"--default", false, 0, false},         {"--daemonmodeforce", false, 0, false},
    {"--nodaemon", false, 0, false},        {"--nopreinstall", false, 0, false},
    {"--networkid", true, 0, false},        {"--install", true, 48, true},
    {"--uninstall", true, 48, true},        {"--enable", true, 48, true},
    {"--disable", true, 48, true},          {"--update", true, 48, true},
    {"--status", true, 48, false},          {"--deviceregister", false, 49, false},
    {"--devicetypeid", true, 0, false},     {"--parentpid", true, 0, false},
    {"--cpuload", false, 50, false},        {"--ispathbusy", false, 51, false},
    {"--timeout", true, 0, false},          {"--recursive", false, 0, false},
    {"--kill", false, 0, true},             {"--path", true, 0, false},
    {"--exclude", true, 0, false},          {"--processkill", false, 52, false},
    {"--pid", true, 0, false},              {"--processname", true, 0, false},
};
const size_t kWordCount = sizeof kWords / sizeof kWords[0];

const Word *FindWord(const char *text)
{
    for (const Word &word : kWords)
        if (strcmp(word.text, text) == 0)
            return &word;
    return nullptr;
}

const char *const kValues[] = {
    "tcp", "udp", "TCP", "AUTO", "auto", "DEMAND", "PROCESS", "KERNEL_DRIVER", "0", "-1", "123", "99999999999",
    "tzdeviced", "C:\\windows", "C:/x///", "////", "a;b;c", ";", ";;;", "a;", "%s%n%x", "\xc3\xa9t\xc3\xa9",
    "\"quoted\"", "--servicemode", "root", " ", "\\\\?\\C:\\", "C:\\windows\\inf\\missing.inf",
};
const size_t kValueCount = sizeof kValues / sizeof kValues[0];

std::string RandomWord(std::mt19937 &random)
{
    switch (random() % 16) {
    case 0: case 1: case 2: case 3: case 4: case 5: case 6:
        return kWords[random() % kWordCount].text;
    case 7: case 8: case 9:
        return kValues[random() % kValueCount];
    case 10:
        return "";
    case 11: {  // garbage, no zero bytes: argv words are C strings
        std::string word(1 + random() % 40, ' ');
        for (char &c : word)
            c = (char)(1 + random() % 255);
        return word;
    }
    case 12:  // long words, past every fixed field
        return std::string(1 + random() % 5000, (char)('a' + random() % 26));
    case 13: {  // exclusion lists around the limit of 31 paths
        std::string list;
        int pieces = 25 + (int)(random() % 12);
        for (int i = 0; i < pieces; i++)
            list += (i ? ";" : "") + std::string(1 + random() % 4, '/') + "p" + std::to_string(i) + "\\/";
        return list;
    }
    case 14: {  // an option with one letter changed or cut
        std::string word = kWords[random() % kWordCount].text;
        if (random() % 2)
            word.resize(word.size() - 1);
        else
            word[2 + random() % (word.size() - 2)] ^= 0x20;
        return word;
    }
    default:
        return "--" + std::string(1 + random() % 12, (char)('a' + random() % 26));
    }
}

// Where the daemon's parse must stop at a refused option: the first refused
// option word reached while walking, if nothing consumed it as a value.
bool ReachesRefusedOption(const std::vector<std::string> &words)
{
    for (size_t i = 1; i < words.size(); i++) {
        const Word *word = FindWord(words[i].c_str());
        if (word == nullptr)
            continue;
        if (word->refused)
            return true;
        if (word->value) {
            if (i + 1 >= words.size())
                return false;  // value missing: fails here first
            i++;
        }
    }
    return false;
}

// The command of the last command option, or -1 when an unknown word stands
// after it; the value a successful parse must leave.
int ExpectedCommand(const std::vector<std::string> &words)
{
    int command = 0;
    for (size_t i = 1; i < words.size(); i++) {
        const Word *word = FindWord(words[i].c_str());
        if (word == nullptr) {
            command = -1;
            continue;
        }
        if (word->command != 0)
            command = word->command;
        if (word->value)
            i++;
    }
    return command;
}

const size_t kCanary = 16;

}  // namespace

TEST(FuzzParser, RandomVectorsKeepTheRecordsBounds)
{
    // The parser logs every word and reports unknown ones on standard
    // error: both go to plain files of a temp folder (a disk file is written
    // without a round trip to the wineserver, the null device is not).
    std::string folder = MakeTempDir("fuzzparser");
    LogSetFile((folder + "\\fuzz.log").c_str());  // before the first record
    fflush(stderr);
    int savedError = _dup(2);
    int sink = _open((folder + "\\stderr.txt").c_str(), _O_WRONLY | _O_CREAT | _O_TRUNC, _S_IWRITE);
    ASSERT_GE(sink, 0);
    _dup2(sink, 2);

    unsigned seed = SeedFromEnvironment();
    long iterations = IterationsFromEnvironment();
    fprintf(stdout, "TZ_FUZZ_SEED=%u iterations=%ld\n", seed, iterations);
    fflush(stdout);
    std::mt19937 random(seed);
    DWORD start = GetTickCount();
    long failures = 0, refusals = 0, successes = 0;
    std::string problem;

    const std::string logPath = folder + "\\fuzz.log";
    const bool heapChecked = HeapCheckedRun();
    const DWORD budgetMs = 25000;
    long done = 0;
    for (long iteration = 0; iteration < iterations && problem.empty(); iteration++, done++) {
        if (heapChecked && GetTickCount() - start > budgetMs)
            break;
        if (iteration % 1000 == 999 && !HeapsIntact()) {
            problem = "heap damaged before iteration " + std::to_string(iteration) + " (seed " +
                      std::to_string(seed) + ")";
            break;
        }
        if (iteration % 2000 == 1999) {
            // Keep the two files small; both are written in append mode.
            HANDLE log = CreateFileA(logPath.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, NULL,
                                     OPEN_EXISTING, 0, NULL);
            if (log != INVALID_HANDLE_VALUE) {
                SetEndOfFile(log);
                CloseHandle(log);
            }
            fflush(stderr);
            _chsize(sink, 0);
        }
        int mode = (int)(random() % 2);
        size_t count = 1 + random() % 24;
        std::vector<std::string> words(count);
        words[0] = "fuzz";
        for (size_t i = 1; i < count; i++)
            words[i] = RandomWord(random);

        // Each word in its own block with a canary behind its terminator;
        // the parser may write inside a word (--exclude) but never past it.
        std::vector<std::vector<char>> storage(count);
        std::vector<char *> argv(count + 1, nullptr);
        for (size_t i = 0; i < count; i++) {
            storage[i].assign(words[i].begin(), words[i].end());
            storage[i].push_back('\0');
            storage[i].insert(storage[i].end(), kCanary, (char)0xA5);
            argv[i] = storage[i].data();
        }

        struct CommandOptions options;
        memset(&options, 0x5A, sizeof options);  // whatever the stack held
        CommandOptionsInit(&options);
        ServiceMode = mode;
        int result = ParseCommandLine(&options, (int)count, argv.data());
        ServiceMode = 0;

        auto fail = [&](const std::string &what) {
            problem = "iteration " + std::to_string(iteration) + " (seed " + std::to_string(seed) + ", mode " +
                      std::to_string(mode) + "): " + what + "\n  words:";
            for (size_t i = 1; i < count; i++)
                problem += " [" + words[i].substr(0, 60) + (words[i].size() > 60 ? "...]" : "]");
        };

        if (result != 0 && result != -1)
            fail("result " + std::to_string(result));
        else if (options.command < -1 || options.command > 52)
            fail("command " + std::to_string(options.command));
        else if (result == -1 && options.command != -1)
            fail("a failed parse left command " + std::to_string(options.command));
        else if (!memchr(options.friendlyName, 0, sizeof options.friendlyName))
            fail("friendlyName not terminated");
        else if (!memchr(options.targetUser, 0, sizeof options.targetUser))
            fail("targetUser not terminated");
        else if (mode && result == 0 && options.forceDaemon)
            fail("forceDaemon survived the daemon's parse");
        else if (mode && ReachesRefusedOption(words) && result != -1)
            fail("a refused option passed the daemon's parse");
        else if (result == 0 && options.command != ExpectedCommand(words))
            fail("command " + std::to_string(options.command) + ", expected " +
                 std::to_string(ExpectedCommand(words)));
        if (!problem.empty())
            break;

        int slot = 0;
        for (; slot < EXCLUDED_PATHS_SLOTS && options.excludedPaths[slot]; slot++) {
            const char *entry = options.excludedPaths[slot];
            bool inside = false;
            for (size_t i = 1; i < count && !inside; i++)
                inside = entry >= storage[i].data() && entry <= storage[i].data() + words[i].size();
            if (!inside) {
                fail("excludedPaths[" + std::to_string(slot) + "] points outside the words");
                break;
            }
        }
        if (problem.empty() && slot == EXCLUDED_PATHS_SLOTS)
            fail("excludedPaths has no terminating null");
        for (size_t i = 0; i < count && problem.empty(); i++)
            for (size_t k = 0; k < kCanary; k++)
                if (storage[i][words[i].size() + 1 + k] != (char)0xA5) {
                    fail("write past the end of word " + std::to_string(i));
                    break;
                }

        if (result == -1)
            (mode && ReachesRefusedOption(words)) ? refusals++ : failures++;
        else
            successes++;
    }

    DWORD spent = GetTickCount() - start;
    fflush(stderr);
    _dup2(savedError, 2);
    _close(savedError);
    _close(sink);
    RemoveTree(folder);
    if (problem.empty() && !HeapsIntact())
        problem = "heap damaged at the end (seed " + std::to_string(seed) + ")";
    fprintf(stdout, "%ld vectors in %lu ms%s: %ld parsed, %ld refused in the daemon's mode, %ld other failures\n",
            done, spent, heapChecked ? " (heap-checked run, time budget)" : "", successes, refusals, failures);
    EXPECT_TRUE(problem.empty()) << problem;
    EXPECT_LT(spent, 30000u) << "the fuzz run took too long";
}
