#include "msplat.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include <msplatform/ZvCfgCtrlMgr.h>
#include <msplatform/cfgCtrlMgr.h>

namespace msplat {

namespace {
FILE* results = stdout;  // until SeparateResults
}

bool SeparateResults() {
    fflush(stdout);
    // The copy stays out of the children that msplat starts; an editor is given it as its standard output.
    int copy = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    if (copy < 0) return errno == EBADF;  // no standard output: nothing to keep apart
    int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    FILE* stream = fdopen(copy, "w");
    if (!stream || null < 0 || dup2(null, STDOUT_FILENO) < 0) {
        if (stream)
            fclose(stream);
        else
            close(copy);
        if (null >= 0) close(null);
        return false;
    }
    close(null);
    results = stream;
    return true;
}

FILE* Out() {
    return results;
}

void Printf(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vfprintf(results, format, args);
    va_end(args);
}

void Puts(const char* text) {
    fputs(text, results);
    fputc('\n', results);
}

void Putc(int c) {
    fputc(c, results);
}

void Error(const char* format, ...) {
    va_list args;
    va_start(args, format);
    fputs("msplat: ", stderr);
    vfprintf(stderr, format, args);
    fputc('\n', stderr);
    va_end(args);
}

const char* CfgResultText(int result) {
    switch (result) {
        case CFG_OK:
            return "ok";
        case CFG_FILE_ERROR:
            return "the file could not be read or written";
        case CFG_BAD_ARGUMENT:
            return "bad argument";
        case CFG_NO_NODES:
            return "no sections to write";
        case CFG_KEY_EXISTS:
            return "key exists";
        case CFG_KEY_NOT_FOUND:
            return "no such key";
        case CFG_TYPE_MISMATCH:
            return "type mismatch";
        case CFG_SECTION_NOT_FOUND:
            return "no such section";
        case CFG_ALREADY_INITIALIZED:
            return "already initialized";
        case CFG_NOT_INITIALIZED:
            return "not initialized";
    }
    return "unknown result";
}

int CfgResultStatus(int result) {
    switch (result) {
        case CFG_OK:
            return kOk;
        case CFG_KEY_NOT_FOUND:
        case CFG_SECTION_NOT_FOUND:
            return kMissing;
    }
    return kFailure;
}

bool CheckCfgPath(const std::string& path) {
    constexpr size_t kMaxPath = 260;  // what the store keeps of a path
    if (path.empty() || path.size() > kMaxPath) {
        Error("%s: the path must have 1 to %zu bytes", path.c_str(), kMaxPath);
        return false;
    }
    return true;
}

int ReadConfigString(const std::string& file, const char* section, const char* key, std::string& value) {
    int length = 0;
    int result = getConfigStringLen(const_cast<char*>(section), const_cast<char*>(key), length);
    if (result == CFG_OK) {
        std::vector<unsigned char> buffer(static_cast<size_t>(length) + 1);
        result = getConfigString(const_cast<char*>(section), const_cast<char*>(key), buffer.data(), length);
        buffer[static_cast<size_t>(length)] = 0;
        value = reinterpret_cast<const char*>(buffer.data());
    }
    if (result != CFG_OK) {
        Error("%s: [%s] %s: %s", file.c_str(), section, key, CfgResultText(result));
        return CfgResultStatus(result);
    }
    return kOk;
}

bool ParseInt(const std::string& text, int& value) {
    if (text.empty() || text.size() != strlen(text.c_str())) return false;
    const char* start = text.c_str();
    // strtol would take leading blanks; a value on the command line has none.
    if (!(start[0] == '-' || start[0] == '+' || (start[0] >= '0' && start[0] <= '9'))) return false;
    char* end = nullptr;
    errno = 0;
    long parsed = strtol(start, &end, 10);
    if (errno != 0 || end == start || *end != '\0' || parsed < INT_MIN || parsed > INT_MAX) return false;
    value = static_cast<int>(parsed);
    return true;
}

int CheckRegularFile(const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        int error = errno;
        Error("%s: %s", path.c_str(), strerror(error));
        return error == ENOENT || error == ENOTDIR ? kMissing : kFailure;
    }
    if (!S_ISREG(st.st_mode)) {
        Error("%s: not a regular file", path.c_str());
        return kFailure;
    }
    return kOk;
}

}  // namespace msplat
