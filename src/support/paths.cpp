// Where the log lives, and paths relative to the program's own directory.
#include "support/log.h"

#include <shlwapi.h>
#include <stdlib.h>
#include <string.h>
#include <windows.h>

static char logDirectory[MAX_PATH];
static char logPath[MAX_PATH];

char *LogFilePath(const char *fileName)
{
    // Computed once: later calls return the first answer whatever name they pass.
    if (logPath[0])
        return logPath;

    const char *profile = getenv("ALLUSERSPROFILE");
    if (profile) {
        FormatText(logDirectory, sizeof logDirectory, "%s\\Tessarine\\var\\log", profile);
    } else {
        OSVERSIONINFOA version;
        memset(&version, 0, sizeof version);
        version.dwOSVersionInfoSize = sizeof version;
        GetVersionExA(&version);
        CopyText(logDirectory, sizeof logDirectory,
                 version.dwMajorVersion == 5 ? "C:\\Documents And Settings\\All Users\\Tessarine\\var\\log"
                                             : "C:\\ProgramData\\Tessarine\\var\\log");
    }

    if (PathFileExistsA(logDirectory)) {
        CopyText(logPath, sizeof logPath, logDirectory);
        AppendText(logPath, sizeof logPath, "\\");
        AppendText(logPath, sizeof logPath, fileName);
    } else {
        // Next to the directory above the program: ..\var\log\<name>. Quiet,
        // because no log file is named yet and a trace line would settle it.
        char relative[MAX_PATH];
        CopyText(relative, sizeof relative, "..\\var\\log\\");
        AppendText(relative, sizeof relative, fileName);
        ExpandRelativePath(logPath, sizeof logPath, relative, 1);
    }
    return logPath;
}

// A path is absolute exactly when its second character is a colon.
static int IsAbsolutePath(const char *path)
{
    return path != NULL && path[0] != 0 && path[1] == ':';
}

int ExpandRelativePath(char *out, int size, const char *path, int quiet)
{
    int result = 0;
    char *work = NULL;
    char canonical[MAX_PATH];

    if (!quiet)
        LogEnter("ExpandRelativePath");
    if (out == NULL || size <= 0) {
        result = ERROR_INVALID_PARAMETER;
        goto failed;
    }

    work = (char *)calloc((size_t)size, 1);
    if (work == NULL) {
        result = LastErrorOr();
        LogReport("ERROR: Out of memory.\n");
        goto failed;
    }

    if (IsAbsolutePath(path)) {
        if (!quiet)
            LogWrite("Path [%s] is already absolute.\n", path);
        CopyText(work, (size_t)size, path);
    } else {
        if (!quiet)
            LogWrite("Expanding path [%s]...\n", path ? path : "(null)");
        if (GetModuleFileNameA(NULL, work, (DWORD)size) == 0) {
            result = LastErrorOr();
            goto failed;
        }
        work[size - 1] = 0;
        // Cut at the last slash of either kind: the program's directory, no trailing slash.
        size_t cut = 0;
        for (size_t i = 0; i < (size_t)size && work[i]; i++)
            if (work[i] == '\\' || work[i] == '/')
                cut = i;
        work[cut] = 0;
        if (path) {
            AppendText(work, (size_t)size, "\\");
            AppendText(work, (size_t)size, path);
        }
    }

    for (char *p = work; *p; p++)
        if (*p == '/')
            *p = '\\';

    // PathCanonicalizeA needs MAX_PATH characters of output; the caller's
    // buffer may be smaller, so the result is bounded into it afterwards.
    memset(canonical, 0, sizeof canonical);
    PathCanonicalizeA(canonical, work);
    CopyText(out, (size_t)size, canonical);

    if (!quiet)
        LogWrite("Path [%s] expanded to [%s].\n", work, out);
    free(work);
    if (!quiet)
        LogLeave("ExpandRelativePath");
    return 0;

failed:
    free(work);
    LogReport("ERROR: Cannot retrieve path of binary.\nError code is : %d.\n", result);
    return result;
}
