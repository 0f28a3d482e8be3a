#include "msplatform/osSpecificFunctions.h"

#include <unistd.h>

#include "os/internal.h"

// A signal cuts the sleep short (-1, EINTR); the rest is not slept, the caller sees the result.
int OS_Sleep(int microseconds) {
    return ::usleep(static_cast<useconds_t>(microseconds));
}

namespace {

int RealGetTimeOfDay(struct timeval* now) {
    return ::gettimeofday(now, nullptr);
}

constexpr OsSystemCalls RealCalls() {
    return {::pthread_create,    ::pthread_setschedparam,  ::nanosleep, RealGetTimeOfDay,
            ::pthread_cond_wait, ::pthread_cond_timedwait, ::renameat2};
}

}  // namespace

// Both are constant-initialised: a thread made by some static constructor at load finds the table ready.
const OsSystemCalls kRealOsSystemCalls = RealCalls();
OsSystemCalls osSystemCalls = RealCalls();
