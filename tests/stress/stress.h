// What the stress tests share: their size, short by default and long with MSPLATFORM_STRESS_LONG=1.
#pragma once

#include <stdlib.h>
#include <string.h>
#include <time.h>

namespace stress {

inline bool Long() {
    const char* v = getenv("MSPLATFORM_STRESS_LONG");
    return v && *v && strcmp(v, "0") != 0;
}

// A count for the short run, multiplied for the long one; MSPLATFORM_STRESS_SCALE=n divides it by n, for
// runs under slow tools such as valgrind.
inline int Scaled(int shortCount, int longFactor) {
    int n = Long() ? shortCount * longFactor : shortCount;
    const char* v = getenv("MSPLATFORM_STRESS_SCALE");
    const int divisor = v ? atoi(v) : 1;
    if (divisor > 1) n = n / divisor > 0 ? n / divisor : 1;
    return n;
}

inline long long NowMs() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<long long>(t.tv_sec) * 1000 + t.tv_nsec / 1000000;
}

}  // namespace stress
