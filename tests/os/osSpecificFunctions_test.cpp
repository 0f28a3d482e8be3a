#include "msplatform/osSpecificFunctions.h"

#include <time.h>

#include <gtest/gtest.h>

namespace {

double Now() {
    struct timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

TEST(OsSleep, CountsInMicroseconds) {
    double start = Now();
    EXPECT_EQ(0, OS_Sleep(150000));
    double slept = Now() - start;
    EXPECT_GE(slept, 0.150);
    // Milliseconds would be 150 s; even a loaded machine is far from that.
    EXPECT_LT(slept, 30.0);
    EXPECT_EQ(0, OS_Sleep(0));
}

}  // namespace
