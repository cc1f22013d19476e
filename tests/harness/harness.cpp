// Process running and capture for the end-to-end tests.
#include "harness.h"

#include <stdio.h>

#include <map>

namespace {

struct Reader {
    HANDLE pipe;
    std::string *text;
};

DWORD WINAPI ReadAll(LPVOID argument)
{
    Reader *reader = static_cast<Reader *>(argument);
    char chunk[4096];
    DWORD got = 0;
    while (ReadFile(reader->pipe, chunk, sizeof chunk, &got, NULL) && got > 0)
        reader->text->append(chunk, got);
    return 0;
}

// The child's environment block: ours, with the requested changes.
std::string EnvironmentBlock(const RunOptions &options)
{
    std::map<std::string, std::string> vars;
    std::map<std::string, std::string> names;  // upper-case key -> spelling
    char *block = GetEnvironmentStringsA();
    for (char *p = block; *p; p += strlen(p) + 1) {
        std::string entry(p);
        size_t eq = entry.find('=', 1);
        if (eq == std::string::npos)
            continue;
        std::string key = entry.substr(0, eq);
        std::string upper = key;
        for (char &c : upper)
            c = (char)toupper((unsigned char)c);
        vars[upper] = entry.substr(eq + 1);
        names[upper] = key;
    }
    FreeEnvironmentStringsA(block);
    for (const auto &change : options.env) {
        std::string upper = change.first;
        for (char &c : upper)
            c = (char)toupper((unsigned char)c);
        if (change.second.empty()) {
            vars.erase(upper);
        } else {
            vars[upper] = change.second;
            names[upper] = change.first;
        }
    }
    std::string result;
    for (const auto &var : vars) {
        result += names[var.first] + "=" + var.second;
        result.push_back('\0');
    }
    result.push_back('\0');
    return result;
}

PROCESS_INFORMATION Launch(const std::string &exe, const std::string &tail, const RunOptions &options,
                           HANDLE out, HANDLE err, HANDLE in)
{
    std::string line = QuoteArg(exe);
    if (!tail.empty())
        line += " " + tail;
    std::vector<char> mutableLine(line.begin(), line.end());
    mutableLine.push_back('\0');
    std::string env = EnvironmentBlock(options);

    STARTUPINFOA startup;
    ZeroMemory(&startup, sizeof startup);
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = out;
    startup.hStdError = err;
    startup.hStdInput = in;
    PROCESS_INFORMATION process;
    ZeroMemory(&process, sizeof process);
    if (!CreateProcessA(exe.c_str(), mutableLine.data(), NULL, NULL, TRUE, 0, &env[0],
                        options.workDir.empty() ? NULL : options.workDir.c_str(), &startup, &process)) {
        fprintf(stderr, "harness: cannot start %s: error %lu\n", exe.c_str(), GetLastError());
        ZeroMemory(&process, sizeof process);
    }
    return process;
}

std::string JoinArgs(const std::vector<std::string> &args)
{
    std::string tail;
    for (const auto &arg : args) {
        if (!tail.empty())
            tail += " ";
        tail += QuoteArg(arg);
    }
    return tail;
}

HANDLE NulHandle()
{
    SECURITY_ATTRIBUTES inherit = {sizeof inherit, NULL, TRUE};
    return CreateFileA("NUL", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit,
                       OPEN_EXISTING, 0, NULL);
}

}  // namespace

std::string BinDir()
{
    char path[MAX_PATH] = {0};
    GetModuleFileNameA(NULL, path, sizeof path);
    std::string text(path);
    size_t slash = text.find_last_of("\\/");
    return slash == std::string::npos ? std::string(".") : text.substr(0, slash);
}

std::string BinPath(const std::string &exeName)
{
    return BinDir() + "\\" + exeName;
}

std::string QuoteArg(const std::string &word)
{
    if (!word.empty() && word.find_first_of(" \t\n\v\"") == std::string::npos)
        return word;
    std::string quoted = "\"";
    size_t slashes = 0;
    for (char c : word) {
        if (c == '\\') {
            slashes++;
            continue;
        }
        if (c == '"') {
            quoted.append(slashes * 2 + 1, '\\');
        } else {
            quoted.append(slashes, '\\');
        }
        slashes = 0;
        quoted.push_back(c);
    }
    quoted.append(slashes * 2, '\\');
    quoted.push_back('"');
    return quoted;
}

RunResult RunCommandLine(const std::string &exe, const std::string &tail, const RunOptions &options)
{
    RunResult result;
    SECURITY_ATTRIBUTES inherit = {sizeof inherit, NULL, TRUE};
    HANDLE outRead = NULL, outWrite = NULL, errRead = NULL, errWrite = NULL;
    CreatePipe(&outRead, &outWrite, &inherit, 0);
    CreatePipe(&errRead, &errWrite, &inherit, 0);
    SetHandleInformation(outRead, HANDLE_FLAG_INHERIT, 0);
    SetHandleInformation(errRead, HANDLE_FLAG_INHERIT, 0);
    HANDLE in = NulHandle();

    PROCESS_INFORMATION process = Launch(exe, tail, options, outWrite, errWrite, in);
    CloseHandle(outWrite);
    CloseHandle(errWrite);
    CloseHandle(in);

    Reader outReader = {outRead, &result.out};
    Reader errReader = {errRead, &result.err};
    HANDLE threads[2] = {CreateThread(NULL, 0, ReadAll, &outReader, 0, NULL),
                         CreateThread(NULL, 0, ReadAll, &errReader, 0, NULL)};
    if (process.hProcess) {
        result.pid = process.dwProcessId;
        if (WaitForSingleObject(process.hProcess, options.timeoutMs) != WAIT_OBJECT_0) {
            result.timedOut = true;
            TerminateProcess(process.hProcess, 0xDEAD);
            WaitForSingleObject(process.hProcess, 5000);
        }
        GetExitCodeProcess(process.hProcess, &result.exitCode);
        CloseHandle(process.hThread);
        CloseHandle(process.hProcess);
    } else {
        result.exitCode = 0xFFFFFFFE;
    }
    // A grandchild that inherited the pipes may keep them open: don't wait for ever.
    if (WaitForMultipleObjects(2, threads, TRUE, 10000) != WAIT_OBJECT_0) {
        CancelSynchronousIo(threads[0]);
        CancelSynchronousIo(threads[1]);
        WaitForMultipleObjects(2, threads, TRUE, 2000);
    }
    CloseHandle(threads[0]);
    CloseHandle(threads[1]);
    CloseHandle(outRead);
    CloseHandle(errRead);
    return result;
}

RunResult RunProgram(const std::string &exe, const std::vector<std::string> &args, const RunOptions &options)
{
    return RunCommandLine(exe, JoinArgs(args), options);
}

RunResult RunTool(const std::vector<std::string> &args, const RunOptions &options)
{
    return RunProgram(BinPath("tzdevice.exe"), args, options);
}

PROCESS_INFORMATION StartProgram(const std::string &exe, const std::vector<std::string> &args,
                                 const RunOptions &options)
{
    HANDLE nul = NulHandle();
    PROCESS_INFORMATION process = Launch(exe, JoinArgs(args), options, nul, nul, nul);
    CloseHandle(nul);
    return process;
}

std::string ReadFileText(const std::string &path)
{
    std::string text;
    FILE *file = fopen(path.c_str(), "rb");
    if (!file)
        return text;
    char chunk[4096];
    size_t got;
    while ((got = fread(chunk, 1, sizeof chunk, file)) > 0)
        text.append(chunk, got);
    fclose(file);
    return text;
}

bool WriteFileText(const std::string &path, const std::string &text)
{
    FILE *file = fopen(path.c_str(), "wb");
    if (!file)
        return false;
    bool ok = fwrite(text.data(), 1, text.size(), file) == text.size();
    return fclose(file) == 0 && ok;
}

bool FileExists(const std::string &path)
{
    return GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::string MakeTempDir(const std::string &tag)
{
    static unsigned counter = 0;
    char base[MAX_PATH] = {0};
    GetTempPathA(sizeof base, base);
    for (;;) {
        char name[MAX_PATH];
        snprintf(name, sizeof name, "%stz-%s-%lu-%u", base, tag.c_str(), GetCurrentProcessId(), counter++);
        if (CreateDirectoryA(name, NULL))
            return name;
        if (GetLastError() != ERROR_ALREADY_EXISTS)
            return std::string();
    }
}

void RemoveTree(const std::string &path)
{
    if (path.empty())
        return;
    WIN32_FIND_DATAA found;
    HANDLE walk = FindFirstFileA((path + "\\*").c_str(), &found);
    if (walk != INVALID_HANDLE_VALUE) {
        do {
            std::string name = found.cFileName;
            if (name == "." || name == "..")
                continue;
            std::string full = path + "\\" + name;
            if (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
                RemoveTree(full);
            else
                DeleteFileA(full.c_str());
        } while (FindNextFileA(walk, &found));
        FindClose(walk);
    }
    RemoveDirectoryA(path.c_str());
}

std::string MakeLogProfile(const std::string &tag)
{
    std::string profile = MakeTempDir(tag);
    CreateDirectoryA((profile + "\\Tessarine").c_str(), NULL);
    CreateDirectoryA((profile + "\\Tessarine\\var").c_str(), NULL);
    CreateDirectoryA((profile + "\\Tessarine\\var\\log").c_str(), NULL);
    return profile;
}

std::string LogFileIn(const std::string &profile, const std::string &fileName)
{
    return profile + "\\Tessarine\\var\\log\\" + fileName;
}

RunOptions WithProfile(const std::string &profile)
{
    RunOptions options;
    options.env.push_back({"ALLUSERSPROFILE", profile});
    return options;
}

size_t CountOf(const std::string &haystack, const std::string &needle)
{
    size_t count = 0;
    if (needle.empty())
        return 0;
    for (size_t at = haystack.find(needle); at != std::string::npos; at = haystack.find(needle, at + needle.size()))
        count++;
    return count;
}
