// msplat config: outputs, exit statuses and the file it leaves, run as a separate process.
#include <sys/stat.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cli/msplat_run.h"
#include "msplatform/ZvCfgCtrlMgr.h"

namespace {

using msptest::Msplat;
using msptest::MsplatResult;
using Args = std::vector<std::string>;

TEST(CliConfig, CreateSetGetTypeDumpAndTheFileLeft) {
    msptest::TempDir dir;
    struct Step {
        Args args;
        int status;
        std::string out;
    } steps[] = {
        {{"config", "create", "upnp", "serverName", "Living room NAS", "--string"}, 0, ""},
        {{"config", "create", "dms", "logFileSize", "1048576", "--int"}, 0, ""},
        {{"config", "create", "--int", "dms", "logFilesCount", "-5"}, 0, ""},
        {{"config", "set", "DMS", "LOGFILESCOUNT", "10"}, 0, ""},
        {{"config", "set", "upnp", "serverName", "Living room \"NAS\""}, 0, ""},
        {{"config", "get", "Upnp", "servername"}, 0, "Living room \"NAS\"\n"},
        {{"config", "get", "dms", "logFilesCount"}, 0, "10\n"},
        {{"config", "type", "dms", "logFileSize"}, 0, "int\n"},
        {{"config", "type", "upnp", "serverName"}, 0, "string\n"},
        {{"config", "create", "upnp", "empty", "", "--string"}, 0, ""},
        {{"config", "get", "upnp", "empty"}, 0, "\n"},
        {{"config", "dump"},
         0,
         "[upnp]\nserverName=\"Living room "
         "\"NAS\"\"\nempty=\"\"\n\n[dms]\nlogFileSize=1048576\nlogFilesCount=10\n"},
    };
    for (const Step& step : steps) {
        MsplatResult r = Msplat(step.args, dir.path());
        EXPECT_EQ(r.status, step.status) << step.args[1] << " " << r.err;
        EXPECT_EQ(r.out, step.out) << step.args[1];
        EXPECT_EQ(r.err, "") << step.args[1];
    }
    EXPECT_EQ(msptest::ReadFile(dir.file("MediaServer.cfg")),
              "[upnp]\r\nserverName=\"Living room \"NAS\"\"\r\nempty=\"\"\r\n\r\n"
              "[dms]\r\nlogFileSize=1048576\r\nlogFilesCount=10\r\n\r\n");
}

TEST(CliConfig, ResultCodesInWordsAndExitStatuses) {
    msptest::TempDir dir;
    const std::string file = dir.file("my.cfg");
    msptest::WriteFile(file, "[a]\nn=1\ns=\"x\"\n");
    struct Case {
        Args args;
        int status;
        std::string err;  // the whole of standard error
    } cases[] = {
        {{"get", "a", "missing"}, 1, "msplat: " + file + ": [a] missing: no such key\n"},
        {{"get", "b", "n"}, 1, "msplat: " + file + ": [b]: no such section\n"},
        {{"type", "a", "missing"}, 1, "msplat: " + file + ": [a] missing: no such key\n"},
        {{"set", "a", "missing", "1"}, 1, "msplat: " + file + ": [a] missing: no such key\n"},
        {{"set", "b", "n", "1"}, 1, "msplat: " + file + ": [b]: no such section\n"},
        {{"create", "a", "N", "2", "--int"}, 2, "msplat: " + file + ": [a] N: key exists\n"},
        {{"set", "a", "n", "x1"}, 2, "msplat: [a] n is an int key: \"x1\" is no int\n"},
        {{"set", "a", "n", "2147483648"}, 2, "msplat: [a] n is an int key: \"2147483648\" is no int\n"},
        {{"create", "a", "m", "12 ", "--int"}, 2, "msplat: \"12 \" is no int\n"},
        {{"create", "a", "m", "one\ntwo", "--string"},
         2,
         "msplat: config: a line end can't stand in a section, key or value\n"},
        {{"create", "a", "k=v", "1", "--int"}, 2, "msplat: config: a key name can't hold \"=\"\n"},
        {{"create", "", "k", "1", "--int"}, 2, "msplat: config: empty section or key name\n"},
    };
    for (const Case& c : cases) {
        Args args = {"config", "--file", file};
        args.insert(args.end(), c.args.begin(), c.args.end());
        MsplatResult r = Msplat(args);
        EXPECT_EQ(r.status, c.status) << c.args[0] << " " << c.args[2];
        EXPECT_EQ(r.err, c.err);
        EXPECT_EQ(r.out, "");
    }
    // None of the refused or failed writes changed the file.
    EXPECT_EQ(msptest::ReadFile(file), "[a]\nn=1\ns=\"x\"\n");
    // A string key takes any text, an int key the whole range.
    EXPECT_EQ(Msplat({"config", "--file", file, "set", "a", "s", "12 monkeys"}).status, 0);
    EXPECT_EQ(Msplat({"config", "--file", file, "set", "a", "n", "-2147483648"}).status, 0);
    EXPECT_EQ(Msplat({"config", "get", "--file", file, "a", "n"}).out, "-2147483648\n");
    EXPECT_EQ(Msplat({"config", "get", "a", "s", "--file", file}).out, "12 monkeys\n");
}

TEST(CliConfig, MissingFileAndWhatIsNoFile) {
    msptest::TempDir dir;
    const std::string missing = dir.file("none.cfg");
    for (const char* command : {"get", "type", "set", "dump"}) {
        Args args = {"config", "--file", missing, command};
        if (std::string(command) != "dump") args.insert(args.end(), {"a", "k"});
        if (std::string(command) == "set") args.push_back("1");
        MsplatResult r = Msplat(args);
        EXPECT_EQ(r.status, 1) << command;
        EXPECT_EQ(r.err, "msplat: " + missing + ": No such file or directory\n") << command;
        EXPECT_FALSE(msptest::FileExists(missing)) << command;
    }
    // A directory is never read as a store; a create doesn't write into one either.
    ASSERT_EQ(mkdir(dir.file("sub").c_str(), 0700), 0);
    for (Args args : {Args{"get", "a", "k"}, Args{"create", "a", "k", "1", "--int"}, Args{"dump"}}) {
        args.insert(args.begin(), {"config", "--file", dir.file("sub")});
        MsplatResult r = Msplat(args);
        EXPECT_EQ(r.status, 2);
        EXPECT_EQ(r.err, "msplat: " + dir.file("sub") + ": not a regular file\n");
    }
    EXPECT_EQ(Msplat({"config", "--file", std::string(261, 'x'), "dump"}).status, 2);
    // A create makes the file.
    EXPECT_EQ(Msplat({"config", "--file", missing, "create", "s", "k", "v", "--string"}).status, 0);
    EXPECT_EQ(msptest::ReadFile(missing), "[s]\r\nk=\"v\"\r\n\r\n");
}

TEST(CliConfig, DumpShowsWhatTheStoreReads) {
    msptest::TempDir dir;
    const std::string file = dir.file("MediaServer.cfg");
    // Lines the store drops, a nameless section, a repeated key and a section repeated in another case.
    msptest::WriteFile(
        file, "stray=1\r\n[]\r\nlost=2\r\n[a]\r\nk=\"v\"\r\nK=3\r\ncomment\r\nn=07x\r\n[b]\r\n[A]\r\nz=1");
    MsplatResult r = Msplat({"config", "dump"}, dir.path());
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "[a]\nk=\"v\"\nn=7\n\n[b]\n\n[A]\nz=1\n");
    // Lookups see the first of the repeated sections only.
    EXPECT_EQ(Msplat({"config", "get", "A", "z"}, dir.path()).status, 1);
    msptest::WriteFile(file, "");
    r = Msplat({"config", "dump"}, dir.path());
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "");
}

TEST(CliConfig, BadUsage) {
    for (const Args& args : {Args{}, Args{"nosuch"}, Args{"config"}, Args{"config", "get", "a"},
                             Args{"config", "create", "a", "k", "1"},
                             Args{"config", "create", "a", "k", "1", "--int", "--string"},
                             Args{"config", "get", "a", "k", "extra"}, Args{"config", "--nosuch", "dump"}}) {
        MsplatResult r = Msplat(args);
        EXPECT_EQ(r.status, 2) << (args.empty() ? "" : args.back());
        EXPECT_EQ(r.out, "");
        EXPECT_NE(r.err, "");
    }
}

// Four processes, each a loop of msplat runs, create keys in one file while this process creates its own
// through the library: every create is a locked read, change and write of the whole file, so none is lost.
TEST(CliConfig, ConcurrentCreatesLoseNoKey) {
    msptest::TempDir dir;
    const std::string file = dir.file("MediaServer.cfg");
    const int loops = 4;
    const int perLoop = msptest::UnderEmulation() ? 8 : 20;
    std::vector<pid_t> children;
    for (int loop = 0; loop < loops; ++loop) {
        children.push_back(msptest::StartChild([&, loop] {
            int failures = 0;
            for (int i = 0; i < perLoop; ++i) {
                MsplatResult r =
                    Msplat({"config", "--file", file, "create", "loop" + std::to_string(loop),
                            "key" + std::to_string(i), std::to_string(loop * 1000 + i), "--int"});
                failures += r.status != 0;
            }
            return failures;
        }));
    }
    ASSERT_EQ(initializeConfig(file.c_str()), CFG_OK);
    for (int i = 0; i < perLoop; ++i) {
        std::string key = "key" + std::to_string(i);
        EXPECT_EQ(createConfigInt(const_cast<char*>("test"), const_cast<char*>(key.c_str()), i), CFG_OK);
    }
    for (pid_t child : children) EXPECT_EQ(msptest::WaitChild(child, 600000), 0);

    for (int loop = 0; loop < loops; ++loop) {
        std::string section = "loop" + std::to_string(loop);
        for (int i = 0; i < perLoop; ++i) {
            std::string key = "key" + std::to_string(i);
            int value = -1;
            EXPECT_EQ(getConfigInt(const_cast<char*>(section.c_str()), const_cast<char*>(key.c_str()), value),
                      CFG_OK)
                << section << " " << key;
            EXPECT_EQ(value, loop * 1000 + i);
        }
    }
    deinitializeConfig();
    MsplatResult r = Msplat({"config", "--file", file, "dump"});
    size_t keys = 0;
    for (size_t at = r.out.find('='); at != std::string::npos; at = r.out.find('=', at + 1)) ++keys;
    EXPECT_EQ(keys, static_cast<size_t>((loops + 1) * perLoop));
}

}  // namespace
