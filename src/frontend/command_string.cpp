// The text that carries a command to the daemon: each word in double quotes
// followed by a blank, then the caller's user name and owner process.
#include <windows.h>

#include <string.h>

#include "frontend/frontend.h"
#include "support/log.h"

// Words are not escaped: the daemon splits on double quotes, so a quote
// inside a word cuts it there.
static int AppendQuoted(char *out, size_t size, const char *word)
{
    int cut = AppendText(out, size, "\"");
    cut |= AppendText(out, size, word);
    cut |= AppendText(out, size, "\" ");
    return cut;
}

int BuildCommandString(char *out, size_t size, int argc, char **argv, struct CommandOptions *options)
{
    char parentPidText[64];
    DWORD userNameSize = TARGET_USER_SIZE;
    int cut = 0;

    if (out == NULL || size == 0)
        return 1;
    memset(parentPidText, 0, sizeof parentPidText);
    memset(out, 0, size);

    // The worker that runs the command is an administrator: with
    // --daemonmodeforce it would forward the command once more.
    for (int i = 1; i < argc; i++) {
        if (argv[i] == NULL || strcmp(argv[i], "--daemonmodeforce") == 0)
            continue;
        cut |= AppendQuoted(out, size, argv[i]);
    }

    // The caller's own name, whatever --targetuser said.
    GetUserNameA(options->targetUser, &userNameSize);
    options->targetUser[TARGET_USER_SIZE - 1] = 0;
    cut |= AppendText(out, size, "\"--targetuser\" ");
    cut |= AppendQuoted(out, size, options->targetUser);

    FormatText(parentPidText, sizeof parentPidText, "%d", options->parentPid);
    cut |= AppendText(out, size, "\"--parentpid\" ");
    cut |= AppendQuoted(out, size, parentPidText);
    return cut;
}
