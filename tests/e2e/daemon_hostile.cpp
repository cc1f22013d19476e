// The daemon's pipe is open to every local process. These cases play such a
// process: malformed, oversized, cut-off and deceptive requests, clients that
// vanish or never read. After each case the daemon must still be the same
// process, must answer an ordinary forwarded command, and must hold no more
// handles than it did before the case (within a few).
#include <gtest/gtest.h>

#include <stdio.h>
#include <stdlib.h>

#include <random>
#include <string>
#include <thread>
#include <vector>

#include "daemon_hostile_client.h"
#include "harness.h"

using namespace hostile;

namespace {

const long kHandleSlack = 4;
const char *const kProbeService = "tzhostileprobe";

// The handle count once two samples a moment apart agree.
long QuietHandleCount(DWORD pid)
{
    long last = CountProcessHandles(pid);
    for (int i = 0; i < 30; i++) {
        Sleep(150);
        long now = CountProcessHandles(pid);
        if (now == last)
            return now;
        last = now;
    }
    return last;
}

// A privileged command that an unprivileged caller must never get run:
// "--serviceadd" creates and starts a service, which the test can see from
// outside. The test service of the suite starts properly, so the new
// service stays and shows.
std::string ProbeServicePath()
{
    return BinPath("testservice.exe");
}

bool Contains(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

class DaemonHostile : public ::testing::Test {
protected:
    DWORD pid = 0;
    long startCount = 0;

    void SetUp() override
    {
        std::string why;
        ASSERT_TRUE(EnsureDaemonRunning(&why)) << why;
        pid = DaemonPid();
        ASSERT_NE(0u, pid);
        RemoveServiceQuietly(kProbeService);
        startCount = QuietHandleCount(pid);
        ASSERT_GT(startCount, 0);
    }

    // Every case ends the same way: the daemon still serves an ordinary
    // caller, it is the same process, and it has released what the case cost.
    void TearDown() override
    {
        if (pid == 0)
            return;  // the daemon never came up: SetUp has said why
        RunResult status = ForwardedStatus();
        EXPECT_EQ(0u, status.exitCode) << "out: " << status.out << "\nerr: " << status.err;
        EXPECT_TRUE(status.out.rfind("4\r", 0) == 0 || Contains(status.out, "\n4\r")) << status.out << status.err;
        EXPECT_EQ(pid, DaemonPid()) << "the daemon was restarted or died";
        long count = SettledHandleCount(pid, startCount + kHandleSlack);
        EXPECT_LE(count, startCount + kHandleSlack) << "handles before the case: " << startCount;
        EXPECT_FALSE(ServicePresent(kProbeService)) << "a refused command ran for an unprivileged caller";
        RemoveServiceQuietly(kProbeService);
    }
};

const std::string kEnd = "__END__";

}  // namespace

// Random bytes, with and without the end marker, and connections dropped
// right after the write. Zero bytes are left to their own case.
TEST_F(DaemonHostile, RandomBytesLeaveTheDaemonServing)
{
    unsigned seed = SeedFromEnvironment();
    printf("TZ_FUZZ_SEED=%u\n", seed);
    std::mt19937 random(seed);
    int marked = 0, closed = 0;
    for (int round = 0; round < 30; round++) {
        std::string bytes(1 + random() % 3000, ' ');
        for (char &c : bytes)
            c = (char)(1 + random() % 255);
        if (round % 2 == 0) {
            Reply reply = Exchange(bytes + kEnd, 30000);
            ASSERT_FALSE(reply.timedOut) << "round " << round << ", seed " << seed;
            (reply.ok || reply.fail) ? marked++ : closed++;
        } else {
            HANDLE pipe = Connect();
            ASSERT_NE(INVALID_HANDLE_VALUE, pipe);
            Send(pipe, bytes);
            CloseHandle(pipe);
        }
    }
    printf("answered with a marker: %d, closed without one: %d\n", marked, closed);
}

TEST_F(DaemonHostile, RequestBrokenOffBeforeItsMarker)
{
    for (int round = 0; round < 8; round++) {
        HANDLE pipe = Connect();
        ASSERT_NE(INVALID_HANDLE_VALUE, pipe);
        ASSERT_TRUE(Send(pipe, Quoted({"--servicestatusget", kService}) + "__EN"));
        if (round % 2)
            Sleep(300);  // let the daemon wait in its read first
        CloseHandle(pipe);
    }
}

// A full buffer without a marker can never become a request: the daemon
// must drop it at once, not keep the instance for the idle limit.
TEST_F(DaemonHostile, OversizedRequestsAreDroppedWithoutAReply)
{
    for (size_t size : {(size_t)16383, (size_t)20000, (size_t)70000}) {
        HANDLE pipe = Connect();
        ASSERT_NE(INVALID_HANDLE_VALUE, pipe);
        DWORD start = GetTickCount();
        Send(pipe, std::string(size, 'a'), 15000);
        Reply reply = ReadReply(pipe, 15000);
        CloseHandle(pipe);
        EXPECT_FALSE(reply.timedOut) << size << " bytes: the daemon kept the instance";
        EXPECT_FALSE(reply.ok || reply.fail) << size << " bytes: " << reply.bytes;
        printf("%zu bytes without a marker: dropped after %lu ms\n", size, GetTickCount() - start);
    }
}

// The longest request the daemon reads is 16383 bytes, marker included.
TEST_F(DaemonHostile, LongestRequestIsReadAndOneMoreByteIsNot)
{
    std::string head = Quoted({"--servicestatusget", kService});
    std::string pad;
    while (head.size() + pad.size() + 10 <= 16376)
        pad += Quoted({"--quiet"});  // 10 characters each
    std::string text = head + pad;
    text += Quoted({std::string(16376 - text.size() - 3, 'q')});
    ASSERT_EQ(16376u, text.size());

    Reply longest = Exchange(text + kEnd, 60000);
    EXPECT_TRUE(longest.ok || longest.fail) << "closed: " << longest.closed << " error " << longest.error;

    Reply tooLong = Exchange(text + "q" + kEnd, 15000);
    EXPECT_FALSE(tooLong.ok || tooLong.fail) << tooLong.bytes;
    EXPECT_FALSE(tooLong.timedOut);
}

// A zero byte ahead of the marker hides it from a text search; behind the
// marker it must not matter. Either way the instance comes back once the
// client goes.
TEST_F(DaemonHostile, ZeroBytesInsideARequest)
{
    std::string behind = Quoted({"--servicestatusget", kService}) + kEnd + std::string("\0\0junk", 6);
    Reply reply = Exchange(behind, 30000);
    EXPECT_TRUE(reply.ok || reply.fail) << reply.bytes;

    const std::string ahead[] = {
        Quoted({"--servicestatusget", kService}) + std::string("\0\0\0", 3) + kEnd,
        std::string("\"--servicestatusget\" \"tz\0deviced\" ", 34) + kEnd,
        std::string("\0", 1) + kEnd,
    };
    for (const std::string &request : ahead) {
        HANDLE pipe = Connect();
        ASSERT_NE(INVALID_HANDLE_VALUE, pipe);
        ASSERT_TRUE(Send(pipe, request));
        Reply answer = ReadReply(pipe, 3000);
        CloseHandle(pipe);
        printf("zero byte ahead of the marker: %s\n",
               answer.ok ? "__OK__" : answer.fail ? "__FAIL__" : answer.closed ? "closed" : "no answer in 3 s");
    }
}

// Malformed quoting reaches both the daemon's split and the worker's own
// parse; every form must end in a reply with a marker.
TEST_F(DaemonHostile, MalformedQuotingGetsAnAnswer)
{
    const std::string requests[] = {
        "\"--servicestatusget\" \"tzdeviced",
        "--servicestatusget tzdeviced",
        "\"",
        "\"\"\"\"\"",
        "\" \" \" \"",
        "\"--servicestatusget\" \"\" \"tzdeviced\" ",
        "\"\" \"\" \"\" \"\" ",
        "\"--servicestatusget\"\"tzdeviced\"",
        "   ",
        "",
    };
    for (const std::string &text : requests) {
        Reply reply = Exchange(text + kEnd, 30000);
        EXPECT_TRUE(reply.ok || reply.fail) << "[" << text << "] closed " << reply.closed << ": " << reply.bytes;
    }
}

// Percent signs are text, on the wire and in the tool: nothing may read
// them as conversions.
TEST_F(DaemonHostile, PercentSignsAreNeverConversions)
{
    const std::string word = "%s%n%x%p%s%s%n%d";
    RunResult tool = RunTool({"--daemonmodeforce", "--servicestatusget", word});
    EXPECT_EQ(0xFFFFFFFFu, tool.exitCode) << tool.out << tool.err;
    EXPECT_TRUE(Contains(tool.out, "'" + word + "'")) << tool.out << tool.err;

    Reply raw = Exchange(Quoted({"--servicestatusget", word}) + kEnd, 30000);
    EXPECT_TRUE(raw.fail) << raw.bytes;
    EXPECT_TRUE(Contains(raw.bytes, "'" + word + "'")) << raw.bytes;

    Reply user = Exchange(Quoted({"--servicestatusget", kService, "--targetuser", word, "--parentpid", "%n"}) + kEnd,
                          30000);
    EXPECT_TRUE(user.ok) << user.bytes;
}

// Every option that the daemon refuses, alone and behind fifty harmless words.
TEST_F(DaemonHostile, RefusedOptionsAreRefusedWhereverTheyStand)
{
    struct Refused {
        const char *option;
        bool value;
    };
    const Refused refused[] = {
        {"--deviceadd", false},       {"--devicedel", false},       {"--devicesgroupdel", false},
        {"--deviceslist", false},     {"--devicestart", false},     {"--devicestop", false},
        {"--driverpackageadd", false}, {"--driverpackagedel", false}, {"--serviceadd", true},
        {"--servicedel", true},       {"--servicestart", true},     {"--servicestop", true},
        {"--servicechange", true},    {"--usbfilteradd", true},     {"--usbfilterdel", true},
        {"--daemoninstall", false},   {"--daemonremove", false},    {"--networkaliasadd", false},
        {"--networkaliasdel", false}, {"--fwruleadd", false},       {"--fwruledel", false},
        {"--install", true},          {"--uninstall", true},        {"--enable", true},
        {"--disable", true},          {"--update", true},           {"--kill", false},
    };
    std::string fifty;
    for (int i = 0; i < 50; i++)
        fifty += Quoted({i % 2 ? "--quiet" : "--nodaemon"});
    for (const Refused &row : refused) {
        std::string word = Quoted({row.option}) + (row.value ? Quoted({kService}) : "");
        for (const std::string &request : {word, fifty + word, Quoted({"--servicestatusget", kService}) + word}) {
            Reply reply = Exchange(request + kEnd, 30000);
            EXPECT_TRUE(reply.fail) << row.option << ": " << reply.bytes;
            EXPECT_TRUE(Contains(reply.bytes, "ERROR: This command needs administrator rights.\r\n"))
                << row.option << ": " << reply.bytes;
        }
    }
    EXPECT_EQ((DWORD)SERVICE_RUNNING, ServiceStateOf(kService));
}

// The rights check and the worker must see the same words. A request whose
// quoting makes the daemon's split and the worker's command line disagree
// must not get a refused command run.
TEST_F(DaemonHostile, RefusedCommandCannotHideFromTheRightsCheck)
{
    const std::string notepad = ProbeServicePath();
    struct Trick {
        const char *name;
        std::string request;
    };
    const Trick tricks[] = {
        // Words between two quoted arguments are taken for the blank between them.
        {"words in a separator",
         Quoted({"--servicestatusget", kService}) + " --serviceadd " + kProbeService + " --servicepath " + notepad},
        {"words in a separator, quoted after",
         "\"--servicestatusget\" \"tzdeviced\" --serviceadd " + std::string(kProbeService) + " --servicepath " +
             notepad + " \"--quiet\" "},
        // An empty argument shifts which pieces count as words.
        {"empty argument", Quoted({"--servicestatusget", "", "--serviceadd", kProbeService, "--servicepath", notepad})},
    };
    for (const Trick &trick : tricks) {
        Reply reply = Exchange(trick.request + kEnd, 30000);
        EXPECT_FALSE(ServicePresent(kProbeService)) << trick.name << ": [" << trick.request << "] -> " << reply.bytes;
        RemoveServiceQuietly(kProbeService);
    }
}

// The same tricks through the ordinary command tool, as any user can run it.
TEST_F(DaemonHostile, RefusedCommandCannotHideBehindToolArguments)
{
    const std::string notepad = ProbeServicePath();
    const std::vector<std::vector<std::string>> runs = {
        {"--daemonmodeforce", "--servicestatusget", "", "--serviceadd", kProbeService, "--servicepath", notepad},
        {"--daemonmodeforce", "--servicestatusget",
         std::string(kService) + "\" --serviceadd " + kProbeService + " --servicepath " + notepad + " \"--quiet"},
    };
    for (const auto &args : runs) {
        RunResult run = RunTool(args);
        EXPECT_FALSE(ServicePresent(kProbeService)) << args[2] << " -> " << run.out << run.err;
        RemoveServiceQuietly(kProbeService);
    }
}

// A request longer than the worker's command line is checked whole; the cut
// that the worker then sees must not turn an unknown word into a refused
// command. "--daemoninstallXXXX" is unknown; cut to "--daemoninstall" it
// would try to install the daemon again, which shows in its error.
TEST_F(DaemonHostile, CutWorkerCommandLineCannotMakeARefusedCommand)
{
    const size_t pathLength = BinPath("tzdevice.exe").size();
    const std::string probe = "--daemoninstall";
    for (int shift = -3; shift <= 3; shift++) {
        // Path, blank, then the text; 520 bytes with the terminator.
        long visible = 519 - (long)pathLength - 1 + shift;
        std::string head = "\"--servicestatusget\" \"";
        std::string tail = "\" \"" + probe;
        long padding = visible - (long)head.size() - (long)tail.size();
        ASSERT_GT(padding, 0);
        std::string request = head + std::string((size_t)padding, 'p') + tail + "XXXXXXXX\" ";
        Reply reply = Exchange(request + kEnd, 30000);
        EXPECT_TRUE(reply.ok || reply.fail) << reply.bytes;
        EXPECT_FALSE(Contains(reply.bytes, "install service daemon")) << "shift " << shift << ": " << reply.bytes;
        if (getenv("TZ_HOSTILE_VERBOSE"))
            printf("shift %d: %s\n", shift, reply.bytes.c_str());
    }
}

// A raw request may carry the flag that makes a tool forward; the worker
// must still run the command itself instead of asking the daemon again.
TEST_F(DaemonHostile, ForwardingFlagInARequestDoesNotLoop)
{
    DWORD start = GetTickCount();
    Reply reply = Exchange(Quoted({"--daemonmodeforce", "--servicestatusget", kService}) + kEnd, 60000);
    EXPECT_TRUE(reply.ok) << reply.bytes;
    EXPECT_TRUE(Contains(reply.bytes, "4\r\n")) << reply.bytes;
    EXPECT_LT(GetTickCount() - start, 20000u);
}

// "STOP" is the daemon's own courtesy message; from a client it must not
// stop anything.
TEST_F(DaemonHostile, StopWordFromAClientStopsNothing)
{
    for (int i = 0; i < 3; i++) {
        Reply reply = Exchange("STOP" + kEnd, 30000);
        EXPECT_EQ("__FAIL__", reply.bytes);
    }
    Sleep(500);
    EXPECT_EQ((DWORD)SERVICE_RUNNING, ServiceStateOf(kService));
}

// Clients that leave before their reply, at once or half-way.
TEST_F(DaemonHostile, ClientsGoneBeforeTheirReply)
{
    for (int round = 0; round < 16; round++) {
        HANDLE pipe = Connect();
        ASSERT_NE(INVALID_HANDLE_VALUE, pipe);
        ASSERT_TRUE(Send(pipe, Quoted({"--servicestatusget", kService}) + kEnd));
        if (round % 2) {
            char byte;
            DWORD done = 0, error = 0;
            Transfer(pipe, false, &byte, 1, 5000, &done, &error);
        }
        CloseHandle(pipe);
    }
    // Their workers write into broken pipes; give them time to end.
    Sleep(2000);
}

// A client that never reads while its worker prints a lot holds its own
// instance only: others are served meanwhile, and its leaving frees it.
TEST_F(DaemonHostile, ClientThatNeverReadsHoldsOnlyItsOwnInstance)
{
    // Every unknown word prints a line, twice; as many as a request holds.
    std::string text;
    for (int i = 0; text.size() + 5 < 16376; i++)
        text += Quoted({"-" + std::to_string(i % 10)});
    std::vector<HANDLE> silent;
    for (int i = 0; i < 4; i++) {
        HANDLE pipe = Connect();
        ASSERT_NE(INVALID_HANDLE_VALUE, pipe);
        ASSERT_TRUE(Send(pipe, text + kEnd));
        silent.push_back(pipe);
    }
    Sleep(3000);
    RunResult status = ForwardedStatus();
    EXPECT_EQ(0u, status.exitCode) << status.out << status.err;
    for (HANDLE pipe : silent)
        CloseHandle(pipe);
    Sleep(3000);
}

// Direct commands run on the daemon's own threads; at the same moment, each
// client must still get its own output and nobody else's.
TEST_F(DaemonHostile, ConcurrentDirectCommandsKeepTheirOwnOutput)
{
    const int clients = 16;
    std::vector<Reply> replies(clients);
    std::vector<std::thread> threads;
    for (int i = 0; i < clients; i++)
        threads.emplace_back([&replies, i] { replies[i] = Exchange(Quoted({"--cpuload"}) + kEnd, 60000); });
    for (std::thread &thread : threads)
        thread.join();
    auto shape = [](std::string text) {
        for (char &c : text)
            if (c >= '0' && c <= '9')
                c = '9';
        return text;
    };
    for (int i = 0; i < clients; i++) {
        EXPECT_TRUE(replies[i].ok || replies[i].fail) << i << ": " << replies[i].bytes;
        EXPECT_EQ(shape(replies[0].bytes), shape(replies[i].bytes)) << "client " << i;
    }
}
