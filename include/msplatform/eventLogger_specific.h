// File and time wrappers of the platform layer.
//
// One system call each; the result is the system's, unchanged, and errno stays as the call left it. The event
// logger finds, makes and removes its files and stamps its lines through these.
#pragma once

#include "msplatform/export.h"

// 0 if the path exists, -1 otherwise. Only existence is asked: `mode` is not used.
MSP_EXPORT int OS_Access(const char* path, int mode);

// Makes one directory with mode 0755 (less the umask); the parent must exist. 0 or -1.
MSP_EXPORT int OS_MakeDir(const char* path);

// Removes a file. 0 or -1.
MSP_EXPORT int OS_Unlink(char* path);

// Writes `url` with one "/" appended into the caller's buffer at *out, which needs strlen(url) + 2 bytes;
// *out itself is not changed. A url that ends in "/" gets a second one. Gives the number of bytes written,
// without the terminator.
MSP_EXPORT int OS_CorrectURLForDirSearch(char* url, char** out);

// The millisecond part of the current second, 0 to 999: no timestamp, there are no seconds in it.
MSP_EXPORT int OS_GetTimeWithMilliSeconds();
