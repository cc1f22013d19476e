// Administrator check, security attributes, pipe pairs, privileges and random
// fill, in-process under Wine.
#include <gtest/gtest.h>
#include <windows.h>

#include <string>
#include <vector>

#include "../devices/capture.h"
#include "support/security.h"

namespace {

const std::string kLogPath = TestLogPath();

struct Sid {
    PSID sid = NULL;
    Sid(BYTE authority, std::vector<DWORD> rids)
    {
        SID_IDENTIFIER_AUTHORITY id = {{0, 0, 0, 0, 0, authority}};
        rids.resize(8, 0);
        AllocateAndInitializeSid(&id, (BYTE)(rids[1] ? 2 : 1), rids[0], rids[1], 0, 0, 0, 0, 0, 0, &sid);
    }
    ~Sid() { FreeSid(sid); }
};

// ---- CheckForAdmin --------------------------------------------------------

int managerCalls;
BOOL ManagerOpens()
{
    managerCalls++;
    return TRUE;
}
BOOL ManagerRefuses()
{
    managerCalls++;
    return FALSE;
}

TEST(Admin, WineProcessIsAdministratorAndLogsStatusLast)
{
    size_t mark = LogText().size();
    EXPECT_EQ(0u, CheckForAdmin());
    std::string log = LogSince(mark);
    EXPECT_NE(std::string::npos, log.find("-> CheckForAdmin()...\n"));
    EXPECT_NE(std::string::npos, log.find("Trying privilege function...\n"));
    const std::string last = "Admin check status : [0]\n";
    ASSERT_GE(log.size(), last.size());
    EXPECT_EQ(last, log.substr(log.size() - last.size()));
}

TEST(Admin, GroupsDecideFirstAndTheServiceManagerSecond)
{
    Sid world(1, {0});
    Sid users(5, {32, 545});
    Sid admins(5, {32, 544});
    std::vector<char> block(sizeof(TOKEN_GROUPS) + 3 * sizeof(SID_AND_ATTRIBUTES));
    TOKEN_GROUPS *groups = (TOKEN_GROUPS *)block.data();
    SID_AND_ATTRIBUTES *entries = groups->Groups;  // the block has room for three
    entries[0] = {world.sid, SE_GROUP_ENABLED};
    entries[1] = {users.sid, SE_GROUP_ENABLED};
    entries[2] = {admins.sid, SE_GROUP_USE_FOR_DENY_ONLY};

    struct Case {
        DWORD count;
        BOOL (*manager)();
        DWORD expected;
        int calls;
    } cases[] = {
        {0, ManagerOpens, 1, 0},    // no groups at all
        {2, ManagerOpens, 1, 0},    // no Administrators: the manager isn't asked
        {3, ManagerOpens, 0, 1},    // a deny-only Administrators group counts
        {3, ManagerRefuses, 1, 1},  // a member the manager refuses is no administrator
    };
    for (const auto &one : cases) {
        groups->GroupCount = one.count;
        managerCalls = 0;
        size_t mark = LogText().size();
        StderrCapture capture;
        EXPECT_EQ(one.expected, CheckForAdminGroups(groups, admins.sid, one.manager)) << one.count;
        EXPECT_EQ(one.calls, managerCalls);
        EXPECT_EQ("", capture.Take());
        EXPECT_EQ(one.calls ? 1u : 0u, CountOf(LogSince(mark), "Trying privilege function...\n"));
    }
}

// ---- security attributes --------------------------------------------------

struct Ace {
    BYTE type;
    BYTE flags;
    DWORD mask;
    PSID sid;
};

std::vector<Ace> AcesOf(const SECURITY_ATTRIBUTES &attributes)
{
    std::vector<Ace> aces;
    BOOL present = FALSE, defaulted = TRUE;
    PACL acl = NULL;
    EXPECT_TRUE(GetSecurityDescriptorDacl(attributes.lpSecurityDescriptor, &present, &acl, &defaulted));
    EXPECT_TRUE(present);
    EXPECT_FALSE(defaulted);
    if (!acl)
        return aces;
    for (DWORD i = 0; i < acl->AceCount; i++) {
        ACCESS_ALLOWED_ACE *ace = NULL;
        if (GetAce(acl, i, (void **)&ace))
            aces.push_back({ace->Header.AceType, ace->Header.AceFlags, ace->Mask, (PSID)&ace->SidStart});
    }
    return aces;
}

TEST(Attributes, EverybodyGivesWorldReadWriteAndAdministratorsMaximum)
{
    SECURITY_ATTRIBUTES attributes;
    ZeroMemory(&attributes, sizeof attributes);
    ASSERT_EQ(0, SetUpSecurityAttributesEverybody(&attributes));
    EXPECT_EQ(24u, attributes.nLength);
    EXPECT_TRUE(attributes.bInheritHandle);
    std::vector<Ace> aces = AcesOf(attributes);
    ASSERT_EQ(2u, aces.size());
    Sid world(1, {0});
    Sid admins(5, {32, 544});
    EXPECT_EQ(ACCESS_ALLOWED_ACE_TYPE, aces[0].type);
    EXPECT_EQ(0, aces[0].flags);
    EXPECT_EQ((DWORD)(GENERIC_READ | GENERIC_WRITE), aces[0].mask);
    EXPECT_TRUE(EqualSid(world.sid, aces[0].sid));
    EXPECT_EQ(ACCESS_ALLOWED_ACE_TYPE, aces[1].type);
    EXPECT_EQ(0, aces[1].flags);
    EXPECT_EQ((DWORD)MAXIMUM_ALLOWED, aces[1].mask);
    EXPECT_TRUE(EqualSid(admins.sid, aces[1].sid));

    // The descriptor is usable: an event made with it reads it back.
    HANDLE event = CreateEventA(&attributes, FALSE, FALSE, NULL);
    EXPECT_NE(nullptr, event);
    CloseHandle(event);
    FreeSecurityAttributes(&attributes);
    EXPECT_EQ(nullptr, attributes.lpSecurityDescriptor);
    FreeSecurityAttributes(&attributes);  // a second call does nothing
}

TEST(Attributes, CurrentUserGetsAllAndAnAccountReadWrite)
{
    // The user of this process, as a SID, from its token.
    HANDLE token = NULL;
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token));
    std::vector<char> userBlock(256);
    DWORD size = 0;
    ASSERT_TRUE(GetTokenInformation(token, TokenUser, userBlock.data(), (DWORD)userBlock.size(), &size));
    CloseHandle(token);
    PSID me = ((TOKEN_USER *)userBlock.data())->User.Sid;

    SECURITY_ATTRIBUTES attributes;
    ZeroMemory(&attributes, sizeof attributes);
    ASSERT_EQ(0, SetUpSecurityAttributesCurrentUser(&attributes, NULL));
    EXPECT_EQ(24u, attributes.nLength);
    EXPECT_FALSE(attributes.bInheritHandle);
    std::vector<Ace> aces = AcesOf(attributes);
    ASSERT_EQ(1u, aces.size());
    EXPECT_EQ((DWORD)GENERIC_ALL, aces[0].mask);
    EXPECT_EQ(0, aces[0].flags);
    EXPECT_TRUE(EqualSid(me, aces[0].sid));
    FreeSecurityAttributes(&attributes);

    ZeroMemory(&attributes, sizeof attributes);
    ASSERT_EQ(0, SetUpSecurityAttributesCurrentUser(&attributes, "Everyone"));
    aces = AcesOf(attributes);
    ASSERT_EQ(2u, aces.size());
    Sid world(1, {0});
    EXPECT_TRUE(EqualSid(me, aces[0].sid));
    EXPECT_EQ((DWORD)(GENERIC_READ | GENERIC_WRITE), aces[1].mask);
    EXPECT_TRUE(EqualSid(world.sid, aces[1].sid));
    FreeSecurityAttributes(&attributes);

    // An account nobody knows: the record stays cleared and may be freed.
    ZeroMemory(&attributes, sizeof attributes);
    StderrCapture capture;
    EXPECT_NE(0, SetUpSecurityAttributesCurrentUser(&attributes, "tz-nobody-at-all"));
    EXPECT_EQ(0u, capture.Take().find("ERROR: Cannot set up security attributes.\nError code is: "));
    EXPECT_EQ(nullptr, attributes.lpSecurityDescriptor);
    FreeSecurityAttributes(&attributes);
    FreeSecurityAttributes(NULL);
}

// ---- pipe pairs -----------------------------------------------------------

std::string PipeName(unsigned counter)
{
    char name[MAX_PATH];
    snprintf(name, sizeof name, "\\\\.\\Pipe\\tzdevice-anon.%08x.%08x", (unsigned)GetCurrentProcessId(), counter);
    return name;
}

// 231 for a pipe whose one instance is taken, 2 for no such pipe.
DWORD ProbePipe(const std::string &name)
{
    HANDLE handle = CreateFileA(name.c_str(), GENERIC_WRITE, 0, NULL, OPEN_EXISTING, 0, NULL);
    DWORD code = handle == INVALID_HANDLE_VALUE ? GetLastError() : 0;
    if (handle != INVALID_HANDLE_VALUE)
        CloseHandle(handle);
    return code;
}

// All pipe cases in one test: the counter belongs to the process.
TEST(Pipes, NamesCountUpAndEndsCarryData)
{
    PipePair first = {NULL, NULL};
    ASSERT_EQ(0, CreatePipeEx(&first, NULL, 0, 0, 0, 30000));
    EXPECT_EQ((DWORD)ERROR_PIPE_BUSY, ProbePipe(PipeName(0)));
    EXPECT_EQ((DWORD)ERROR_FILE_NOT_FOUND, ProbePipe(PipeName(1)));
    DWORD flags = 0, out = 0, in = 0, instances = 0;
    ASSERT_TRUE(GetNamedPipeInfo(first.read, &flags, &out, &in, &instances));
    EXPECT_EQ((DWORD)(PIPE_SERVER_END | PIPE_TYPE_MESSAGE), flags);
    EXPECT_EQ(4096u, in);
    EXPECT_EQ(1u, instances);

    PipePair second = {NULL, NULL};
    ASSERT_EQ(0, CreatePipeEx(&second, NULL, 1024, FILE_FLAG_OVERLAPPED, FILE_FLAG_OVERLAPPED, 30000));
    EXPECT_EQ((DWORD)ERROR_PIPE_BUSY, ProbePipe(PipeName(1)));
    ASSERT_TRUE(GetNamedPipeInfo(second.read, &flags, &out, &in, &instances));
    EXPECT_EQ(1024u, in);

    // Written at the write end, read at the read end.
    DWORD done = 0;
    char text[16] = {0};
    ASSERT_TRUE(WriteFile(first.write, "hello", 5, &done, NULL));
    ASSERT_TRUE(ReadFile(first.read, text, sizeof text, &done, NULL));
    EXPECT_EQ("hello", std::string(text, done));
    OVERLAPPED overlapped;
    ZeroMemory(&overlapped, sizeof overlapped);
    overlapped.hEvent = CreateEventA(NULL, TRUE, FALSE, NULL);
    if (!WriteFile(second.write, "async", 5, NULL, &overlapped)) {
        EXPECT_EQ((DWORD)ERROR_IO_PENDING, GetLastError());
    }
    ASSERT_TRUE(GetOverlappedResult(second.write, &overlapped, &done, TRUE));
    EXPECT_EQ(5u, done);
    CloseHandle(overlapped.hEvent);

    // A name that is taken (as two threads could make it) fails, and the
    // record is left empty with nothing of this call open.
    HANDLE squatter = CreateNamedPipeA(PipeName(2).c_str(), PIPE_ACCESS_INBOUND, PIPE_TYPE_MESSAGE, 1, 512, 512, 0, NULL);
    ASSERT_NE(INVALID_HANDLE_VALUE, squatter);
    PipePair third = {INVALID_HANDLE_VALUE, INVALID_HANDLE_VALUE};
    StderrCapture capture;
    EXPECT_NE(0, CreatePipeEx(&third, NULL, 0, 0, 0, 30000));
    EXPECT_EQ(0u, capture.Take().find("ERROR: Cannot create pipe pair.\nError code is : "));
    EXPECT_EQ(nullptr, third.read);
    EXPECT_EQ(nullptr, third.write);
    CloseHandle(squatter);

    for (HANDLE handle : {first.read, first.write, second.read, second.write})
        CloseHandle(handle);
}

// ---- privileges -----------------------------------------------------------

// Whether the token has the privilege enabled now.
bool PrivilegeOn(const char *name)
{
    LUID luid;
    HANDLE token = NULL;
    std::vector<char> block(4096);
    DWORD size = 0;
    bool on = false;
    if (LookupPrivilegeValueA(NULL, name, &luid) && OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token) &&
        GetTokenInformation(token, TokenPrivileges, block.data(), (DWORD)block.size(), &size)) {
        TOKEN_PRIVILEGES *list = (TOKEN_PRIVILEGES *)block.data();
        for (DWORD i = 0; i < list->PrivilegeCount; i++)
            if (list->Privileges[i].Luid.LowPart == luid.LowPart && list->Privileges[i].Luid.HighPart == luid.HighPart)
                on = (list->Privileges[i].Attributes & SE_PRIVILEGE_ENABLED) != 0;
    }
    if (token)
        CloseHandle(token);
    return on;
}

TEST(Privileges, EnableAndDisableAndTheUnknownName)
{
    EXPECT_EQ(0, EnablePrivilege("SeDebugPrivilege", 1));
    EXPECT_TRUE(PrivilegeOn("SeDebugPrivilege"));
    EXPECT_EQ(0, EnablePrivilege("SeDebugPrivilege", 0));
    EXPECT_FALSE(PrivilegeOn("SeDebugPrivilege"));

    // Disabling says "enable" too, and the message has no line end.
    size_t mark = LogText().size();
    StderrCapture capture;
    EXPECT_EQ(1, EnablePrivilege("SeNoSuchPrivilege", 0));
    EXPECT_EQ("ERROR. Cannot enable privilege to current process (1313).", capture.Take());
    EXPECT_NE(std::string::npos, LogSince(mark).find("ERROR. Cannot enable privilege to current process (1313)."));
}

// ---- random fill ----------------------------------------------------------

bool IsHexDigit(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
}

TEST(Random, HexTextStaysInsideSizePlusOne)
{
    for (int size = 0; size <= 9; size++) {
        std::vector<char> buffer((size_t)size + 1 + 8, 'G');
        size_t mark = LogText().size();
        ASSERT_EQ(0, RndFill(buffer.data(), size, 1)) << size;
        size_t digits = size > 0 ? (size_t)size - 1 : 0;
        EXPECT_EQ(digits, strlen(buffer.data())) << size;
        for (size_t i = 0; i < digits; i++)
            EXPECT_TRUE(IsHexDigit(buffer[i])) << size << " at " << i;
        for (size_t i = (size_t)size + 1; i < buffer.size(); i++)
            EXPECT_EQ('G', buffer[i]) << size << " guard " << i;
        std::string log = LogSince(mark);
        EXPECT_NE(std::string::npos, log.find("Generated [" + std::to_string(size) + "] bytes random blob.\n"));
        EXPECT_NE(std::string::npos, log.find("Freeing raw...\n"));
    }
}

TEST(Random, RawBytesAndBadSize)
{
    unsigned char one[32] = {0}, two[32] = {0};
    size_t mark = LogText().size();
    ASSERT_EQ(0, RndFill((char *)one, sizeof one, 0));
    ASSERT_EQ(0, RndFill((char *)two, sizeof two, 0));
    EXPECT_NE(0, memcmp(one, two, sizeof one));
    EXPECT_EQ(std::string::npos, LogSince(mark).find("Freeing raw"));

    StderrCapture capture;
    EXPECT_EQ(-1, RndFill((char *)one, -1, 1));
    EXPECT_EQ("ERROR: Cannot generate random sequence.\nError code is : 0x57.\n", capture.Take());
}

}  // namespace
