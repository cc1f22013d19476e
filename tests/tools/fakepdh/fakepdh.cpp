// A stand-in for the platform's "pdh.dll" with counter values that a test
// chooses. It exports the functions the load monitor looks up, reads its
// values from "fakepdh.cfg" beside itself on every read, and appends what it
// is asked to "fakepdh.log" beside itself, so that a test can see the counter
// paths and count the samples even when the caller is a service.
//
// fakepdh.cfg, one setting a line, each optional:
//   cpu=<percent>          value of the processor counter (default 100)
//   queue=<threads>        value of the queue counter (default 5)
//   failcollect=<n>        the n-th collection fails with PDH_NO_DATA (default never)
#include <windows.h>

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define FAKE_EXPORT extern "C" __declspec(dllexport)

namespace {

const LONG kInvalidArgument = (LONG)0xC0000BBD;  // PDH_INVALID_ARGUMENT
const LONG kBadCounterName = (LONG)0xC0000BC0;   // PDH_CSTATUS_BAD_COUNTERNAME
const LONG kNoData = (LONG)0x800007D5;           // PDH_NO_DATA
const LONG kMoreData = (LONG)0x800007D2;         // PDH_MORE_DATA
const DWORD kFormatDouble = 0x200;
const DWORD kFormatLarge = 0x400;

HMODULE self;
volatile LONG collectCount;
volatile LONG addCount;

struct Settings {
    double cpu = 100.0;
    long long queue = 5;
    long failCollect = 0;
};

struct CounterValue {  // the platform's PDH_FMT_COUNTERVALUE
    DWORD status;
    union {
        LONG asLong;
        double asDouble;
        LONGLONG asLarge;
        const void *asText;
    };
};

// A file beside this DLL.
void FileBeside(char *out, size_t size, const char *name)
{
    char path[MAX_PATH] = {0};
    GetModuleFileNameA(self, path, sizeof path - 1);
    char *slash = strrchr(path, '\\');
    if (slash)
        slash[1] = 0;
    snprintf(out, size, "%s%s", path, name);
}

void Record(const char *format, ...)
{
    char path[MAX_PATH + 32];
    FileBeside(path, sizeof path, "fakepdh.log");
    char line[2300];
    va_list args;
    va_start(args, format);
    vsnprintf(line, sizeof line, format, args);
    va_end(args);
    FILE *file = fopen(path, "ab");
    if (file) {
        fprintf(file, "%s\n", line);
        fclose(file);
    }
}

Settings ReadSettings()
{
    Settings settings;
    char path[MAX_PATH + 32];
    FileBeside(path, sizeof path, "fakepdh.cfg");
    FILE *file = fopen(path, "r");
    if (!file)
        return settings;
    char line[128];
    while (fgets(line, sizeof line, file)) {
        if (strncmp(line, "cpu=", 4) == 0)
            settings.cpu = atof(line + 4);
        else if (strncmp(line, "queue=", 6) == 0)
            settings.queue = atoll(line + 6);
        else if (strncmp(line, "failcollect=", 12) == 0)
            settings.failCollect = atol(line + 12);
    }
    fclose(file);
    return settings;
}

// A counter path "\object(instance)\counter" needs a non-empty object and
// counter name, as the platform's library does.
bool PathIsWhole(const char *path)
{
    if (path == nullptr || path[0] != '\\' || path[1] == 0 || path[1] == '\\' || path[1] == '(')
        return false;
    const char *counter = strrchr(path + 1, '\\');
    return counter != nullptr && counter[1] != 0;
}

LONG AddCounter(const char *how, const char *path, HANDLE *counter)
{
    Record("%s %s", how, path ? path : "(null)");
    if (!PathIsWhole(path))
        return kBadCounterName;
    // The first counter added is the processor time, the second the queue.
    *counter = (HANDLE)(INT_PTR)InterlockedIncrement(&addCount);
    return 0;
}

}  // namespace

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID)
{
    if (reason == DLL_PROCESS_ATTACH)
        self = instance;
    return TRUE;
}

FAKE_EXPORT LONG WINAPI PdhLookupPerfNameByIndexA(LPCSTR, DWORD index, LPSTR name, LPDWORD size)
{
    char local[64];
    snprintf(local, sizeof local, "Local%lu", (unsigned long)index);
    Record("lookup %lu", (unsigned long)index);
    DWORD needed = (DWORD)strlen(local) + 1;
    if (size == nullptr || name == nullptr || *size < needed) {
        if (size)
            *size = needed;
        return kMoreData;
    }
    memcpy(name, local, needed);
    *size = needed;
    return 0;
}

FAKE_EXPORT LONG WINAPI PdhOpenQuery(LPCWSTR, DWORD_PTR, HANDLE *query)
{
    Record("open");
    *query = (HANDLE)(INT_PTR)0x1000;
    return 0;
}

FAKE_EXPORT LONG WINAPI PdhAddCounterA(HANDLE, LPCSTR path, DWORD_PTR, HANDLE *counter)
{
    return AddCounter("add", path, counter);
}

#ifdef FAKEPDH_ENGLISH
FAKE_EXPORT LONG WINAPI PdhAddEnglishCounterA(HANDLE, LPCSTR path, DWORD_PTR, HANDLE *counter)
{
    return AddCounter("addenglish", path, counter);
}
#endif

FAKE_EXPORT LONG WINAPI PdhCollectQueryData(HANDLE)
{
    LONG count = InterlockedIncrement(&collectCount);
    Record("collect %ld", (long)count);
    return ReadSettings().failCollect == count ? kNoData : 0;
}

FAKE_EXPORT LONG WINAPI PdhGetFormattedCounterValue(HANDLE counter, DWORD format, LPDWORD type, CounterValue *value)
{
    Settings settings = ReadSettings();
    if (type)
        *type = 0;
    value->status = 0;
    if ((INT_PTR)counter == 1 && (format & kFormatDouble)) {
        value->asDouble = settings.cpu;
        return 0;
    }
    if ((INT_PTR)counter == 2 && (format & kFormatLarge)) {
        value->asLarge = settings.queue;
        return 0;
    }
    Record("badread %ld 0x%lx", (long)(INT_PTR)counter, (unsigned long)format);
    return kInvalidArgument;
}

// Required to exist; the monitor never calls them.
FAKE_EXPORT LONG WINAPI PdhCloseQuery(HANDLE)
{
    Record("unexpected PdhCloseQuery");
    return 0;
}

FAKE_EXPORT LONG WINAPI PdhBrowseCountersA(void *)
{
    Record("unexpected PdhBrowseCountersA");
    return 0;
}

#ifndef FAKEPDH_NO_MAKEPATH
FAKE_EXPORT LONG WINAPI PdhMakeCounterPathA(void *, LPSTR, LPDWORD, DWORD)
{
    Record("unexpected PdhMakeCounterPathA");
    return 0;
}
#endif

// For probes in the same process: how many collections have been made.
FAKE_EXPORT LONG WINAPI FakePdhCollectCount(void)
{
    return collectCount;
}
