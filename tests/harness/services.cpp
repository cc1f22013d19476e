// Service and handle helpers for the end-to-end tests.
#include "harness.h"

#include <vector>

namespace {

SC_HANDLE OpenNamed(const std::string &name, DWORD access, SC_HANDLE *manager)
{
    *manager = OpenSCManagerA(NULL, NULL, SC_MANAGER_CONNECT);
    if (!*manager)
        return NULL;
    return OpenServiceA(*manager, name.c_str(), access);
}

}  // namespace

bool ServicePresent(const std::string &name)
{
    SC_HANDLE manager;
    SC_HANDLE service = OpenNamed(name, SERVICE_QUERY_STATUS, &manager);
    if (service)
        CloseServiceHandle(service);
    if (manager)
        CloseServiceHandle(manager);
    return service != NULL;
}

DWORD ServiceStateOf(const std::string &name)
{
    SC_HANDLE manager;
    SC_HANDLE service = OpenNamed(name, SERVICE_QUERY_STATUS, &manager);
    DWORD state = 0;
    SERVICE_STATUS status;
    if (service && QueryServiceStatus(service, &status))
        state = status.dwCurrentState;
    if (service)
        CloseServiceHandle(service);
    if (manager)
        CloseServiceHandle(manager);
    return state;
}

DWORD ServicePid(const std::string &name)
{
    SC_HANDLE manager;
    SC_HANDLE service = OpenNamed(name, SERVICE_QUERY_STATUS, &manager);
    DWORD pid = 0;
    SERVICE_STATUS_PROCESS status;
    DWORD needed = 0;
    if (service && QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, (BYTE *)&status, sizeof status, &needed))
        pid = status.dwProcessId;
    if (service)
        CloseServiceHandle(service);
    if (manager)
        CloseServiceHandle(manager);
    return pid;
}

bool WaitServiceState(const std::string &name, DWORD state, DWORD timeoutMs)
{
    for (DWORD waited = 0;; waited += 100) {
        if (ServiceStateOf(name) == state)
            return true;
        if (waited >= timeoutMs)
            return false;
        Sleep(100);
    }
}

void RemoveServiceQuietly(const std::string &name)
{
    SC_HANDLE manager;
    SC_HANDLE service = OpenNamed(name, SERVICE_QUERY_STATUS | SERVICE_STOP | DELETE, &manager);
    if (service) {
        SERVICE_STATUS status;
        ControlService(service, SERVICE_CONTROL_STOP, &status);
        for (int i = 0; i < 50 && QueryServiceStatus(service, &status) && status.dwCurrentState != SERVICE_STOPPED; i++)
            Sleep(100);
        if (QueryServiceStatus(service, &status) && status.dwCurrentState != SERVICE_STOPPED) {
            SERVICE_STATUS_PROCESS process;
            DWORD needed = 0;
            if (QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, (BYTE *)&process, sizeof process, &needed)) {
                HANDLE handle = OpenProcess(PROCESS_TERMINATE, FALSE, process.dwProcessId);
                if (handle) {
                    TerminateProcess(handle, 1);
                    CloseHandle(handle);
                }
            }
        }
        DeleteService(service);
        CloseServiceHandle(service);
    }
    if (manager)
        CloseServiceHandle(manager);
}

// The system handle list (information class 16), read through ntdll by name.
long CountProcessHandles(DWORD pid)
{
    struct Entry {
        ULONG ProcessId;
        UCHAR ObjectTypeNumber;
        UCHAR Flags;
        USHORT Handle;
        PVOID Object;
        ACCESS_MASK GrantedAccess;
    };
    typedef LONG(WINAPI * QueryFn)(ULONG, PVOID, ULONG, PULONG);
    QueryFn query = (QueryFn)(void *)GetProcAddress(GetModuleHandleA("ntdll.dll"), "ZwQuerySystemInformation");
    if (!query)
        return -1;
    std::vector<char> buffer(1 << 20);
    for (int attempt = 0; attempt < 8; attempt++) {
        ULONG needed = 0;
        LONG status = query(16, buffer.data(), (ULONG)buffer.size(), &needed);
        if (status == (LONG)0xC0000004) {  // STATUS_INFO_LENGTH_MISMATCH
            buffer.resize(buffer.size() * 2);
            continue;
        }
        if (status != 0)
            return -1;
        ULONG count = *(ULONG *)buffer.data();
        const Entry *entries = (const Entry *)(buffer.data() + sizeof(ULONG_PTR));
        long mine = 0;
        for (ULONG i = 0; i < count; i++)
            if (entries[i].ProcessId == pid)
                mine++;
        return mine;
    }
    return -1;
}
