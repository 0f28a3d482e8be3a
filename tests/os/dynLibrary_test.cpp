#include "msplatform/dynLibrary.h"

#include <gtest/gtest.h>

namespace {

TEST(DynLibrary, LoadsFindsAndFreesAndFailuresGiveNull) {
    EXPECT_EQ(nullptr, dlibLoadLibrary("/nonexistent/libnothing.so"));
    void* handle = dlibLoadLibrary("libm.so.6");
    ASSERT_NE(nullptr, handle);
    auto cosine = reinterpret_cast<double (*)(double)>(dlibGetFunction(handle, "cos"));
    ASSERT_NE(nullptr, cosine);
    EXPECT_DOUBLE_EQ(1.0, cosine(0.0));
    EXPECT_EQ(nullptr, dlibGetFunction(handle, "no_such_function_here"));
    EXPECT_EQ(0, dlibFreeLibrary(handle));
}

}  // namespace
