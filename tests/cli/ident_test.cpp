// msplat uuid and msplat md5, run as a separate process.
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cli/msplat_run.h"

namespace {

using msptest::Msplat;
using msptest::MsplatResult;

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

TEST(CliUuid, VersionOneTextFormDistinct) {
    MsplatResult r = Msplat({"uuid", "-n", "20"});
    ASSERT_EQ(r.status, 0) << r.err;
    // Version 1, variant bits 1 0, the node's top bit set.
    const std::regex form("[0-9a-f]{8}-[0-9a-f]{4}-1[0-9a-f]{3}-[89ab][0-9a-f]{3}-[89a-f][0-9a-f]{11}");
    std::vector<std::string> lines = Lines(r.out);
    ASSERT_EQ(lines.size(), 20u);
    for (const std::string& line : lines) EXPECT_TRUE(std::regex_match(line, form)) << line;
    EXPECT_EQ(std::set<std::string>(lines.begin(), lines.end()).size(), lines.size());
    EXPECT_EQ(Lines(Msplat({"uuid"}).out).size(), 1u);
    for (const char* bad : {"0", "-1", "x"}) {
        r = Msplat({"uuid", "-n", bad});
        EXPECT_EQ(r.status, 2) << bad;
        EXPECT_EQ(r.out, "");
    }
}

TEST(CliMd5, KnownDigestsAndStandardInput) {
    msptest::TempDir dir;
    msptest::WriteFile(dir.file("empty"), "");
    msptest::WriteFile(dir.file("abc"), "abc");
    MsplatResult r = Msplat({"md5", "empty", "abc"}, dir.path());
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "d41d8cd98f00b204e9800998ecf8427e  empty\n900150983cd24fb0d6963f7d28e17f72  abc\n");
    r = Msplat({"md5"}, "", "The quick brown fox jumps over the lazy dog");
    EXPECT_EQ(r.out, "9e107d9d372bb6826bd81d3542a419d6  -\n");
    r = Msplat({"md5", "abc", "-"}, dir.path(), "abc");
    EXPECT_EQ(r.out, "900150983cd24fb0d6963f7d28e17f72  abc\n900150983cd24fb0d6963f7d28e17f72  -\n");
}

TEST(CliMd5, MissingFileAndDirectory) {
    msptest::TempDir dir;
    msptest::WriteFile(dir.file("abc"), "abc");
    // The other files are still digested; the worst status wins.
    MsplatResult r = Msplat({"md5", "none", "abc"}, dir.path());
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "900150983cd24fb0d6963f7d28e17f72  abc\n");
    EXPECT_EQ(r.err, "msplat: md5: none: No such file or directory\n");
    r = Msplat({"md5", ".", "none"}, dir.path());
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "msplat: md5: .: Is a directory\nmsplat: md5: none: No such file or directory\n");
}

// Runs md5sum -c on `list` in `dir`; its exit status.
int Md5sumCheck(const std::string& dir, const std::string& list) {
    return msptest::RunChild(
        [&] {
            if (chdir(dir.c_str()) != 0) return 126;
            int null = open("/dev/null", O_WRONLY);
            dup2(null, 1);
            dup2(null, 2);
            execlp("md5sum", "md5sum", "-c", "--strict", list.c_str(), static_cast<char*>(nullptr));
            return 127;
        },
        60000);
}

TEST(CliMd5, Md5sumChecksItsOutput) {
    msptest::TempDir dir;
    std::string big;
    for (int i = 0; i < 300000; ++i) big.push_back(static_cast<char>(i * 7 + i / 251));
    const std::vector<std::string> names = {"big",       "plain.txt",        "back\\slash",
                                            "line\nend", "carriage\rreturn", "blank name"};
    for (const std::string& name : names) msptest::WriteFile(dir.file(name), name == "big" ? big : name);
    std::vector<std::string> args = {"md5"};
    args.insert(args.end(), names.begin(), names.end());
    MsplatResult r = Msplat(args, dir.path());
    ASSERT_EQ(r.status, 0) << r.err;
    // A name with a backslash or a line end is escaped as md5sum does it.
    EXPECT_NE(r.out.find("\n\\"), std::string::npos);
    EXPECT_NE(r.out.find("  line\\nend\n"), std::string::npos);
    msptest::WriteFile(dir.file("sums"), r.out);
    EXPECT_EQ(Md5sumCheck(dir.path(), "sums"), 0) << r.out;
    // The check fails once a file changed: it compares, it doesn't just parse.
    msptest::WriteFile(dir.file("plain.txt"), "changed");
    EXPECT_EQ(Md5sumCheck(dir.path(), "sums"), 1);
}

}  // namespace
