// A flag on which threads of one process wait.
//
// `set` raises the flag and wakes one waiter (not all); the flag stays up until `reset`, no wait clears it,
// and a wait on a raised flag does not block. Nobody may be waiting when the event is destroyed.
#pragma once

#include <pthread.h>

#include "msplatform/export.h"

class MSP_EXPORT Event {
public:
    Event();
    ~Event();

    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    // Raises the flag and wakes one waiter.
    void set();
    // Lowers the flag.
    void reset();
    // 1 while the flag is up, else 0.
    int isSet();
    // Blocks until the flag is up.
    void wait();
    // Blocks until the flag is up or `milliseconds`, taken as an unsigned 32-bit count, have passed on the
    // real-time clock. 1 if the flag is up at the end, else 0.
    int wait(int milliseconds);

private:
    pthread_cond_t cond;    // What waiters block on.
    pthread_mutex_t mutex;  // Guards `signaled` and `waitStatus`.
    int signaled;           // 1 while the event is set.
    int waitStatus;         // What the last wake-up of a wait gave.
};
