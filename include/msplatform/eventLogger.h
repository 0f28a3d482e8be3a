// The event logger: timestamped lines in a set of files in one directory, rotated by size and kept to a
// count.
//
// One static logger, `eventLogger`, serves each process. A process starts it once with the flat
// `initializeLogger` (ZvEventLogger.h), naming the configuration file and its own section; that section holds
// logMode, logVerbosity, logFilesCount, logFileSize and logFilePath, and its name is the module part of the
// file names "serverLog.<module>.<MM-DD-YYYY>.<HHMMSS.mmm>.txt". Lines then enter through `eventLogOut` or
// `errorLogOut`, printf-style, and read "MM-DD-YYYY : HH:MM:SS.mmm", a tab, " : ", the message and a newline.
//
// All work on the log set runs under the semaphore "eventLogger", shared by every process that loads the
// library; it is taken before the configuration's own lock. Calls before `initializeLogger`, or while the
// logger is silent (logMode 0, no file), write nothing and take no lock. Nothing here reports an error to the
// caller but `initializeLogger`'s result; failures inside are dropped.
#pragma once

#include <stdint.h>
#include <stdio.h>

#include "msplatform/export.h"

class Mutex;

// The format of a log file's name: module, date ("%02d-%02d-%04d": month, day, year) and time
// ("%02d%02d%02d.%03d": hour, minute, second, milliseconds).
constexpr char EventLogger_FileName[] = "serverLog.%s.%s.%s.txt";

// One log file of the set. Nodes and names are the logger's (malloc/free).
struct fileInfo {
    char* name;     // file name without its directory, UTF-8
    uint32_t size;  // size when found by the scan, 0 for a file made by a rotation; not read
    uint32_t time;  // age key: modification time when found, or the time the rotation made it
    fileInfo* next;
};

class MSP_EXPORT ZvEventLogger {
public:
    // Clears every field and makes the semaphore "eventLogger".
    ZvEventLogger();
    // Closes the current file, frees the list and the strings, and removes the semaphore for all processes.
    ~ZvEventLogger();
    ZvEventLogger(const ZvEventLogger&) = delete;
    ZvEventLogger& operator=(const ZvEventLogger&) = delete;

    // Reads the settings of `section` from the configuration file `cfgPath`, makes the log directory if its
    // last element is missing, starts a new file (when logMode is not 0), scans the directory for log files
    // and deletes the oldest beyond logFilesCount. 1 if the logger started; 0 if the settings could not be
    // read, the log directory could not be made, or logFilePath is longer than 254 bytes. The scan takes no
    // longer path, so its files would never be pruned: such a start makes neither the directory nor a file,
    // and the logger stays silent. (A path with bytes above 0x7F is accepted, but the scan widens it byte by
    // byte and finds nothing there: its files are not pruned either.)
    int initializeLogger(char* cfgPath, char* section);
    // Reads the five settings and copies the section's name. 1 or 0.
    int loadConfigValues(char* cfgPath, char* section);
    // Writes one line: the stamp, the separator and the first `length` bytes of `message` (up to its
    // terminator), then rotates if the file has reached logFileSize.
    void logEvent(char* message, int length);
    // Writes the stamp "MM-DD-YYYY : HH:MM:SS.mmm" into `buffer`, which takes at least 26 bytes and is never
    // written past them. The stamp's length, or 0 if the clock cannot be read.
    int currentdatetime(char* buffer);

    // The log set. None of these takes the lock: the three operations above hold it around them.

    // Appends the directory's log files (entries named "serverLog.*" that are no directories) to the list.
    // The number added; 0, with the list emptied, if the directory cannot be read.
    int findlogfilesinfo();
    // Closes the current file and opens a new one under a name that no file has yet. A node for it (not yet
    // linked) when the list is not empty and the file opened; otherwise null.
    fileInfo* createnewlogfile();
    // The rotation: a new file, its node linked, then the oldest deleted beyond logFilesCount.
    void handlelogfiles();
    // Deletes the oldest files, on disk and in the list, while more than logFilesCount are counted.
    void deleteoldlogfiles();
    // The node with the smallest (greatest) time, the one nearest the head on a tie; null for an empty list.
    fileInfo* findoldnode();
    fileInfo* findnewnode();
    // Links a node behind the last one.
    void addnode(fileInfo* node);
    // Unlinks a node of the list and frees it with its name.
    void deletenode(fileInfo* node);
    // Frees the whole list; currentFilesCount is left alone.
    void clearnodes();

    int logMode;            // 0: no file, no lines; anything else: logging on
    int logFilesCount;      // number of log files to keep
    int logFileSize;        // bytes at which the current file is replaced
    int currentFileBytes;   // bytes of lines written to the current file by this process
    int currentFilesCount;  // log files counted: the scan's, plus rotations, less deletions
    char* logFilePath;      // log directory as configured; a path built on it adds "/"; owned
    char* moduleName;       // the configuration section's name; owned
    FILE* logFile;          // current log file, null when none is open
    fileInfo* fileList;     // head of the log files: the scan's in directory order, then the rotations';
                            // guarded by mutex
    Mutex* mutex;           // the semaphore "eventLogger"; owned
};

// The one logger of the process, built at load and destroyed at exit.
extern MSP_EXPORT ZvEventLogger eventLogger;

// The compiler checks the arguments of the three ways in against their format, as it does for printf.
#if defined(__GNUC__)
#define MSP_PRINTF_FORMAT __attribute__((format(printf, 1, 2)))
#else
#define MSP_PRINTF_FORMAT
#endif

// Formats like printf into a buffer of 1024 bytes and logs the result on `eventLogger`. An empty result
// writes nothing; a result over 1023 bytes is cut to its first 1023.
MSP_EXPORT void eventLoggerDoOut(char const* format, ...) MSP_PRINTF_FORMAT;

// Both point at eventLoggerDoOut; the callers choose what to log by the two verbosity levels.
extern MSP_EXPORT void (*eventLogOut)(char const* format, ...) MSP_PRINTF_FORMAT;
extern MSP_EXPORT void (*errorLogOut)(char const* format, ...) MSP_PRINTF_FORMAT;
extern MSP_EXPORT int logVerbosity;  // read from the key logVerbosity at start
extern MSP_EXPORT int errVerbosity;  // 0; for the callers
