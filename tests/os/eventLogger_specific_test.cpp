#include "msplatform/eventLogger_specific.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "support/support.h"

namespace {

TEST(OsWrappers, AccessMakeDirAndUnlinkPassOnTheSystemsAnswer) {
    msptest::TempDir dir;
    std::string file = dir.file("locked"), made = dir.file("logs"), narrow = dir.file("narrow");
    msptest::WriteFile(file, "x");
    ASSERT_EQ(0, ::chmod(file.c_str(), 0));
    for (int mode : {F_OK, R_OK, W_OK, X_OK, R_OK | W_OK | X_OK, -1})
        EXPECT_EQ(0, OS_Access(file.c_str(), mode));
    errno = 0;
    EXPECT_EQ(-1, OS_Access(dir.file("missing").c_str(), R_OK));
    EXPECT_EQ(ENOENT, errno);

    mode_t previous = ::umask(022);
    EXPECT_EQ(0, OS_MakeDir(made.c_str()));
    ::umask(077);
    EXPECT_EQ(0, OS_MakeDir(narrow.c_str()));
    ::umask(previous);
    struct stat a, b;
    ASSERT_EQ(0, ::stat(made.c_str(), &a));
    ASSERT_EQ(0, ::stat(narrow.c_str(), &b));
    EXPECT_EQ(040755u, a.st_mode);
    EXPECT_EQ(040700u, b.st_mode);
    EXPECT_EQ(-1, OS_MakeDir(made.c_str()));
    EXPECT_EQ(EEXIST, errno);
    EXPECT_EQ(-1, OS_MakeDir(dir.file("missing/child").c_str()));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_FALSE(msptest::FileExists(dir.file("missing")));

    EXPECT_EQ(0, OS_Unlink(&file[0]));
    EXPECT_EQ(-1, OS_Unlink(&file[0]));
    EXPECT_EQ(ENOENT, errno);
}

TEST(OsWrappers, CorrectUrlForDirSearchAppendsOneSlashIntoTheCallersBuffer) {
    for (const char* source : {"/var/log", "/var/log/", "", "a"}) {
        std::string url = source;
        const std::string expected = url + "/";
        char buffer[32];
        std::memset(buffer, '#', sizeof buffer);
        char* out = buffer;
        EXPECT_EQ(static_cast<int>(expected.size()), OS_CorrectURLForDirSearch(&url[0], &out));
        EXPECT_EQ(buffer, out);
        EXPECT_EQ(expected + '\0' + '#', std::string(buffer, expected.size() + 2));
        EXPECT_EQ(source, url);
    }
}

TEST(OsWrappers, MillisecondsStayBelow1000AndMove) {
    int low = 1000, high = -1;
    for (int i = 0; i < 20000; ++i) {
        int ms = OS_GetTimeWithMilliSeconds();
        ASSERT_TRUE(ms >= 0 && ms < 1000) << ms;
        low = std::min(low, ms);
        high = std::max(high, ms);
        if (i % 1000 == 0) ::usleep(7000);
    }
    EXPECT_LT(low, high);
}

}  // namespace
