// Clients that take every pipe instance and then do nothing useful: the
// daemon's time limit on a request (120 s) and on a worker (120 s) must give
// the instances back, so that nobody can shut it off for longer than that.
#include <gtest/gtest.h>

#include <stdio.h>

#include <string>
#include <vector>

#include "daemon_hostile_client.h"
#include "harness.h"

using namespace hostile;

namespace {

const int kInstances = 16;
const DWORD kRequestLimitMs = 120000;

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

// Polls with ordinary forwarded commands until one succeeds; returns the
// milliseconds that took, or ~0 when `limitMs` passed first.
DWORD ServedAgainAfter(DWORD start, DWORD limitMs)
{
    while (GetTickCount() - start < limitMs) {
        if (WaitNamedPipeA(kPipe, 2000)) {
            Reply reply = Exchange("\"--servicestatusget\" \"tzdeviced\" __END__", 30000);
            if (reply.ok)
                return GetTickCount() - start;
        }
        Sleep(1000);
    }
    return ~0u;
}

class DaemonHostileIdle : public ::testing::Test {
protected:
    DWORD pid = 0;
    long startCount = 0;

    void SetUp() override
    {
        std::string why;
        ASSERT_TRUE(EnsureDaemonRunning(&why)) << why;
        pid = DaemonPid();
        startCount = QuietHandleCount(pid);
    }

    void TearDown() override
    {
        if (pid == 0)
            return;  // the daemon never came up: SetUp has said why
        RunResult status = ForwardedStatus();
        EXPECT_EQ(0u, status.exitCode) << status.out << status.err;
        EXPECT_EQ(pid, DaemonPid()) << "the daemon was restarted or died";
        long count = SettledHandleCount(pid, startCount + 4);
        EXPECT_LE(count, startCount + 4) << "handles before the case: " << startCount;
    }
};

}  // namespace

// Half of the clients send nothing, the other half a byte every ten seconds
// and never the marker. All sixteen must lose their instance at the limit.
TEST_F(DaemonHostileIdle, SilentAndTricklingClientsLoseTheirInstances)
{
    std::vector<HANDLE> clients;
    for (int i = 0; i < kInstances; i++) {
        HANDLE pipe = Connect(10000);
        ASSERT_NE(INVALID_HANDLE_VALUE, pipe) << "client " << i;
        clients.push_back(pipe);
    }
    DWORD start = GetTickCount();
    // All instances are taken: an ordinary caller has to wait.
    EXPECT_FALSE(WaitNamedPipeA(kPipe, 2000)) << "more than 16 instances";

    std::vector<bool> dropped(kInstances, false);
    for (int round = 0; GetTickCount() - start < kRequestLimitMs + 20000; round++) {
        bool all = true;
        for (int i = 0; i < kInstances; i++) {
            if (dropped[i])
                continue;
            // A trickling client writes; a silent one only tries a short read.
            DWORD done = 0, error = 0;
            if (i % 2 && round % 10 == 0) {
                char byte = 'x';
                Transfer(clients[i], true, &byte, 1, 200, &done, &error);
            } else {
                char byte;
                Transfer(clients[i], false, &byte, 1, 10, &done, &error);
            }
            if (error != 0 && error != WAIT_TIMEOUT)
                dropped[i] = true;
            all = all && dropped[i];
        }
        if (all)
            break;
        Sleep(1000);
    }
    DWORD spent = GetTickCount() - start;
    for (int i = 0; i < kInstances; i++)
        EXPECT_TRUE(dropped[i]) << "client " << i << " still connected after " << spent << " ms";
    printf("all idle clients dropped after %lu ms\n", spent);
    EXPECT_GE(spent, kRequestLimitMs - 5000) << "dropped before the limit";

    DWORD served = ServedAgainAfter(start, kRequestLimitMs + 40000);
    EXPECT_NE(~0u, served) << "the daemon does not serve again";
    for (HANDLE pipe : clients)
        CloseHandle(pipe);
}

// Sixteen clients whose workers print far more than a pipe holds, and which
// never read and never leave. The workers run into the worker limit; the
// daemon must then give the instances back although nobody reads its last
// words.
TEST_F(DaemonHostileIdle, ClientsThatNeverReadNorLeave)
{
    std::string text;
    for (int i = 0; text.size() + 5 < 16376; i++)
        text += "\"-" + std::to_string(i % 10) + "\" ";
    text += "__END__";
    std::vector<HANDLE> clients;
    for (int i = 0; i < kInstances; i++) {
        HANDLE pipe = Connect(10000);
        ASSERT_NE(INVALID_HANDLE_VALUE, pipe) << "client " << i;
        ASSERT_TRUE(Send(pipe, text)) << "client " << i;
        clients.push_back(pipe);
    }
    DWORD start = GetTickCount();
    DWORD served = ServedAgainAfter(start, 2 * kRequestLimitMs + 30000);
    printf("served again after %lu ms while %d clients never read\n", served, kInstances);
    EXPECT_NE(~0u, served) << "the daemon stays blocked by clients that never read";
    // The workers outlived their limit and were ended; then the replies
    // nobody took ran into their deadline.
    std::string log = ReadFileText(DaemonLogPath());
    EXPECT_NE(log.find("ERROR : child worker timeout.\r\nSending SIGINT to child [pid = "), std::string::npos);
    EXPECT_NE(log.find("Terminating child [pid = "), std::string::npos);
    EXPECT_NE(log.find("ERROR: Client did not take its reply in time, disconnecting.\r\n"), std::string::npos);
    for (HANDLE pipe : clients)
        CloseHandle(pipe);
    Sleep(3000);
}
