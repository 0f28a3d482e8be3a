// The table of system calls that threads, events and the walker go through (declared in os/internal.h).
#include "os/internal.h"

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
