// msplat config: get, type, set, create, dump; apply, its reader of lines against the store's, one
// transaction among concurrent writers; edit and the editor's endings.
#include <sys/stat.h>
#include <unistd.h>

#include <random>
#include <regex>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "cfglines.h"
#include "cli/msplat_run.h"
#include "config/internal.h"
#include "msplatform/ZvCfgCtrlMgr.h"

namespace {

using namespace msptest;

class CliConfig : public ::testing::Test {
protected:
    void SetUp() override { WriteFile(file_, kStart); }
    static constexpr const char* kStart = "[upnp]\r\nserverName=\"NAS\"\r\n\r\n[dms]\r\nsize=1\r\n\r\n";
    TempDir dir_;
    const std::string file_ = dir_.file("MediaServer.cfg");
};

// What the store could not read back as written is refused and writes nothing; a key's type decides how a
// value is read; what is missing gives 1, every other failure 2; dump shows what the store reads.
TEST_F(CliConfig, ReadAndChangeKeys) {
    WriteFile(file_, "[upnp]\nname=\"NAS\"\n[dms]\nsize=1\n");
    ASSERT_EQ(mkdir(dir_.file("sub").c_str(), 0700), 0);
    const std::string at = "msplat: MediaServer.cfg: [", no = "msplat: [dms] size is an int key: \"",
                      end = "msplat: config: a line end can't stand in a section, key or value\n",
                      sub = "msplat: sub: not a regular file\n",
                      none = "msplat: none: No such file or directory\n";
    ExpectRuns({{"set dms size 2147483648", 2, "", no + "2147483648\" is no int\n"},
                {"set dms size -2147483649", 2, "", no + "-2147483649\" is no int\n"},
                {{"set", "dms", "size", " 5"}, 2, "", no + " 5\" is no int\n"},
                {{"create", "dms", "n", "12 ", "--int"}, 2, "", "msplat: \"12 \" is no int\n"},
                {{"set", "upnp", "name", "a\nb"}, 2, "", end},
                {{"create", "a\r", "k", "1", "--int"}, 2, "", end},
                {{"create", "a", "k\n", "1", "--int"}, 2, "", end},
                {"create a k=v 1 --int", 2, "", "msplat: config: a key name can't hold \"=\"\n"},
                {{"create", "", "k", "1", "--int"}, 2, "", "msplat: config: empty section or key name\n"},
                {"create DMS SIZE 1 --int", 2, "", at + "DMS] SIZE: key exists\n"},
                {"get dms nosuch", 1, "", at + "dms] nosuch: no such key\n"},
                {"type nosuch size", 1, "", at + "nosuch]: no such section\n"},
                {"set dms nosuch 1", 1, "", at + "dms] nosuch: no such key\n"},
                {"set nosuch size 1", 1, "", at + "nosuch]: no such section\n"},
                {"--file none get a k", 1, "", none},
                {"--file none set a k 1", 1, "", none},
                {"--file sub get a k", 2, "", sub},
                {"--file sub set a k 1", 2, "", sub},
                {"--file sub create a k 1 --int", 2, "", sub},
                {{"--file", std::string(261, 'x'), "create", "a", "k", "1", "--int"}, 2, "", "*"},
                {"set DMS SIZE +2147483647", 0, "", ""},
                {"set upnp name -1", 0, "", ""},
                {"create --int dms low -2147483648", 0, "", ""},
                {"get Upnp NAME --file MediaServer.cfg", 0, "-1\n", ""},
                {"type dms size", 0, "int\n", ""}},
               dir_.path(), "config");
    EXPECT_FALSE(FileExists(dir_.file("none")));
    EXPECT_EQ(ReadFile(file_),
              "[upnp]\r\nname=\"-1\"\r\n\r\n[dms]\r\nsize=2147483647\r\nlow=-2147483648\r\n\r\n");
    WriteFile(file_,
              "stray=1\r\n[]\r\nlost=2\r\n[a]\r\nk=\"v\"\r\nK=3\r\nnote\r\nn=07x\r\n[b]\r\n[A]\r\nz=1");
    ExpectRuns({{"dump", 0, "[a]\nk=\"v\"\nn=7\n\n[b]\n\n[A]\nz=1\n", ""},
                {"get A z", 1, "", at + "A] z: no such key\n"}},
               dir_.path(), "config");
}

// The store reads a text and writes it back; the tool's reader of apply and edit must see the same sections,
// keys, types and values in it, over texts made of the pieces that the reader's rules turn on.
TEST(CliConfigLines, ReadAsTheStoreReadsThem) {
    const std::vector<std::string> pieces = {
        "[",           "]",   "=",     "\"",   "a",      "B",  " ",       "\t",
        "7",           "-",   "+",     "x",    "\r",     "\n", "\r\n",    std::string(1, '\0'),
        "99999999999", "[s]", "[S]\n", "\nk=", "\nK=\"", "[]", "\n[s]\n", "=\"v\"\n",
        "\r["};
    TempDir dir;
    const std::string file = dir.file("MediaServer.cfg");
    ASSERT_EQ(initializeConfig(file.c_str()), CFG_OK);
    std::mt19937 random(23);
    for (int i = 0, texts = UnderEmulation() ? 500 : 2000; i < texts && !HasFailure(); ++i) {
        std::string text, tool;
        for (size_t n = random() % 30; n > 0; --n) text += pieces[random() % pieces.size()];
        // What the store's writer makes of the lines as the tool reads them: each section line one section.
        for (const msplat::CfgLine& line : msplat::ReadCfgLines(text, false)) {
            if (line.kind == msplat::CfgLine::kSection)
                tool += (tool.empty() ? "[" : "\r\n[") + line.name + "]\r\n";
            if (line.kind == msplat::CfgLine::kInt)
                tool += line.name + "=" + std::to_string(line.intValue) + "\r\n";
            if (line.kind == msplat::CfgLine::kString) tool += line.name + "=\"" + line.value + "\"\r\n";
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

// apply writes all or nothing: it names each line that the store would drop or read otherwise, each value of
// another type than its key's, each new name with a blank at an edge. --dry-run tells and writes nothing; a
// missing file is an empty store, one that can't be read whole is never written over.
TEST_F(CliConfig, ApplyAllOrNothing) {
    for (const auto& [input, named] :
         {std::pair(
              std::string(
                  "k=\"x\"\n[upnp]\nname \"x\"\nname=\"x\n=5\n[dms]\nsize=1x\nn=99999999999\nSIZE=2\n[]\n"
                  "k=1\n[dms]\rk=1\na") +
                  '\0' + "=1\n",
              "1 3 4 5 7 8 9 10 11 12 13 14 "),
          std::pair(std::string("[dms]\nn=5\nsize=\"1\"\n[upnp]\nserverName=5\n n=1\n[ n]\n"), "3 5 6 7 ")}) {
        const MsplatResult r = Msplat("config apply", dir_.path(), input);
        const std::regex line("msplat: standard input line (\\d+) \\(");
        std::string lines;
        for (std::sregex_iterator m(r.err.begin(), r.err.end(), line), end; m != end; ++m)
            lines += (*m)[1].str() + " ";
        EXPECT_EQ(lines, named) << r.err;
        EXPECT_EQ(r.err.substr(r.err.rfind("msplat: ")) + std::to_string(r.status),
                  "msplat: MediaServer.cfg: nothing written\n2");
    }
    WriteFile(dir_.file("changes"),
              "[UPNP]\r\nserverName=\"Den\"\r\n\r\n[dms]\nsize= +2\nn=5\n  \n[new]\nk=\"\"\n");
    ExpectRuns({{"apply --dry-run changes", 0,
                 "[upnp] serverName=\"Den\" (was \"NAS\")\n[dms] size=2 (was 1)\n"
                 "[dms] n=5 (new key)\n[new] (new section)\n[new] k=\"\" (new key)\n",
                 ""}},
               dir_.path(), "config");
    EXPECT_EQ(ReadFile(file_), kStart);
    ExpectRuns({{"apply changes", 0, "", ""},
                {"apply --dry-run changes", 0, "", ""},
                {"--file made.cfg apply changes", 0, "", ""},
                {"--file /proc/self/mem apply changes", 2, "",
                 "msplat: /proc/self/mem: could not be read whole: nothing written\n"},
                {"--file . apply changes", 2, "", "msplat: .: not a regular file\n"}},
               dir_.path(), "config");
    const std::string applied =
        "serverName=\"Den\"\r\n\r\n[dms]\r\nsize=2\r\nn=5\r\n\r\n[new]\r\nk=\"\"\r\n\r\n";
    EXPECT_EQ(ReadFile(file_), "[upnp]\r\n" + applied);
    EXPECT_EQ(ReadFile(dir_.file("made.cfg")), "[UPNP]\r\n" + applied);
}

// Applies that set three keys at once and make one, among loops of msplat config set on other keys and a
// reader: the reader never sees the three apart, and no change of either side is lost.
TEST_F(CliConfig, ApplyIsOneTransactionAmongConcurrentSets) {
    const int rounds = UnderEmulation() ? 4 : 10;
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
        const std::string n = std::to_string(i);
        EXPECT_EQ(Msplat(config + "apply", "",
                         "[s]\na=" + n + "\nb=" + n + "\nc=" + n + "\n[made]\nk" + n + "=" + n)
                      .status,
                  0);
        made += "k" + n + "=" + n + "\n";
    }
    for (pid_t child : children) EXPECT_EQ(WaitChild(child, 600000), 0);
    const std::string n = std::to_string(rounds);
    EXPECT_EQ(Msplat(config + "dump").out,
              "[s]\na=" + n + "\nb=" + n + "\nc=" + n + "\nx0=" + n + "\nx1=" + n + "\n\n[made]\n" + made);
}

// edit writes the edited copy back, warns of the lines that the store will drop, and leaves no copy behind.
// Nothing is written, and the edited copy stays where msplat says, when the file changed during the edit,
// when the editor failed, and when the file could not be written whole (the old bytes go back).
TEST_F(CliConfig, EditWritesBackOrKeepsTheCopy) {
    TempDir tmp;
    auto edit = [&](const std::string& editor, const std::vector<std::string>& prefix = {}) {
        WriteFile(dir_.file("editor"), "#!/bin/sh\n" + editor);
        chmod(dir_.file("editor").c_str(), 0700);
        return Msplat("config edit", dir_.path(), "",
                      {"VISUAL=" + dir_.file("editor"), "TMPDIR=" + tmp.path()}, prefix);
    };
    const std::string edited = "stray=1\r\n[upnp]\r\n# a note\r\nname=\"Den\"\r\nName=\"x\"\r\n",
                      warning = "msplat: warning: MediaServer.cfg line ";
    WriteFile(dir_.file("edited"), edited);
    const MsplatResult r = edit("cp " + dir_.file("edited") + " \"$1\"\n");
    EXPECT_EQ(r.out + r.err, warning + "1 (stray=1): a key ahead of the first section: the store drops it\n" +
                                 warning + "3 (# a note): no \"=\": the store drops the line\n" + warning +
                                 "5 (Name=\"x\"): a repeated key: the store keeps the first one\n");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(ReadFile(file_), edited);
    EXPECT_EQ(rmdir(tmp.path().c_str()), 0);  // no copy left
    ASSERT_EQ(mkdir(tmp.path().c_str(), 0700), 0);
    const std::string big = "[a]\nk=\"" + std::string(600, 'n') + "\"\n", stays = ": nothing written; the ";
    // The file changes meanwhile; the editor fails; the file can't be written whole, since msplat may write
    // one 512-byte block at most (the editor lifts the limit for itself).
    for (const auto& [editor, prefix, kept, message] :
         std::vector<std::tuple<std::string, std::vector<std::string>, std::string, std::string>>{
             {"printf '[a]\\nk=2\\n' > \"$1\"\nprintf 'x=1\\r\\n' >> " + file_,
              {},
              "[a]\nk=2\n",
              "MediaServer.cfg changed while it was edited" + stays + "edited copy"},
             {"printf half > \"$1\"\nexit 3", {}, "half", "the editor failed (status 3)" + stays + "copy"},
             {"ulimit -S -f unlimited\nprintf '" + big + "' > \"$1\"",
              {"sh", "-c", "ulimit -S -f 1; exec \"$@\"", "sh"},
              big,
              "MediaServer.cfg: File too large" + stays + "edited copy"}}) {
        const MsplatResult refused = edit(editor + "\n", prefix);
        const std::string& err = refused.err;
        EXPECT_EQ(refused.status, 2);
        EXPECT_EQ(err.substr(0, err.find(tmp.path())), "msplat: edit: " + message + " stays at ");
        EXPECT_EQ(ReadFile(err.substr(err.find(tmp.path()), err.find('\n') - err.find(tmp.path()))), kept);
    }
    EXPECT_EQ(ReadFile(file_), edited + "x=1\r\n");
}

}  // namespace
