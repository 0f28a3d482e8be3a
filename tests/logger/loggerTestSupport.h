// Helpers of the logger tests: configuration files, the log directory's contents and the line format.
#pragma once

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utime.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "msplatform/eventLogger.h"
#include "support/support.h"

namespace loggertest {

struct Settings {
    int mode = 1, verbosity = 3, filesCount = 100, fileSize = 100000;
    std::string path;
};

inline std::string ConfigText(const std::string& section, const Settings& s) {
    return "[" + section + "]\r\nlogMode=" + std::to_string(s.mode) +
           "\r\nlogVerbosity=" + std::to_string(s.verbosity) +
           "\r\nlogFilesCount=" + std::to_string(s.filesCount) +
           "\r\nlogFileSize=" + std::to_string(s.fileSize) + "\r\nlogFilePath=\"" + s.path + "\"\r\n\r\n";
}

// The plain files in `dir` whose names begin with "serverLog.", sorted.
inline std::vector<std::string> LogFiles(const std::string& dir) {
    std::vector<std::string> names;
    DIR* d = ::opendir(dir.c_str());
    // readdir64: on a 32-bit target the plain call fails on large directory offsets.
    while (dirent64* e = d ? ::readdir64(d) : nullptr) {
        struct stat64 st;
        if (std::strncmp(e->d_name, "serverLog.", 10) == 0 &&
            ::stat64((dir + "/" + e->d_name).c_str(), &st) == 0 && S_ISREG(st.st_mode))
            names.push_back(e->d_name);
    }
    if (d) ::closedir(d);
    std::sort(names.begin(), names.end());
    return names;
}

// The messages of a log file; a failure for a line without its newline or the stamp's shape
// "MM-DD-YYYY : HH:MM:SS.mmm\t : ".
inline std::vector<std::string> Messages(const std::string& path) {
    static const char kShape[] = "dd-dd-dddd : dd:dd:dd.ddd\t : ";
    const size_t n = sizeof kShape - 1;
    const std::string text = msptest::ReadFile(path);
    std::vector<std::string> messages;
    for (size_t start = 0, end = 0; start < text.size() && end != std::string::npos; start = end + 1) {
        end = text.find('\n', start);
        EXPECT_NE(std::string::npos, end) << path << " ends inside a line";
        std::string line = text.substr(start, end - start);
        bool shaped = line.size() >= n;
        for (size_t i = 0; shaped && i < n; ++i)
            shaped = kShape[i] == 'd' ? (line[i] >= '0' && line[i] <= '9') : line[i] == kShape[i];
        EXPECT_TRUE(shaped) << path << ": " << line;
        messages.push_back(shaped ? line.substr(n) : line);
    }
    return messages;
}

inline void SetModifiedTime(const std::string& path, time_t when) {
    struct utimbuf times = {when, when};
    ::utime(path.c_str(), &times);
}

// Strings and nodes on the logger's heap (it frees them with free).
inline char* HeapText(const std::string& text) {
    return ::strdup(text.c_str());
}

inline fileInfo* MakeNode(const std::string& name, uint32_t time) {
    fileInfo* node = static_cast<fileInfo*>(std::malloc(sizeof(fileInfo)));
    *node = fileInfo{HeapText(name), 0, time, nullptr};
    return node;
}

inline std::vector<std::string> ListNames(const ZvEventLogger& logger) {
    std::vector<std::string> names;
    for (fileInfo* n = logger.fileList; n; n = n->next) names.push_back(n->name);
    return names;
}

}  // namespace loggertest
