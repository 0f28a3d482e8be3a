// msplat config: outputs, exit statuses and the file it leaves, run as a separate process.
#include <sys/stat.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cli/msplat_run.h"
#include "msplatform/ZvCfgCtrlMgr.h"

namespace {

using msptest::ExpectRuns;
using msptest::Msplat;

TEST(CliConfig, CreateSetGetTypeDumpAndTheFileLeft) {
    msptest::TempDir dir;
    ExpectRuns({{{"create", "upnp", "serverName", "Living room NAS", "--string"}, 0, "", ""},
                {{"create", "dms", "logFileSize", "1048576", "--int"}, 0, "", ""},
                {{"create", "--int", "dms", "logFilesCount", "-5"}, 0, "", ""},
                {{"set", "DMS", "LOGFILESCOUNT", "10"}, 0, "", ""},
                {{"set", "upnp", "serverName", "Living room \"NAS\""}, 0, "", ""},
                {{"get", "Upnp", "servername"}, 0, "Living room \"NAS\"\n", ""},
                {{"get", "dms", "logFilesCount"}, 0, "10\n", ""},
                {{"type", "dms", "logFileSize"}, 0, "int\n", ""},
                {{"type", "upnp", "serverName"}, 0, "string\n", ""},
                {{"create", "upnp", "empty", "", "--string"}, 0, "", ""},
                {{"get", "upnp", "empty"}, 0, "\n", ""},
                {{"dump"},
                 0,
                 "[upnp]\nserverName=\"Living room \"NAS\"\"\nempty=\"\"\n\n[dms]\nlogFileSize=1048576\n"
                 "logFilesCount=10\n",
                 ""}},
               dir.path(), {"config"});
    EXPECT_EQ(msptest::ReadFile(dir.file("MediaServer.cfg")),
              "[upnp]\r\nserverName=\"Living room \"NAS\"\"\r\nempty=\"\"\r\n\r\n"
              "[dms]\r\nlogFileSize=1048576\r\nlogFilesCount=10\r\n\r\n");
}

// Refused values and names (which the store could not read back as written), result codes in words.
TEST(CliConfig, ResultCodesInWordsAndExitStatuses) {
    msptest::TempDir dir;
    const std::string file = dir.file("my.cfg"), at = "msplat: " + file + ": ";
    msptest::WriteFile(file, "[a]\nn=1\ns=\"x\"\n");
    ExpectRuns(
        {{{"get", "a", "missing"}, 1, "", at + "[a] missing: no such key\n"},
         {{"get", "b", "n"}, 1, "", at + "[b]: no such section\n"},
         {{"type", "a", "missing"}, 1, "", at + "[a] missing: no such key\n"},
         {{"set", "a", "missing", "1"}, 1, "", at + "[a] missing: no such key\n"},
         {{"set", "b", "n", "1"}, 1, "", at + "[b]: no such section\n"},
         {{"create", "a", "N", "2", "--int"}, 2, "", at + "[a] N: key exists\n"},
         {{"set", "a", "n", "x1"}, 2, "", "msplat: [a] n is an int key: \"x1\" is no int\n"},
         {{"set", "a", "n", "2147483648"}, 2, "", "msplat: [a] n is an int key: \"2147483648\" is no int\n"},
         {{"create", "a", "m", "12 ", "--int"}, 2, "", "msplat: \"12 \" is no int\n"},
         {{"create", "a", "m", "one\ntwo", "--string"},
          2,
          "",
          "msplat: config: a line end can't stand in a section, key or value\n"},
         {{"create", "a", "k=v", "1", "--int"}, 2, "", "msplat: config: a key name can't hold \"=\"\n"},
         {{"create", "", "k", "1", "--int"}, 2, "", "msplat: config: empty section or key name\n"}},
        "", {"config", "--file", file});
    EXPECT_EQ(msptest::ReadFile(file), "[a]\nn=1\ns=\"x\"\n");  // not even rewritten
    // A string key takes any text, an int key the whole range; --file goes anywhere.
    ExpectRuns({{{"config", "--file", file, "set", "a", "s", "12 monkeys"}, 0, "", ""},
                {{"config", "--file", file, "set", "a", "n", "-2147483648"}, 0, "", ""},
                {{"config", "get", "--file", file, "a", "n"}, 0, "-2147483648\n", ""},
                {{"config", "get", "a", "s", "--file", file}, 0, "12 monkeys\n", ""}});
}

// A missing file: 1 and nothing made, except by a create; what is no regular file (the store would read a
// FIFO for ever) or a path over 260 bytes: 2.
TEST(CliConfig, MissingFileAndWhatIsNoFile) {
    msptest::TempDir dir;
    const std::string missing = dir.file("none.cfg"), sub = dir.file("sub"),
                      notFile = ": not a regular file\n", none = ": No such file or directory\n";
    ASSERT_EQ(mkdir(sub.c_str(), 0700), 0);
    ExpectRuns({{{"--file", missing, "get", "a", "k"}, 1, "", "msplat: " + missing + none},
                {{"--file", missing, "type", "a", "k"}, 1, "", "msplat: " + missing + none},
                {{"--file", missing, "set", "a", "k", "1"}, 1, "", "msplat: " + missing + none},
                {{"--file", missing, "dump"}, 1, "", "msplat: " + missing + none},
                {{"--file", sub, "get", "a", "k"}, 2, "", "msplat: " + sub + notFile},
                {{"--file", sub, "create", "a", "k", "1", "--int"}, 2, "", "msplat: " + sub + notFile},
                {{"--file", sub, "dump"}, 2, "", "msplat: " + sub + notFile},
                {{"--file", std::string(261, 'x'), "dump"}, 2, "", "*"}},
               "", {"config"});
    EXPECT_FALSE(msptest::FileExists(missing));
    EXPECT_EQ(Msplat({"config", "--file", missing, "create", "s", "k", "v", "--string"}).status, 0);
    EXPECT_EQ(msptest::ReadFile(missing), "[s]\r\nk=\"v\"\r\n\r\n");
}

// Lines the store drops, a nameless section, a repeated key and a section repeated in another case; lookups
// see the first of repeated sections only.
TEST(CliConfig, DumpShowsWhatTheStoreReads) {
    msptest::TempDir dir;
    const std::string file = dir.file("MediaServer.cfg");
    msptest::WriteFile(
        file, "stray=1\r\n[]\r\nlost=2\r\n[a]\r\nk=\"v\"\r\nK=3\r\ncomment\r\nn=07x\r\n[b]\r\n[A]\r\nz=1");
    ExpectRuns({{{"dump"}, 0, "[a]\nk=\"v\"\nn=7\n\n[b]\n\n[A]\nz=1\n", ""},
                {{"get", "A", "z"}, 1, "", "msplat: MediaServer.cfg: [A] z: no such key\n"}},
               dir.path(), {"config"});
    msptest::WriteFile(file, "");
    ExpectRuns({{{"config", "dump"}, 0, "", ""}}, dir.path());
}

// Four loops of msplat runs create keys in one file while this process creates its own through the library:
// every create is a locked read, change and write of the whole file, so none is lost.
TEST(CliConfig, ConcurrentCreatesLoseNoKey) {
    msptest::TempDir dir;
    const std::string file = dir.file("MediaServer.cfg");
    const int loops = 4, perLoop = msptest::UnderEmulation() ? 8 : 20;
    std::vector<pid_t> children;
    for (int loop = 0; loop < loops; ++loop)
        children.push_back(msptest::StartChild([&, loop] {
            int failures = 0;
            for (int i = 0; i < perLoop; ++i)
                failures += Msplat({"config", "--file", file, "create", "loop" + std::to_string(loop),
                                    "key" + std::to_string(i), std::to_string(loop * 1000 + i), "--int"})
                                .status != 0;
            return failures;
        }));
    ASSERT_EQ(initializeConfig(file.c_str()), CFG_OK);
    for (int i = 0; i < perLoop; ++i)
        EXPECT_EQ(createConfigInt(const_cast<char*>("test"),
                                  const_cast<char*>(("key" + std::to_string(i)).c_str()), i),
                  CFG_OK);
    for (pid_t child : children) EXPECT_EQ(msptest::WaitChild(child, 600000), 0);
    deinitializeConfig();
    // Each section holds its keys in the order its one writer created them, each with its value.
    const std::string dump = Msplat({"config", "--file", file, "dump"}).out;
    size_t keys = 0;
    for (size_t at = dump.find('='); at != std::string::npos; at = dump.find('=', at + 1)) ++keys;
    EXPECT_EQ(keys, static_cast<size_t>((loops + 1) * perLoop));
    for (int loop = -1; loop < loops; ++loop) {
        std::string block = loop < 0 ? "[test]\n" : "[loop" + std::to_string(loop) + "]\n";
        for (int i = 0; i < perLoop; ++i)
            block += "key" + std::to_string(i) + "=" + std::to_string(loop < 0 ? i : loop * 1000 + i) + "\n";
        EXPECT_NE(dump.find(block), std::string::npos) << block;
    }
}

}  // namespace
