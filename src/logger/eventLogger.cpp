#include "msplatform/eventLogger.h"

#include <errno.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <wchar.h>

#include <algorithm>
#include <new>

#include "logger/internal.h"
#include "msplatform/ZvCfgCtrlMgr.h"
#include "msplatform/dirWalk.h"
#include "msplatform/eventLogger_specific.h"
#include "msplatform/mutex.h"
#include "os/mutexHold.h"
#include "msplatform/osSpecificFunctions.h"
#include "msplatform/unicode.h"

void* (*eventLoggerAlloc)(size_t size) = malloc;
time_t (*eventLoggerTime)(time_t* seconds) = time;
int (*eventLoggerMilliseconds)() = OS_GetTimeWithMilliSeconds;

int logVerbosity = 0;
int errVerbosity = 0;
void (*eventLogOut)(char const* format, ...) = eventLoggerDoOut;
void (*errorLogOut)(char const* format, ...) = eventLoggerDoOut;

// Built right after the configuration manager (1001) and before the language reader (1003).
__attribute__((init_priority(1002))) ZvEventLogger eventLogger;

namespace {

constexpr size_t kStampBytes = 26;      // "MM-DD-YYYY : HH:MM:SS.mmm" and its terminator
constexpr size_t kScanPathUnits = 256;  // the widened search path "<logFilePath>/" with its terminator
constexpr size_t kMessageBytes = 1024;  // eventLoggerDoOut's formatting buffer
constexpr size_t kNameFieldBytes = 64;  // room for the date and time fields of a file name, whatever the year
constexpr int kNameAttempts = 50;       // names tried by one createnewlogfile
constexpr int kNameRetryMicroseconds = 1000;
// The longest log directory the scan takes: it, a slash and the terminator fill the widened search path.
constexpr size_t kMaxLogPathBytes = kScanPathUnits - 2;

constexpr char kSeparator[] = "\t : ";
constexpr size_t kSeparatorBytes = sizeof kSeparator - 1;
constexpr size_t kSmallLineBytes = kStampBytes + kSeparatorBytes + kMessageBytes + 1;

// The calendar year: wider than tm_year, which a clock far ahead fills up to INT_MAX.
long long Year(const struct tm& parts) {
    return static_cast<long long>(parts.tm_year) + 1900;
}

char* TwoDigits(char* out, int value) {
    out[0] = static_cast<char>('0' + value / 10);
    out[1] = static_cast<char>('0' + value % 10);
    return out + 2;
}

// The stamp "MM-DD-YYYY : HH:MM:SS.mmm" written digit by digit, as printf writes it for fields in their
// usual ranges (printf costs over a thousand instructions a line). -1 for any field outside them, which the
// caller then hands to snprintf.
int WriteStamp(char* out, const struct tm& parts, int milliseconds) {
    // tm_year is tested before 1900 is added: a clock far ahead fills it up to INT_MAX.
    if (parts.tm_year < -1900 || parts.tm_year > 9999 - 1900 || parts.tm_mon < 0 || parts.tm_mon > 98 ||
        parts.tm_mday < 0 || parts.tm_mday > 99 || parts.tm_hour < 0 || parts.tm_hour > 99 ||
        parts.tm_min < 0 || parts.tm_min > 99 || parts.tm_sec < 0 || parts.tm_sec > 99 || milliseconds < 0 ||
        milliseconds > 999)
        return -1;
    char* p = TwoDigits(out, parts.tm_mon + 1);
    *p++ = '-';
    p = TwoDigits(p, parts.tm_mday);
    *p++ = '-';
    const int year = parts.tm_year + 1900;
    p = TwoDigits(TwoDigits(p, year / 100), year % 100);
    memcpy(p, " : ", 3);
    p = TwoDigits(p + 3, parts.tm_hour);
    *p++ = ':';
    p = TwoDigits(p, parts.tm_min);
    *p++ = ':';
    p = TwoDigits(p, parts.tm_sec);
    *p++ = '.';
    *p++ = static_cast<char>('0' + milliseconds / 100);
    p = TwoDigits(p, milliseconds % 100);
    *p = '\0';
    return static_cast<int>(p - out);
}

// A copy of `text` (of `length` bytes) on the logger's heap, or null.
char* CopyText(const char* text, size_t length) {
    char* copy = static_cast<char*>(eventLoggerAlloc(length + 1));
    if (!copy) return nullptr;
    memcpy(copy, text, length);
    copy[length] = '\0';
    return copy;
}

// A store that outlives the object: the compiler treats stores of a destructor into its own object as dead
// and may drop them, but a late log call (from a static destructor that runs after ours) relies on finding
// logFile null.
template <typename T>
void StoreForAfterDeath(T& field, T value) {
    *static_cast<volatile T*>(&field) = value;
}

void FreeNode(fileInfo* node) {
    if (!node) return;
    free(node->name);
    free(node);
}

// Writes the name of a log file made at `parts` into `name`, of `capacity` bytes, with a millisecond reading
// of its own. Its length, or -1 if it does not fit.
int WriteFileName(char* name, size_t capacity, const char* module, const struct tm& parts) {
    char date[kNameFieldBytes / 2];
    char clock[kNameFieldBytes / 2];
    snprintf(date, sizeof date, "%02d-%02d-%04lld", parts.tm_mon + 1, parts.tm_mday, Year(parts));
    snprintf(clock, sizeof clock, "%02d%02d%02d.%03d", parts.tm_hour, parts.tm_min, parts.tm_sec,
             eventLoggerMilliseconds());
    const int length = snprintf(name, capacity, EventLogger_FileName, module, date, clock);
    return length >= 0 && static_cast<size_t>(length) < capacity ? length : -1;
}

// Creates the log file `path`, whose last element `name` (of `capacity` bytes) is written here from the clock
// reading `now` and `parts`. Two rotations within one millisecond reading would give the same name, and
// opening it again with "w" would empty the file the first one made, maybe another process's. The file is
// created exclusively, and a name already taken waits for the next millisecond, with a new reading. The open
// file, or null.
FILE* CreateFreshFile(char* path, char* name, size_t capacity, const char* module, time_t& now,
                      struct tm& parts) {
    for (int attempt = 1;; ++attempt) {
        if (WriteFileName(name, capacity, module, parts) < 0) return nullptr;
        FILE* file = fopen64(path, "ax");
        if (file || errno != EEXIST || attempt >= kNameAttempts) return file;
        OS_Sleep(kNameRetryMicroseconds);
        now = eventLoggerTime(nullptr);
        if (!localtime_r(&now, &parts)) return nullptr;
    }
}

// A node for the file `name`, made by a rotation at `now`; null without memory.
fileInfo* NewNode(const char* name, time_t now) {
    fileInfo* node = static_cast<fileInfo*>(eventLoggerAlloc(sizeof(fileInfo)));
    if (!node) return nullptr;
    node->name = CopyText(name, strlen(name));
    if (!node->name) {
        free(node);
        return nullptr;
    }
    node->size = 0;
    node->time = static_cast<uint32_t>(now);
    node->next = nullptr;
    return node;
}

// Deletes the file `name` of the log directory. A path that does not fit is not unlinked: a cut path could
// name some other file.
void UnlinkLogFile(const char* directory, const char* name) {
    if (!directory) return;
    char path[PATH_MAX];
    int length = snprintf(path, sizeof path, "%s/%s", directory, name);
    if (length > 0 && static_cast<size_t>(length) < sizeof path) OS_Unlink(path);
}

// Deletes the `surplus` oldest nodes of `list` (all of them if it is shorter) with their files, the same and
// in the same order as taking the oldest one at a time would: smallest time first, on a tie the one nearer
// the head. The others keep their order. The number deleted, or -1 without memory for the sort.
long long DeleteOldest(fileInfo*& list, long long surplus, const char* directory) {
    struct Entry {
        fileInfo* node;
        size_t position;  // in the list
    };
    size_t length = 0;
    for (fileInfo* node = list; node; node = node->next) ++length;
    if (length == 0) return 0;
    if (length > SIZE_MAX / sizeof(Entry)) return -1;
    Entry* entries = static_cast<Entry*>(eventLoggerAlloc(length * sizeof(Entry)));
    if (!entries) return -1;
    size_t position = 0;
    for (fileInfo* node = list; node; node = node->next, ++position)
        entries[position] = Entry{node, position};
    const size_t count =
        static_cast<unsigned long long>(surplus) < length ? static_cast<size_t>(surplus) : length;
    std::partial_sort(entries, entries + count, entries + length, [](const Entry& a, const Entry& b) {
        return a.node->time != b.node->time ? a.node->time < b.node->time : a.position < b.position;
    });
    for (size_t i = 0; i < count; ++i) UnlinkLogFile(directory, entries[i].node->name);
    // The chosen nodes leave the list in one walk, in list order.
    std::sort(entries, entries + count,
              [](const Entry& a, const Entry& b) { return a.position < b.position; });
    fileInfo** link = &list;
    for (size_t at = 0, next = 0; next < count; ++at) {
        fileInfo* node = *link;
        if (at == entries[next].position) {
            *link = node->next;
            FreeNode(node);
            ++next;
        } else {
            link = &node->next;
        }
    }
    free(entries);
    return static_cast<long long>(count);
}

}  // namespace

ZvEventLogger::ZvEventLogger()
    : logMode(0),
      logFilesCount(0),
      logFileSize(0),
      currentFileBytes(0),
      currentFilesCount(0),
      logFilePath(nullptr),
      moduleName(nullptr),
      logFile(nullptr),
      fileList(nullptr),
      mutex(nullptr) {
    logVerbosity = 0;
    eventLogOut = eventLoggerDoOut;
    errorLogOut = eventLoggerDoOut;
    // No exception may leave a static constructor: without memory the logger works without its lock.
    mutex = new (std::nothrow) Mutex("eventLogger");
}

ZvEventLogger::~ZvEventLogger() {
    {
        MutexHold hold(mutex);
        free(logFilePath);
        free(moduleName);
        if (logFile) fclose(logFile);
        clearnodes();
        StoreForAfterDeath<FILE*>(logFile, nullptr);
        StoreForAfterDeath<char*>(logFilePath, nullptr);
        StoreForAfterDeath<char*>(moduleName, nullptr);
        StoreForAfterDeath<fileInfo*>(fileList, nullptr);
    }
    delete mutex;
    StoreForAfterDeath<Mutex*>(mutex, nullptr);
}

int ZvEventLogger::loadConfigValues(char* cfgPath, char* section) {
    char keyMode[] = "logMode";
    char keyVerbosity[] = "logVerbosity";
    char keyFilesCount[] = "logFilesCount";
    char keyFileSize[] = "logFileSize";
    char keyFilePath[] = "logFilePath";
    int initResult = 0;
    int result = 0;
    try {
        if (!cfgPath) throw "Configuration File Path empty !!!";
        initResult = initializeConfig(cfgPath);
        if (initResult != CFG_OK && initResult != CFG_ALREADY_INITIALIZED)
            throw "Initialization of config module failed !!!";
        if (getConfigInt(section, keyMode, logMode) != CFG_OK)
            throw "GetConfigInt failed while getting logger mode !!!";
        if (getConfigInt(section, keyVerbosity, logVerbosity) != CFG_OK)
            throw "GetConfigInt failed while getting logger verbosity level !!!";
        if (getConfigInt(section, keyFilesCount, logFilesCount) != CFG_OK)
            throw "GetConfigInt failed while getting logger filescount !!!";
        if (getConfigInt(section, keyFileSize, logFileSize) != CFG_OK)
            throw "GetConfigInt failed while getting logger filesize !!!";
        int length = 0;
        if (getConfigStringLen(section, keyFilePath, length) != CFG_OK || length < 0)
            throw "GetConfigStringLen failed while getting logger filepath !!!";
        char* path = static_cast<char*>(eventLoggerAlloc(static_cast<size_t>(length) + 1));
        if (!path) throw "No memory for the logger filepath !!!";
        memset(path, 0, static_cast<size_t>(length) + 1);
        // A second start replaces the first one's strings; they are released, not lost.
        free(logFilePath);
        logFilePath = path;
        if (getConfigString(section, keyFilePath, reinterpret_cast<unsigned char*>(path), length) != CFG_OK)
            throw "GetConfigString failed while getting logger filepath !!!";
        char* name = CopyText(section, strlen(section));
        if (!name) throw "Copying the module name failed !!!";
        free(moduleName);
        moduleName = name;
        result = 1;
    } catch (const char*) {
        result = 0;
    } catch (...) {
        // Nothing else is thrown in here; should anything be, it stops here: no exception leaves the library.
        result = 0;
    }
    if (initResult == CFG_OK) deinitializeConfig();
    return result;
}

int ZvEventLogger::initializeLogger(char* cfgPath, char* section) {
    MutexHold hold(mutex);
    int result = 0;
    try {
        if (loadConfigValues(cfgPath, section) == 0) throw "Loading Configuration values Failed !!!";
        // A directory the scan cannot take would never be pruned: every start and rotation would add a file
        // for good. Such a start makes nothing there.
        const bool scannable = strlen(logFilePath) <= kMaxLogPathBytes;
        if (scannable && OS_Access(logFilePath, 0) != 0 && OS_MakeDir(logFilePath) != 0) {
            free(logFilePath);
            logFilePath = nullptr;
        }
        if (!scannable || !logFilePath) {
            // With no directory there is neither a file nor a scan: the logger stays silent and says so.
            if (logFile) fclose(logFile);
            logFile = nullptr;
            throw "Log directory could not be made or scanned !!!";
        }
        if (logMode != 0) {
            // On a second start the list is not empty and a node comes back; the scan lists the file anyway.
            FreeNode(createnewlogfile());
        }
        currentFilesCount = findlogfilesinfo();
        if (currentFilesCount > logFilesCount) deleteoldlogfiles();
        result = 1;
    } catch (const char*) {
        result = 0;
    }
    return result;
}

int ZvEventLogger::currentdatetime(char* buffer) {
    if (!buffer) return 0;
    time_t now = eventLoggerTime(nullptr);
    // The lines of one second share one conversion (localtime costs some 450 instructions), kept per
    // thread so that no lock guards it.
    thread_local struct {
        bool valid;
        time_t second;
        struct tm parts;
    } last = {};
    if (!last.valid || last.second != now) {
        last.valid = localtime_r(&now, &last.parts) != nullptr;
        last.second = now;
    }
    if (!last.valid) return 0;
    const struct tm& parts = last.parts;
    int milliseconds = eventLoggerMilliseconds();
    int length = WriteStamp(buffer, parts, milliseconds);
    if (length >= 0) return length;
    // Bounded by the 26 bytes the caller provides: a year past 9999 is cut, not written beyond.
    length = snprintf(buffer, kStampBytes, "%02d-%02d-%04lld : %02d:%02d:%02d.%03d", parts.tm_mon + 1,
                      parts.tm_mday, Year(parts), parts.tm_hour, parts.tm_min, parts.tm_sec, milliseconds);
    if (length < 0) {
        buffer[0] = '\0';
        return 0;
    }
    return length < static_cast<int>(kStampBytes) ? length : static_cast<int>(kStampBytes) - 1;
}

void ZvEventLogger::logEvent(char* message, int length) {
    if (logMode == 0 || logFile == nullptr) return;
    MutexHold hold(mutex);
    // A rotation that failed while this thread waited leaves no file: the line is dropped.
    if (!logFile || !message) return;
    if (length < 0) length = 0;
    char stamp[50];
    memset(stamp, 0, sizeof stamp);
    const size_t stampLength = static_cast<size_t>(currentdatetime(stamp));
    // The line is the stamp, the separator, the message up to its length or its first zero byte, a line end.
    const size_t messageLength = strnlen(message, static_cast<size_t>(length));
    const size_t lineLength = stampLength + kSeparatorBytes + messageLength + 1;
    // Lines from eventLoggerDoOut always fit the stack; only a long one handed to logEvent takes the heap.
    char small[kSmallLineBytes];
    char* line = lineLength <= sizeof small ? small : static_cast<char*>(eventLoggerAlloc(lineLength));
    if (!line) return;
    memcpy(line, stamp, stampLength);
    memcpy(line + stampLength, kSeparator, kSeparatorBytes);
    memcpy(line + stampLength + kSeparatorBytes, message, messageLength);
    line[lineLength - 1] = '\n';
    // The file is open for appending, so every write lands at its end without a seek (which cost an fstat and
    // an lseek per line).
    fwrite(line, 1, lineLength, logFile);
    fflush(logFile);
    if (line != small) free(line);
    const int written = lineLength > static_cast<size_t>(INT_MAX) ? INT_MAX : static_cast<int>(lineLength);
    currentFileBytes = currentFileBytes > INT_MAX - written ? INT_MAX : currentFileBytes + written;
    if (currentFileBytes >= logFileSize) {
        handlelogfiles();
        currentFileBytes = 0;
    }
}

fileInfo* ZvEventLogger::createnewlogfile() {
    time_t now = eventLoggerTime(nullptr);
    struct tm parts;
    if (!localtime_r(&now, &parts)) return nullptr;
    if (!logFilePath || !moduleName) return nullptr;

    const size_t directoryLength = strlen(logFilePath);
    const size_t nameCapacity = strlen(moduleName) + kNameFieldBytes;
    char* path = static_cast<char*>(eventLoggerAlloc(directoryLength + 1 + nameCapacity));
    if (!path) return nullptr;
    memcpy(path, logFilePath, directoryLength);
    path[directoryLength] = '/';
    char* name = path + directoryLength + 1;

    // The new file is opened before the old one is closed, so that a thread that looks at logFile without the
    // lock never sees it null in the middle of a rotation that succeeds, and drops no line.
    FILE* fresh = CreateFreshFile(path, name, nameCapacity, moduleName, now, parts);
    if (logFile) fclose(logFile);
    logFile = fresh;
    // Without a node (an empty list, no memory) the file stays open and takes lines, outside the list.
    fileInfo* node = logFile && fileList ? NewNode(name, now) : nullptr;
    free(path);
    return node;
}

int ZvEventLogger::findlogfilesinfo() {
    char* searchPath = nullptr;
    void* handle = nullptr;
    int count = 0;
    try {
        if (!logFilePath) throw "No log directory";
        size_t length = strlen(logFilePath);
        if (length > kMaxLogPathBytes) throw "Log directory path too long";
        searchPath = static_cast<char*>(eventLoggerAlloc(length + 5));
        if (!searchPath) throw "No memory for the search path";
        OS_CorrectURLForDirSearch(logFilePath, &searchPath);
        wchar_t widePath[kScanPathUnits];
        Convert_CHAR_UCS(searchPath, widePath);
        FileFindData data;
        memset(&data, 0, sizeof data);
        handle = Zv_FindFirst(widePath, &data);
        if (!handle) throw "Given directory not found";
        // Nodes go behind the last one, found once: a walk to the end per file made a full directory cost
        // the square of its files.
        fileInfo** tail = &fileList;
        while (*tail) tail = &(*tail)->next;
        do {
            if (data.isDirectory != 1 && wcsncmp(data.fileName, L"serverLog.", 10) == 0) {
                size_t units = wcslen(data.fileName);
                fileInfo* node = static_cast<fileInfo*>(eventLoggerAlloc(sizeof(fileInfo)));
                char* name = static_cast<char*>(eventLoggerAlloc(units * 3 + 1));
                if (node && name) {
                    Convert_UCS_UTF8(data.fileName, reinterpret_cast<unsigned char*>(name));
                    node->name = name;
                    node->size = data.fileSize;
                    node->time = data.modifiedTime;
                    node->next = nullptr;
                    *tail = node;
                    tail = &node->next;
                    ++count;
                } else {
                    // Without memory the file is left out of the list, as one of another directory would be.
                    free(node);
                    free(name);
                }
            }
        } while (Zv_FindNext(handle, widePath, &data) != -1);
        Zv_FindClose(handle);
        free(searchPath);
        return count;
    } catch (...) {
        free(searchPath);
        if (handle) Zv_FindClose(handle);
        clearnodes();
        return 0;
    }
}

void ZvEventLogger::handlelogfiles() {
    // createnewlogfile closes the full file when it replaces it; when it gives up before that, the full file
    // is closed here all the same.
    FILE* full = logFile;
    fileInfo* node = createnewlogfile();
    if (full && logFile == full) {
        fclose(full);
        logFile = nullptr;
    }
    if (node) {
        addnode(node);
        ++currentFilesCount;
    }
    if (currentFilesCount > logFilesCount) deleteoldlogfiles();
}

void ZvEventLogger::deleteoldlogfiles() {
    // A start in a directory full of old files has many to delete: they are chosen by one sort. A rotation
    // has one, found by one walk.
    const long long surplus = static_cast<long long>(currentFilesCount) - logFilesCount;
    if (surplus > 1) {
        const long long deleted = DeleteOldest(fileList, surplus, logFilePath);
        if (deleted >= 0) {
            currentFilesCount = static_cast<int>(currentFilesCount - deleted);
            return;
        }
    }
    while (currentFilesCount > logFilesCount) {
        fileInfo* oldest = findoldnode();
        if (!oldest) return;
        UnlinkLogFile(logFilePath, oldest->name);
        deletenode(oldest);
        --currentFilesCount;
    }
}

fileInfo* ZvEventLogger::findoldnode() {
    fileInfo* oldest = fileList;
    for (fileInfo* node = fileList; node; node = node->next) {
        if (node->time < oldest->time) oldest = node;
    }
    return oldest;
}

fileInfo* ZvEventLogger::findnewnode() {
    fileInfo* newest = fileList;
    for (fileInfo* node = fileList; node; node = node->next) {
        if (node->time > newest->time) newest = node;
    }
    return newest;
}

void ZvEventLogger::addnode(fileInfo* node) {
    if (!node) return;
    node->next = nullptr;
    fileInfo** link = &fileList;
    while (*link) link = &(*link)->next;
    *link = node;
}

void ZvEventLogger::deletenode(fileInfo* node) {
    for (fileInfo** link = &fileList; *link; link = &(*link)->next) {
        if (*link == node) {
            *link = node->next;
            FreeNode(node);
            return;
        }
    }
}

void ZvEventLogger::clearnodes() {
    fileInfo* node = fileList;
    while (node) {
        fileInfo* next = node->next;
        FreeNode(node);
        node = next;
    }
    fileList = nullptr;
}

void eventLoggerDoOut(char const* format, ...) {
    if (!format) return;
    char message[kMessageBytes];
    va_list arguments;
    va_start(arguments, format);
    int length = vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);
    if (length <= 0) return;
    // A longer message keeps its first 1023 bytes.
    if (static_cast<size_t>(length) >= sizeof message) length = static_cast<int>(sizeof message) - 1;
    eventLogger.logEvent(message, length);
}
