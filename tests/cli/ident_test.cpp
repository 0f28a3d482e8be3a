// msplat uuid and msplat md5, run as a separate process.
#include <sys/wait.h>

#include <cstdlib>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cli/msplat_run.h"

namespace {

using msptest::ExpectRuns;
using msptest::Msplat;

TEST(CliUuid, VersionOneTextFormDistinct) {
    const msptest::MsplatResult r = Msplat({"uuid", "-n", "20"});
    ASSERT_EQ(r.status, 0) << r.err;
    // Version 1, variant bits 1 0, the node's top bit set.
    const std::regex form(
        "([0-9a-f]{8}-[0-9a-f]{4}-1[0-9a-f]{3}-[89ab][0-9a-f]{3}-[89a-f][0-9a-f]{11}\n){20}");
    EXPECT_TRUE(std::regex_match(r.out, form)) << r.out;
    std::set<std::string> distinct;
    std::istringstream in(r.out);
    for (std::string line; std::getline(in, line);) distinct.insert(line);
    EXPECT_EQ(distinct.size(), 20u);
    EXPECT_EQ(Msplat({"uuid"}).out.size(), 37u);
}

// Files and standard input ("-" or none); a missing file: a message, the others go on, 1; a directory: 2.
TEST(CliMd5, KnownDigestsStandardInputAndWhatCannotBeRead) {
    msptest::TempDir dir;
    msptest::WriteFile(dir.file("empty"), "");
    msptest::WriteFile(dir.file("abc"), "abc");
    const std::string abc = "900150983cd24fb0d6963f7d28e17f72  ",
                      none = "msplat: md5: none: No such file or directory\n";
    ExpectRuns({{{"md5", "empty", "abc"}, 0, "d41d8cd98f00b204e9800998ecf8427e  empty\n" + abc + "abc\n", ""},
                {{"md5", "none", "abc"}, 1, abc + "abc\n", none},
                {{"md5", ".", "none"}, 2, "", "msplat: md5: .: Is a directory\n" + none}},
               dir.path());
    EXPECT_EQ(Msplat({"md5"}, "", "The quick brown fox jumps over the lazy dog").out,
              "9e107d9d372bb6826bd81d3542a419d6  -\n");
    EXPECT_EQ(Msplat({"md5", "abc", "-"}, dir.path(), "abc").out, abc + "abc\n" + abc + "-\n");
}

// md5sum -c on `list` in `dir`: its exit status.
int Md5sumCheck(const std::string& dir, const std::string& list) {
    const int status =
        std::system(("cd '" + dir + "' && md5sum -c --strict " + list + " >/dev/null 2>&1").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Names with a backslash or a line end are escaped as md5sum does it, and md5sum -c accepts the list until a
// file changes.
TEST(CliMd5, Md5sumChecksItsOutput) {
    msptest::TempDir dir;
    std::string big;
    for (int i = 0; i < 300000; ++i) big.push_back(static_cast<char>(i * 7 + i / 251));
    const std::vector<std::string> names = {"big",       "plain.txt",        "back\\slash",
                                            "line\nend", "carriage\rreturn", "blank name"};
    for (const std::string& name : names) msptest::WriteFile(dir.file(name), name == "big" ? big : name);
    std::vector<std::string> args = {"md5"};
    args.insert(args.end(), names.begin(), names.end());
    const msptest::MsplatResult r = Msplat(args, dir.path());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("\n\\"), std::string::npos);
    EXPECT_NE(r.out.find("  line\\nend\n"), std::string::npos);
    msptest::WriteFile(dir.file("sums"), r.out);
    EXPECT_EQ(Md5sumCheck(dir.path(), "sums"), 0) << r.out;
    msptest::WriteFile(dir.file("plain.txt"), "changed");
    EXPECT_EQ(Md5sumCheck(dir.path(), "sums"), 1);
}

}  // namespace
