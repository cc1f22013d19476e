// The CPU load monitor: three decaying averages of the machine's load.
#pragma once

#include <windows.h>

int PdhInit(void);
DWORD WINAPI PdhMonitor(LPVOID unused);
int PdhGetCpuLoad(double *fast, double *middle, double *slow);
int PdhLookupPerfIndexByEnglishName(const char *name);
int PdhLookupPerfLocalName(char *out, DWORD size, const char *englishName);

// The instant load of one sample: busy processors plus the queue beyond two.
double PdhInstantLoad(double cpuPercent, long long queue, int processors);
// One step of the fast, middle and slow averages, in that order.
void PdhUpdateAverages(double load, double averages[3]);
