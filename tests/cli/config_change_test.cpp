// msplat config apply and config edit: the tool's reader of lines against the store's, one transaction among
// concurrent writers, the editor's endings.
#include <dirent.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cfglines.h"
#include "cli/msplat_run.h"
#include "config/internal.h"
#include "msplatform/ZvCfgCtrlMgr.h"

namespace {

using msptest::ExpectRuns;
using msptest::Msplat;

// The lines as the store's writer puts what the tool reads them to be: every section line a section of its
// own, as in the file.
std::string Rewritten(const std::vector<msplat::CfgLine>& lines) {
    std::string out;
    for (const msplat::CfgLine& line : lines) {
        if (line.kind == msplat::CfgLine::kSection)
            out += (out.empty() ? "[" : "\r\n[") + line.name + "]\r\n";
        else if (line.kind == msplat::CfgLine::kInt)
            out += line.name + "=" + std::to_string(line.intValue) + "\r\n";
        else if (line.kind == msplat::CfgLine::kString)
            out += line.name + "=\"" + line.value + "\"\r\n";
    }
    return out.empty() ? out : out + "\r\n";
}

std::string Escaped(const std::string& text) {
    std::string out;
    for (char c : text) out += c == '\r' ? "\\r" : c == '\n' ? "\\n" : c == '\0' ? "\\0" : std::string(1, c);
    return out;
}

// The store reads a text and writes it back; the tool's reader must see the same sections, keys, types and
// values in it, over texts made of the pieces that the reader's rules turn on.
TEST(CliConfigLines, ReadAsTheStoreReadsThem) {
    const std::vector<std::string> pieces = {
        "[",           "]",   "=",     "\"",   "a",      "B",  " ",       "\t",
        "7",           "-",   "+",     "x",    "\r",     "\n", "\r\n",    std::string(1, '\0'),
        "99999999999", "[s]", "[S]\n", "\nk=", "\nK=\"", "[]", "\n[s]\n", "=\"v\"\n",
        "\r["};
    msptest::TempDir dir;
    const std::string file = dir.file("MediaServer.cfg");
    ASSERT_EQ(initializeConfig(file.c_str()), CFG_OK);
    ZvConfigCtrlMgr& store = cfgMgr;
    std::mt19937 random(23);
    const int texts = msptest::UnderEmulation() ? 500 : 2000;
    for (int i = 0; i < texts; ++i) {
        std::string text;
        for (size_t n = random() % 30; n > 0; --n) text += pieces[random() % pieces.size()];
        // New files each time: truncating one that holds data costs a flush on some file systems.
        unlink(file.c_str());
        msptest::WriteFile(file, text);
        const int read = store.readCfgValues();
        unlink(file.c_str());
        const std::string written = store.writeCfgValues() == CFG_OK ? msptest::ReadFile(file) : "";
        const std::string expected = Rewritten(msplat::ReadCfgLines(text, false));
        if (read != CFG_OK || written != expected) {
            ADD_FAILURE() << Escaped(text) << "\nstore: " << Escaped(written)
                          << "\ntool:  " << Escaped(expected);
            break;
        }
    }
    deinitializeConfig();
}

class CliConfigApply : public ::testing::Test {
protected:
    void SetUp() override { msptest::WriteFile(file_, kStart); }

    static constexpr const char* kStart =
        "[upnp]\r\nserverName=\"Living room\"\r\n\r\n[dms]\r\nlogFileSize=1048576\r\n\r\n";
    msptest::TempDir dir_;
    const std::string file_ = dir_.file("MediaServer.cfg");
};

// A line that the store would drop or read otherwise, a type that is not the key's, a new name with a blank
// at its edge: nothing is written, and the message names the line.
TEST_F(CliConfigApply, AllOrNothing) {
    const std::string none = "msplat: MediaServer.cfg: nothing written\n",
                      in = "msplat: standard input line ";
    for (const auto& [input, err] : std::vector<std::pair<std::string, std::string>>{
             {"serverName=\"x\"\n",
              in + "1 (serverName=\"x\"): a key ahead of the first section: the store drops it\n"},
             {"[upnp]\nserverName \"x\"\n",
              in + "2 (serverName \"x\"): no \"=\": the store drops the line\n"},
             {"[upnp]\nserverName=\"x\n",
              in + "2 (serverName=\"x): no closing double quote: the store drops the "
                   "line's last byte\n"},
             {"[dms]\nlogFileSize=12k\n",
              in + "2 (logFileSize=12k): not a whole number of the int range: the store "
                   "reads 12\n"},
             {"[dms]\nlogFileSize=1\r\n[DMS]\nLOGFILESIZE=2\n",
              in + "4 (LOGFILESIZE=2): a repeated key: the store "
                   "keeps the first one\n"},
             {"[dms]\nlogFilesCount=5\nlogFileSize=\"1\"\n",
              in + "3 (logFileSize=\"1\"): [dms] logFileSize is an int "
                   "key: a key keeps its type\n"},
             {"[upnp]\nserverName=5\n",
              in + "2 (serverName=5): [upnp] serverName is a string key: a key keeps its type\n"},
             {"[dms]\nlogFilesCount =5\n",
              in + "2 (logFilesCount =5): a new key whose name begins or ends with a "
                   "blank\n"},
             {"[ new]\n", in + "1 ([ new]): a new section whose name begins or ends with a blank\n"}}) {
        const msptest::MsplatResult r = Msplat({"config", "apply"}, dir_.path(), input);
        EXPECT_EQ(r.status, 2) << input;
        EXPECT_EQ(r.out, "") << input;
        EXPECT_EQ(r.err, err + none) << input;
    }
    EXPECT_EQ(msptest::ReadFile(file_), kStart);
}

// --dry-run tells and writes nothing; the same lines then go in with one write, types kept, new sections and
// keys made, lines of either ending.
TEST_F(CliConfigApply, DryRunThenApply) {
    const std::string lines =
        "[UPNP]\r\nserverName=\"Kitchen\"\r\n\r\n[dms]\nlogFileSize= +2097152\nlogFilesCount=5\n  "
        "\n[new]\nk=\"\"\n";
    msptest::WriteFile(dir_.file("changes"), lines);
    ExpectRuns(
        {{{"apply", "--dry-run", "changes"},
          0,
          "[upnp] serverName=\"Kitchen\" (was \"Living room\")\n[dms] logFileSize=2097152 (was 1048576)\n"
          "[dms] logFilesCount=5 (new key)\n[new] (new section)\n[new] k=\"\" (new key)\n",
          ""}},
        dir_.path(), {"config"});
    EXPECT_EQ(msptest::ReadFile(file_), kStart);
    ExpectRuns({{{"apply", "changes"}, 0, "", ""}, {{"apply", "--dry-run", "-"}, 0, "", ""}}, dir_.path(),
               {"config"});
    EXPECT_EQ(
        msptest::ReadFile(file_),
        "[upnp]\r\nserverName=\"Kitchen\"\r\n\r\n[dms]\r\nlogFileSize=2097152\r\nlogFilesCount=5\r\n\r\n"
        "[new]\r\nk=\"\"\r\n\r\n");
    // A missing file is an empty store; one that can't be read whole is never written over.
    ExpectRuns({{{"--file", "made.cfg", "apply", "changes"}, 0, "", ""},
                {{"--file", "/proc/self/mem", "apply", "changes"},
                 2,
                 "",
                 "msplat: /proc/self/mem: could not be read whole: nothing written\n"}},
               dir_.path(), {"config"});
    EXPECT_EQ(
        msptest::ReadFile(dir_.file("made.cfg")),
        "[UPNP]\r\nserverName=\"Kitchen\"\r\n\r\n[dms]\r\nlogFileSize=2097152\r\nlogFilesCount=5\r\n\r\n"
        "[new]\r\nk=\"\"\r\n\r\n");
}

// The values of a dump's lines "name=value" of one section.
std::vector<std::string> Values(const std::string& dump, const std::string& section,
                                const std::vector<std::string>& keys) {
    std::vector<std::string> values;
    const size_t start = dump.find("[" + section + "]\n");
    const std::string block =
        start == std::string::npos ? "" : dump.substr(start, dump.find("\n\n", start) - start);
    for (const std::string& key : keys) {
        size_t at = block.find("\n" + key + "=");
        values.push_back(
            at == std::string::npos
                ? "?"
                : block.substr(at + key.size() + 2, block.find('\n', at + 1) - at - key.size() - 2));
    }
    return values;
}

// Applies that set three keys at once and make one, among loops of msplat config set on other keys and a
// reader: the reader never sees the three apart, and no change of either side is lost.
TEST_F(CliConfigApply, OneTransactionAmongConcurrentSets) {
    const int rounds = msptest::UnderEmulation() ? 4 : 10, loops = 2;
    msptest::WriteFile(file_, "[s]\r\na=0\r\nb=0\r\nc=0\r\n\r\n[loops]\r\nx0=0\r\nx1=0\r\n\r\n");
    std::vector<pid_t> children;
    for (int loop = 0; loop < loops; ++loop)
        children.push_back(msptest::StartChild([&, loop] {
            int failures = 0;
            for (int i = 1; i <= rounds; ++i)
                failures += Msplat({"config", "--file", file_, "set", "loops", "x" + std::to_string(loop),
                                    std::to_string(i)})
                                .status != 0;
            return failures;
        }));
    children.push_back(msptest::StartChild([&] {
        int torn = 0;
        for (int i = 0; i < rounds; ++i) {
            std::vector<std::string> abc =
                Values(Msplat({"config", "--file", file_, "dump"}).out, "s", {"a", "b", "c"});
            torn += abc[0] != abc[1] || abc[1] != abc[2];
        }
        return torn;
    }));
    for (int i = 1; i <= rounds; ++i) {
        const std::string n = std::to_string(i);
        EXPECT_EQ(Msplat({"config", "--file", file_, "apply"}, "",
                         "[s]\na=" + n + "\nb=" + n + "\nc=" + n + "\n[made]\nk" + n + "=\"" + n + "\"\n")
                      .status,
                  0);
    }
    for (pid_t child : children) EXPECT_EQ(msptest::WaitChild(child, 600000), 0);
    const std::string dump = Msplat({"config", "--file", file_, "dump"}).out;
    const std::string last = std::to_string(rounds);
    EXPECT_EQ(Values(dump, "s", {"a", "b", "c"}), std::vector<std::string>(3, last)) << dump;
    EXPECT_EQ(Values(dump, "loops", {"x0", "x1"}), std::vector<std::string>(loops, last)) << dump;
    for (int i = 1; i <= rounds; ++i)
        EXPECT_EQ(Values(dump, "made", {"k" + std::to_string(i)})[0], "\"" + std::to_string(i) + "\"")
            << dump;
}

class CliConfigEdit : public CliConfigApply {
protected:
    // Runs msplat config edit with `editor` (a shell script's body, $1 the copy) as $VISUAL.
    msptest::MsplatResult Edit(const std::string& editor, const std::vector<std::string>& prefix = {}) {
        msptest::WriteFile(script_, "#!/bin/sh\n" + editor);
        chmod(script_.c_str(), 0700);
        return Msplat({"config", "edit"}, dir_.path(), "", {"VISUAL=" + script_, "TMPDIR=" + tmp_.path()},
                      120000, prefix);
    }
    // The edited copy that msplat says it kept, or "" when it kept none.
    std::string Kept(const std::string& err) {
        size_t at = err.find(tmp_.path());
        return at == std::string::npos ? "" : msptest::ReadFile(err.substr(at, err.find('\n', at) - at));
    }
    size_t LeftInTmp() {
        size_t entries = 0;
        if (DIR* stream = opendir(tmp_.path().c_str())) {
            while (struct dirent* entry = readdir(stream)) entries += entry->d_name[0] != '.';
            closedir(stream);
        }
        return entries;
    }
    msptest::TempDir tmp_;
    const std::string script_ = dir_.file("editor");
};

// A clean edit is written back as edited, with warnings for the lines the store will drop or read
// otherwise, and leaves no copy behind; an edit with nothing changed writes nothing.
TEST_F(CliConfigEdit, WrittenBackWithWarnings) {
    const std::string edited =
        "stray=1\r\n[upnp]\r\nserverName=\"Kitchen\"\r\n# a note\r\n\r\n[dms]\r\nlogFileSize=2\r\n"
        "LogFileSize=3\r\n[DMS]\r\n";
    msptest::WriteFile(dir_.file("edited"), edited);
    const std::string warning = "msplat: warning: MediaServer.cfg line ";
    const msptest::MsplatResult r = Edit("cp " + dir_.file("edited") + " \"$1\"\n");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, warning + "1 (stray=1): a key ahead of the first section: the store drops it\n" +
                         warning + "4 (# a note): no \"=\": the store drops the line\n" + warning +
                         "8 (LogFileSize=3): a repeated key: the store keeps the first one\n" + warning +
                         "9 ([DMS]): a repeated section: the servers see only the keys of the first one\n");
    EXPECT_EQ(msptest::ReadFile(file_), edited);
    EXPECT_EQ(LeftInTmp(), 0u);
    EXPECT_EQ(Edit("true\n").status, 0);
    EXPECT_EQ(LeftInTmp(), 0u);
}

// Nothing is written, and the edited copy stays where msplat says, when the file changed during the edit,
// when the editor failed, and when the file could not be written whole (the old bytes go back).
TEST_F(CliConfigEdit, RefusedKeepsTheCopy) {
    const std::string change = "[upnp]\r\nserverName=\"Kitchen\"\r\n\r\n";
    msptest::MsplatResult r = Edit("printf '" + change + "' > \"$1\"\nprintf 'x=1\\r\\n' >> " + file_ + "\n");
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(
        r.err.rfind("msplat: edit: MediaServer.cfg changed while it was edited: nothing written; the edited "
                    "copy stays at " +
                        tmp_.path() + "/msplat-edit-",
                    0),
        0u)
        << r.err;
    EXPECT_EQ(msptest::ReadFile(file_), std::string(kStart) + "x=1\r\n");
    EXPECT_EQ(Kept(r.err), change);

    msptest::WriteFile(file_, kStart);
    r = Edit("printf 'half' > \"$1\"\nexit 3\n");
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(
        r.err.rfind("msplat: edit: the editor failed (status 3): nothing written; the copy stays at ", 0), 0u)
        << r.err;
    EXPECT_EQ(Kept(r.err), "half");

    // Files of one 512-byte block at most for msplat; the editor lifts the limit for itself.
    const std::string big = "[upnp]\r\nserverName=\"" + std::string(600, 'n') + "\"\r\n\r\n";
    r = Edit("ulimit -S -f unlimited\nprintf '" + big + "' > \"$1\"\n",
             {"/bin/sh", "-c", "ulimit -S -f 1; exec \"$@\"", "sh"});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find(": nothing written; the edited copy stays at "), std::string::npos) << r.err;
    EXPECT_EQ(msptest::ReadFile(file_), kStart);
    EXPECT_EQ(Kept(r.err), big);
}

}  // namespace
