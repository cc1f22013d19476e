// The option parser in-process: every option reaches its field, the daemon
// refuses the privileged ones, and the order rules between options hold.
#include <gtest/gtest.h>
#include <string.h>
#include <windows.h>

#include <functional>
#include <string>
#include <vector>

#include "frontend/options.h"
#include "harness.h"
#include "support/log.h"

namespace {

// The parser's log lines go to a file of this run, not into the test output.
const bool logNamed = [] {
    LogSetFile((MakeTempDir("parserlog") + "\\parser.log").c_str());
    return true;
}();

bool Is(const char *text, const char *expected)
{
    return text != NULL && strcmp(text, expected) == 0;
}

// One parse over words of its own, which the parser may write into.
struct Parse {
    std::vector<std::vector<char>> words;
    std::vector<char *> argv;
    struct CommandOptions options;
    int result = 0;

    explicit Parse(const std::vector<std::string> &args, int serviceMode = 0)
    {
        CommandOptionsInit(&options);
        options.networkId = NULL;
        Again(args, serviceMode);
    }
    // Parses more words into the same record, as a second run would.
    int Again(const std::vector<std::string> &args, int serviceMode = 0)
    {
        words.clear();
        argv.clear();
        words.push_back({'t', 'z', 'd', 'e', 'v', 'i', 'c', 'e', 0});
        for (const auto &arg : args) {
            words.emplace_back(arg.begin(), arg.end());
            words.back().push_back(0);
        }
        for (auto &word : words)
            argv.push_back(word.data());
        return Run(serviceMode);
    }
    int Run(int serviceMode = 0)
    {
        ServiceMode = serviceMode;
        result = ParseCommandLine(&options, (int)argv.size(), argv.data());
        ServiceMode = 0;
        return result;
    }
    std::string Word(size_t index) const { return words[index].data(); }
};

struct OptionCase {
    std::vector<std::string> words;
    std::function<bool(const struct CommandOptions &)> holds;
};

TEST(Options, GlobalRecordHoldsItsDefaultsBeforeAnyParse)
{
    const struct CommandOptions &o = CommandOptions;
    EXPECT_EQ(0, o.command);
    EXPECT_EQ(-1, o.portId);
    EXPECT_STREQ("255.255.255.252", o.netMask);
    EXPECT_EQ(nullptr, o.networkId);
    EXPECT_EQ(6, o.ruleProtocol);
    EXPECT_EQ(16, o.serviceType);
    EXPECT_EQ(2, o.serviceStartType);
    EXPECT_EQ(22, o.diskPort);
    EXPECT_EQ(10000, o.timeout);
    EXPECT_EQ(-1, o.componentOperation);
    EXPECT_EQ(-1, o.deviceTypeId);
    EXPECT_EQ(-1, o.pid);
    EXPECT_EQ(0, o.friendlyName[0]);
    EXPECT_EQ(nullptr, o.excludedPaths[0]);
    EXPECT_EQ(0, o.forceDaemon + o.noDaemon + o.directMode + o.quiet + o.recursive + o.kill);
}

TEST(Options, InitLeavesNetworkIdAndResetsEverythingElse)
{
    struct CommandOptions o;
    memset(&o, 0x5A, sizeof o);
    char marker[] = "kept";
    o.networkId = marker;
    EXPECT_EQ(0, CommandOptionsInit(&o));
    EXPECT_EQ(marker, o.networkId);
    EXPECT_EQ(nullptr, o.infFile);
    EXPECT_EQ(nullptr, o.processName);
    EXPECT_EQ(nullptr, o.excludedPaths[EXCLUDED_PATHS_SLOTS - 1]);
    EXPECT_EQ(-1, o.parentPid);
    EXPECT_EQ(0, o.targetUser[0]);
    EXPECT_EQ(0, o.friendlyName[FRIENDLY_NAME_SIZE - 1]);
    EXPECT_EQ(0, o.isPrivate + o.isDefault + o.noPreinstall);
}

TEST(Options, ServiceWordsAreExactAndInTableOrder)
{
    const std::vector<std::pair<const char *, int>> types = {
        {"FILE_SYSTEM", 2}, {"KERNEL_DRIVER", 1}, {"RECOGNIZER_DRIVER", 8},
        {"PROCESS", 16},    {"SHARE_PROCESS", 32}, {"INTERACTIVE_PROCESS", 256}};
    for (const auto &row : types)
        EXPECT_EQ(row.second, ServiceTypeFromName(row.first)) << row.first;
    const std::vector<std::pair<const char *, int>> starts = {
        {"AUTO", 2}, {"BOOT", 0}, {"DEMAND", 3}, {"DISABLED", 4}, {"SYSTEM", 1}};
    for (const auto &row : starts)
        EXPECT_EQ(row.second, ServiceStartTypeFromName(row.first)) << row.first;
    for (const char *bad : {"auto", "Process", "", "PROCESS ", "KERNEL"}) {
        EXPECT_EQ(-1, ServiceTypeFromName(bad)) << bad;
        EXPECT_EQ(-1, ServiceStartTypeFromName(bad)) << bad;
    }
    EXPECT_EQ(-1, ServiceTypeFromName(NULL));
}

TEST(Parser, EveryOptionReachesItsField)
{
    typedef const struct CommandOptions &O;
    const std::vector<OptionCase> cases = {
        {{"--deviceadd"}, [](O o) { return o.command == 1; }},
        {{"--devicedel"}, [](O o) { return o.command == 2; }},
        {{"--devicesgroupdel"}, [](O o) { return o.command == 3; }},
        {{"--deviceslist"}, [](O o) { return o.command == 4; }},
        {{"--devicestart"}, [](O o) { return o.command == 5; }},
        {{"--devicestop"}, [](O o) { return o.command == 6; }},
        {{"--inffile", "a.inf"}, [](O o) { return o.command == 0 && Is(o.infFile, "a.inf"); }},
        {{"--devicename", "dn"}, [](O o) { return Is(o.deviceName, "dn"); }},
        {{"--deviceid", "id"}, [](O o) { return Is(o.deviceId, "id"); }},
        {{"--hardwareid", "hw"}, [](O o) { return Is(o.hardwareId, "hw"); }},
        {{"--driverpackageadd"}, [](O o) { return o.command == 7; }},
        {{"--driverpackagedel"}, [](O o) { return o.command == 8; }},
        {{"--driverpackageverify"}, [](O o) { return o.command == 9; }},
        {{"--quiet"}, [](O o) { return o.quiet == 1 && o.command == 0; }},
        {{"--printmonitoradd"}, [](O o) { return o.command == 10; }},
        {{"--printerscleanup"}, [](O o) { return o.command == 17; }},
        {{"--printmonitordel"}, [](O o) { return o.command == 11; }},
        {{"--printeradd", "P1"}, [](O o) { return o.command == 12 && Is(o.printerName, "P1"); }},
        {{"--printdriverinstall"}, [](O o) { return o.command == 14; }},
        {{"--printdriverremove"}, [](O o) { return o.command == 15; }},
        {{"--printdriverslist"}, [](O o) { return o.command == 16; }},
        {{"--printerdel", "P2"}, [](O o) { return o.command == 13 && Is(o.printerName, "P2"); }},
        {{"--tzsessiondir", "sd"}, [](O o) { return Is(o.sessionDir, "sd"); }},
        {{"--remotename", "rn"}, [](O o) { return Is(o.remoteName, "rn"); }},
        {{"--portid", "17"}, [](O o) { return o.portId == 17; }},
        {{"--portid", "x"}, [](O o) { return o.portId == 0; }},
        {{"--ppdfile", "p.ppd"}, [](O o) { return Is(o.ppdFile, "p.ppd"); }},
        {{"--gpdfile", "g.gpd"}, [](O o) { return Is(o.gpdFile, "g.gpd"); }},
        {{"--loopbackadd"}, [](O o) { return o.command == 18; }},
        {{"--loopbackdel"}, [](O o) { return o.command == 19; }},
        {{"--ip", "10.0.0.1"}, [](O o) { return Is(o.ipAddress, "10.0.0.1"); }},
        {{"--mask", "255.0.0.0"}, [](O o) { return Is(o.netMask, "255.0.0.0"); }},
        {{"--getdefaultaudio"}, [](O o) { return o.command == 22; }},
        {{"--getdefaultvoice"}, [](O o) { return o.command == 23; }},
        {{"--setdefaultaudio"}, [](O o) { return o.command == 24; }},
        {{"--setdefaultvoice"}, [](O o) { return o.command == 25; }},
        {{"--serviceadd", "s1"}, [](O o) { return o.command == 26 && Is(o.serviceName, "s1"); }},
        {{"--servicedel", "s2"}, [](O o) { return o.command == 27 && Is(o.serviceName, "s2"); }},
        {{"--servicestart", "s3"}, [](O o) { return o.command == 28 && Is(o.serviceName, "s3"); }},
        {{"--servicestop", "s4"}, [](O o) { return o.command == 29 && Is(o.serviceName, "s4"); }},
        {{"--servicename", "s5"}, [](O o) { return o.command == 0 && Is(o.serviceName, "s5"); }},
        {{"--servicedisplayname", "Dn"}, [](O o) { return Is(o.serviceDisplayName, "Dn"); }},
        {{"--servicetype", "KERNEL_DRIVER"}, [](O o) { return o.serviceType == 1; }},
        {{"--servicetype", "auto"}, [](O o) { return o.serviceType == -1; }},
        {{"--servicestarttype", "DEMAND"}, [](O o) { return o.serviceStartType == 3; }},
        {{"--servicestarttype", "demand"}, [](O o) { return o.serviceStartType == -1; }},
        {{"--servicepath", "c:\\s.exe"}, [](O o) { return Is(o.servicePath, "c:\\s.exe"); }},
        {{"--servicepass", "pw"}, [](O o) { return Is(o.servicePassword, "pw"); }},
        {{"--serviceaccount", "acc"}, [](O o) { return Is(o.serviceAccount, "acc"); }},
        {{"--servicestatusget", "s6"}, [](O o) { return o.command == 30 && Is(o.serviceName, "s6"); }},
        {{"--servicetypeget", "s7"}, [](O o) { return o.command == 32 && Is(o.serviceName, "s7"); }},
        {{"--servicestarttypeget", "s8"}, [](O o) { return o.command == 33 && Is(o.serviceName, "s8"); }},
        {{"--servicechange", "s9"}, [](O o) { return o.command == 31 && Is(o.serviceName, "s9"); }},
        {{"--usbfilteradd", "f1"}, [](O o) { return o.command == 34 && Is(o.usbFilterName, "f1"); }},
        {{"--usbfilterdel", "f2"}, [](O o) { return o.command == 35 && Is(o.usbFilterName, "f2"); }},
        {{"--usbstart"}, [](O o) { return o.command == 36; }},
        {{"--usbstop"}, [](O o) { return o.command == 37; }},
        {{"--daemoninstall"}, [](O o) { return o.command == 44; }},
        {{"--daemonremove"}, [](O o) { return o.command == 45; }},
        {{"--networkadd"}, [](O o) { return o.command == 38; }},
        {{"--networkdel"}, [](O o) { return o.command == 39; }},
        {{"--networkaliasadd"}, [](O o) { return o.command == 42; }},
        {{"--networkaliasdel"}, [](O o) { return o.command == 43; }},
        {{"--networkscleanup"}, [](O o) { return o.command == 40; }},
        {{"--networksetprivate"}, [](O o) { return o.command == 41; }},
        {{"--fwruleadd"}, [](O o) { return o.command == 20; }},
        {{"--fwruledel"}, [](O o) { return o.command == 21; }},
        {{"--group", "g"}, [](O o) { return Is(o.ruleGroup, "g"); }},
        {{"--desc", "d"}, [](O o) { return Is(o.ruleDescription, "d"); }},
        {{"--app", "a.exe"}, [](O o) { return Is(o.ruleApplication, "a.exe"); }},
        {{"--protocol", "udp"}, [](O o) { return o.ruleProtocol == 17; }},
        {{"--protocol", "tcp"}, [](O o) { return o.ruleProtocol == 6; }},
        {{"--diskmount"}, [](O o) { return o.command == 46 && o.noDaemon == 0; }},
        {{"--diskunmount"}, [](O o) { return o.command == 47 && o.noDaemon == 1; }},
        {{"--port", "2222"}, [](O o) { return o.diskPort == 2222; }},
        {{"--localpath", "L:"}, [](O o) { return Is(o.localPath, "L:"); }},
        {{"--remotepath", "/r"}, [](O o) { return Is(o.remotePath, "/r"); }},
        {{"--identityfile", "id_rsa"}, [](O o) { return Is(o.identityFile, "id_rsa"); }},
        {{"--targetuser", "bob"}, [](O o) { return strcmp(o.targetUser, "bob") == 0; }},
        {{"--private"}, [](O o) { return o.isPrivate == 1; }},
        {{"--default"}, [](O o) { return o.isDefault == 1; }},
        {{"--daemonmodeforce"}, [](O o) { return o.forceDaemon == 1 && o.command == 0; }},
        {{"--nodaemon"}, [](O o) { return o.noDaemon == 1; }},
        {{"--nopreinstall"}, [](O o) { return o.noPreinstall == 1; }},
        {{"--networkid", "{n}"}, [](O o) { return Is(o.networkId, "{n}"); }},
        {{"--install", "c1"}, [](O o) { return o.command == 48 && Is(o.componentName, "c1") && o.componentOperation == 0; }},
        {{"--uninstall", "c2"}, [](O o) { return o.command == 48 && Is(o.componentName, "c2") && o.componentOperation == 1; }},
        {{"--update", "c3"}, [](O o) { return o.command == 48 && Is(o.componentName, "c3") && o.componentOperation == 2; }},
        {{"--enable", "c4"}, [](O o) { return o.command == 48 && Is(o.componentName, "c4") && o.componentOperation == 3; }},
        {{"--disable", "c5"}, [](O o) { return o.command == 48 && Is(o.componentName, "c5") && o.componentOperation == 4; }},
        {{"--status", "c6"}, [](O o) { return o.command == 48 && Is(o.componentName, "c6") && o.componentOperation == 5; }},
        {{"--deviceregister"}, [](O o) { return o.command == 49 && o.directMode == 1 && o.noDaemon == 1 && o.forceDaemon == 0; }},
        {{"--devicetypeid", "2"}, [](O o) { return o.deviceTypeId == 2; }},
        {{"--parentpid", "1204"}, [](O o) { return o.parentPid == 1204; }},
        {{"--cpuload"}, [](O o) { return o.command == 50 && o.forceDaemon == 1 && o.directMode == 1 && o.noDaemon == 0; }},
        {{"--ispathbusy"}, [](O o) { return o.command == 51 && o.timeout == 0; }},
        {{"--timeout", "250"}, [](O o) { return o.timeout == 250; }},
        {{"--recursive"}, [](O o) { return o.recursive == 1; }},
        {{"--kill"}, [](O o) { return o.kill == 1 && o.command == 0; }},
        {{"--path", "C:\\p"}, [](O o) { return Is(o.path, "C:\\p"); }},
        {{"--exclude", "C:\\e"}, [](O o) { return Is(o.excludedPaths[0], "C:\\e") && o.excludedPaths[1] == NULL; }},
        {{"--processkill"}, [](O o) { return o.command == 52; }},
        {{"--pid", "99"}, [](O o) { return o.pid == 99; }},
        {{"--processname", "x.exe"}, [](O o) { return Is(o.processName, "x.exe"); }},
    };
    for (const auto &c : cases) {
        Parse p(c.words);
        std::string shown = c.words[0] + (c.words.size() > 1 ? " " + c.words[1] : "");
        EXPECT_EQ(0, p.result) << shown;
        EXPECT_TRUE(c.holds(p.options)) << shown;
    }
}

TEST(Parser, TextValuesBorrowTheParsedWords)
{
    Parse p({"--deviceid", "abc", "--name", "conn"});
    EXPECT_EQ(p.argv[2], p.options.deviceId);
    EXPECT_EQ(p.argv[4], p.options.connectionName);
}

TEST(Parser, ValueIsAlwaysTheNextWordEvenWhenItLooksLikeAnOption)
{
    Parse p({"--deviceid", "--devicedel", "--printerdel", "--usbstart"});
    EXPECT_EQ(0, p.result);
    EXPECT_TRUE(Is(p.options.deviceId, "--devicedel"));
    EXPECT_EQ(13, p.options.command);
    EXPECT_TRUE(Is(p.options.printerName, "--usbstart"));
}

// What the daemon refuses for an unprivileged caller, and only that.
const std::vector<std::vector<std::string>> kRefused = {
    {"--deviceadd"},        {"--devicedel"},         {"--devicesgroupdel"},  {"--deviceslist"},
    {"--devicestart"},      {"--devicestop"},        {"--driverpackageadd"}, {"--driverpackagedel"},
    {"--serviceadd", "s"},  {"--servicedel", "s"},   {"--servicestart", "s"}, {"--servicestop", "s"},
    {"--servicechange", "s"}, {"--usbfilteradd", "f"}, {"--usbfilterdel", "f"}, {"--daemoninstall"},
    {"--daemonremove"},     {"--networkaliasadd"},   {"--networkaliasdel"},  {"--fwruleadd"},
    {"--fwruledel"},        {"--install", "c"},      {"--uninstall", "c"},   {"--enable", "c"},
    {"--disable", "c"},     {"--update", "c"},       {"--kill"},
};

const std::vector<std::vector<std::string>> kAllowedInDaemon = {
    {"--devicename", "n"}, {"--deviceid", "i"}, {"--hardwareid", "h"}, {"--driverpackageverify"},
    {"--quiet"}, {"--printmonitoradd"}, {"--printerscleanup"}, {"--printmonitordel"}, {"--printeradd", "p"},
    {"--printdriverinstall"}, {"--printdriverremove"}, {"--printdriverslist"}, {"--printerdel", "p"},
    {"--tzsessiondir", "s"}, {"--remotename", "r"}, {"--portid", "1"}, {"--ppdfile", "p"}, {"--gpdfile", "g"},
    {"--loopbackadd"}, {"--loopbackdel"}, {"--name", "n"}, {"--ip", "1.2.3.4"}, {"--mask", "m"},
    {"--getdefaultaudio"}, {"--getdefaultvoice"}, {"--setdefaultaudio"}, {"--setdefaultvoice"},
    {"--friendlyname", "f"}, {"--servicename", "s"}, {"--servicedisplayname", "d"}, {"--servicetype", "PROCESS"},
    {"--servicestarttype", "AUTO"}, {"--servicepath", "p"}, {"--servicepass", "p"}, {"--serviceaccount", "a"},
    {"--servicestatusget", "s"}, {"--servicetypeget", "s"}, {"--servicestarttypeget", "s"}, {"--usbstart"},
    {"--usbstop"}, {"--networkadd"}, {"--networkdel"}, {"--networkscleanup"}, {"--networksetprivate"},
    {"--group", "g"}, {"--desc", "d"}, {"--app", "a"}, {"--protocol", "udp"}, {"--diskmount"}, {"--diskunmount"},
    {"--port", "22"}, {"--localpath", "l"}, {"--remotepath", "r"}, {"--identityfile", "i"},
    {"--targetuser", "u"}, {"--private"}, {"--default"}, {"--daemonmodeforce"}, {"--nodaemon"},
    {"--nopreinstall"}, {"--networkid", "n"}, {"--status", "c"}, {"--deviceregister"}, {"--devicetypeid", "1"},
    {"--parentpid", "5"}, {"--cpuload"}, {"--ispathbusy"}, {"--timeout", "1"}, {"--recursive"}, {"--path", "p"},
    {"--exclude", "e"}, {"--processkill"}, {"--pid", "1"}, {"--processname", "n"},
};

TEST(Parser, DaemonRefusesPrivilegedOptionsOnly)
{
    for (const auto &words : kRefused) {
        Parse local(words, 0);
        EXPECT_EQ(0, local.result) << words[0];
        Parse daemon(words, 1);
        EXPECT_EQ(-1, daemon.result) << words[0];
        EXPECT_EQ(-1, daemon.options.command) << words[0];
    }
    for (const auto &words : kAllowedInDaemon) {
        Parse daemon(words, 1);
        EXPECT_EQ(0, daemon.result) << words[0];
        EXPECT_NE(-1, daemon.options.command) << words[0];
    }
}

TEST(Parser, RefusalStopsTheWalkAndSkipsTheFinalSteps)
{
    Parse daemon({"--usbstart", "--kill", "--deviceid", "x"}, 1);
    EXPECT_EQ(-1, daemon.result);
    EXPECT_EQ(-1, daemon.options.command);
    EXPECT_EQ(nullptr, daemon.options.deviceId);
    EXPECT_EQ(-1, daemon.options.parentPid);
    EXPECT_EQ(0, daemon.options.targetUser[0]);
}

TEST(Parser, DaemonNeverForwardsAgain)
{
    Parse daemon({"--cpuload", "--daemonmodeforce"}, 1);
    EXPECT_EQ(0, daemon.result);
    EXPECT_EQ(0, daemon.options.forceDaemon);
    EXPECT_EQ(1, daemon.options.directMode);
}

TEST(Parser, DaemonRefusesInfFileUnlessVerifyCameFirst)
{
    EXPECT_EQ(0, Parse({"--inffile", "a.inf"}, 0).result);
    Parse refused({"--inffile", "a.inf"}, 1);
    EXPECT_EQ(-1, refused.result);
    EXPECT_EQ(-1, refused.options.command);
    EXPECT_EQ(0, Parse({"--driverpackageverify", "--inffile", "a.inf"}, 1).result);
    EXPECT_EQ(-1, Parse({"--inffile", "a.inf", "--driverpackageverify"}, 1).result);
}

TEST(Parser, UnknownWordMarksSyntaxErrorUntilACommandFollows)
{
    Parse before({"--bogus", "--devicedel", "--deviceid", "x"});
    EXPECT_EQ(0, before.result);
    EXPECT_EQ(2, before.options.command);
    EXPECT_TRUE(Is(before.options.deviceId, "x"));

    Parse after({"--devicedel", "--deviceid", "x", "--bogus"});
    EXPECT_EQ(0, after.result);
    EXPECT_EQ(-1, after.options.command);

    // Options are exact and case-sensitive; --servicemode is only main's word.
    for (const char *word : {"--DEVICEDEL", "--device", "-devicedel", "--devicedel=x", "--servicemode", ""}) {
        Parse p({word});
        EXPECT_EQ(0, p.result) << word;
        EXPECT_EQ(-1, p.options.command) << word;
    }
}

TEST(Parser, MissingValueIsAFailureThatSkipsTheFinalSteps)
{
    for (const auto &words : kAllowedInDaemon) {
        if (words.size() < 2)
            continue;
        Parse p({"--usbstart", words[0]});
        EXPECT_EQ(-1, p.result) << words[0];
        EXPECT_EQ(-1, p.options.command) << words[0];
        EXPECT_EQ(-1, p.options.parentPid) << words[0];
        EXPECT_EQ(0, p.options.targetUser[0]) << words[0];
    }
}

TEST(Parser, LastOccurrenceWins)
{
    Parse p({"--deviceid", "a", "--usbstart", "--deviceid", "b", "--printeradd", "P", "--printerdel", "Q"});
    EXPECT_TRUE(Is(p.options.deviceId, "b"));
    EXPECT_EQ(13, p.options.command);
    EXPECT_TRUE(Is(p.options.printerName, "Q"));
}

TEST(Parser, RecordIsFilledNotRebuilt)
{
    Parse p({"--quiet", "--recursive", "--usbstart"});
    EXPECT_EQ(0, p.Again({"--usbstop"}));
    EXPECT_EQ(1, p.options.quiet);
    EXPECT_EQ(1, p.options.recursive);
    EXPECT_EQ(37, p.options.command);
}

TEST(Parser, NameGoesToConnectionUnlessAFirewallCommandCameFirst)
{
    Parse ahead({"--name", "n", "--fwruleadd"});
    EXPECT_TRUE(Is(ahead.options.connectionName, "n"));
    EXPECT_TRUE(Is(ahead.options.ruleName, "n"));
    for (const char *command : {"--fwruleadd", "--fwruledel"}) {
        Parse behind({command, "--name", "n"});
        EXPECT_EQ(nullptr, behind.options.connectionName) << command;
        EXPECT_TRUE(Is(behind.options.ruleName, "n")) << command;
    }
    Parse alias({"--networkaliasadd", "--name", "n"});
    EXPECT_TRUE(Is(alias.options.connectionName, "n"));
    EXPECT_TRUE(Is(alias.options.ruleName, "n"));
}

TEST(Parser, PathBusyResetsTimeoutOnlyWhenItComesLater)
{
    EXPECT_EQ(0, Parse({"--timeout", "5", "--ispathbusy"}).options.timeout);
    EXPECT_EQ(5, Parse({"--ispathbusy", "--timeout", "5"}).options.timeout);
    EXPECT_EQ(10000, Parse({"--path", "C:\\"}).options.timeout);
}

TEST(Parser, ProtocolIsTcpOrUdpExactly)
{
    EXPECT_EQ(6, Parse({"--usbstart"}).options.ruleProtocol);
    for (const char *bad : {"TCP", "icmp", "", "udp "}) {
        Parse p({"--protocol", bad, "--usbstart"});
        EXPECT_EQ(-1, p.result) << bad;
        EXPECT_EQ(-1, p.options.command) << bad;
        EXPECT_EQ(6, p.options.ruleProtocol) << bad;
    }
}

std::vector<std::string> Excluded(const struct CommandOptions &o)
{
    std::vector<std::string> list;
    for (int i = 0; i < EXCLUDED_PATHS_SLOTS && o.excludedPaths[i]; i++)
        list.push_back(o.excludedPaths[i]);
    return list;
}

TEST(Parser, ExcludeSplitsTurnsSlashesAndCutsTrailingBackslashes)
{
    Parse two({"--exclude", "a;b"});
    EXPECT_EQ((std::vector<std::string>{"a", "b"}), Excluded(two.options));
    EXPECT_EQ("a", two.Word(2));  // the word itself is cut

    Parse slashes({"--exclude", "C:/x///"});
    EXPECT_EQ((std::vector<std::string>{"C:\\x"}), Excluded(slashes.options));

    Parse mixed({"--exclude", ";;C:/a/b;D:\\c\\;;///;"});
    EXPECT_EQ((std::vector<std::string>{"C:\\a\\b", "D:\\c", ""}), Excluded(mixed.options));

    Parse none({"--exclude", ";", "--usbstart"});
    EXPECT_EQ(0, none.result);
    EXPECT_EQ(36, none.options.command);
    EXPECT_TRUE(Excluded(none.options).empty());
}

TEST(Parser, ExcludeTakesAtMost31Paths)
{
    std::string list;
    for (int i = 0; i < 31; i++)
        list += (i ? ";p" : "p") + std::to_string(i);
    Parse fits({"--exclude", list, "--usbstart"});
    EXPECT_EQ(0, fits.result);
    EXPECT_EQ(31u, Excluded(fits.options).size());
    EXPECT_EQ("p30", Excluded(fits.options).back());

    Parse over({"--exclude", list + ";p31", "--usbstart"});
    EXPECT_EQ(-1, over.result);
    EXPECT_EQ(-1, over.options.command);
    EXPECT_EQ(nullptr, over.options.excludedPaths[EXCLUDED_PATHS_SLOTS - 1]);
}

TEST(Parser, SecondParseSeesOnlyTheFirstExcludedPath)
{
    Parse p({"--exclude", "C:/one;C:/two;C:/three"});
    std::vector<std::string> first = Excluded(p.options);
    EXPECT_EQ(0, p.Run());
    EXPECT_EQ(first, Excluded(p.options));
    EXPECT_EQ("C:\\one", p.Word(2));
}

TEST(Parser, FriendlyNameBeyondTheProcessCommandLineIsEmpty)
{
    // This test program's own command line has fewer words than the parse.
    Parse p({"--setdefaultaudio", "--quiet", "--quiet", "--quiet", "--friendlyname", "Speakers"});
    strcpy(p.options.friendlyName, "stale");
    EXPECT_EQ(0, p.Run());
    EXPECT_EQ(24, p.options.command);
    EXPECT_STREQ("", p.options.friendlyName);
}

TEST(Parser, TargetUserIsCopiedCutOrFilledWithTheCaller)
{
    std::string longName(300, 'u');
    Parse cut({"--targetuser", longName});
    EXPECT_EQ(std::string(TARGET_USER_SIZE - 1, 'u'), std::string(cut.options.targetUser));

    char user[TARGET_USER_SIZE] = {0};
    DWORD size = sizeof user;
    ASSERT_TRUE(GetUserNameA(user, &size));
    EXPECT_STREQ(user, Parse({"--usbstart"}).options.targetUser);
    EXPECT_STREQ(user, Parse(std::vector<std::string>{}).options.targetUser);
}

TEST(Parser, ParentPidGivenIsKeptElseTheParentIsAsked)
{
    EXPECT_EQ(1204, Parse({"--parentpid", "1204"}).options.parentPid);
    Parse asked({"--usbstart"});
    EXPECT_EQ((int)GetParentPid(), asked.options.parentPid);
}

TEST(ParentPid, AGivenValueIsReturnedWithoutLookingForTheProcess)
{
    int saved = CommandOptions.parentPid;
    CommandOptions.parentPid = 0x7FFFFF00;
    EXPECT_EQ((DWORD)0x7FFFFF00, GetParentPid());
    CommandOptions.parentPid = saved;
}

}  // namespace
