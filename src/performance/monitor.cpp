// The CPU load monitor: a thread that samples the processor time and the
// processor queue through "pdh.dll" every five seconds and keeps three
// decaying averages of the load. The library is reached only at run time, so
// the program starts on a system without it.
#include <stdlib.h>
#include <string.h>
#include <windows.h>

#include <pdh.h>

#include <atomic>

#include "performance/performance.h"
#include "support/log.h"

enum { PDH_NAME_SIZE = 2048, PDH_SAMPLE_MS = 5000 };

typedef LONG(WINAPI *PdhLookupPerfNameByIndexFn)(LPCSTR machine, DWORD index, LPSTR name, LPDWORD size);
typedef LONG(WINAPI *PdhOpenQueryFn)(LPCWSTR source, DWORD_PTR userData, PDH_HQUERY *query);
typedef LONG(WINAPI *PdhAddCounterFn)(PDH_HQUERY query, LPCSTR path, DWORD_PTR userData, PDH_HCOUNTER *counter);
typedef LONG(WINAPI *PdhCollectQueryDataFn)(PDH_HQUERY query);
typedef LONG(WINAPI *PdhGetFormattedCounterValueFn)(PDH_HCOUNTER counter, DWORD format, LPDWORD type,
                                                    PDH_FMT_COUNTERVALUE *value);

// The imported functions, in the order they are looked up. All but the last
// are required; three of them are required without ever being called.
enum PdhImport {
    PDH_LOOKUP_NAME_BY_INDEX,
    PDH_OPEN_QUERY,
    PDH_ADD_COUNTER,
    PDH_COLLECT_QUERY_DATA,
    PDH_GET_FORMATTED_COUNTER_VALUE,
    PDH_CLOSE_QUERY,
    PDH_BROWSE_COUNTERS,
    PDH_MAKE_COUNTER_PATH,
    PDH_ADD_ENGLISH_COUNTER,
    PDH_IMPORT_COUNT,
    PDH_REQUIRED_COUNT = PDH_ADD_ENGLISH_COUNTER,
};

static const char *const pdhImportNames[PDH_IMPORT_COUNT] = {
    "PdhLookupPerfNameByIndexA",   "PdhOpenQuery",        "PdhAddCounterA",
    "PdhCollectQueryData",         "PdhGetFormattedCounterValue", "PdhCloseQuery",
    "PdhBrowseCountersA",          "PdhMakeCounterPathA", "PdhAddEnglishCounterA",
};

static HMODULE pdhLibrary;
static FARPROC pdhFunctions[PDH_IMPORT_COUNT];
static HANDLE monitorThread;

// Fast, middle and slow average. Only the monitor writes them, one whole
// figure at a time; readers may see figures of two different turns.
static std::atomic<double> loadAverages[3];

// A looked-up function as the type it really has.
template <typename Function> static Function PdhFunction(PdhImport which)
{
    return reinterpret_cast<Function>(reinterpret_cast<void (*)(void)>(pdhFunctions[which]));
}

int PdhInit(void)
{
    DWORD error = 0;
    LogEnter("PdhInit");

    pdhLibrary = LoadLibraryA("pdh.dll");
    if (pdhLibrary == NULL) {
        error = GetLastError();
        LogReport("ERROR: Cannot load 'phd.dll' library.\n");
        goto failed;
    }
    for (int i = 0; i < PDH_IMPORT_COUNT; i++) {
        pdhFunctions[i] = GetProcAddress(pdhLibrary, pdhImportNames[i]);
        if (pdhFunctions[i] == NULL && i < PDH_REQUIRED_COUNT) {
            error = GetLastError();
            LogReport("ERROR: Cannot import '%s' function.\n", pdhImportNames[i]);
            goto failed;
        }
    }
    monitorThread = CreateThread(NULL, 0, PdhMonitor, NULL, 0, NULL);
    if (monitorThread == NULL) {
        error = GetLastError();
        LogReport("ERROR: Cannot initialize performance monitor.\n");
        goto failed;
    }
    LogLeave("PdhInit");
    return 0;

failed:
    LogReport("ERROR: Cannot initialize performance API.\nError code is : %d.\n", (int)error);
    if (pdhLibrary != NULL)
        FreeLibrary(pdhLibrary);
    pdhLibrary = NULL;
    LogLeave("PdhInit");
    return -1;
}

DWORD WINAPI PdhMonitor(LPVOID)
{
    PDH_HQUERY query = NULL;
    PDH_HCOUNTER cpuCounter = NULL;
    PDH_HCOUNTER queueCounter = NULL;
    PDH_FMT_COUNTERVALUE value;
    DWORD valueType = 0;
    char processorName[PDH_NAME_SIZE] = {0};
    char systemName[PDH_NAME_SIZE] = {0};
    char cpuTimeName[PDH_NAME_SIZE] = {0};
    char queueName[PDH_NAME_SIZE] = {0};
    char cpuPath[PDH_NAME_SIZE] = {0};
    char queuePath[PDH_NAME_SIZE] = {0};
    double averages[3] = {loadAverages[0].load(), loadAverages[1].load(), loadAverages[2].load()};
    LONG status = 0;
    DWORD error = 0;
    PdhAddCounterFn addCounter = NULL;

    LogEnter("PdhMonitor");
    SYSTEM_INFO system;
    GetSystemInfo(&system);
    int processors = (int)system.dwNumberOfProcessors;

    status = PdhFunction<PdhOpenQueryFn>(PDH_OPEN_QUERY)(NULL, 0, &query);
    if (status != 0) {
        error = GetLastError();
        status = 0;  // the status of this call is not kept
        LogReport("ERROR: Cannot open PDH query.\n");
        goto failed;
    }

    if (pdhFunctions[PDH_ADD_ENGLISH_COUNTER] != NULL) {
        addCounter = PdhFunction<PdhAddCounterFn>(PDH_ADD_ENGLISH_COUNTER);
        CopyText(cpuPath, sizeof cpuPath, "\\Processor(_Total)\\% Processor Time");
        CopyText(queuePath, sizeof queuePath, "\\System\\Processor Queue Length");
        LogWrite("Using english names...\n");
    } else {
        addCounter = PdhFunction<PdhAddCounterFn>(PDH_ADD_COUNTER);
        // A name that cannot be translated stays empty, and adding the
        // counter whose path holds it fails below.
        PdhLookupPerfLocalName(processorName, sizeof processorName, "Processor");
        PdhLookupPerfLocalName(systemName, sizeof systemName, "System");
        PdhLookupPerfLocalName(cpuTimeName, sizeof cpuTimeName, "% Processor Time");
        PdhLookupPerfLocalName(queueName, sizeof queueName, "Processor Queue Length");
        CopyText(cpuPath, sizeof cpuPath, "\\");
        AppendText(cpuPath, sizeof cpuPath, processorName);
        AppendText(cpuPath, sizeof cpuPath, "(_Total)\\");
        AppendText(cpuPath, sizeof cpuPath, cpuTimeName);
        CopyText(queuePath, sizeof queuePath, "\\");
        AppendText(queuePath, sizeof queuePath, systemName);
        AppendText(queuePath, sizeof queuePath, "\\");
        AppendText(queuePath, sizeof queuePath, queueName);
        LogWrite("CPU            : [%s]\n", processorName);
        LogWrite("Total CPU time : [%s]\n", cpuTimeName);
    }
    LogWrite("CPU Load       : [%s]\n", cpuPath);
    LogWrite("Queue length   : [%s]\n", queuePath);
    LogWrite("CPU number     : [%d]\n", processors);

    status = addCounter(query, cpuPath, 0, &cpuCounter);
    if (status != 0) {
        error = GetLastError();
        LogReport("ERROR: Cannot add CPU counter to PDH query.\n");
        goto failed;
    }
    status = addCounter(query, queuePath, 0, &queueCounter);
    if (status != 0) {
        error = GetLastError();
        LogReport("ERROR: Cannot add CPU queue counter to PDH query.\n");
        goto failed;
    }

    // A rate counter needs a first sample before it can give a value.
    status = PdhFunction<PdhCollectQueryDataFn>(PDH_COLLECT_QUERY_DATA)(query);
    if (status != 0) {
        error = GetLastError();
        LogReport("ERROR: Cannot collect first sample from PDH counter.\n");
        goto failed;
    }
    LogWrite("PdhMonitor : Entering performance monitor loop...\n");

    for (;;) {
        status = PdhFunction<PdhCollectQueryDataFn>(PDH_COLLECT_QUERY_DATA)(query);
        if (status != 0) {
            error = GetLastError();
            LogReport("ERROR: Cannot collect sample from PDH counter.\n");
            goto failed;
        }
        memset(&value, 0, sizeof value);
        status = PdhFunction<PdhGetFormattedCounterValueFn>(PDH_GET_FORMATTED_COUNTER_VALUE)(
            cpuCounter, PDH_FMT_DOUBLE, &valueType, &value);
        if (status != 0) {
            error = GetLastError();
            LogReport("ERROR: Cannot retrieve CPU load.\n");
            goto failed;
        }
        double cpu = value.doubleValue;
        memset(&value, 0, sizeof value);
        status = PdhFunction<PdhGetFormattedCounterValueFn>(PDH_GET_FORMATTED_COUNTER_VALUE)(
            queueCounter, PDH_FMT_LARGE, &valueType, &value);
        if (status != 0) {
            error = GetLastError();
            LogReport("ERROR: Cannot retrieve CPU queue length.\n");
            goto failed;
        }
        PdhUpdateAverages(PdhInstantLoad(cpu, value.largeValue, processors), averages);
        for (int i = 0; i < 3; i++)
            loadAverages[i].store(averages[i], std::memory_order_relaxed);
        Sleep(PDH_SAMPLE_MS);
    }

failed:
    // The figures keep their last values; nothing restarts the monitor, and
    // the query stays open.
    LogReport("ERROR: Cannot monitor average CPU load.\nError code is : %d.\nPDH code is : 0x%x.\n", (int)error,
              (unsigned)status);
    LogLeave("PdhMonitor");
    return (DWORD)-1;
}

int PdhGetCpuLoad(double *fast, double *middle, double *slow)
{
    LogEnter("PdhGetCpuLoad");
    double *out[3] = {fast, middle, slow};
    for (int i = 0; i < 3; i++)
        if (out[i] != NULL)
            *out[i] = loadAverages[i].load(std::memory_order_relaxed);
    LogLeave("PdhGetCpuLoad");
    return 0;
}

// The walk of "Counter 009": pairs of terminated strings, a decimal index and
// its English name, ending with an empty string. The walk never reads past
// the block the registry returned, whatever its contents.
static int FindIndexInNameBlock(const char *block, DWORD size, const char *name, int *index)
{
    DWORD at = 0;
    while (at < size) {
        size_t indexLength = strnlen(block + at, size - at);
        if (indexLength == 0 || indexLength == size - at)
            break;  // the end of the list, or a string cut off by the block's end
        const char *indexText = block + at;
        at += (DWORD)indexLength + 1;
        if (at >= size)
            break;
        size_t nameLength = strnlen(block + at, size - at);
        if (nameLength == size - at)
            break;
        const char *entryName = block + at;
        at += (DWORD)nameLength + 1;
        if (_stricmp(entryName, name) == 0) {
            *index = atoi(indexText);
            return 1;
        }
    }
    return 0;
}

int PdhLookupPerfIndexByEnglishName(const char *name)
{
    char *block = NULL;
    DWORD size = 65536;
    DWORD error = ERROR_NOT_FOUND;
    int index = -1;
    LONG status;

    LogEnter("PdhLookupPerfIndexByEnglishName");
    RegQueryValueExA(HKEY_PERFORMANCE_DATA, "Counter 009", NULL, NULL, NULL, &size);
    block = (char *)malloc(size ? size : 1);
    if (block == NULL) {
        error = ERROR_NOT_ENOUGH_MEMORY;
        LogReport("ERROR: Out of memory.\n");
        goto notFound;
    }
    status = RegQueryValueExA(HKEY_PERFORMANCE_DATA, "Counter 009", NULL, NULL, (BYTE *)block, &size);
    if (status != ERROR_SUCCESS) {
        error = (DWORD)status;
        goto notFound;
    }
    if (FindIndexInNameBlock(block, size, name, &index)) {
        if (index < 0)
            PrintError("ERROR: Cannot retrieve index of '%s' object.\nError code is : %d.\n", name,
                       (int)ERROR_INVALID_DATA);
        free(block);
        LogLeave("PdhLookupPerfIndexByEnglishName");
        return index;
    }

notFound:
    PrintError("ERROR: Cannot retrieve index of '%s' object.\nError code is : %d.\n", name, (int)error);
    free(block);
    LogLeave("PdhLookupPerfIndexByEnglishName");
    return -1;
}

int PdhLookupPerfLocalName(char *out, DWORD size, const char *englishName)
{
    DWORD error = ERROR_NOT_FOUND;
    PdhLookupPerfNameByIndexFn lookup = NULL;
    int index;

    LogEnter("PdhLookupPerfLocalName");
    // A reference of its own to the library, which is kept.
    HMODULE library = LoadLibraryA("pdh.dll");
    if (library == NULL) {
        error = GetLastError();
        LogReport("ERROR: Cannot load 'phd.dll' library.\n");
        goto failed;
    }
    lookup = reinterpret_cast<PdhLookupPerfNameByIndexFn>(
        reinterpret_cast<void (*)(void)>(GetProcAddress(library, "PdhLookupPerfNameByIndexA")));
    if (lookup == NULL) {
        error = GetLastError();
        LogReport("ERROR: Cannot import 'PhdLookupPerfNameByIndexA' function.\n");
        goto failed;
    }
    index = PdhLookupPerfIndexByEnglishName(englishName);
    if (index >= 0) {
        DWORD length = size;
        LONG status = lookup(NULL, (DWORD)index, out, &length);
        if (status == 0) {
            LogLeave("PdhLookupPerfLocalName");
            return 0;
        }
        error = (DWORD)status;
    }

failed:
    PrintError("ERROR: Cannot translate '%s' name to local.\nError code is : %d.\n", englishName, (int)error);
    LogLeave("PdhLookupPerfLocalName");
    return -1;
}
