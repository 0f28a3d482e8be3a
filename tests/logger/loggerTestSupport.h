// Helpers of the logger tests: configuration files, the log directory's contents and the line format.
#pragma once

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>
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
    int mode = 1;
    int verbosity = 3;
    int filesCount = 100;
    int fileSize = 100000;
    std::string path;
};

// A configuration file holding one section with the logger's five keys.
inline std::string ConfigText(const std::string& section, const Settings& s) {
    return "[" + section + "]\r\nlogMode=" + std::to_string(s.mode) +
           "\r\nlogVerbosity=" + std::to_string(s.verbosity) +
           "\r\nlogFilesCount=" + std::to_string(s.filesCount) +
           "\r\nlogFileSize=" + std::to_string(s.fileSize) + "\r\nlogFilePath=\"" + s.path + "\"\r\n\r\n";
}

// Names of the plain files in `dir` that begin with "serverLog.", sorted.
inline std::vector<std::string> LogFiles(const std::string& dir) {
    std::vector<std::string> names;
    DIR* d = ::opendir(dir.c_str());
    if (!d) return names;
    // The 64-bit calls: on a 32-bit target the plain ones fail on large inode numbers.
    while (dirent64* e = ::readdir64(d)) {
        std::string name = e->d_name;
        struct stat64 st;
        if (name.compare(0, 10, "serverLog.") == 0 && ::stat64((dir + "/" + name).c_str(), &st) == 0 &&
            S_ISREG(st.st_mode))
            names.push_back(name);
    }
    ::closedir(d);
    std::sort(names.begin(), names.end());
    return names;
}

// The lines of a file's text, each without its newline; false if the text does not end in a newline.
inline bool SplitLines(const std::string& text, std::vector<std::string>* lines) {
    lines->clear();
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) return false;
        lines->push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return true;
}

// Splits a log line (without its newline) into the stamp's fields and the message. The stamp is
// "MM-DD-YYYY : HH:MM:SS.mmm", then a tab, a blank, a colon and a blank precede the message.
struct Line {
    int month, day, year, hour, minute, second, millisecond;
    std::string message;
};

inline bool ParseLine(const std::string& text, Line* line) {
    static const char kShape[] = "dd-dd-dddd : dd:dd:dd.ddd\t : ";
    const size_t n = sizeof kShape - 1;
    if (text.size() < n) return false;
    for (size_t i = 0; i < n; ++i) {
        if (kShape[i] == 'd' ? (text[i] < '0' || text[i] > '9') : text[i] != kShape[i]) return false;
    }
    auto num = [&](size_t at, size_t len) { return std::atoi(text.substr(at, len).c_str()); };
    *line =
        Line{num(0, 2), num(3, 2), num(6, 4), num(13, 2), num(16, 2), num(19, 2), num(22, 3), text.substr(n)};
    return line->month >= 1 && line->month <= 12 && line->day >= 1 && line->day <= 31 && line->hour < 24 &&
           line->minute < 60 && line->second < 61 && line->millisecond < 1000;
}

// Seconds since the epoch of a local date and time.
inline time_t LocalSeconds(int month, int day, int year, int hour, int minute, int second) {
    struct tm t;
    std::memset(&t, 0, sizeof t);
    t.tm_mon = month - 1;
    t.tm_mday = day;
    t.tm_year = year - 1900;
    t.tm_hour = hour;
    t.tm_min = minute;
    t.tm_sec = second;
    t.tm_isdst = -1;
    return ::mktime(&t);
}

inline void SetModifiedTime(const std::string& path, time_t when) {
    struct utimbuf times = {when, when};
    ::utime(path.c_str(), &times);
}

// A string on the logger's heap (it frees its strings and nodes with free).
inline char* HeapText(const std::string& text) {
    return ::strdup(text.c_str());
}

inline fileInfo* MakeNode(const std::string& name, uint32_t time) {
    fileInfo* node = static_cast<fileInfo*>(std::malloc(sizeof(fileInfo)));
    node->name = HeapText(name);
    node->size = 0;
    node->time = time;
    node->next = nullptr;
    return node;
}

inline std::vector<std::string> ListNames(const ZvEventLogger& logger) {
    std::vector<std::string> names;
    for (fileInfo* n = logger.fileList; n; n = n->next) names.push_back(n->name);
    return names;
}

inline std::vector<uint32_t> ListTimes(const ZvEventLogger& logger) {
    std::vector<uint32_t> times;
    for (fileInfo* n = logger.fileList; n; n = n->next) times.push_back(n->time);
    return times;
}

}  // namespace loggertest
