// What the identifier modules share with each other and with their tests. Nothing here is exported.
#pragma once

#include <stdint.h>
#include <sys/time.h>

// The clock behind get_system_time: gettimeofday, unless a test puts a clock of its own in its place, so
// that the epoch arithmetic and the wait at 1025 UUIDs per reading can be checked without waiting.
using UuidClockReader = int (*)(struct timeval* tv);
extern UuidClockReader uuidClockReader;
int UuidSystemClock(struct timeval* tv);

// The generator's state between calls of uuid_create.
struct UuidGeneratorState {
    uint64_t time_last;        // the last clock reading used
    uint16_t uuids_this_tick;  // UUIDs made with that reading beyond the first
    int randomSeeded;          // srand has been called
};
extern UuidGeneratorState uuidGeneratorState;
