// The device garbage collector: a table of devices, each owned by a process,
// and a thread that waits on the owners and removes the devices of any owner
// that dies. The table lives only in the daemon; other processes register a
// device by sending "--deviceregister" over the daemon's pipe.
#include <string.h>

#include <atomic>
#include <set>

#include "daemon/daemon.h"
#include "frontend/options.h"
#include "support/log.h"

// Zeroed storage: every row starts free.
static DeviceRecord deviceTable[DEVICE_TABLE_ROWS];

// The collector thread starts before the mutex exists and reads this handle
// on its first scan, so the handle itself is shared between two threads.
static std::atomic<HANDLE> collectorMutex{nullptr};
static HANDLE resetEvent;
static HANDLE collectorThread;

// What the collector does with a row of each type when its owner dies. Types
// 1 and 2 have removers that are not part of this build: their rows are
// freed, and the log says that nothing was removed.
struct DeviceKind {
    int type;
    const char *word;     // "Removing %s [...]"; null: nothing to remove
    const char *remover;  // the operation that removes such a device
};

static const DeviceKind deviceKinds[] = {
    {1, "network adapter", "NetworkDelByDeviceId"},
    {2, "printer", "PrinterRemove"},
    {3, nullptr, nullptr},
};

static const DeviceKind *FindDeviceKind(int type)
{
    for (const DeviceKind &kind : deviceKinds)
        if (kind.type == type)
            return &kind;
    return nullptr;
}

static void LockTable(void)
{
    // A null or closed mutex makes the wait fail, and the table is then used
    // unguarded; an abandoned mutex is owned by the waiter all the same.
    WaitForSingleObject(collectorMutex.load(), INFINITE);
}

static void UnlockTable(void)
{
    ReleaseMutex(collectorMutex.load());
}

int GarbageCollectorInit(void)
{
    if (resetEvent == NULL) {
        LogWrite("GarbageCollectorInit : Creating reset event...\n");
        resetEvent = CreateEventA(NULL, FALSE, FALSE, NULL);
        if (resetEvent == NULL) {
            LogReport("ERROR: Cannot create reset event.\n");
            goto failed;
        }
    }
    // The thread comes before the mutex: its first scan may find no mutex,
    // and then runs unguarded over a table that nobody can have filled yet.
    if (collectorThread == NULL) {
        LogWrite("GarbageCollectorInit : Creating collector thread...\n");
        collectorThread = CreateThread(NULL, 0, GarbageCollectorHandler, NULL, 0, NULL);
        if (collectorThread == NULL) {
            LogReport("ERROR: Cannot create garbage collector thread.\n");
            goto failed;
        }
    }
    if (collectorMutex.load() == NULL) {
        LogWrite("GarbageCollectorInit : Creating collector mutex...\n");
        collectorMutex.store(CreateMutexA(NULL, FALSE, NULL));
        if (collectorMutex.load() == NULL) {
            LogReport("ERROR: Cannot create mutex.\n");
            goto failed;
        }
    }
    return 0;

failed:
    LogReport("ERROR: Cannot initialize garbage collector.\nError code is : %d.\n", (int)GetLastError());
    return -1;
}

void GarbageCollectorCleanUp(void)
{
    // The thread is neither stopped nor waited for; it ends with the process.
    CloseHandle(collectorThread);
    CloseHandle(resetEvent);
    CloseHandle(collectorMutex.load());
}

// A process that is not the daemon: ask the daemon to enter the row.
static int RegisterDeviceOnDaemon(const char *name, int type)
{
    int code = -1;
    char reply[DAEMON_REGISTER_REPLY];
    memset(reply, 0, sizeof reply);
    int owner = (int)GetParentPid();
    if (DaemonSend(&code, reply, sizeof reply,
                   "\"--deviceregister\" \"--deviceid\" \"%s\" \"--devicetypeid\" \"%d\" \"--parentpid\" \"%d\" ",
                   name, type, owner) != 0)
        return -1;  // the transport error has been reported
    if (code != 0) {
        LogReport("ERROR: Cannot register device on daemon side.\nError code is : %d.\n", code);
        return -1;
    }
    return 0;
}

// The daemon: enter the row and wake the collector.
static int RegisterDeviceInTable(const char *name, int type, int parentPid)
{
    int result = -1;
    LockTable();
    DeviceRecord *row = nullptr;
    for (DeviceRecord &candidate : deviceTable) {
        if (candidate.type == 0) {
            row = &candidate;
            break;
        }
    }
    if (row == nullptr) {
        LogReport("ERROR: Too many mounted devices.\n");
    } else {
        row->type = type;
        row->parent = parentPid;
        // A name of DEVICE_NAME_SIZE characters or more fills the field with
        // no terminator; every read of a row's name is bounded for that.
        strncpy(row->name, name, DEVICE_NAME_SIZE);
        LogWrite("Registered device '%.*s' with type '%d' and parent process '%d'.\n", (int)DEVICE_NAME_SIZE,
                 row->name, row->type, row->parent);
        SetEvent(resetEvent);
        result = 0;
    }
    UnlockTable();
    return result;
}

int GarbageCollectorRegisterDevice(const char *name, int type, int parentPid)
{
    LogEnter("GarbageCollectorRegisterDevice");
    if (name == nullptr)
        name = "";
    int result = parentPid == -1 ? RegisterDeviceOnDaemon(name, type) : RegisterDeviceInTable(name, type, parentPid);
    LogLeave("GarbageCollectorRegisterDevice");
    return result;
}

// The rows of one dead owner, as they stood when it was seen dead.
struct DeadRow {
    int index;
    int type;
    char name[DEVICE_NAME_SIZE];
};

// Removes the devices of a dead owner and frees its rows. Free rows that still
// name the owner are reported as of an unknown type, 0. The removals run
// without the lock, so that a slow removal does not hold up registrations; a
// taken row cannot be given away meanwhile, because its type is not 0 until
// the end.
static void CollectDeadOwner(int pid)
{
    static DeadRow rows[DEVICE_TABLE_ROWS];  // only the collector thread uses it
    int count = 0;

    LockTable();
    for (int index = 0; index < DEVICE_TABLE_ROWS; index++) {
        if (deviceTable[index].parent != pid)
            continue;
        rows[count].index = index;
        rows[count].type = deviceTable[index].type;
        memcpy(rows[count].name, deviceTable[index].name, DEVICE_NAME_SIZE);
        count++;
    }
    UnlockTable();

    for (int i = 0; i < count; i++) {
        const DeadRow &row = rows[i];
        const DeviceKind *kind = FindDeviceKind(row.type);
        if (kind == nullptr) {
            LogWrite("ERROR: Unknown device type '%d'.\n", row.type);
        } else if (kind->word != nullptr) {
            LogWrite("Removing %s [%.*s]...\n", kind->word, (int)DEVICE_NAME_SIZE, row.name);
            LogWrite("ERROR: %s is not available in this build: device [%.*s] was not removed.\n", kind->remover,
                     (int)DEVICE_NAME_SIZE, row.name);
        }
    }

    LockTable();
    for (int i = 0; i < count; i++)
        if (rows[i].type != 0)  // a free row may have been taken since
            deviceTable[rows[i].index].type = 0;
    UnlockTable();
}

DWORD WINAPI GarbageCollectorHandler(LPVOID)
{
    HANDLE waitHandles[DEVICE_TABLE_ROWS + 1];
    int waitPids[DEVICE_TABLE_ROWS];
    std::set<int> seenPids;
    DWORD count = 0;
    DWORD error = 0;  // the last error that ends the collector

    LogEnter("GarbageCollectorHandler");

    // The wait runs on a handle of our own to the reset event, so that the
    // event closed at the service's stop is never closed under a pending wait.
    HANDLE wakeEvent = NULL;
    if (!DuplicateHandle(GetCurrentProcess(), resetEvent, GetCurrentProcess(), &wakeEvent, 0, FALSE,
                         DUPLICATE_SAME_ACCESS))
        wakeEvent = resetEvent;

    for (;;) {
        LockTable();
        seenPids.clear();
        count = 0;
        for (const DeviceRecord &row : deviceTable) {
            if (row.type == 0 || seenPids.count(row.parent) != 0)
                continue;
            LogWrite("GarbageCollector : putting process '%d' to wait list...\n", row.parent);
            seenPids.insert(row.parent);
            // An owner that is already gone gives a null handle, which makes
            // the wait below fail and ends the collector.
            waitHandles[count] = OpenProcess(SYNCHRONIZE, FALSE, (DWORD)row.parent);
            waitPids[count] = row.parent;
            count++;
            if (count == DEVICE_TABLE_ROWS)
                break;
        }
        if (count == DEVICE_TABLE_ROWS) {
            // The mutex stays held: the next registration finds it abandoned.
            error = GetLastError();
            LogReport("ERROR: Too many mounted devices.\n");
            break;
        }
        UnlockTable();

        waitHandles[count] = wakeEvent;
        LogWrite("GarbageCollector : Waiting for something happen...\n");
        DWORD result;
        if (count + 1 > MAXIMUM_WAIT_OBJECTS) {
            // More handles than the platform waits on: the wait fails, as the
            // platform's own wait would, without handing it the long list.
            SetLastError(ERROR_INVALID_PARAMETER);
            result = WAIT_FAILED;
        } else {
            result = WaitForMultipleObjects(count + 1, waitHandles, FALSE, INFINITE);
        }
        if (result > 127 || result > count) {
            error = GetLastError();
            LogReport("ERROR: Wait failed with code [0x%x].\n", (unsigned)result);
            break;
        }
        if (result == count) {
            LogWrite("GarbageCollector : Reset received.\n");
        } else {
            LogWrite("Process with pid '%d' dead. Cleaning up related devices...\n", waitPids[result]);
            CollectDeadOwner(waitPids[result]);
        }
        for (DWORD i = 0; i < count; i++)
            CloseHandle(waitHandles[i]);
        count = 0;
    }

    // The collector gives up for good: devices are no longer removed until the
    // daemon's stop cleans up everything.
    LogReport("ERROR: Cannot monitor client processes.\nError code is : %d.\n", (int)error);
    for (DWORD i = 0; i < count; i++)
        if (waitHandles[i] != NULL)
            CloseHandle(waitHandles[i]);
    if (wakeEvent != resetEvent)
        CloseHandle(wakeEvent);
    LogLeave("GarbageCollectorHandler");
    return (DWORD)-1;
}
