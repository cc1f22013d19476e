// The command front end: program entry, the run-or-forward decision and the
// dispatch of one command to its handler.
#pragma once

#include <stddef.h>

#include "frontend/options.h"

enum { COMMAND_STRING_SIZE = 32768, REPLY_BUFFER_SIZE = 32768 };

// The body of main: selects service mode or command mode.
int EntryMain(int argc, char **argv);

// Parses argv into the global record, checks what the command needs, calls
// its handler and returns the handler's result (0, -1 or an error code).
int ProcessCommand(int argc, char **argv);

// Builds the quoted argument string that is forwarded to the daemon: every
// word but "--daemonmodeforce", then the --targetuser and --parentpid pairs.
// Fills options->targetUser with the caller's name. Returns 1 if cut.
int BuildCommandString(char *out, size_t size, int argc, char **argv, struct CommandOptions *options);
