// The command tool from outside: each command's option checks in order with
// their messages and exit codes, syntax errors, unknown words, the commands
// that are not built yet, and the commands whose results are printed.
#include <gtest/gtest.h>
#include <windows.h>

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

std::string NotBuilt(const std::string &option)
{
    return "ERROR: Command '" + option + "' is not available in this build.\n";
}

// Each run logs into a profile of its own, so standard error holds only
// what the tool reports to the user.
RunResult Tool(const std::vector<std::string> &args)
{
    static const std::string profile = MakeLogProfile("fecmd");
    RunResult result = RunTool(args, WithProfile(profile));
    result.out = Plain(result.out);
    result.err = Plain(result.err);
    return result;
}

struct Case {
    std::vector<std::string> args;
    std::string err;
    DWORD exitCode;
};

std::string Shown(const std::vector<std::string> &args)
{
    std::string text;
    for (const auto &arg : args)
        text += " " + arg;
    return text;
}

void RunCases(const std::vector<Case> &cases)
{
    for (const auto &c : cases) {
        RunResult r = Tool(c.args);
        EXPECT_EQ(c.err, r.err) << Shown(c.args);
        EXPECT_EQ(c.exitCode, r.exitCode) << Shown(c.args);
        EXPECT_EQ("", r.out) << Shown(c.args);
    }
}

const std::string kSyntax = "ERROR: Syntax error.\n";
const std::string kNoInf = "ERROR: Inf file not specified.\n";
const std::string kNoHardwareId = "ERROR: Hardware id not specified.\n";
const std::string kNoConnection = "ERROR: Connection name not specified.\n";
const std::string kNoIp = "ERROR: IP address not specified.\n";
const std::string kNoLocalPath = "ERROR: Local path not specified.\n";

TEST(Commands, NoCommandIsNothingToDo)
{
    RunCases({{{}, "Nothing to do.\n", 0}, {{"--quiet", "--deviceid", "x"}, "Nothing to do.\n", 0}});
}

TEST(Commands, UnknownWordIsReplacedByALaterCommandOnly)
{
    // The tool parses twice (to decide where to run, then to run), so the
    // parser's own messages appear twice.
    const std::string bogus = "ERROR: Unknown option at [--bogus].\n";
    RunCases({
        {{"--bogus", "--devicedel", "--deviceid", "x"}, bogus + bogus + NotBuilt("--devicedel"), kFail},
        {{"--devicedel", "--deviceid", "x", "--bogus"}, bogus + bogus + kSyntax, kFail},
        {{"--servicemode", "x"},
         "ERROR: Unknown option at [--servicemode].\nERROR: Unknown option at [x].\n"
         "ERROR: Unknown option at [--servicemode].\nERROR: Unknown option at [x].\n" + kSyntax,
         kFail},
        {{"--Usbstart"}, "ERROR: Unknown option at [--Usbstart].\nERROR: Unknown option at [--Usbstart].\n" + kSyntax,
         kFail},
    });
}

TEST(Commands, ParserFailuresEndInTheSyntaxError)
{
    std::string many;
    for (int i = 0; i < 32; i++)
        many += (i ? ";C:/p" : "C:/p") + std::to_string(i);
    const std::string tooMany = "ERROR: Too many excluded paths.\n";
    const std::string protocol = "ERROR: Unknown protocol 'icmp' specified.\n";
    RunCases({
        {{"--printerdel"}, kSyntax, kFail},
        {{"--devicedel", "--deviceid"}, kSyntax, kFail},
        {{"--fwruleadd", "--name", "r", "--protocol", "icmp"}, protocol + protocol + kSyntax, kFail},
        // The first parse has cut the word at its first ";", so the second
        // parse sees one path and the command runs.
        {{"--ispathbusy", "--path", "C:\\", "--exclude", many}, tooMany + NotBuilt("--ispathbusy"), kFail},
        {{"--setdefaultaudio", "--friendlyname", std::string(1024, 'n')}, kSyntax, kFail},
    });
}

TEST(Commands, DeviceAndDriverChecksInOrder)
{
    RunCases({
        {{"--deviceadd"}, kNoInf, kFail},
        {{"--deviceadd", "--hardwareid", "h"}, kNoInf, kFail},
        {{"--deviceadd", "--inffile", "a.inf"}, kNoHardwareId, kFail},
        {{"--deviceadd", "--inffile", "a.inf", "--hardwareid", "h"}, NotBuilt("--deviceadd"), kFail},
        {{"--devicedel"}, "ERROR: Device id not specified.\n", kFail},
        {{"--devicedel", "--deviceid", "ROOT\\X\\0000"}, NotBuilt("--devicedel"), kFail},
        {{"--devicesgroupdel"}, kNoHardwareId, kFail},
        {{"--deviceslist"}, kNoHardwareId, kFail},
        {{"--devicestart"}, kNoHardwareId, kFail},
        {{"--devicestop"}, kNoHardwareId, kFail},
        {{"--devicestop", "--hardwareid", "h"}, NotBuilt("--devicestop"), kFail},
        {{"--driverpackageadd"}, kNoInf, kFail},
        {{"--driverpackagedel"}, kNoInf, kFail},
        {{"--driverpackageverify"}, kNoInf, kFail},
        {{"--driverpackageverify", "--inffile", "a.inf"}, NotBuilt("--driverpackageverify"), kFail},
    });
}

TEST(Commands, PrinterChecksInOrder)
{
    const std::vector<std::string> add = {"--printeradd", "P"};
    auto with = [&](std::vector<std::string> more) {
        std::vector<std::string> args = add;
        args.insert(args.end(), more.begin(), more.end());
        return args;
    };
    RunCases({
        {with({"--ppdfile", "p", "--tzsessiondir", "s", "--remotename", "r"}), "ERROR: Port id not specified.\n", kFail},
        {with({"--portid", "3", "--tzsessiondir", "s", "--remotename", "r"}), "ERROR: PPD or GPD file not specified.\n",
         kFail},
        {with({"--portid", "3", "--gpdfile", "g", "--remotename", "r"}), "ERROR: Session directory not specified.\n",
         kFail},
        {with({"--portid", "3", "--ppdfile", "p", "--tzsessiondir", "s"}), "ERROR: Remote name not specified.\n", kFail},
        {with({"--portid", "3", "--ppdfile", "p", "--tzsessiondir", "s", "--remotename", "r"}), NotBuilt("--printeradd"),
         kFail},
        {{"--printerdel", "P"}, NotBuilt("--printerdel"), kFail},
        {{"--printmonitoradd"}, NotBuilt("--printmonitoradd"), kFail},
        {{"--printmonitordel"}, NotBuilt("--printmonitordel"), kFail},
        {{"--printdriverinstall"}, NotBuilt("--printdriverinstall"), kFail},
        {{"--printdriverremove"}, NotBuilt("--printdriverremove"), kFail},
        {{"--printdriverslist"}, NotBuilt("--printdriverslist"), kFail},
        {{"--printerscleanup"}, NotBuilt("--printerscleanup"), kFail},
    });
}

TEST(Commands, NetworkAndFirewallChecksInOrder)
{
    const std::string noRule = "ERROR: Rule's name not specified.\n";
    RunCases({
        {{"--loopbackadd"}, kNoConnection, kFail},
        {{"--loopbackadd", "--name", "lo"}, NotBuilt("--loopbackadd"), kFail},
        {{"--loopbackdel"}, kNoConnection, kFail},
        {{"--fwruleadd", "--desc", "d", "--app", "a"}, noRule, kFail},
        {{"--fwruleadd", "--name", "r", "--app", "a"}, "ERROR: Rule's description not specified.\n", kFail},
        {{"--fwruleadd", "--name", "r", "--desc", "d"}, "ERROR: Target application not specified.\n", kFail},
        {{"--fwruleadd", "--name", "r", "--desc", "d", "--app", "a"}, NotBuilt("--fwruleadd"), kFail},
        {{"--fwruledel"}, noRule, kFail},
        {{"--fwruledel", "--name", "r"}, NotBuilt("--fwruledel"), kFail},
        {{"--networkadd"}, NotBuilt("--networkadd"), kFail},
        {{"--networkscleanup"}, NotBuilt("--networkscleanup"), kFail},
        {{"--networkdel"}, "ERROR: Connection name or device id must be specified.\n", kFail},
        {{"--networkdel", "--deviceid", "d"}, NotBuilt("--networkdel"), kFail},
        {{"--networkdel", "--name", "c"}, NotBuilt("--networkdel"), kFail},
        {{"--networksetprivate"}, "ERROR: Connection name, device id or network guid must be specified.\n", kFail},
        {{"--networksetprivate", "--name", "c"}, NotBuilt("--networksetprivate"), kFail},
        // The alias commands say that the name is missing and go on.
        {{"--networkaliasadd"}, kNoConnection + kNoIp, kFail},
        {{"--networkaliasadd", "--ip", "10.1.1.1"}, kNoConnection + NotBuilt("--networkaliasadd"), kFail},
        {{"--networkaliasadd", "--name", "c", "--ip", "10.1.1.1"}, NotBuilt("--networkaliasadd"), kFail},
        {{"--networkaliasdel", "--ip", "10.1.1.1"}, kNoConnection + NotBuilt("--networkaliasdel"), kFail},
        {{"--networkaliasdel", "--name", "c"}, kNoIp, kFail},
    });
}

TEST(Commands, AudioUsbDiskPathAndProcessChecks)
{
    const std::string noName = "ERROR: Friendly name of device not specified.\n";
    RunCases({
        {{"--getdefaultaudio"}, NotBuilt("--getdefaultaudio"), kFail},
        {{"--getdefaultvoice"}, NotBuilt("--getdefaultvoice"), kFail},
        {{"--setdefaultaudio"}, noName, kFail},
        {{"--setdefaultvoice", "--friendlyname", ""}, noName, kFail},
        {{"--setdefaultvoice", "--friendlyname", "Speakers"}, NotBuilt("--setdefaultvoice"), kFail},
        {{"--usbfilteradd", "f"}, "ERROR: Service path not specified.\n", kFail},
        {{"--usbfilteradd", "f", "--servicepath", "f.sys"}, NotBuilt("--usbfilteradd"), kFail},
        {{"--usbfilterdel", "f"}, NotBuilt("--usbfilterdel"), kFail},
        {{"--diskmount", "--remotepath", "/r", "--identityfile", "k"}, kNoLocalPath, kFail},
        {{"--diskmount", "--localpath", "L:", "--identityfile", "k"}, "ERROR: Remote path not specified.\n", kFail},
        {{"--diskmount", "--localpath", "L:", "--remotepath", "/r"}, "ERROR: Identity key not specified.\n", kFail},
        {{"--diskmount", "--localpath", "L:", "--remotepath", "/r", "--identityfile", "k"}, NotBuilt("--diskmount"),
         kFail},
        {{"--diskunmount"}, kNoLocalPath, kFail},
        {{"--diskunmount", "--localpath", "L:"}, NotBuilt("--diskunmount"), kFail},
        {{"--ispathbusy"}, "ERROR: Path not specified.\n", kFail},
        {{"--ispathbusy", "--path", "C:\\windows"}, NotBuilt("--ispathbusy"), kFail},
        {{"--processkill"}, "ERROR: Name or pid must be specified.\n", kFail},
        {{"--processkill", "--pid", "4"}, NotBuilt("--processkill"), kFail},
        {{"--processkill", "--processname", "x.exe"}, NotBuilt("--processkill"), kFail},
    });
}

TEST(Commands, ComponentCommandsNameTheirOwnWord)
{
    RunCases({
        {{"--install", "tzusbd"}, NotBuilt("--install"), kFail},
        {{"--uninstall", "tzusbd"}, NotBuilt("--uninstall"), kFail},
        {{"--update", "tzusbd"}, NotBuilt("--update"), kFail},
        {{"--enable", "tzusbd"}, NotBuilt("--enable"), kFail},
        {{"--disable", "tzusbd"}, NotBuilt("--disable"), kFail},
        {{"--status", "tzusbd"}, NotBuilt("--status"), kFail},
    });
}

TEST(Commands, DeviceRegisterChecksThenRegistersInTheToolItself)
{
    RunCases({
        {{"--deviceregister", "--devicetypeid", "3"}, "ERROR: Device id is not specified.\n", kFail},
        {{"--deviceregister", "--deviceid", "d"}, "ERROR: Device type id is not specified.\n", kFail},
        {{"--deviceregister", "--deviceid", "d", "--devicetypeid", "3", "--parentpid", "4242"}, "", 0},
    });
}

TEST(Commands, CpuLoadPrintsThreeFigures)
{
    RunResult r = Tool({"--cpuload", "--nodaemon"});
    EXPECT_EQ(0u, r.exitCode);
    EXPECT_EQ("    0.00     0.00     0.00\n", r.out);
    EXPECT_EQ("", r.err);
}

// A demand-start service of this test, made straight through the service manager.
bool MakeService(const std::string &name, const std::string &path)
{
    SC_HANDLE manager = OpenSCManagerA(NULL, NULL, SC_MANAGER_ALL_ACCESS);
    if (manager == NULL)
        return false;
    SC_HANDLE service = CreateServiceA(manager, name.c_str(), name.c_str(), SERVICE_ALL_ACCESS,
                                       SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_IGNORE,
                                       path.c_str(), NULL, NULL, NULL, NULL, NULL);
    if (service != NULL)
        CloseServiceHandle(service);
    CloseServiceHandle(manager);
    return service != NULL;
}

TEST(Commands, ServiceCommandsPrintTheirNumbers)
{
    const std::string name = "tzt-fe-" + std::to_string(GetCurrentProcessId());
    RemoveServiceQuietly(name);
    ASSERT_TRUE(MakeService(name, BinPath("testservice.exe") + " normal"));

    RunResult status = Tool({"--servicestatusget", name});
    EXPECT_EQ(0u, status.exitCode);
    EXPECT_EQ("1\n", status.out);
    RunResult type = Tool({"--servicetypeget", name});
    EXPECT_EQ(0u, type.exitCode);
    EXPECT_EQ("16\n", type.out);
    RunResult start = Tool({"--servicestarttypeget", name});
    EXPECT_EQ(0u, start.exitCode);
    EXPECT_EQ("3\n", start.out);

    RunResult change = Tool({"--servicechange", name, "--servicestarttype", "DISABLED"});
    EXPECT_EQ(0u, change.exitCode) << change.err;
    EXPECT_EQ("4\n", Tool({"--servicestarttypeget", name}).out);

    EXPECT_EQ(0u, Tool({"--servicedel", name}).exitCode);
    EXPECT_FALSE(ServicePresent(name));
    RemoveServiceQuietly(name);
}

TEST(Commands, ServiceCommandsPassTheServiceLayersCode)
{
    const std::string missing = "tzt-fe-missing";
    for (const std::vector<std::string> &args : std::vector<std::vector<std::string>>{
             {"--servicestatusget", missing}, {"--servicetypeget", missing}, {"--servicestarttypeget", missing},
             {"--servicedel", missing}, {"--servicestart", missing}}) {
        RunResult r = Tool(args);
        EXPECT_EQ((DWORD)ERROR_SERVICE_DOES_NOT_EXIST, r.exitCode) << Shown(args);
        EXPECT_EQ("", r.out) << Shown(args);
        EXPECT_NE(std::string::npos, r.err.find("1060")) << Shown(args);
    }
    // The USB service is not installed in the test prefix.
    EXPECT_EQ((DWORD)ERROR_SERVICE_DOES_NOT_EXIST, Tool({"--usbstart"}).exitCode);
}

}  // namespace
