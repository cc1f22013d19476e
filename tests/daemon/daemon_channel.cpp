// The client side of the daemon's pipe against a scripted server in this
// program, on the daemon's own pipe name (the daemon must not run meanwhile):
// what goes on the wire, how the end markers are found, and the limits.
#include <gtest/gtest.h>
#include <string.h>
#include <windows.h>

#include <string>
#include <thread>
#include <vector>

#include "daemon/daemon.h"
#include "harness.h"

namespace {

const char *const kPipe = DAEMON_PIPE_NAME;

// One server instance that takes one client, reads its request up to the end
// mark, then writes `chunks` one write each (pausing `pauseMs` between them)
// and disconnects, or keeps the pipe open until the client leaves.
struct ScriptedServer {
    std::vector<std::string> chunks;
    DWORD pauseMs = 0;
    bool holdOpen = false;
    std::string request;
    HANDLE pipe = INVALID_HANDLE_VALUE;
    std::thread thread;

    void Start()
    {
        pipe = CreateNamedPipeA(kPipe, PIPE_ACCESS_DUPLEX, PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE,
                                PIPE_UNLIMITED_INSTANCES, 65536, 65536, 0, NULL);
        ASSERT_NE(INVALID_HANDLE_VALUE, pipe);
        thread = std::thread([this] { Serve(); });
    }
    void Serve()
    {
        // A client that has written and gone already still left its bytes.
        if (!ConnectNamedPipe(pipe, NULL) && GetLastError() != ERROR_PIPE_CONNECTED && GetLastError() != ERROR_NO_DATA)
            return;
        std::vector<char> buffer(70000);
        while (request.find("__END__") == std::string::npos) {
            DWORD count = 0;
            BOOL ok = ReadFile(pipe, buffer.data(), (DWORD)buffer.size(), &count, NULL);
            if (!ok && GetLastError() != ERROR_MORE_DATA)
                break;
            request.append(buffer.data(), count);
        }
        for (size_t i = 0; i < chunks.size(); i++) {
            if (i > 0 && pauseMs)
                Sleep(pauseMs);
            DWORD written = 0;
            WriteFile(pipe, chunks[i].data(), (DWORD)chunks[i].size(), &written, NULL);
        }
        if (holdOpen) {
            // Until the client closes its end.
            char byte;
            DWORD count;
            ReadFile(pipe, &byte, 1, &count, NULL);
        }
        FlushFileBuffers(pipe);
        DisconnectNamedPipe(pipe);
    }
    void Finish()
    {
        if (thread.joinable())
            thread.join();
        if (pipe != INVALID_HANDLE_VALUE)
            CloseHandle(pipe);
        pipe = INVALID_HANDLE_VALUE;
    }
    ~ScriptedServer() { Finish(); }
};

struct Exchange {
    int result = 99;
    int exitCode = 77;
    std::string reply;
};

Exchange SendText(ScriptedServer &server, const std::string &text, int replySize = 4096)
{
    Exchange out;
    server.Start();
    std::vector<char> reply((size_t)replySize, 0);
    out.result = DaemonSendText(&out.exitCode, reply.data(), replySize, text.c_str());
    out.reply = reply.data();
    server.Finish();
    return out;
}

class DaemonChannel : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        if (ServicePresent(DAEMON_SERVICE_NAME))
            StopAndRemoveDaemon();
        // Until the last instance of a daemon that is going away has closed,
        // a client could reach it instead of the scripted server.
        for (int waited = 0; waited < 15000; waited += 100) {
            if (!WaitNamedPipeA(kPipe, 1) && GetLastError() == ERROR_FILE_NOT_FOUND)
                break;
            Sleep(100);
        }
    }
};

TEST_F(DaemonChannel, RequestIsTheTextAndTheEndMarkNoZero)
{
    ScriptedServer server;
    server.chunks = {"__OK__"};
    Exchange got = SendText(server, "\"--cpuload\" \"--parentpid\" \"7\" ");
    EXPECT_EQ(0, got.result);
    EXPECT_EQ("\"--cpuload\" \"--parentpid\" \"7\" __END__", server.request);

    // The text form sends percent signs as they are; the format form formats.
    ScriptedServer plain;
    plain.chunks = {"__OK__"};
    SendText(plain, "\"100%\" \"%s%d%n\" ");
    EXPECT_EQ("\"100%\" \"%s%d%n\" __END__", plain.request);

    ScriptedServer formatted;
    formatted.chunks = {"__OK__"};
    formatted.Start();
    char reply[64] = {0};
    int code = 5;
    EXPECT_EQ(0, DaemonSend(&code, reply, sizeof reply, "\"--deviceid\" \"%s\" \"%d\" ", "dev", -3));
    formatted.Finish();
    EXPECT_EQ("\"--deviceid\" \"dev\" \"-3\" __END__", formatted.request);
}

TEST_F(DaemonChannel, TextBeyondTheLimitIsCut)
{
    ScriptedServer server;
    server.chunks = {"__OK__"};
    std::string text(20000, 'q');
    SendText(server, text);
    EXPECT_EQ(std::string(DAEMON_SEND_LIMIT, 'q') + "__END__", server.request);
}

TEST_F(DaemonChannel, MarkersEndTheReplyAndSetTheCode)
{
    ScriptedServer ok;
    ok.chunks = {"Nothing to do.\r\n", "__OK__"};
    Exchange got = SendText(ok, "x");
    EXPECT_EQ(0, got.result);
    EXPECT_EQ(0, got.exitCode);
    EXPECT_EQ("Nothing to do.\r\n", got.reply);

    ScriptedServer fail;
    fail.chunks = {"ERROR: This command needs administrator rights.\r\n__FAIL__"};
    got = SendText(fail, "x");
    EXPECT_EQ(0, got.result);
    EXPECT_EQ(-1, got.exitCode);
    EXPECT_EQ("ERROR: This command needs administrator rights.\r\n", got.reply);

    // Both in one read: "__OK__" is looked for first.
    ScriptedServer both;
    both.chunks = {"a__FAIL__b__OK__"};
    got = SendText(both, "x");
    EXPECT_EQ(0, got.exitCode);
    EXPECT_EQ("a__FAIL__b", got.reply);

    // A marker in the middle of a read ends the reply there, and the read is
    // cut by the marker's length from its end, wherever the marker stood.
    ScriptedServer middle;
    middle.chunks = {"ab__OK__cd"};
    got = SendText(middle, "x");
    EXPECT_EQ(0, got.result);
    EXPECT_EQ(0, got.exitCode);
    EXPECT_EQ("ab__", got.reply);
}

TEST_F(DaemonChannel, MarkerSplitAcrossReadsIsNotSeen)
{
    ScriptedServer server;
    server.chunks = {"out__O", "K__"};
    server.pauseMs = 300;  // the client has read the first part by then
    Exchange got = SendText(server, "x");
    EXPECT_EQ(-1, got.result);
    EXPECT_EQ(77, got.exitCode) << "no marker, no exit code";
}

TEST_F(DaemonChannel, NoMarkerBeforeDisconnectIsAnError)
{
    ScriptedServer server;
    server.chunks = {"ERROR: Cannot process command.\r\n"};
    Exchange got = SendText(server, "x");
    EXPECT_EQ(-1, got.result);
    EXPECT_EQ(77, got.exitCode);
}

TEST_F(DaemonChannel, ReplyFillingTheBufferWithoutMarkerIsAnError)
{
    ScriptedServer server;
    server.chunks = {std::string(15, 'r')};
    server.holdOpen = true;  // would wait for ever if the client read on
    DWORD start = GetTickCount();
    Exchange got = SendText(server, "x", 16);
    EXPECT_EQ(-1, got.result);
    EXPECT_EQ(77, got.exitCode);
    EXPECT_LT(GetTickCount() - start, 10000u);

    // One byte less leaves room for the marker: fine.
    ScriptedServer fits;
    fits.chunks = {std::string(9, 'r') + "__OK__"};
    got = SendText(fits, "x", 16);
    EXPECT_EQ(0, got.result);
    EXPECT_EQ(std::string(9, 'r'), got.reply);
}

TEST_F(DaemonChannel, SendAndForgetReadsNothing)
{
    ScriptedServer server;
    server.holdOpen = true;  // writes nothing; the client must not wait
    server.Start();
    EXPECT_EQ(0, DaemonSend(NULL, NULL, 0, "STOP"));
    server.Finish();
    EXPECT_EQ("STOP__END__", server.request);
}

TEST_F(DaemonChannel, NoServerFailsAtOnce)
{
    int code = 77;
    char reply[64] = {0};
    DWORD start = GetTickCount();
    EXPECT_EQ(-1, DaemonSendText(&code, reply, sizeof reply, "x"));
    EXPECT_EQ(77, code);
    EXPECT_LT(GetTickCount() - start, 5000u);
}

TEST_F(DaemonChannel, IsRunningIsMinusOneWithoutTheService)
{
    EXPECT_EQ(-1, DaemonIsRunning(1));
}

}  // namespace
