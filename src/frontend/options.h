// The parsed command line: one plain record, its defaults and its parser.
#pragma once

#include <windows.h>

enum {
    EXCLUDED_PATHS_SLOTS = 33,  // 32 paths and the terminating null
    EXCLUDED_PATHS_MAX = 31,    // the 32nd stored path is an error
    FRIENDLY_NAME_SIZE = 1024,
    TARGET_USER_SIZE = 256,
};

// Text fields borrow from the argv that was parsed; nothing here is owned.
struct CommandOptions {
    int command;
    char *infFile;
    char *deviceName;
    char *hardwareId;
    char *deviceId;
    char *printerName;
    char *ppdFile;
    char *gpdFile;
    int portId;
    char *sessionDir;
    char *remoteName;
    char *connectionName;
    char *ipAddress;
    char *netMask;
    char *networkId;
    char *ruleName;
    char *ruleGroup;
    char *ruleDescription;
    char *ruleApplication;
    int ruleProtocol;
    char *path;
    char *excludedPaths[EXCLUDED_PATHS_SLOTS];
    int recursive;
    int kill;
    char friendlyName[FRIENDLY_NAME_SIZE];
    char *serviceName;
    char *serviceDisplayName;
    char *servicePath;
    char *servicePassword;
    char *serviceAccount;
    int serviceType;
    int serviceStartType;
    char *usbFilterName;
    char *remotePath;
    char *localPath;
    char *identityFile;
    int diskPort;
    int timeout;
    char *componentName;
    int componentOperation;
    int parentPid;
    int deviceTypeId;
    int pid;
    char *processName;
    unsigned char quiet;
    unsigned char isPrivate;
    unsigned char isDefault;
    unsigned char noPreinstall;
    unsigned char forceDaemon;
    unsigned char noDaemon;
    unsigned char directMode;
    char targetUser[TARGET_USER_SIZE];
};

// The process's record, filled with its defaults before main runs.
extern struct CommandOptions CommandOptions;

// 1 only in the daemon process: the parser then refuses privileged options.
extern int ServiceMode;

// The words of --servicetype and --servicestarttype; a null text ends each table.
struct ServiceNameEntry {
    const char *text;
    int value;
};
extern const struct ServiceNameEntry ServiceTypeNames[];
extern const struct ServiceNameEntry ServiceStartTypeNames[];

int CommandOptionsInit(struct CommandOptions *options);
int ParseCommandLine(struct CommandOptions *options, int argc, char **argv);
int ServiceTypeFromName(const char *text);
int ServiceStartTypeFromName(const char *text);
DWORD GetParentPid(void);
