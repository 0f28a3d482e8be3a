// msplat walk, servername and scanpaths, run as a separate process.
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cli/msplat_run.h"

namespace {

using msptest::ExpectRuns;
using msptest::Msplat;

void WriteWithTime(const std::string& path, const std::string& bytes, time_t when) {
    msptest::WriteFile(path, bytes);
    struct utimbuf times = {when, when};
    ASSERT_EQ(utime(path.c_str(), &times), 0);
}

// Type, size and UTC time of each entry, control bytes and backslashes escaped, the Latin-1 name renamed to
// its UTF-8 form on disk; a missing directory: 1; a file: 2.
TEST(CliWalk, EntriesAndWhatIsNoDirectory) {
    msptest::TempDir dir;
    WriteWithTime(dir.file("a.mp3"), "12345", 1700000000);
    WriteWithTime(dir.file("caf\xe9"), "", 0);
    WriteWithTime(dir.file("odd\\name\n"), "xy", 1000000000);
    ASSERT_EQ(mkdir(dir.file("sub").c_str(), 0700), 0);
    const msptest::MsplatResult r = Msplat({"walk", dir.path() + "/"});
    EXPECT_EQ(r.status, 0) << r.err;
    std::vector<std::string> lines;
    std::istringstream in(r.out);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    std::sort(lines.begin(), lines.end());
    EXPECT_EQ(lines, (std::vector<std::string>{"d          - -                    sub",
                                               "f          0 1970-01-01T00:00:00Z caf\xc3\xa9",
                                               "f          2 2001-09-09T01:46:40Z odd\\\\name\\x0a",
                                               "f          5 2023-11-14T22:13:20Z a.mp3"}));
    EXPECT_TRUE(msptest::FileExists(dir.file("caf\xc3\xa9")));
    EXPECT_FALSE(msptest::FileExists(dir.file("caf\xe9")));
    ExpectRuns(
        {{{"walk", dir.file("none")},
          1,
          "",
          "msplat: walk: " + dir.file("none") + ": No such file or directory\n"},
         {{"walk", dir.file("a.mp3")}, 2, "", "msplat: walk: " + dir.file("a.mp3") + ": not a directory\n"}});
}

std::string HostName() {
    char name[256] = {};
    if (gethostname(name, sizeof name - 1) != 0 || std::string(name) == "(none)" || !name[0])
        return "QuirnNAS";
    return name;
}

// Set from the host name (the file made) when missing; a set name stays, in any file; an int key can't take
// it.
TEST(CliServerName, SetFromTheHostOnlyWhenMissing) {
    msptest::TempDir dir;
    const std::string other = dir.file("other.cfg"), intKey = dir.file("int.cfg");
    msptest::WriteFile(other, "[UPNP]\r\nSERVERNAME=\"Kitchen\"\r\n");
    msptest::WriteFile(intKey, "[upnp]\r\nserverName=5\r\n");
    ExpectRuns(
        {{{"servername"}, 0, HostName() + "\n", ""}, {{"servername", "--file", other}, 0, "Kitchen\n", ""}},
        dir.path());
    EXPECT_EQ(msptest::ReadFile(dir.file("MediaServer.cfg")),
              "[upnp]\r\nserverName=\"" + HostName() + "\"\r\n\r\n");
    EXPECT_EQ(msptest::ReadFile(other), "[UPNP]\r\nSERVERNAME=\"Kitchen\"\r\n");
    const msptest::MsplatResult r = Msplat({"servername", "--file", intKey});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("msplat: servername: " + intKey + ": the name could not be set\n"),
              std::string::npos)
        << r.err;
}

// The library says only that it failed; the tool adds why.
TEST(CliScanPaths, ValueOrWhyNot) {
    msptest::TempDir dir;
    const std::string file = dir.file("MediaServer.cfg"),
                      why = "get config len\nmsplat: MediaServer.cfg: [MCM] ";
    ExpectRuns({{{"scanpaths"}, 1, "", "msplat: MediaServer.cfg: No such file or directory\n"}}, dir.path());
    msptest::WriteFile(dir.file("empty.cfg"), "[MCM]\r\nscanPaths=\"\"\r\n");
    for (const auto& [content, expected] : std::vector<std::pair<std::string, msptest::Expected>>{
             {"[MCM]\r\nscanPaths=\"/share/Music|/share/Video\"\r\n",
              {{"scanpaths"}, 0, "/share/Music|/share/Video\n", ""}},
             {"[MCM]\r\nother=1\r\n", {{"scanpaths"}, 1, "", why + "scanPaths: no such key\n"}},
             {"[MCM]\r\nscanPaths=1\r\n", {{"scanpaths"}, 2, "", why + "scanPaths: type mismatch\n"}},
             {"", {{"scanpaths", "--file", dir.file("empty.cfg")}, 0, "\n", ""}}}) {
        msptest::WriteFile(file, content);
        ExpectRuns({expected}, dir.path());
    }
}

}  // namespace
