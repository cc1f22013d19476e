// ProcessCommand: one parsed command meets its handler. A table gives each
// command code its option checks and its handler.
#include <windows.h>

#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>

#include "daemon/daemon.h"
#include "devices/devices.h"
#include "frontend/frontend.h"
#include "performance/performance.h"
#include "support/log.h"

namespace {

enum CheckKind {
    CHECK_END,          // no more checks
    CHECK_TEXT,         // a text field is null
    CHECK_NAME,         // a text array is empty
    CHECK_NUMBER,       // a number field is -1
    CHECK_EITHER_TEXT,  // both text fields are null
    CHECK_TEXT_NUMBER,  // the text field is null and the number field is -1
};

struct CommandCheck {
    CheckKind kind;
    size_t field;
    size_t other;
    const char *message;
    unsigned char carryOn;  // print the message and go on to the next check
};

typedef int (*CommandHandler)(struct CommandOptions *options);

struct CommandRow {
    int code;
    const char *option;  // named in the message of a command that is not built
    CommandCheck checks[4];
    CommandHandler handler;  // null: the command is not available in this build
};

const char *TextAt(const struct CommandOptions *options, size_t field)
{
    return *reinterpret_cast<char *const *>(reinterpret_cast<const char *>(options) + field);
}

int NumberAt(const struct CommandOptions *options, size_t field)
{
    return *reinterpret_cast<const int *>(reinterpret_cast<const char *>(options) + field);
}

int CheckFails(const CommandCheck &check, const struct CommandOptions *options)
{
    switch (check.kind) {
    case CHECK_TEXT:
        return TextAt(options, check.field) == NULL;
    case CHECK_NAME:
        return (reinterpret_cast<const char *>(options) + check.field)[0] == 0;
    case CHECK_NUMBER:
        return NumberAt(options, check.field) == -1;
    case CHECK_EITHER_TEXT:
        return TextAt(options, check.field) == NULL && TextAt(options, check.other) == NULL;
    case CHECK_TEXT_NUMBER:
        return TextAt(options, check.field) == NULL && NumberAt(options, check.other) == -1;
    case CHECK_END:
        break;
    }
    return 0;
}

int SyntaxError(struct CommandOptions *)
{
    LogReport("ERROR: Syntax error.\n");
    return -1;
}

int NothingToDo(struct CommandOptions *)
{
    LogReport("Nothing to do.\n");
    return 0;
}

int RunServiceAdd(struct CommandOptions *o)
{
    return ServiceAdd(o->serviceName, o->serviceDisplayName, o->serviceType, o->serviceStartType, o->servicePath, 1,
                      o->serviceAccount, o->servicePassword, 1, 0);
}

int RunServiceDelete(struct CommandOptions *o)
{
    return ServiceDelete(o->serviceName, 0);
}

int RunServiceStart(struct CommandOptions *o)
{
    return ServiceStart(o->serviceName, 0, NULL);
}

int RunServiceStop(struct CommandOptions *o)
{
    return ServiceStop(o->serviceName, 10000);
}

int RunServiceStatusGet(struct CommandOptions *o)
{
    SERVICE_STATUS status;
    ZeroMemory(&status, sizeof status);
    int result = ServiceGetStatus(&status, o->serviceName, 0);
    if (result == 0) {
        fprintf(OutputStream(), "%lu\n", status.dwCurrentState);
        fflush(OutputStream());
    }
    return result;
}

int RunServiceChange(struct CommandOptions *o)
{
    return ServiceChange(o->serviceName, o->serviceDisplayName, o->serviceType, o->serviceStartType, o->servicePath);
}

int RunServiceTypeGet(struct CommandOptions *o)
{
    SERVICE_STATUS status;
    ZeroMemory(&status, sizeof status);
    int result = ServiceGetStatus(&status, o->serviceName, 0);
    if (result == 0) {
        fprintf(OutputStream(), "%lu\n", status.dwServiceType);
        fflush(OutputStream());
    }
    return result;
}

int RunServiceStartTypeGet(struct CommandOptions *o)
{
    QUERY_SERVICE_CONFIGA *config = NULL;
    int result = ServiceGetConfig(&config, o->serviceName, 0);
    if (result == 0 && config != NULL) {
        fprintf(OutputStream(), "%lu\n", config->dwStartType);
        fflush(OutputStream());
    }
    free(config);
    return result;
}

int RunUsbStart(struct CommandOptions *)
{
    return ServiceStart("tzusbd", 0, NULL);
}

int RunUsbStop(struct CommandOptions *)
{
    return ServiceStop("tzusbd", 10000);
}

int RunDaemonInstall(struct CommandOptions *)
{
    return DaemonInstall();
}

int RunDaemonRemove(struct CommandOptions *)
{
    return DaemonRemove();
}

int RunDeviceRegister(struct CommandOptions *o)
{
    return GarbageCollectorRegisterDevice(o->deviceId, o->deviceTypeId, o->parentPid);
}

int RunCpuLoad(struct CommandOptions *)
{
    double first = 0, second = 0, third = 0;
    int result = PdhGetCpuLoad(&first, &second, &third);
    if (result == 0) {
        fprintf(OutputStream(), "%8.2lf %8.2lf %8.2lf\n", first, second, third);
        fflush(OutputStream());
    }
    return result;
}

// The component commands share one code; the message names the word used.
int RunComponentCommand(struct CommandOptions *o)
{
    static const char *const words[] = {"--install", "--uninstall", "--update", "--enable", "--disable", "--status"};
    int operation = o->componentOperation;
    const char *word = operation >= 0 && operation < 6 ? words[operation] : "--status";
    LogReport("ERROR: Command '%s' is not available in this build.\n", word);
    return -1;
}

#define FIELD(name) offsetof(struct CommandOptions, name)
#define NEED_TEXT(name, message) {CHECK_TEXT, FIELD(name), 0, message, 0}
#define NEED_NAME(name, message) {CHECK_NAME, FIELD(name), 0, message, 0}
#define NEED_NUMBER(name, message) {CHECK_NUMBER, FIELD(name), 0, message, 0}
#define NEED_EITHER(name, other, message) {CHECK_EITHER_TEXT, FIELD(name), FIELD(other), message, 0}
#define NOTE_TEXT(name, message) {CHECK_TEXT, FIELD(name), 0, message, 1}

const char *const NoInfFile = "ERROR: Inf file not specified.\n";
const char *const NoHardwareId = "ERROR: Hardware id not specified.\n";
const char *const NoConnectionName = "ERROR: Connection name not specified.\n";
const char *const NoRuleName = "ERROR: Rule's name not specified.\n";
const char *const NoFriendlyName = "ERROR: Friendly name of device not specified.\n";
const char *const NoFilterName = "ERROR: Filter name not specified.\n";
const char *const NoIpAddress = "ERROR: IP address not specified.\n";
const char *const NoLocalPath = "ERROR: Local path not specified.\n";

const CommandRow Commands[] = {
    {-1, NULL, {}, SyntaxError},
    {0, NULL, {}, NothingToDo},
    {1, "--deviceadd", {NEED_TEXT(infFile, NoInfFile), NEED_TEXT(hardwareId, NoHardwareId)}, NULL},
    {2, "--devicedel", {NEED_TEXT(deviceId, "ERROR: Device id not specified.\n")}, NULL},
    {3, "--devicesgroupdel", {NEED_TEXT(hardwareId, NoHardwareId)}, NULL},
    {4, "--deviceslist", {NEED_TEXT(hardwareId, NoHardwareId)}, NULL},
    {5, "--devicestart", {NEED_TEXT(hardwareId, NoHardwareId)}, NULL},
    {6, "--devicestop", {NEED_TEXT(hardwareId, NoHardwareId)}, NULL},
    {7, "--driverpackageadd", {NEED_TEXT(infFile, NoInfFile)}, NULL},
    {8, "--driverpackagedel", {NEED_TEXT(infFile, NoInfFile)}, NULL},
    {9, "--driverpackageverify", {NEED_TEXT(infFile, NoInfFile)}, NULL},
    {10, "--printmonitoradd", {}, NULL},
    {11, "--printmonitordel", {}, NULL},
    {12,
     "--printeradd",
     {NEED_NUMBER(portId, "ERROR: Port id not specified.\n"),
      NEED_EITHER(ppdFile, gpdFile, "ERROR: PPD or GPD file not specified.\n"),
      NEED_TEXT(sessionDir, "ERROR: Session directory not specified.\n"),
      NEED_TEXT(remoteName, "ERROR: Remote name not specified.\n")},
     NULL},
    {13, "--printerdel", {}, NULL},
    {14, "--printdriverinstall", {}, NULL},
    {15, "--printdriverremove", {}, NULL},
    {16, "--printdriverslist", {}, NULL},
    {17, "--printerscleanup", {}, NULL},
    {18, "--loopbackadd", {NEED_TEXT(connectionName, NoConnectionName)}, NULL},
    {19, "--loopbackdel", {NEED_TEXT(connectionName, NoConnectionName)}, NULL},
    {20,
     "--fwruleadd",
     {NEED_TEXT(ruleName, NoRuleName), NEED_TEXT(ruleDescription, "ERROR: Rule's description not specified.\n"),
      NEED_TEXT(ruleApplication, "ERROR: Target application not specified.\n"),
      NEED_NUMBER(ruleProtocol, "ERROR: Protocol not specified.\n")},
     NULL},
    {21, "--fwruledel", {NEED_TEXT(ruleName, NoRuleName)}, NULL},
    {22, "--getdefaultaudio", {}, NULL},
    {23, "--getdefaultvoice", {}, NULL},
    {24, "--setdefaultaudio", {NEED_NAME(friendlyName, NoFriendlyName)}, NULL},
    {25, "--setdefaultvoice", {NEED_NAME(friendlyName, NoFriendlyName)}, NULL},
    {26, "--serviceadd", {}, RunServiceAdd},
    {27, "--servicedel", {}, RunServiceDelete},
    {28, "--servicestart", {}, RunServiceStart},
    {29, "--servicestop", {}, RunServiceStop},
    {30, "--servicestatusget", {}, RunServiceStatusGet},
    {31, "--servicechange", {}, RunServiceChange},
    {32, "--servicetypeget", {}, RunServiceTypeGet},
    {33, "--servicestarttypeget", {}, RunServiceStartTypeGet},
    // Without a filter name the command says so and goes on.
    {34,
     "--usbfilteradd",
     {NOTE_TEXT(usbFilterName, NoFilterName), NEED_TEXT(servicePath, "ERROR: Service path not specified.\n")},
     NULL},
    {35, "--usbfilterdel", {NEED_TEXT(usbFilterName, NoFilterName)}, NULL},
    {36, "--usbstart", {}, RunUsbStart},
    {37, "--usbstop", {}, RunUsbStop},
    {38, "--networkadd", {}, NULL},
    {39, "--networkdel", {NEED_EITHER(deviceId, connectionName, "ERROR: Connection name or device id must be specified.\n")}, NULL},
    {40, "--networkscleanup", {}, NULL},
    {41,
     "--networksetprivate",
     {NEED_EITHER(deviceId, connectionName, "ERROR: Connection name, device id or network guid must be specified.\n")},
     NULL},
    // The alias commands take the connection name from ruleName; without
    // one they say so and go on.
    {42, "--networkaliasadd", {NOTE_TEXT(ruleName, NoConnectionName), NEED_TEXT(ipAddress, NoIpAddress)}, NULL},
    {43, "--networkaliasdel", {NOTE_TEXT(ruleName, NoConnectionName), NEED_TEXT(ipAddress, NoIpAddress)}, NULL},
    {44, "--daemoninstall", {}, RunDaemonInstall},
    {45, "--daemonremove", {}, RunDaemonRemove},
    {46,
     "--diskmount",
     {NEED_TEXT(localPath, NoLocalPath), NEED_TEXT(remotePath, "ERROR: Remote path not specified.\n"),
      NEED_TEXT(identityFile, "ERROR: Identity key not specified.\n")},
     NULL},
    {47, "--diskunmount", {NEED_TEXT(localPath, NoLocalPath)}, NULL},
    {48, "--status", {}, RunComponentCommand},
    {49,
     "--deviceregister",
     {NEED_TEXT(deviceId, "ERROR: Device id is not specified.\n"),
      NEED_NUMBER(deviceTypeId, "ERROR: Device type id is not specified.\n")},
     RunDeviceRegister},
    {50, "--cpuload", {}, RunCpuLoad},
    {51, "--ispathbusy", {NEED_TEXT(path, "ERROR: Path not specified.\n")}, NULL},
    {52,
     "--processkill",
     {{CHECK_TEXT_NUMBER, FIELD(processName), FIELD(pid), "ERROR: Name or pid must be specified.\n", 0}},
     NULL},
};

#undef FIELD
#undef NEED_TEXT
#undef NEED_NAME
#undef NEED_NUMBER
#undef NEED_EITHER
#undef NOTE_TEXT

const CommandRow *FindCommand(int code)
{
    for (const CommandRow &row : Commands)
        if (row.code == code)
            return &row;
    return NULL;
}

int RunCommand(const CommandRow *row, struct CommandOptions *options)
{
    for (const CommandCheck &check : row->checks) {
        if (check.kind == CHECK_END)
            break;
        if (!CheckFails(check, options))
            continue;
        LogReport("%s", check.message);
        if (!check.carryOn)
            return -1;
    }
    if (row->handler == NULL) {
        LogReport("ERROR: Command '%s' is not available in this build.\n", row->option);
        return -1;
    }
    return row->handler(options);
}

}  // namespace

int ProcessCommand(int argc, char **argv)
{
    int result = -1;

    LogEnter("ProcessCommand");
    // UTF-8 text prints as such while the command runs.
    UINT savedCodePage = GetConsoleOutputCP();
    SetConsoleOutputCP(CP_UTF8);

    // A failure here has set the command to -1, the syntax error.
    ParseCommandLine(&CommandOptions, argc, argv);

    const CommandRow *row = FindCommand(CommandOptions.command);
    if (row != NULL)
        result = RunCommand(row, &CommandOptions);

    // Zero means there was no console to ask; there is nothing to put back then.
    if (savedCodePage != 0)
        SetConsoleOutputCP(savedCodePage);
    LogLeave("ProcessCommand");
    return result;
}
