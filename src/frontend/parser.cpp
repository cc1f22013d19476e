// The command line parser: one constant table of options, walked word by word.
#include <windows.h>

#include <shellapi.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>

#include "frontend/options.h"
#include "support/log.h"

namespace {

struct OptionRow;

// Stores what an option sets besides its command code. `value` is the next
// word (null for a flag), `index` its place in argv. Non-zero is a failure.
typedef int (*OptionStore)(struct CommandOptions *options, const OptionRow *row, char *value, int index);

struct OptionRow {
    const char *text;
    unsigned char takesValue;
    unsigned char refused;  // refused while ServiceMode is set
    int command;            // the command code it selects, 0 for none
    OptionStore store;      // null: it sets the command only
    size_t field;           // the field that a plain store writes
    int number;             // the constant that a plain store writes
};

char *&TextField(struct CommandOptions *options, size_t field)
{
    return *reinterpret_cast<char **>(reinterpret_cast<char *>(options) + field);
}

int &NumberField(struct CommandOptions *options, size_t field)
{
    return *reinterpret_cast<int *>(reinterpret_cast<char *>(options) + field);
}

unsigned char &FlagField(struct CommandOptions *options, size_t field)
{
    return *reinterpret_cast<unsigned char *>(reinterpret_cast<char *>(options) + field);
}

int StoreText(struct CommandOptions *options, const OptionRow *row, char *value, int)
{
    TextField(options, row->field) = value;
    return 0;
}

// Numbers are read with atoi: a word that is no number gives 0, not an error.
int StoreNumber(struct CommandOptions *options, const OptionRow *row, char *value, int)
{
    NumberField(options, row->field) = atoi(value);
    return 0;
}

int StoreConstant(struct CommandOptions *options, const OptionRow *row, char *, int)
{
    NumberField(options, row->field) = row->number;
    return 0;
}

int StoreFlag(struct CommandOptions *options, const OptionRow *row, char *, int)
{
    FlagField(options, row->field) = 1;
    return 0;
}

int StoreComponent(struct CommandOptions *options, const OptionRow *row, char *value, int)
{
    options->componentName = value;
    options->componentOperation = row->number;
    return 0;
}

int StoreForceDaemon(struct CommandOptions *options, const OptionRow *, char *, int)
{
    options->forceDaemon = 1;
    LogWrite("Forcing daemon use.\n");
    return 0;
}

int StoreNoDaemon(struct CommandOptions *options, const OptionRow *, char *, int)
{
    options->noDaemon = 1;
    LogWrite("Forbiding daemon use.\n");
    return 0;
}

// --deviceregister runs on the daemon's own thread and is never forwarded.
int StoreDeviceRegister(struct CommandOptions *options, const OptionRow *, char *, int)
{
    options->directMode = 1;
    options->noDaemon = 1;
    return 0;
}

// --cpuload reads the daemon's figures, so it goes there even for an administrator.
int StoreCpuLoad(struct CommandOptions *options, const OptionRow *, char *, int)
{
    options->forceDaemon = 1;
    options->directMode = 1;
    return 0;
}

// In the daemon an unprivileged caller may not hand over a driver package
// that does not verify. The verification itself is not part of this build,
// so the daemon refuses the option rather than let it through unverified.
int StoreInfFile(struct CommandOptions *options, const OptionRow *, char *value, int)
{
    options->infFile = value;
    if (ServiceMode && options->command != 9) {
        LogReport("ERROR: Driver package verification is not available in this build.\n");
        return -1;
    }
    return 0;
}

// Ahead of --fwruleadd or --fwruledel the name is also the connection name.
int StoreName(struct CommandOptions *options, const OptionRow *, char *value, int)
{
    if (options->command != 20 && options->command != 21)
        options->connectionName = value;
    options->ruleName = value;
    return 0;
}

// The name is read from the process's own wide command line at the same
// index, so that characters outside the ANSI code page survive. When that
// list has no word at the index (the daemon parsing a message: its own
// command line has two words) the name is empty.
int StoreFriendlyName(struct CommandOptions *options, const OptionRow *, char *, int index)
{
    int wideCount = 0;
    int result = 0;
    LPWSTR *wideArgv = CommandLineToArgvW(GetCommandLineW(), &wideCount);
    memset(options->friendlyName, 0, sizeof options->friendlyName);
    if (wideArgv != NULL && index < wideCount) {
        if (WideCharToMultiByte(CP_UTF8, 0, wideArgv[index], -1, options->friendlyName, FRIENDLY_NAME_SIZE, NULL,
                                NULL) == 0) {
            memset(options->friendlyName, 0, sizeof options->friendlyName);
            result = -1;
        }
    }
    if (result == 0)
        LogWrite("Friendly name [%s].\n", options->friendlyName);
    if (wideArgv != NULL)
        LocalFree(wideArgv);
    return result;
}

int StoreProtocol(struct CommandOptions *options, const OptionRow *, char *value, int)
{
    if (strcmp(value, "tcp") == 0) {
        options->ruleProtocol = 6;
    } else if (strcmp(value, "udp") == 0) {
        options->ruleProtocol = 17;
    } else {
        LogReport("ERROR: Unknown protocol '%s' specified.\n", value);
        return -1;
    }
    return 0;
}

// strtok over ";" with the caller's own context, so that threads parsing at
// the same time do not share it. It writes into the word like strtok does.
char *NextPiece(char **context)
{
    char *piece = *context;
    if (piece == NULL)
        return NULL;
    piece += strspn(piece, ";");
    if (*piece == 0) {
        *context = NULL;
        return NULL;
    }
    char *end = piece + strcspn(piece, ";");
    if (*end) {
        *end = 0;
        *context = end + 1;
    } else {
        *context = NULL;
    }
    return piece;
}

// Backslashes only, and no trailing one (a path of slashes alone becomes empty).
void TidyExcludedPath(char *path)
{
    for (char *c = path; *c; c++)
        if (*c == '/')
            *c = '\\';
    size_t length = strlen(path);
    while (length > 0 && path[length - 1] == '\\')
        path[--length] = 0;
}

int StoreExclude(struct CommandOptions *options, const OptionRow *, char *value, int)
{
    char *context = value;
    char *piece = NextPiece(&context);
    options->excludedPaths[0] = piece;
    for (int stored = 0; piece != NULL; piece = NextPiece(&context)) {
        LogWrite("Adding [%s] to excluded processes...\n", piece);
        options->excludedPaths[stored++] = piece;
        if (stored > EXCLUDED_PATHS_MAX) {
            LogReport("ERROR: Too many excluded paths.\n");
            return -1;
        }
    }
    for (int slot = 0; slot < EXCLUDED_PATHS_SLOTS && options->excludedPaths[slot]; slot++)
        TidyExcludedPath(options->excludedPaths[slot]);
    return 0;
}

// A copy, cut to the field when longer.
int StoreTargetUser(struct CommandOptions *options, const OptionRow *, char *value, int)
{
    CopyText(options->targetUser, sizeof options->targetUser, value);
    return 0;
}

int StoreServiceType(struct CommandOptions *options, const OptionRow *, char *value, int)
{
    options->serviceType = ServiceTypeFromName(value);
    return 0;
}

int StoreServiceStartType(struct CommandOptions *options, const OptionRow *, char *value, int)
{
    options->serviceStartType = ServiceStartTypeFromName(value);
    return 0;
}

#define FIELD(name) offsetof(struct CommandOptions, name)
#define SET_TEXT(name) StoreText, FIELD(name), 0
#define SET_NUMBER(name) StoreNumber, FIELD(name), 0
#define SET_FLAG(name) StoreFlag, FIELD(name), 0
#define SET_VALUE(name, number) StoreConstant, FIELD(name), number
#define CALL(function) function, 0, 0
#define NOTHING NULL, 0, 0

// Every option of the command line: text, takes a value, refused in the
// daemon, command code, and what it stores.
const OptionRow Options[] = {
    {"--deviceadd", 0, 1, 1, NOTHING},
    {"--devicedel", 0, 1, 2, NOTHING},
    {"--devicesgroupdel", 0, 1, 3, NOTHING},
    {"--deviceslist", 0, 1, 4, NOTHING},
    {"--devicestart", 0, 1, 5, NOTHING},
    {"--devicestop", 0, 1, 6, NOTHING},
    {"--inffile", 1, 0, 0, CALL(StoreInfFile)},
    {"--devicename", 1, 0, 0, SET_TEXT(deviceName)},
    {"--deviceid", 1, 0, 0, SET_TEXT(deviceId)},
    {"--hardwareid", 1, 0, 0, SET_TEXT(hardwareId)},
    {"--driverpackageadd", 0, 1, 7, NOTHING},
    {"--driverpackagedel", 0, 1, 8, NOTHING},
    {"--driverpackageverify", 0, 0, 9, NOTHING},
    {"--quiet", 0, 0, 0, SET_FLAG(quiet)},
    {"--printmonitoradd", 0, 0, 10, NOTHING},
    {"--printerscleanup", 0, 0, 17, NOTHING},
    {"--printmonitordel", 0, 0, 11, NOTHING},
    {"--printeradd", 1, 0, 12, SET_TEXT(printerName)},
    {"--printdriverinstall", 0, 0, 14, NOTHING},
    {"--printdriverremove", 0, 0, 15, NOTHING},
    {"--printdriverslist", 0, 0, 16, NOTHING},
    {"--printerdel", 1, 0, 13, SET_TEXT(printerName)},
    {"--tzsessiondir", 1, 0, 0, SET_TEXT(sessionDir)},
    {"--remotename", 1, 0, 0, SET_TEXT(remoteName)},
    {"--portid", 1, 0, 0, SET_NUMBER(portId)},
    {"--ppdfile", 1, 0, 0, SET_TEXT(ppdFile)},
    {"--gpdfile", 1, 0, 0, SET_TEXT(gpdFile)},
    {"--loopbackadd", 0, 0, 18, NOTHING},
    {"--loopbackdel", 0, 0, 19, NOTHING},
    {"--name", 1, 0, 0, CALL(StoreName)},
    {"--ip", 1, 0, 0, SET_TEXT(ipAddress)},
    {"--mask", 1, 0, 0, SET_TEXT(netMask)},
    {"--getdefaultaudio", 0, 0, 22, NOTHING},
    {"--getdefaultvoice", 0, 0, 23, NOTHING},
    {"--setdefaultaudio", 0, 0, 24, NOTHING},
    {"--setdefaultvoice", 0, 0, 25, NOTHING},
    {"--friendlyname", 1, 0, 0, CALL(StoreFriendlyName)},
    {"--serviceadd", 1, 1, 26, SET_TEXT(serviceName)},
    {"--servicedel", 1, 1, 27, SET_TEXT(serviceName)},
    {"--servicestart", 1, 1, 28, SET_TEXT(serviceName)},
    {"--servicestop", 1, 1, 29, SET_TEXT(serviceName)},
    {"--servicename", 1, 0, 0, SET_TEXT(serviceName)},
    {"--servicedisplayname", 1, 0, 0, SET_TEXT(serviceDisplayName)},
    {"--servicetype", 1, 0, 0, CALL(StoreServiceType)},
    {"--servicestarttype", 1, 0, 0, CALL(StoreServiceStartType)},
    {"--servicepath", 1, 0, 0, SET_TEXT(servicePath)},
    {"--servicepass", 1, 0, 0, SET_TEXT(servicePassword)},
    {"--serviceaccount", 1, 0, 0, SET_TEXT(serviceAccount)},
    {"--servicestatusget", 1, 0, 30, SET_TEXT(serviceName)},
    {"--servicetypeget", 1, 0, 32, SET_TEXT(serviceName)},
    {"--servicestarttypeget", 1, 0, 33, SET_TEXT(serviceName)},
    {"--servicechange", 1, 1, 31, SET_TEXT(serviceName)},
    {"--usbfilteradd", 1, 1, 34, SET_TEXT(usbFilterName)},
    {"--usbfilterdel", 1, 1, 35, SET_TEXT(usbFilterName)},
    {"--usbstart", 0, 0, 36, NOTHING},
    {"--usbstop", 0, 0, 37, NOTHING},
    {"--daemoninstall", 0, 1, 44, NOTHING},
    {"--daemonremove", 0, 1, 45, NOTHING},
    {"--networkadd", 0, 0, 38, NOTHING},
    {"--networkdel", 0, 0, 39, NOTHING},
    {"--networkaliasadd", 0, 1, 42, NOTHING},
    {"--networkaliasdel", 0, 1, 43, NOTHING},
    {"--networkscleanup", 0, 0, 40, NOTHING},
    {"--networksetprivate", 0, 0, 41, NOTHING},
    {"--fwruleadd", 0, 1, 20, NOTHING},
    {"--fwruledel", 0, 1, 21, NOTHING},
    {"--group", 1, 0, 0, SET_TEXT(ruleGroup)},
    {"--desc", 1, 0, 0, SET_TEXT(ruleDescription)},
    {"--app", 1, 0, 0, SET_TEXT(ruleApplication)},
    {"--protocol", 1, 0, 0, CALL(StoreProtocol)},
    {"--diskmount", 0, 0, 46, NOTHING},
    {"--diskunmount", 0, 0, 47, SET_FLAG(noDaemon)},
    {"--port", 1, 0, 0, SET_NUMBER(diskPort)},
    {"--localpath", 1, 0, 0, SET_TEXT(localPath)},
    {"--remotepath", 1, 0, 0, SET_TEXT(remotePath)},
    {"--identityfile", 1, 0, 0, SET_TEXT(identityFile)},
    {"--targetuser", 1, 0, 0, CALL(StoreTargetUser)},
    {"--private", 0, 0, 0, SET_FLAG(isPrivate)},
    {"--default", 0, 0, 0, SET_FLAG(isDefault)},
    {"--daemonmodeforce", 0, 0, 0, CALL(StoreForceDaemon)},
    {"--nodaemon", 0, 0, 0, CALL(StoreNoDaemon)},
    {"--nopreinstall", 0, 0, 0, SET_FLAG(noPreinstall)},
    {"--networkid", 1, 0, 0, SET_TEXT(networkId)},
    {"--install", 1, 1, 48, StoreComponent, 0, 0},
    {"--uninstall", 1, 1, 48, StoreComponent, 0, 1},
    {"--enable", 1, 1, 48, StoreComponent, 0, 3},
    {"--disable", 1, 1, 48, StoreComponent, 0, 4},
    {"--update", 1, 1, 48, StoreComponent, 0, 2},
    {"--status", 1, 0, 48, StoreComponent, 0, 5},
    {"--deviceregister", 0, 0, 49, CALL(StoreDeviceRegister)},
    {"--devicetypeid", 1, 0, 0, SET_NUMBER(deviceTypeId)},
    {"--parentpid", 1, 0, 0, SET_NUMBER(parentPid)},
    {"--cpuload", 0, 0, 50, CALL(StoreCpuLoad)},
    {"--ispathbusy", 0, 0, 51, SET_VALUE(timeout, 0)},
    {"--timeout", 1, 0, 0, SET_NUMBER(timeout)},
    {"--recursive", 0, 0, 0, SET_VALUE(recursive, 1)},
    {"--kill", 0, 1, 0, SET_VALUE(kill, 1)},
    {"--path", 1, 0, 0, SET_TEXT(path)},
    {"--exclude", 1, 0, 0, CALL(StoreExclude)},
    {"--processkill", 0, 0, 52, NOTHING},
    {"--pid", 1, 0, 0, SET_NUMBER(pid)},
    {"--processname", 1, 0, 0, SET_TEXT(processName)},
};

#undef FIELD
#undef SET_TEXT
#undef SET_NUMBER
#undef SET_FLAG
#undef SET_VALUE
#undef CALL
#undef NOTHING

const OptionRow *FindOption(const char *word)
{
    for (const OptionRow &row : Options)
        if (strcmp(row.text, word) == 0)
            return &row;
    return NULL;
}

int Refuse(struct CommandOptions *options)
{
    options->command = -1;
    return -1;
}

}  // namespace

int ParseCommandLine(struct CommandOptions *options, int argc, char **argv)
{
    if (argc >= 2) {
        for (int i = 1; i < argc; i++) {
            const char *word = argv[i] ? argv[i] : "";
            if (i >= 2 && argv[i - 1] && strcmp(argv[i - 1], "--servicepass") == 0)
                LogWrite("argv[%d][**PASS**]\n", i);
            else
                LogWrite("argv[%d][%s]\n", i, word);
        }

        for (int i = 1; i < argc;) {
            const char *word = argv[i] ? argv[i] : "";
            const OptionRow *row = FindOption(word);
            if (row == NULL) {
                // Not a failure: a command option further on replaces the -1.
                LogReport("ERROR: Unknown option at [%s].\n", word);
                options->command = -1;
                i++;
                continue;
            }
            if (row->refused && ServiceMode)
                return Refuse(options);
            char *value = NULL;
            if (row->takesValue) {
                if (i + 1 >= argc || argv[i + 1] == NULL)
                    return Refuse(options);
                value = argv[i + 1];
            }
            if (row->command)
                options->command = row->command;
            if (row->store && row->store(options, row, value, i + 1) != 0)
                return Refuse(options);
            i += row->takesValue ? 2 : 1;
        }
    }

    if (options->parentPid == -1)
        options->parentPid = (int)GetParentPid();
    // A message must not ask the daemon to forward it on.
    if (ServiceMode)
        options->forceDaemon = 0;
    if (options->targetUser[0] == 0) {
        DWORD userNameSize = TARGET_USER_SIZE;
        GetUserNameA(options->targetUser, &userNameSize);
        options->targetUser[TARGET_USER_SIZE - 1] = 0;
    }
    return 0;
}
