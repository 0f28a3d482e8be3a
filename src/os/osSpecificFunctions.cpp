#include "msplatform/osSpecificFunctions.h"

#include <unistd.h>

// A signal cuts the sleep short (-1, EINTR); the rest is not slept, the caller sees the result.
int OS_Sleep(int microseconds) {
    return ::usleep(static_cast<useconds_t>(microseconds));
}
