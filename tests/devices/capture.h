// In-process capture for the service control tests: the log of this test
// program goes to a file of its own, and standard error can be caught.
#pragma once

#include <fcntl.h>
#include <io.h>
#include <stdio.h>
#include <sys/stat.h>

#include <string>

#include "harness.h"
#include "support/log.h"

// The file the log of this program writes to; named before the first record.
inline std::string TestLogPath()
{
    static std::string path = [] {
        std::string dir = MakeTempDir("svclog");
        std::string file = dir + "\\test.log";
        LogSetFile(file.c_str());
        return file;
    }();
    return path;
}

// The log as text, without the carriage returns of its text mode.
inline std::string LogText()
{
    std::string text = ReadFileText(TestLogPath());
    std::string plain;
    for (char c : text)
        if (c != '\r')
            plain.push_back(c);
    return plain;
}

// What the log gained since `mark` (a length of LogText()).
inline std::string LogSince(size_t mark)
{
    std::string text = LogText();
    return mark < text.size() ? text.substr(mark) : std::string();
}

// Catches what is written to standard error between construction and Take().
struct StderrCapture {
    int saved = -1;
    std::string path;
    StderrCapture()
    {
        static int counter = 0;
        path = TestLogPath() + ".err" + std::to_string(counter++);
        fflush(stderr);
        int fd = _open(path.c_str(), _O_CREAT | _O_TRUNC | _O_WRONLY | _O_BINARY, _S_IREAD | _S_IWRITE);
        saved = _dup(2);
        _dup2(fd, 2);
        _close(fd);
    }
    std::string Take()
    {
        if (saved >= 0) {
            fflush(stderr);
            _dup2(saved, 2);
            _close(saved);
            saved = -1;
        }
        std::string text = ReadFileText(path);
        std::string plain;
        for (char c : text)
            if (c != '\r')
                plain.push_back(c);
        return plain;
    }
    ~StderrCapture() { Take(); }
};
