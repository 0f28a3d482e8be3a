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

TEST(OsAccess, AsksOnlyForExistenceWhateverTheMode) {
    msptest::TempDir dir;
    std::string file = dir.file("locked");
    msptest::WriteFile(file, "x");
    ASSERT_EQ(0, ::chmod(file.c_str(), 0));
    for (int mode : {F_OK, R_OK, W_OK, X_OK, R_OK | W_OK | X_OK, -1}) {
        EXPECT_EQ(0, OS_Access(file.c_str(), mode)) << "mode " << mode;
    }
    errno = 0;
    EXPECT_EQ(-1, OS_Access(dir.file("missing").c_str(), R_OK));
    EXPECT_EQ(ENOENT, errno);
}

TEST(OsMakeDir, MakesOneLevelWithMode755LessTheUmask) {
    msptest::TempDir dir;
    mode_t previous = ::umask(022);
    std::string made = dir.file("logs");
    EXPECT_EQ(0, OS_MakeDir(made.c_str()));
    ::umask(077);
    std::string narrow = dir.file("narrow");
    EXPECT_EQ(0, OS_MakeDir(narrow.c_str()));
    ::umask(previous);

    struct stat st;
    ASSERT_EQ(0, ::stat(made.c_str(), &st));
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(0755u, st.st_mode & 07777);
    ASSERT_EQ(0, ::stat(narrow.c_str(), &st));
    EXPECT_EQ(0700u, st.st_mode & 07777);

    errno = 0;
    EXPECT_EQ(-1, OS_MakeDir(made.c_str()));
    EXPECT_EQ(EEXIST, errno);
    errno = 0;
    EXPECT_EQ(-1, OS_MakeDir(dir.file("missing/child").c_str()));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_FALSE(msptest::FileExists(dir.file("missing")));
}

TEST(OsUnlink, RemovesAFileAndPassesOnTheFailure) {
    msptest::TempDir dir;
    std::string file = dir.file("old.txt");
    msptest::WriteFile(file, "x");
    EXPECT_EQ(0, OS_Unlink(&file[0]));
    EXPECT_FALSE(msptest::FileExists(file));
    errno = 0;
    EXPECT_EQ(-1, OS_Unlink(&file[0]));
    EXPECT_EQ(ENOENT, errno);
}

TEST(OsCorrectUrlForDirSearch, AppendsOneSlashIntoTheCallersBuffer) {
    struct Case {
        const char* url;
        const char* expected;
    };
    const Case cases[] = {{"/var/log", "/var/log/"}, {"/var/log/", "/var/log//"}, {"", "/"}, {"a", "a/"}};
    for (const Case& c : cases) {
        char buffer[32];
        std::memset(buffer, '#', sizeof buffer);
        char* out = buffer;
        std::string url = c.url;
        EXPECT_EQ(static_cast<int>(std::strlen(c.expected)), OS_CorrectURLForDirSearch(&url[0], &out));
        EXPECT_EQ(buffer, out) << "the pointer itself stays";
        EXPECT_STREQ(c.expected, buffer);
        EXPECT_EQ('#', buffer[std::strlen(c.expected) + 1]) << "nothing written past the terminator";
        EXPECT_EQ(c.url, url) << "the source stays";
    }
}

TEST(OsGetTimeWithMilliSeconds, StaysWithinOneSecond) {
    int low = 1000, high = -1;
    for (int i = 0; i < 20000; ++i) {
        int ms = OS_GetTimeWithMilliSeconds();
        ASSERT_GE(ms, 0);
        ASSERT_LT(ms, 1000);
        low = std::min(low, ms);
        high = std::max(high, ms);
        if (i % 1000 == 0) ::usleep(7000);
    }
    EXPECT_LT(low, high) << "the value moves with the clock";
}

}  // namespace
