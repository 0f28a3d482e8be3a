// What the logger's modules share, and the seam its tests use. Not part of the library's interface.
#pragma once

#include <stddef.h>
#include <time.h>

// Every heap allocation of the logger goes through this pointer (malloc by default), so that tests can make
// one fail. Release with free.
extern void* (*eventLoggerAlloc)(size_t size);

// The clock of the log lines and file names: `time` and OS_GetTimeWithMilliSeconds by default. Tests freeze
// or step them to make two names meet, or move the date out of range.
extern time_t (*eventLoggerTime)(time_t* seconds);
extern int (*eventLoggerMilliseconds)();
