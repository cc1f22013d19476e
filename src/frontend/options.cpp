// The option record's defaults and the words of the service options.
#include "frontend/options.h"

#include <string.h>

struct CommandOptions CommandOptions;
int ServiceMode;

// The global record holds its defaults before main runs.
static const int commandOptionsReady = CommandOptionsInit(&CommandOptions);

const struct ServiceNameEntry ServiceTypeNames[] = {
    {"FILE_SYSTEM", SERVICE_FILE_SYSTEM_DRIVER},
    {"KERNEL_DRIVER", SERVICE_KERNEL_DRIVER},
    {"RECOGNIZER_DRIVER", SERVICE_RECOGNIZER_DRIVER},
    {"PROCESS", SERVICE_WIN32_OWN_PROCESS},
    {"SHARE_PROCESS", SERVICE_WIN32_SHARE_PROCESS},
    {"INTERACTIVE_PROCESS", SERVICE_INTERACTIVE_PROCESS},
    {NULL, 0},
};

const struct ServiceNameEntry ServiceStartTypeNames[] = {
    {"AUTO", SERVICE_AUTO_START},
    {"BOOT", SERVICE_BOOT_START},
    {"DEMAND", SERVICE_DEMAND_START},
    {"DISABLED", SERVICE_DISABLED},
    {"SYSTEM", SERVICE_SYSTEM_START},
    {NULL, 0},
};

// networkId is left as it is: no command reads it.
int CommandOptionsInit(struct CommandOptions *options)
{
    (void)commandOptionsReady;
    options->command = 0;
    options->infFile = NULL;
    options->deviceName = NULL;
    options->hardwareId = NULL;
    options->deviceId = NULL;
    options->printerName = NULL;
    options->ppdFile = NULL;
    options->gpdFile = NULL;
    options->portId = -1;
    options->sessionDir = NULL;
    options->remoteName = NULL;
    options->connectionName = NULL;
    options->ipAddress = NULL;
    options->netMask = (char *)"255.255.255.252";
    options->ruleName = NULL;
    options->ruleGroup = NULL;
    options->ruleDescription = NULL;
    options->ruleApplication = NULL;
    options->ruleProtocol = 6;
    options->path = NULL;
    for (char *&slot : options->excludedPaths)
        slot = NULL;
    options->recursive = 0;
    options->kill = 0;
    memset(options->friendlyName, 0, sizeof options->friendlyName);
    options->serviceName = NULL;
    options->serviceDisplayName = NULL;
    options->servicePath = NULL;
    options->servicePassword = NULL;
    options->serviceAccount = NULL;
    options->serviceType = SERVICE_WIN32_OWN_PROCESS;
    options->serviceStartType = SERVICE_AUTO_START;
    options->usbFilterName = NULL;
    options->remotePath = NULL;
    options->localPath = NULL;
    options->identityFile = NULL;
    options->diskPort = 22;
    options->timeout = 10000;
    options->componentName = NULL;
    options->componentOperation = -1;
    options->parentPid = -1;
    options->deviceTypeId = -1;
    options->pid = -1;
    options->processName = NULL;
    options->quiet = 0;
    options->isPrivate = 0;
    options->isDefault = 0;
    options->noPreinstall = 0;
    options->forceDaemon = 0;
    options->noDaemon = 0;
    options->directMode = 0;
    memset(options->targetUser, 0, sizeof options->targetUser);
    return 0;
}

static int ValueFromName(const struct ServiceNameEntry *table, const char *text)
{
    if (text == NULL)
        return -1;
    for (const struct ServiceNameEntry *row = table; row->text; row++)
        if (strcmp(row->text, text) == 0)
            return row->value;
    return -1;
}

int ServiceTypeFromName(const char *text)
{
    return ValueFromName(ServiceTypeNames, text);
}

int ServiceStartTypeFromName(const char *text)
{
    return ValueFromName(ServiceStartTypeNames, text);
}
