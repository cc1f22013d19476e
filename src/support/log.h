// Diagnostic log, reporting helpers and program paths.
#pragma once

#include <stddef.h>
#include <stdio.h>

// printf-style checking of format strings, for GCC and clang alike.
#if defined(__clang__)
#define TZ_PRINTF(format_index, first_arg) __attribute__((format(printf, format_index, first_arg)))
#else
#define TZ_PRINTF(format_index, first_arg) __attribute__((format(gnu_printf, format_index, first_arg)))
#endif

// Size limits of one log record and of its message part.
enum { LOG_RECORD_LIMIT = 4096, LOG_TIME_LIMIT = 64 };

// Formats one record "[pid][tid] hh:mm:ss mmm message" and appends it to the
// log with a single write. Returns what _write returned.
int LogWrite(const char *format, ...) TZ_PRINTF(1, 2);

// Names the log file. Takes effect only before the first LogWrite.
char *LogSetFile(const char *path);

// Full path of a log file, computed once per run and cached.
char *LogFilePath(const char *fileName);

// Resolves a path relative to the program's own directory (null path: the
// directory itself) into `out`. 0 on success, else the platform's error or -1.
int ExpandRelativePath(char *out, int size, const char *path, int quiet);

// The streams that output for the user goes to: the process's standard output
// and error, unless this thread has pointed them elsewhere (a command the
// daemon runs on its own thread answers into its client's pipe).
FILE *OutputStream(void);
FILE *ErrorStream(void);
void SetThreadStreams(FILE *output, FILE *error);

// Reports a message to the user: the same words on standard error and in the log.
void LogReport(const char *format, ...) TZ_PRINTF(1, 2);

// Writes a message to standard error only.
void PrintError(const char *format, ...) TZ_PRINTF(1, 2);

// Entry and leaving trace lines, "-> name()..." and "<- name()...".
void LogEnter(const char *name);
void LogLeave(const char *name);

// The thread's last platform error, or -1 when it is 0. Call it first thing
// after the failing call.
int LastErrorOr(void);

// Bounded text: always terminated, never past `size`. Return 1 when the text
// was cut, 0 when it fit.
int FormatText(char *buffer, size_t size, const char *format, ...) TZ_PRINTF(3, 4);
int AppendText(char *buffer, size_t size, const char *text);
int CopyText(char *buffer, size_t size, const char *text);
