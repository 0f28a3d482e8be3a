#include "msplatform/event.h"

#include <errno.h>
#include <stdint.h>
#include <sys/time.h>
#include <time.h>

#include <limits>

#include "os/internal.h"

Event::Event() : signaled(0), waitStatus(0) {
    ::pthread_mutex_init(&mutex, nullptr);
    ::pthread_cond_init(&cond, nullptr);
}

Event::~Event() {
    ::pthread_cond_destroy(&cond);
    ::pthread_mutex_destroy(&mutex);
}

void Event::set() {
    ::pthread_mutex_lock(&mutex);
    StoreFlag(&signaled, 1);
    ::pthread_cond_signal(&cond);
    ::pthread_mutex_unlock(&mutex);
}

void Event::reset() {
    ::pthread_mutex_lock(&mutex);
    StoreFlag(&signaled, 0);
    ::pthread_mutex_unlock(&mutex);
}

int Event::isSet() {
    return LoadFlag(&signaled) != 0 ? 1 : 0;
}

void Event::wait() {
    ::pthread_mutex_lock(&mutex);
    while (LoadFlag(&signaled) == 0) {
        waitStatus = osSystemCalls.condWait(&cond, &mutex);
        // A spurious wake-up (0) or an interruption goes back to sleep; any other error ends the wait.
        if (waitStatus != 0 && waitStatus != EINTR) break;
    }
    ::pthread_mutex_unlock(&mutex);
}

int Event::wait(int milliseconds) {
    const uint32_t span = static_cast<uint32_t>(milliseconds);
    struct timeval now;
    osSystemCalls.getTimeOfDay(&now);
    long microseconds = now.tv_usec + static_cast<long>(span % 1000) * 1000;
    struct timespec deadline;
    // A deadline past the end of time_t (a 32-bit one, near 2038) is held at its last second.
    if (__builtin_add_overflow(now.tv_sec, static_cast<time_t>(span / 1000 + microseconds / 1000000),
                               &deadline.tv_sec)) {
        deadline.tv_sec = std::numeric_limits<time_t>::max();
        deadline.tv_nsec = 999999999;
    } else {
        deadline.tv_nsec = (microseconds % 1000000) * 1000;
    }

    ::pthread_mutex_lock(&mutex);
    // The deadline stays the same across wake-ups that find the event clear: they do not extend the time.
    while (LoadFlag(&signaled) == 0) {
        waitStatus = osSystemCalls.condTimedWait(&cond, &mutex, &deadline);
        if (waitStatus == ETIMEDOUT || (waitStatus != 0 && waitStatus != EINTR)) break;
    }
    int result = LoadFlag(&signaled) != 0 ? 1 : 0;
    ::pthread_mutex_unlock(&mutex);
    return result;
}
