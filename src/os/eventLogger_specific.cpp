#include "msplatform/eventLogger_specific.h"

#include <stdio.h>
#include <sys/stat.h>
#include <sys/timeb.h>
#include <unistd.h>

int OS_Access(const char* path, int /*mode*/) {
    return ::access(path, F_OK);
}

int OS_MakeDir(const char* path) {
    return ::mkdir(path, 0755);
}

int OS_Unlink(char* path) {
    return ::unlink(path);
}

int OS_CorrectURLForDirSearch(char* url, char** out) {
    return ::sprintf(*out, "%s/", url);
}

int OS_GetTimeWithMilliSeconds() {
    struct timeb now;
    // ftime is deprecated in the C library but still the call that gives the milliseconds by themselves.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    ::ftime(&now);
#pragma GCC diagnostic pop
    return now.millitm;
}
