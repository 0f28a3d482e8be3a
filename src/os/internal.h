// What the modules of os/ share: the table of system calls that threads, events and the walker go through,
// defined in systemCalls.cpp. Tests swap entries to inject failures, spurious wake-ups and fixed clocks;
// callers of the library never see it.
#pragma once

#include <pthread.h>
#include <stdio.h>
#include <sys/time.h>
#include <time.h>

struct OsSystemCalls {
    int (*pthreadCreate)(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                         void* argument);
    int (*pthreadSetSchedParam)(pthread_t thread, int policy, const struct sched_param* parameter);
    int (*nanoSleep)(const struct timespec* request, struct timespec* remaining);
    int (*getTimeOfDay)(struct timeval* now);
    int (*condWait)(pthread_cond_t* cond, pthread_mutex_t* mutex);
    int (*condTimedWait)(pthread_cond_t* cond, pthread_mutex_t* mutex, const struct timespec* deadline);
    int (*renameAt2)(int fromDir, const char* from, int toDir, const char* to, unsigned int flags);
};

// The real calls, and the table in use (the real calls unless a test has swapped some).
extern const OsSystemCalls kRealOsSystemCalls;
extern OsSystemCalls osSystemCalls;

// A flag written under a mutex but read without it (Thread's `finished`, Event's `signaled`). The release
// store and acquire load make a reader that saw the new value also see what the writer did before.
inline int LoadFlag(const int* flag) {
    return __atomic_load_n(flag, __ATOMIC_ACQUIRE);
}
inline void StoreFlag(int* flag, int value) {
    __atomic_store_n(flag, value, __ATOMIC_RELEASE);
}
