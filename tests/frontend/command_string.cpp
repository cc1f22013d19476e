// The forwarded command text, byte for byte.
#include <gtest/gtest.h>
#include <string.h>
#include <windows.h>

#include <string>
#include <vector>

#include "frontend/frontend.h"
#include "harness.h"
#include "support/log.h"

namespace {

const bool logNamed = [] {
    LogSetFile((MakeTempDir("cmdstrlog") + "\\cmdstr.log").c_str());
    return true;
}();

std::string UserName()
{
    char user[TARGET_USER_SIZE] = {0};
    DWORD size = sizeof user;
    GetUserNameA(user, &size);
    return user;
}

struct Built {
    std::string text;
    int cut = 0;
    struct CommandOptions options;
};

Built Build(std::vector<std::string> args, int parentPid, size_t size = COMMAND_STRING_SIZE,
            const char *targetUser = "")
{
    Built built;
    CommandOptionsInit(&built.options);
    built.options.parentPid = parentPid;
    strcpy(built.options.targetUser, targetUser);
    args.insert(args.begin(), "tzdevice.exe");
    std::vector<char *> argv;
    for (auto &arg : args)
        argv.push_back(&arg[0]);
    std::vector<char> out(size + 1, '#');
    built.cut = BuildCommandString(out.data(), size, (int)argv.size(), argv.data(), &built.options);
    EXPECT_EQ('#', out[size]) << "wrote past the buffer";
    built.text = std::string(out.data());
    return built;
}

TEST(CommandString, QuotesEveryWordAndAppendsUserAndParent)
{
    std::string user = UserName();
    ASSERT_FALSE(user.empty());
    Built built = Build({"--deviceid", "abc", "--daemonmodeforce"}, 1204);
    EXPECT_EQ("\"--deviceid\" \"abc\" \"--targetuser\" \"" + user + "\" \"--parentpid\" \"1204\" ", built.text);
    EXPECT_EQ(0, built.cut);
}

TEST(CommandString, DropsEveryDaemonForceWordWherever)
{
    std::string user = UserName();
    Built built = Build({"--daemonmodeforce", "--usbstart", "--daemonmodeforce", "x y"}, 7);
    EXPECT_EQ("\"--usbstart\" \"x y\" \"--targetuser\" \"" + user + "\" \"--parentpid\" \"7\" ", built.text);
}

TEST(CommandString, NoWordsGivesOnlyTheTwoPairs)
{
    std::string user = UserName();
    EXPECT_EQ("\"--targetuser\" \"" + user + "\" \"--parentpid\" \"-1\" ", Build({}, -1).text);
}

TEST(CommandString, CallerGivenTargetUserIsForwardedButOverwritten)
{
    std::string user = UserName();
    Built built = Build({"--targetuser", "mallory"}, 3, COMMAND_STRING_SIZE, "mallory");
    EXPECT_EQ("\"--targetuser\" \"mallory\" \"--targetuser\" \"" + user + "\" \"--parentpid\" \"3\" ", built.text);
    EXPECT_EQ(user, built.options.targetUser);
}

TEST(CommandString, WordsAreNotEscaped)
{
    std::string user = UserName();
    Built built = Build({"--path", "a\"b", "100%d"}, 12);
    EXPECT_EQ("\"--path\" \"a\"b\" \"100%d\" \"--targetuser\" \"" + user + "\" \"--parentpid\" \"12\" ", built.text);
}

TEST(CommandString, IsCutAtTheBufferAndSaysSo)
{
    Built small = Build({"--deviceid", "abc"}, 1, 10);
    EXPECT_EQ(1, small.cut);
    EXPECT_EQ("\"--device", small.text);

    std::string huge(COMMAND_STRING_SIZE, 'w');
    Built full = Build({huge}, 1);
    EXPECT_EQ(1, full.cut);
    EXPECT_EQ((size_t)COMMAND_STRING_SIZE - 1, full.text.size());
}

}  // namespace
