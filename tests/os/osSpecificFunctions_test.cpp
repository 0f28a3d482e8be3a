#include "msplatform/osSpecificFunctions.h"

#include <chrono>

#include <gtest/gtest.h>

namespace {

TEST(OsSleep, CountsInMicroseconds) {
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, OS_Sleep(150000));
    auto slept = std::chrono::steady_clock::now() - start;
    EXPECT_GE(slept, std::chrono::milliseconds(150));
    EXPECT_LT(slept, std::chrono::seconds(30)) << "milliseconds would be 150 s";
    EXPECT_EQ(0, OS_Sleep(0));
}

}  // namespace
