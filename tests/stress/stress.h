// What the stress tests share: their size, short by default and long with MSPLATFORM_STRESS_LONG=1.
#pragma once

#include <stdlib.h>
#include <string.h>
#include <time.h>

namespace stress {

// A count for the short run, multiplied for the long one; MSPLATFORM_STRESS_SCALE=n divides it by n (for
// slow tools such as valgrind).
inline int Scaled(int shortCount, int longFactor) {
    const char* longRun = getenv("MSPLATFORM_STRESS_LONG");
    const char* scale = getenv("MSPLATFORM_STRESS_SCALE");
    const int n = longRun && *longRun && strcmp(longRun, "0") != 0 ? shortCount * longFactor : shortCount;
    const int divisor = scale ? atoi(scale) : 1;
    return divisor > 1 ? (n / divisor > 0 ? n / divisor : 1) : n;
}

inline long long NowMs() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<long long>(t.tv_sec) * 1000 + t.tv_nsec / 1000000;
}

}  // namespace stress
