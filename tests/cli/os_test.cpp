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

using msptest::Msplat;
using msptest::MsplatResult;

std::vector<std::string> SortedLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    std::sort(lines.begin(), lines.end());
    return lines;
}

void WriteWithTime(const std::string& path, const std::string& bytes, time_t when) {
    msptest::WriteFile(path, bytes);
    struct utimbuf times = {when, when};
    ASSERT_EQ(utime(path.c_str(), &times), 0);
}

TEST(CliWalk, EntriesWithTypeSizeTimeAndNamesNormalised) {
    msptest::TempDir dir;
    WriteWithTime(dir.file("a.mp3"), "12345", 1700000000);
    WriteWithTime(dir.file("caf\xe9"), "", 0);  // Latin-1: renamed to its UTF-8 form by the walk
    WriteWithTime(dir.file("odd\\name\n"), "xy", 1000000000);
    ASSERT_EQ(mkdir(dir.file("sub").c_str(), 0700), 0);
    MsplatResult r = Msplat({"walk", dir.path() + "/"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(SortedLines(r.out), (std::vector<std::string>{
                                      "d          - -                    sub",
                                      "f          0 1970-01-01T00:00:00Z caf\xc3\xa9",
                                      "f          2 2001-09-09T01:46:40Z odd\\\\name\\x0a",
                                      "f          5 2023-11-14T22:13:20Z a.mp3",
                                  }));
    EXPECT_TRUE(msptest::FileExists(dir.file("caf\xc3\xa9")));
    EXPECT_FALSE(msptest::FileExists(dir.file("caf\xe9")));
}

TEST(CliWalk, MissingDirectoryAndNoDirectory) {
    msptest::TempDir dir;
    MsplatResult r = Msplat({"walk", dir.file("none")});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "msplat: walk: " + dir.file("none") + ": No such file or directory\n");
    msptest::WriteFile(dir.file("f"), "");
    r = Msplat({"walk", dir.file("f")});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "msplat: walk: " + dir.file("f") + ": not a directory\n");
    EXPECT_EQ(Msplat({"walk", std::string(1024, 'x')}).status, 2);
    EXPECT_EQ(Msplat({"walk"}).status, 2);
    r = Msplat({"walk", dir.path()});  // holds only "f" now
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.substr(0, 2), "f ");
}

std::string HostName() {
    char name[256] = {};
    if (gethostname(name, sizeof name - 1) != 0 || std::string(name) == "(none)" || !name[0])
        return "QuirnNAS";
    return name;
}

TEST(CliServerName, SetFromTheHostOnlyWhenMissingOrEmpty) {
    msptest::TempDir dir;
    // No file: the name is set to the host name and the file made.
    MsplatResult r = Msplat({"servername"}, dir.path());
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, HostName() + "\n");
    EXPECT_EQ(msptest::ReadFile(dir.file("MediaServer.cfg")),
              "[upnp]\r\nserverName=\"" + HostName() + "\"\r\n\r\n");
    // A name that is set stays, also in another file.
    msptest::WriteFile(dir.file("other.cfg"), "[UPNP]\r\nSERVERNAME=\"Kitchen\"\r\n");
    r = Msplat({"servername", "--file", dir.file("other.cfg")});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "Kitchen\n");
    EXPECT_EQ(msptest::ReadFile(dir.file("other.cfg")), "[UPNP]\r\nSERVERNAME=\"Kitchen\"\r\n");
    // An int key can't take a name.
    msptest::WriteFile(dir.file("int.cfg"), "[upnp]\r\nserverName=5\r\n");
    r = Msplat({"servername", "--file", dir.file("int.cfg")});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("msplat: servername: " + dir.file("int.cfg") + ": the name could not be set\n"),
              std::string::npos)
        << r.err;
}

TEST(CliScanPaths, ValueOrWhyNot) {
    msptest::TempDir dir;
    const std::string file = dir.file("MediaServer.cfg");
    MsplatResult r = Msplat({"scanpaths"}, dir.path());
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "msplat: MediaServer.cfg: No such file or directory\n");
    msptest::WriteFile(file, "[MCM]\r\nscanPaths=\"/share/Music|/share/Video\"\r\n");
    r = Msplat({"scanpaths"}, dir.path());
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "/share/Music|/share/Video\n");
    msptest::WriteFile(dir.file("empty.cfg"), "[MCM]\r\nscanPaths=\"\"\r\n");
    r = Msplat({"scanpaths", "--file", dir.file("empty.cfg")});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "\n");
    // The library says only that it failed; the tool adds why.
    msptest::WriteFile(file, "[MCM]\r\nother=1\r\n");
    r = Msplat({"scanpaths"}, dir.path());
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "get config len\nmsplat: MediaServer.cfg: [MCM] scanPaths: no such key\n");
    msptest::WriteFile(file, "[MCM]\r\nscanPaths=1\r\n");
    r = Msplat({"scanpaths"}, dir.path());
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "get config len\nmsplat: MediaServer.cfg: [MCM] scanPaths: type mismatch\n");
}

}  // namespace
