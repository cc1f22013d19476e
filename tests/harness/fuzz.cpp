// Seeds, counts and heap checks shared by the fuzz programs.
#include "harness.h"

#include <malloc.h>
#include <stdlib.h>
#include <string.h>

unsigned SeedFromEnvironment()
{
    char text[32] = {0};
    if (GetEnvironmentVariableA("TZ_FUZZ_SEED", text, sizeof text))
        return (unsigned)strtoul(text, NULL, 10);
    return (unsigned)GetTickCount() ^ (GetCurrentProcessId() << 16);
}

long IterationsFromEnvironment()
{
    char text[32] = {0};
    if (GetEnvironmentVariableA("TZ_FUZZ_ITERATIONS", text, sizeof text))
        return strtol(text, NULL, 10);
    return 100000;
}

// Under WINEDEBUG=warn+heap Wine checks the whole heap on every call, which
// makes each iteration a hundred times slower: such a run stops at a time
// budget instead of the iteration count, and says so.
bool HeapCheckedRun()
{
    char text[256] = {0};
    return GetEnvironmentVariableA("WINEDEBUG", text, sizeof text) && strstr(text, "heap") != NULL;
}

// Every heap of the process, and the runtime's own, still well formed.
bool HeapsIntact()
{
    HANDLE heaps[64];
    DWORD count = GetProcessHeaps(64, heaps);
    for (DWORD i = 0; i < count && i < 64; i++)
        if (!HeapValidate(heaps[i], 0, NULL))
            return false;
    return _heapchk() == _HEAPOK;
}
