#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "msplatform/eventLogger_specific.h"
#include "msplatform/osSpecificFunctions.h"
#include "support/support.h"

namespace {

TEST(OsWrappers, WhatTheyAddToTheSystem) {
    msptest::TempDir dir;
    msptest::WriteFile(dir.file("locked"), "x");
    chmod(dir.file("locked").c_str(), 0);
    EXPECT_EQ(0, OS_Access(dir.file("locked").c_str(), R_OK | W_OK | X_OK));
    msptest::GuardedBytes out(10);  // "/var/log/" and its terminator, then a page without access
    char *to = out.data(), url[] = "/var/log";
    EXPECT_EQ(9, OS_CorrectURLForDirSearch(url, &to));
    EXPECT_EQ(std::string("/var/log/", 10), std::string(to, 10));
    const mode_t mask = umask(0);
    umask(mask);
    struct stat made;
    EXPECT_TRUE(OS_MakeDir(dir.file("logs").c_str()) == 0 && stat(dir.file("logs").c_str(), &made) == 0 &&
                (made.st_mode & 0777) == (0755 & ~mask));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, OS_Sleep(150000));
    const auto slept = std::chrono::steady_clock::now() - start;
    EXPECT_TRUE(slept >= std::chrono::milliseconds(150) && slept < std::chrono::seconds(30)) << "not 150 s";
}

}  // namespace
