// msplat config: get, type, set, create; apply and its reader of lines, among concurrent writers; edit.
#include <sys/stat.h>
#include <unistd.h>

#include <random>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cfglines.h"
#include "cli/msplat_run.h"
#include "config/internal.h"
#include "msplatform/ZvCfgCtrlMgr.h"

namespace {

using namespace msptest;
using Line = msplat::CfgLine;

class CliConfig : public ::testing::Test {
protected:
    void SetUp() override { WriteFile(file_, kStart); }
    static constexpr const char* kStart = "[upnp]\r\nserverName=\"NAS\"\r\n\r\n[dms]\r\nsize=1\r\n\r\n";
    TempDir dir_;
    const std::string file_ = dir_.file("MediaServer.cfg");
};

// What the store could not read back as written is refused; a key's type decides how a value is read;
// what is missing gives 1, every other failure 2, and a set on a missing file makes none.
TEST_F(CliConfig, ReadAndChangeKeys) {
    ASSERT_EQ(mkdir(dir_.file("sub").c_str(), 0700), 0);
    ExpectRuns({{"set dms size 2147483648", 2, "", "*"},
                {"set dms size -2147483649", 2, "", "*"},
                {{"create", "dms", "n", "12 ", "--int"}, 2, "", "*"},
                {{"set", "upnp", "serverName", "a\nb"}, 2, "", "*"},
                {{"create", "a\r", "k", "1", "--int"}, 2, "", "*"},
                {{"create", "a", "k\n", "1", "--int"}, 2, "", "*"},
                {"create a k=v 1 --int", 2, "", "*"},
                {{"create", "", "k", "1", "--int"}, 2, "", "*"},
                {"get dms nosuch", 1, "", "*"},
                {"set nosuch size 1", 1, "", "*"},
                {"--file none set a k 1", 1, "", "*"},
                {"--file sub create a k 1 --int", 2, "", "*"},
                {{"--file", std::string(261, 'x'), "create", "a", "k", "1", "--int"}, 2, "", "*"},
                {"set DMS SIZE +2147483647", 0, "", ""},
                {"set upnp servername -1", 0, "", ""},
                {"create --int dms low -2147483648", 0, "", ""},
                {"get Upnp SERVERNAME --file MediaServer.cfg", 0, "-1\n", ""}},
               dir_.path(), "config");
    EXPECT_NE(access(dir_.file("none").c_str(), F_OK), 0);
    EXPECT_EQ(ReadFile(file_),
              "[upnp]\r\nserverName=\"-1\"\r\n\r\n[dms]\r\nsize=2147483647\r\nlow=-2147483648\r\n\r\n");
}

// The store reads a text and writes it back; the tool's reader of apply and edit must see the same sections,
// keys, types and values in it, over texts made of the pieces that the reader's rules turn on.
TEST(CliConfigLines, ReadAsTheStoreReadsThem) {
    std::vector<std::string> pieces = {
        std::string(1, '\0'), "\r\n", "99999999999", "[s]", "[S]\n", "\nk=", "\nK=\"", "[]", "\n[s]\n",
        "=\"v\"\n",           "\r["};
    for (char c : std::string("[]=\"aB \t7-+x\r\n")) pieces.push_back(std::string(1, c));
    TempDir dir;
    const std::string file = dir.file("MediaServer.cfg");
    ASSERT_EQ(initializeConfig(file.c_str()), CFG_OK);
    std::mt19937 random(23);
    for (int i = 0, texts = kUnderEmulation ? 500 : 2000; i < texts && !HasFailure(); ++i) {
        std::string text, tool;
        for (size_t n = random() % 30; n > 0; --n) text += pieces[random() % pieces.size()];
        // What the store's writer makes of the lines as the tool reads them: each section line one section.
        for (const Line& line : msplat::ReadCfgLines(text, false)) {
            if (line.kind == Line::kSection) tool += (tool.empty() ? "[" : "\r\n[") + line.name + "]\r\n";
            if (line.kind == Line::kInt) tool += line.name + "=" + std::to_string(line.intValue) + "\r\n";
            if (line.kind == Line::kString) tool += line.name + "=\"" + line.value + "\"\r\n";
        }
        unlink(file.c_str());  // new files each time: truncating one costs a flush on some file systems
        WriteFile(file, text);
        ASSERT_EQ(cfgMgr.readCfgValues(), CFG_OK);
        unlink(file.c_str());
        EXPECT_EQ(cfgMgr.writeCfgValues() == CFG_OK ? ReadFile(file) : "", tool.empty() ? "" : tool + "\r\n")
            << ::testing::PrintToString(text);
    }
    deinitializeConfig();
}

// apply names each line that the store would drop or read otherwise, each value of another type than its
// key's, each new name with a blank at an edge, and writes nothing; nor does --dry-run, nor a failed read.
TEST_F(CliConfig, ApplyAllOrNothing) {
    const std::string types = "[dms]\nn=5\nsize=\"1\"\n[upnp]\nserverName=5\n n=1\n[ n]\n";
    const std::string bad =
        "k=\"x\"\n[upnp]\nname \"x\"\nname=\"x\n=5\n[dms]\nsize=1x\n"
        "n=99999999999\nSIZE=2\n[]\nk=1\n[dms]\rk=1\na";
    for (const auto& [input, named] :
         {std::pair(bad + '\0' + "=1\n", "1 3 4 5 7 8 9 10 11 12 13 14 "), std::pair(types, "3 5 6 7 ")}) {
        const MsplatResult r = Msplat("config apply", dir_.path(), input);
        const std::regex line("msplat: standard input line (\\d+) \\(");
        const auto lines = std::regex_replace(r.err, line, "$1 ", std::regex_constants::format_no_copy);
        EXPECT_EQ(lines + std::to_string(r.status), named + std::string("2")) << r.err;
    }
    WriteFile(dir_.file("changes"),
              "[UPNP]\r\nserverName=\"Den\"\r\n\r\n[dms]\nsize= +2\nn=5\n  \n[new]\nk=\"\"\n");
    ExpectRuns({{"apply --dry-run changes", 0, "*", ""}}, dir_.path(), "config");
    EXPECT_EQ(ReadFile(file_), kStart);
    ExpectRuns({{"apply changes", 0, "", ""}, {"--file /proc/self/mem apply changes", 2, "", "*"}},
               dir_.path(), "config");
    EXPECT_EQ(ReadFile(file_),
              "[upnp]\r\nserverName=\"Den\"\r\n\r\n[dms]\r\nsize=2\r\nn=5\r\n\r\n[new]\r\nk=\"\"\r\n\r\n");
}

// Applies that set three keys at once and make one, among loops of msplat config set on other keys and a
// reader: the reader never sees the three apart, and no change of either side is lost.
TEST_F(CliConfig, ApplyIsOneTransactionAmongConcurrentSets) {
    const int rounds = kUnderEmulation ? 4 : 10;
    WriteFile(file_, "[s]\r\na=0\r\nb=0\r\nc=0\r\nx0=0\r\nx1=0\r\n\r\n");
    const std::string config = "config --file " + file_ + " ";
    std::vector<pid_t> children;
    for (const std::string key : {"x0 ", "x1 "})
        children.push_back(StartChild([&, key] {
            int failures = 0;
            for (int i = 1; i <= rounds; ++i)
                failures += Msplat(config + "set s " + key + std::to_string(i)).status != 0;
            return failures;
        }));
    children.push_back(StartChild([&] {
        int torn = 0;
        for (int i = 0; i < rounds; ++i)
            torn += !std::regex_search(Msplat(config + "dump").out, std::regex("a=(\\d+)\nb=\\1\nc=\\1\n"));
        return torn;
    }));
    std::string made;
    for (int i = 1; i <= rounds; ++i) {
        const std::string n = std::to_string(i), abc = "[s]\na=" + n + "\nb=" + n + "\nc=" + n + "\n";
        EXPECT_EQ(Msplat(config + "apply", "", abc + "[made]\nk" + n + "=" + n).status, 0);
        made += "k" + n + "=" + n + "\n";
    }
    for (pid_t child : children) EXPECT_EQ(WaitChild(child, 600000), 0);
    const std::string n = std::to_string(rounds);
    EXPECT_EQ(Msplat(config + "dump").out,
              "[s]\na=" + n + "\nb=" + n + "\nc=" + n + "\nx0=" + n + "\nx1=" + n + "\n\n[made]\n" + made);
}

// edit writes the copy back and leaves none behind; or, when the file changed meanwhile, the editor failed
// or the file could not be written whole (the old bytes go back), writes nothing and names the copy it keeps.
TEST_F(CliConfig, EditWritesBackOrKeepsTheCopy) {
    TempDir tmp;
    auto edit = [&](const std::string& editor, const Strings& prefix = {}) {
        WriteFile(dir_.file("editor"), "#!/bin/sh\n" + editor + "\n");
        chmod(dir_.file("editor").c_str(), 0700);
        return Msplat("config edit", dir_.path(), "",
                      {"VISUAL=" + dir_.file("editor"), "TMPDIR=" + tmp.path()}, prefix);
    };
    // Refused: status 2, and the path of the copy that stays, with `kept` in it.
    auto refused = [&](const MsplatResult& r, const std::string& kept) {
        const size_t at = r.err.find(tmp.path());
        EXPECT_EQ(r.status, 2) << r.err;
        EXPECT_EQ(at == std::string::npos ? "" : ReadFile(r.err.substr(at, r.err.find('\n') - at)), kept);
    };
    const std::string edited = "stray=1\r\n[upnp]\r\n# a note\r\nname=\"Den\"\r\nName=\"x\"\r\n",
                      big = std::string(600, 'n');
    WriteFile(dir_.file("edited"), edited);
    const MsplatResult r = edit("cp " + dir_.file("edited") + " \"$1\"");
    EXPECT_EQ(ReadFile(file_) + std::to_string(r.status), edited + "0");
    EXPECT_EQ(rmdir(tmp.path().c_str()), 0);  // no copy left
    ASSERT_EQ(mkdir(tmp.path().c_str(), 0700), 0);
    refused(edit("printf '[a]\\nk=2\\n' > \"$1\"; printf 'x=1\\r\\n' >> " + file_), "[a]\nk=2\n");
    refused(edit("printf half > \"$1\"; exit 3"), "half");
    // msplat may write one 512-byte block at most; the editor lifts the limit for itself.
    refused(edit("ulimit -S -f unlimited; printf '[a]\\nk=\"" + big + "\"\\n' > \"$1\"",
                 {"sh", "-c", "ulimit -S -f 1; exec \"$@\"", "sh"}),
            "[a]\nk=\"" + big + "\"\n");
    EXPECT_EQ(ReadFile(file_), edited + "x=1\r\n");
}

}  // namespace
