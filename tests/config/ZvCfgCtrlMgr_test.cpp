// The flat functions on the process's store, against real files in a temporary directory.
#include "msplatform/ZvCfgCtrlMgr.h"

#include <signal.h>
#include <sys/ipc.h>
#include <sys/resource.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "config/internal.h"
#include "support/support.h"

using namespace std::string_literals;

namespace {

constexpr int kChildMs = 120000;
constexpr key_t kCfgKey = 99297;  // "cfgCtrlMgr"

char* C(const char* s) {
    return const_cast<char*>(s);
}
unsigned char* U(const char* s) {
    return reinterpret_cast<unsigned char*>(const_cast<char*>(s));
}

// A string key through the usual pair of calls; "<code>" when either fails.
std::string GetString(const char* section, const char* key) {
    int len = -1;
    int rc = getConfigStringLen(C(section), C(key), len);
    if (rc != CFG_OK) return "<" + std::to_string(rc) + ">";
    std::vector<unsigned char> buf(static_cast<size_t>(len) + 1, '#');
    rc = getConfigString(C(section), C(key), buf.data(), len);
    if (rc != CFG_OK) return "<" + std::to_string(rc) + ">";
    if (buf[static_cast<size_t>(len)] != '\0') return "<unterminated>";
    return std::string(reinterpret_cast<char*>(buf.data()), static_cast<size_t>(len));
}

// An integer key; "<code>" when the call fails.
std::string GetInt(const char* section, const char* key) {
    int v = 0;
    int rc = getConfigInt(C(section), C(key), v);
    return rc == CFG_OK ? std::to_string(v) : "<" + std::to_string(rc) + ">";
}

// Each test gets its own file and an initialised store, and leaves the store uninitialised.
class ConfigFile : public ::testing::Test {
protected:
    void SetUp() override {
        deinitializeConfig();
        ASSERT_EQ(CFG_OK, initializeConfig(path.c_str()));
    }
    void TearDown() override { deinitializeConfig(); }
    void Write(const std::string& bytes) { msptest::WriteFile(path, bytes); }
    std::string Read() { return msptest::ReadFile(path); }

    msptest::TempDir dir;
    std::string path = dir.file("MediaServer.cfg");
};

TEST(ConfigLifecycle, NothingWorksBeforeInitialize) {
    deinitializeConfig();
    int v = 0;
    dtype t = dtypeNone;
    unsigned char buf[4];
    // The state is tested before any look at the arguments.
    EXPECT_EQ(CFG_NOT_INITIALIZED, createConfigInt(nullptr, nullptr, 1));
    EXPECT_EQ(CFG_NOT_INITIALIZED, createConfigString(nullptr, nullptr, nullptr, -1));
    EXPECT_EQ(CFG_NOT_INITIALIZED, getConfigInt(nullptr, nullptr, v));
    EXPECT_EQ(CFG_NOT_INITIALIZED, setConfigInt(nullptr, nullptr, 1));
    EXPECT_EQ(CFG_NOT_INITIALIZED, getConfigStringLen(nullptr, nullptr, v));
    EXPECT_EQ(CFG_NOT_INITIALIZED, getConfigString(nullptr, nullptr, nullptr, -1));
    EXPECT_EQ(CFG_NOT_INITIALIZED, setConfigString(nullptr, nullptr, nullptr, -1));
    EXPECT_EQ(CFG_NOT_INITIALIZED, getKeyType(nullptr, nullptr, t));
    EXPECT_EQ(CFG_NOT_INITIALIZED, getConfigString(C("s"), C("k"), buf, 3));
    deinitializeConfig();  // twice is harmless
}

TEST(ConfigLifecycle, PathsAndReinitialisation) {
    msptest::TempDir dir;
    deinitializeConfig();
    EXPECT_EQ(CFG_BAD_ARGUMENT, initializeConfig(""));
    EXPECT_EQ(CFG_BAD_ARGUMENT, initializeConfig(nullptr));
    // 260 bytes is the limit: one more is refused and leaves the store uninitialised.
    std::string base = dir.path() + "/";
    ASSERT_LT(base.size(), 200u);
    std::string at260 = base + std::string(260 - base.size(), 'p');
    ASSERT_EQ(260u, at260.size());
    EXPECT_EQ(CFG_BAD_ARGUMENT, initializeConfig((at260 + "q").c_str()));
    EXPECT_EQ(CFG_NOT_INITIALIZED, createConfigInt(C("s"), C("k"), 1));
    ASSERT_EQ(CFG_OK, initializeConfig(at260.c_str()));
    EXPECT_EQ(CFG_OK, createConfigInt(C("s"), C("k"), 1));
    EXPECT_EQ("[s]\r\nk=1\r\n\r\n", msptest::ReadFile(at260));
    const int semId = ::semget(kCfgKey, 1, 0);
    EXPECT_GT(semId, 0);

    // A second initialize keeps the first path.
    EXPECT_EQ(CFG_ALREADY_INITIALIZED, initializeConfig(dir.file("other.cfg").c_str()));
    EXPECT_EQ(CFG_OK, createConfigInt(C("s"), C("j"), 2));
    EXPECT_FALSE(msptest::FileExists(dir.file("other.cfg")));
    EXPECT_EQ("[s]\r\nk=1\r\nj=2\r\n\r\n", msptest::ReadFile(at260));

    // After deinitialisation: another file, the same semaphore.
    deinitializeConfig();
    EXPECT_EQ("<-8>", GetInt("s", "k"));
    ASSERT_EQ(CFG_OK, initializeConfig(dir.file("other.cfg").c_str()));
    EXPECT_EQ(CFG_OK, createConfigInt(C("t"), C("k"), 3));
    EXPECT_EQ("[t]\r\nk=3\r\n\r\n", msptest::ReadFile(dir.file("other.cfg")));
    EXPECT_EQ(semId, ::semget(kCfgKey, 1, 0));

    // A relative path resolves at each access.
    deinitializeConfig();
    ASSERT_EQ(CFG_OK, initializeConfig("rel.cfg"));
    {
        msptest::ScopedChdir cd(dir.path());
        EXPECT_EQ(CFG_OK, createConfigInt(C("r"), C("k"), 4));
    }
    EXPECT_EQ("[r]\r\nk=4\r\n\r\n", msptest::ReadFile(dir.file("rel.cfg")));
    deinitializeConfig();
}

TEST_F(ConfigFile, CreatesTheFileInTheWritersBytes) {
    EXPECT_EQ(CFG_OK, createConfigInt(C("Server"), C("port"), 8200));
    EXPECT_EQ("[Server]\r\nport=8200\r\n\r\n", Read());
    EXPECT_EQ(CFG_OK, createConfigString(C("Server"), C("name"), U("My \"NAS\" \xc3\xa9"), 11));
    EXPECT_EQ(CFG_OK, createConfigInt(C("LANGUAGE"), C("neg"), -17));
    EXPECT_EQ(CFG_OK, createConfigString(C("LANGUAGE"), C("empty"), U(""), 0));
    EXPECT_EQ(CFG_OK, createConfigInt(C("server"), C("max"), INT_MAX));
    EXPECT_EQ(
        "[Server]\r\n"
        "port=8200\r\n"
        "name=\"My \"NAS\" \xc3\xa9\"\r\n"
        "max=2147483647\r\n"
        "\r\n"
        "[LANGUAGE]\r\n"
        "neg=-17\r\n"
        "empty=\"\"\r\n"
        "\r\n",
        Read());
    EXPECT_EQ("My \"NAS\" \xc3\xa9", GetString("SERVER", "NAME"));
    EXPECT_EQ("-17", GetInt("language", "NEG"));

    EXPECT_EQ(CFG_OK, setConfigInt(C("server"), C("PORT"), 0));
    EXPECT_EQ(CFG_OK, setConfigString(C("Server"), C("name"), U("x"), 1));
    EXPECT_EQ(
        "[Server]\r\n"
        "port=0\r\n"
        "name=\"x\"\r\n"
        "max=2147483647\r\n"
        "\r\n"
        "[LANGUAGE]\r\n"
        "neg=-17\r\n"
        "empty=\"\"\r\n"
        "\r\n",
        Read());
}

// A refused operation does not write: the LF file would come back with CR LF endings.
TEST_F(ConfigFile, FailedOperationsLeaveTheFileAlone) {
    const std::string lf = "[S]\nk=1\ns=\"v\"\n";
    Write(lf);
    int v = 0;
    unsigned char buf[4] = {};
    struct {
        const char* what;
        int rc;
        int expected;
    } cases[] = {
        {"create existing", createConfigInt(C("s"), C("K"), 2), CFG_KEY_EXISTS},
        {"set missing key", setConfigInt(C("S"), C("nope"), 2), CFG_KEY_NOT_FOUND},
        {"set missing section", setConfigInt(C("T"), C("k"), 2), CFG_SECTION_NOT_FOUND},
        {"set other type", setConfigString(C("S"), C("k"), U("w"), 1), CFG_TYPE_MISMATCH},
        {"get missing section", getConfigInt(C("T"), C("k"), v), CFG_SECTION_NOT_FOUND},
        {"null key", createConfigInt(C("S"), nullptr, 1), CFG_BAD_ARGUMENT},
        {"empty key", createConfigInt(C("S"), C(""), 1), CFG_BAD_ARGUMENT},
        {"empty section", getConfigInt(C(""), C("k"), v), CFG_BAD_ARGUMENT},
        {"null value", createConfigString(C("S"), C("n"), nullptr, 1), CFG_BAD_ARGUMENT},
        {"negative length", createConfigString(C("S"), C("n"), U("a"), -1), CFG_BAD_ARGUMENT},
        {"null buffer", getConfigString(C("S"), C("s"), nullptr, 1), CFG_BAD_ARGUMENT},
        {"negative get length", getConfigString(C("S"), C("s"), buf, -1), CFG_BAD_ARGUMENT},
        // With the section missing, the section's own checks are never reached...
        {"set null value, no section", setConfigString(C("T"), C("s"), nullptr, 1), CFG_SECTION_NOT_FOUND},
        {"get null buffer, no section", getConfigString(C("T"), C("s"), nullptr, 1), CFG_SECTION_NOT_FOUND},
        // ...except for a create, which makes the section in memory only.
        {"create null value, no section", createConfigString(C("T"), C("s"), nullptr, 1), CFG_BAD_ARGUMENT},
    };
    for (const auto& c : cases) EXPECT_EQ(c.expected, c.rc) << c.what;
    EXPECT_EQ(lf, Read());
}

TEST_F(ConfigFile, GetKeyTypeAnswersFromMemory) {
    Write("[S]\r\ni=1\r\ns=\"x\"\r\n");
    dtype t = dtypeNone;
    EXPECT_EQ(CFG_SECTION_NOT_FOUND, getKeyType(C("S"), C("i"), t));  // nothing read yet
    EXPECT_EQ(dtypeNone, t);
    EXPECT_EQ("1", GetInt("S", "i"));
    EXPECT_EQ(CFG_OK, getKeyType(C("s"), C("I"), t));
    EXPECT_EQ(dtypeInt, t);
    EXPECT_EQ(CFG_OK, getKeyType(C("S"), C("s"), t));
    EXPECT_EQ(dtypeUTF8, t);
    EXPECT_EQ(CFG_KEY_NOT_FOUND, getKeyType(C("S"), C("z"), t));
    EXPECT_EQ(CFG_BAD_ARGUMENT, getKeyType(C("S"), nullptr, t));
    // Another process changes the file: the answer stays what this process last read.
    Write("[S]\r\ni=\"now a string\"\r\n");
    EXPECT_EQ(CFG_OK, getKeyType(C("S"), C("i"), t));
    EXPECT_EQ(dtypeInt, t);
    EXPECT_EQ("now a string", GetString("S", "i"));
    EXPECT_EQ(CFG_OK, getKeyType(C("S"), C("i"), t));
    EXPECT_EQ(dtypeUTF8, t);
}

// The lax reader, one file line per case.
TEST_F(ConfigFile, ReaderForms) {
    struct Case {
        const char* line;  // one key line in section [S]
        const char* key;
        const char* expected;  // "s:" + string value, "i:" + integer value, or "none"
    };
    const Case cases[] = {
        {"k=\"\"", "k", "s:"},
        {"k=\"", "k", "s:"},
        {"k=\"abc\"", "k", "s:abc"},
        {"k=\"abc\"tail", "k", "s:abc\"tai"},
        {"k=\"abc", "k", "s:ab"},
        {"k=\"a=b\"", "k", "s:a=b"},
        {"k=", "k", "i:0"},
        {"k=text", "k", "i:0"},
        {"k=12ab", "k", "i:12"},
        {"k= \t-7", "k", "i:-7"},
        {"k=+5", "k", "i:5"},
        {"k=007", "k", "i:7"},
        {"k=0x1F", "k", "i:0"},
        {"k=2147483647", "k", "i:2147483647"},
        {"k=2147483648", "k", "i:2147483647"},
        {"k=99999999999999999999", "k", "i:2147483647"},
        {"k=-2147483648", "k", "i:-2147483648"},
        {"k=-99999999999999999999", "k", "i:-2147483648"},
        {"k= \"x\"", "k", "i:0"},
        {"a b =1", "a b ", "i:1"},
        {"a b =1", "a b", "none"},
        {"x=y=5", "x", "i:0"},
        {"=5", "", "none"},
        {"no equals", "no equals", "none"},
        {" [T]", " [T", "none"},
    };
    for (const Case& c : cases) {
        Write(std::string("[S]\r\n") + c.line + "\r\n");
        int v = 0;
        int len = 0;
        std::string got = "none";
        if (*c.key && getConfigInt(C("S"), C(c.key), v) == CFG_OK)
            got = "i:" + std::to_string(v);
        else if (*c.key && getConfigStringLen(C("S"), C(c.key), len) == CFG_OK)
            got = "s:" + GetString("S", c.key);
        EXPECT_EQ(c.expected, got) << c.line;
    }
}

TEST_F(ConfigFile, RewriteKeepsOnlyWhatTheReaderKept) {
    Write(
        "# comment\n"
        "[A]\n"
        "k=1\n"
        "\n"
        "K=2\n"
        "n=+0012\n"
        "s=\"open\n"
        "[B]\r"
        "Xj=3\r\n"  // the lone CR after [B] swallowed the X
        "[a]\r\n"   // a repeated section: lookups see the first
        "k=9\r\n"
        "z=4");  // a last line without ending
    EXPECT_EQ("1", GetInt("A", "k"));
    EXPECT_EQ("<-4>", GetInt("A", "z"));
    EXPECT_EQ("3", GetInt("B", "j"));
    EXPECT_EQ("ope", GetString("a", "s"));
    EXPECT_EQ(CFG_OK, setConfigInt(C("a"), C("K"), 5));
    EXPECT_EQ(
        "[A]\r\n"
        "k=5\r\n"
        "n=12\r\n"
        "s=\"ope\"\r\n"
        "\r\n"
        "[B]\r\n"
        "j=3\r\n"
        "\r\n"
        "[a]\r\n"
        "k=9\r\n"
        "z=4\r\n"
        "\r\n",
        Read());
}

TEST_F(ConfigFile, NamesWithEqualsSignsAndValuesWithLineBreaks) {
    // A key written with "=" in its name reads back under the part ahead of it.
    EXPECT_EQ(CFG_OK, createConfigInt(C("S"), C("x=y"), 5));
    EXPECT_EQ("[S]\r\nx=y=5\r\n\r\n", Read());
    EXPECT_EQ("<-4>", GetInt("S", "x=y"));
    EXPECT_EQ("0", GetInt("S", "x"));

    // A value with a line break is written raw; the reader then takes the rest as a new line.
    Write("");
    EXPECT_EQ(CFG_OK, createConfigString(C("S"), C("v"), U("ab\ncd=7\rXe=8"), 12));
    EXPECT_EQ("[S]\r\nv=\"ab\ncd=7\rXe=8\"\r\n\r\n", Read());
    EXPECT_EQ("a", GetString("S", "v"));
    EXPECT_EQ("7", GetInt("S", "cd"));
    EXPECT_EQ("8", GetInt("S", "e"));  // the CR swallowed the X, and strtol stops at the quote
    EXPECT_EQ("<-4>", GetInt("S", "Xe"));
}

TEST_F(ConfigFile, BinaryAndZeroBytesInTheFile) {
    const std::string bytes =
        "[S]\r\nbin=\"\x01\xff\x80\xc3\xa9\x7f\"\r\nz=\"ab\0cd\"\r\nw=4\0 junk\r\n\0[U]\r\nu=1\r\n[T]\r\n\xfe=1\r\n"s;
    Write(bytes);
    EXPECT_EQ("\x01\xff\x80\xc3\xa9\x7f", GetString("S", "bin"));
    EXPECT_EQ("a", GetString("S", "z"));  // the zero byte ended the line's text, and the last byte went
    EXPECT_EQ("4", GetInt("S", "w"));
    EXPECT_EQ("1", GetInt("T", "\xfe"));
    EXPECT_EQ("<-6>", GetInt("U", "u"));  // its section line began with a zero byte: an empty line
    EXPECT_EQ("1", GetInt("S", "u"));
}

TEST_F(ConfigFile, VeryLongLinesAndNames) {
    const std::string big(300000, 'v');
    const std::string name(5000, 'N');
    Write("[" + name + "]\n" + name + "=\"" + big + "\"\n");
    EXPECT_EQ(big, GetString(name.c_str(), name.c_str()));
    std::string value = big + "w";
    EXPECT_EQ(CFG_OK, setConfigString(C(name.c_str()), C(name.c_str()), U(value.c_str()),
                                      static_cast<int>(value.size())));
    EXPECT_EQ("[" + name + "]\r\n" + name + "=\"" + value + "\"\r\n\r\n", Read());
    EXPECT_EQ(value, GetString(name.c_str(), name.c_str()));
}

// ---- files the store must survive without losing what they hold ----

TEST_F(ConfigFile, KeyLineAheadOfTheFirstSectionIsDropped) {
    Write("orphan=1\r\nalso=\"x\"\r\n[S]\r\nk=2\r\n");
    EXPECT_EQ("2", GetInt("S", "k"));
    EXPECT_EQ("<-4>", GetInt("S", "orphan"));
    EXPECT_EQ(CFG_OK, createConfigInt(C("S"), C("j"), 3));
    EXPECT_EQ("[S]\r\nk=2\r\nj=3\r\n\r\n", Read());
}

TEST_F(ConfigFile, EmptySectionNameIsSurvived) {
    Write("[A]\r\na=1\r\n[]\r\nk=2\r\n[B]\r\nb=3\r\n");
    EXPECT_EQ("1", GetInt("A", "a"));
    EXPECT_EQ("3", GetInt("B", "b"));
    EXPECT_EQ("<-4>", GetInt("A", "k"));  // the key behind "[]" does not move into [A]
    dtype t = dtypeNone;
    EXPECT_EQ(CFG_BAD_ARGUMENT, getKeyType(C(""), C("k"), t));
    EXPECT_EQ(CFG_OK, setConfigInt(C("B"), C("b"), 4));
    EXPECT_EQ("[A]\r\na=1\r\n\r\n[B]\r\nb=4\r\n\r\n", Read());
    // A file of nothing but "[]": a create appends its own section behind the nameless record.
    Write("[]\r\n");
    EXPECT_EQ(CFG_OK, createConfigInt(C("C"), C("c"), 5));
    EXPECT_EQ("[C]\r\nc=5\r\n\r\n", Read());
}

// A directory or a FIFO with no writer: the reader must neither spin nor wait (a child, so a hang fails).
TEST_F(ConfigFile, PathNamingADirectoryOrAFifo) {
    ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600));
    for (const std::string& target : {dir.path(), path}) {
        deinitializeConfig();
        ASSERT_EQ(CFG_OK, initializeConfig(target.c_str()));
        int rc = msptest::RunChild(
            [] {
                int v = 0;
                if (getConfigInt(C("S"), C("k"), v) != CFG_SECTION_NOT_FOUND) return 1;
                if (createConfigInt(C("S"), C("k"), 1) != CFG_FILE_ERROR) return 2;
                return setConfigInt(C("S"), C("k"), 1) != CFG_SECTION_NOT_FOUND ? 3 : 0;
            },
            kChildMs);
        EXPECT_EQ(0, rc) << target;
    }
    struct stat st;
    ASSERT_EQ(0, ::stat(path.c_str(), &st));
    EXPECT_TRUE(S_ISFIFO(st.st_mode));
}

// A file that exists but cannot be read must not be replaced by one holding only the new key.
TEST_F(ConfigFile, UnreadableFileIsNotReplaced) {
    const std::string content = "[S]\r\nkeep=1\r\n\r\n";
    Write(content);
    ASSERT_EQ(0, ::chmod(path.c_str(), 0200));  // write-only
    ASSERT_EQ(0, ::chmod(dir.path().c_str(), 0777));
    if (::geteuid() == 0) {
        ASSERT_EQ(0, ::chown(path.c_str(), 65534, 65534));
    }
    int rc = msptest::RunChild(
        [&] {
            // Root reads anything: the check runs as another user.
            if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) return 10;
            if (::access(path.c_str(), R_OK) == 0) return 11;
            if (::access(path.c_str(), W_OK) != 0) return 12;
            if (createConfigInt(C("S"), C("new"), 2) != CFG_FILE_ERROR) return 1;
            if (createConfigInt(C("T"), C("new"), 2) != CFG_FILE_ERROR) return 2;
            if (setConfigInt(C("S"), C("keep"), 2) != CFG_SECTION_NOT_FOUND) return 3;
            int v = 0;
            if (getConfigInt(C("S"), C("keep"), v) != CFG_SECTION_NOT_FOUND) return 4;
            return 0;
        },
        kChildMs);
    EXPECT_EQ(0, rc);
    ::chmod(path.c_str(), 0600);
    EXPECT_EQ(content, Read());
}

// A process that cannot use the semaphore (another user's, mode 0660) says so once and works without it.
TEST_F(ConfigFile, StoreWithoutTheLockStillWorks) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to run a child as another user";
    ASSERT_GT(::semget(kCfgKey, 1, 0), 0);  // made by this process's initialize, owned by root
    ASSERT_EQ(0, ::chmod(dir.path().c_str(), 0777));
    int rc = msptest::RunChild(
        [&] {
            if (::setgid(65534) != 0 || ::setuid(65534) != 0) return 10;
            ZvConfigCtrlMgr* m = new ZvConfigCtrlMgr;  // never destroyed: the child ends with _exit
            msptest::CaptureFd out(1);
            int init = m->initialize(path.c_str());
            if (out.Finish() != "cfg initialize failed to get mutex\n") return 1;
            if (init != CFG_OK) return 2;
            if (m->createIntKey(C("S"), C("k"), 7) != CFG_OK) return 3;
            int v = 0;
            if (m->getKeyIntValue(C("S"), C("k"), v) != CFG_OK || v != 7) return 4;
            m->uninitialize();
            return 0;
        },
        kChildMs);
    EXPECT_EQ(0, rc);
    EXPECT_EQ("[S]\r\nk=7\r\n\r\n", Read());
}

// A short write (here a file size limit) is reported, not passed off as success.
TEST_F(ConfigFile, FailedWriteIsReported) {
    int rc = msptest::RunChild(
        [&] {
            ::signal(SIGXFSZ, SIG_IGN);
            struct rlimit limit = {64, 64};
            if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) return 10;
            if (createConfigInt(C("S"), C("small"), 1) != CFG_OK) return 1;
            std::string big(200, 'b');
            if (createConfigString(C("S"), C("big"), U(big.c_str()), 200) != CFG_FILE_ERROR) return 2;
            return 0;
        },
        kChildMs);
    EXPECT_EQ(0, rc);
}

// ---- several processes on one file ----

TEST_F(ConfigFile, ConcurrentProcessesLoseNoUpdate) {
    constexpr int kProcesses = 4, kKeys = 250;
    ASSERT_EQ(CFG_OK, createConfigInt(C("shared"), C("counter"), 0));
    std::vector<pid_t> children;
    for (int p = 0; p < kProcesses; ++p) {
        children.push_back(msptest::StartChild([p] {
            for (int k = 0; k < kKeys; ++k) {
                std::string key = "p" + std::to_string(p) + "k" + std::to_string(k);
                if (createConfigInt(C("shared"), C(key.c_str()), p * 1000 + k) != CFG_OK) return 1;
                // A read, change and write of one key by everybody.
                if (k % 25 == 0) {
                    int v = 0;
                    if (getConfigInt(C("shared"), C("counter"), v) != CFG_OK) return 2;
                    if (setConfigInt(C("shared"), C("counter"), v + 1) != CFG_OK) return 3;
                }
            }
            return 0;
        }));
    }
    for (pid_t pid : children) EXPECT_EQ(0, msptest::WaitChild(pid, 10 * kChildMs));
    // The counter races between its get and its set by design; the keys must all be there.
    for (int p = 0; p < kProcesses; ++p)
        for (int k = 0; k < kKeys; ++k) {
            std::string key = "p" + std::to_string(p) + "k" + std::to_string(k);
            ASSERT_EQ(std::to_string(p * 1000 + k), GetInt("shared", key.c_str())) << key;
        }
    std::string file = Read();
    size_t lines = 0;
    for (size_t at = file.find("\r\n"); at != std::string::npos; at = file.find("\r\n", at + 2)) ++lines;
    EXPECT_EQ(1u + 1 + kProcesses * kKeys + 1, lines);  // section, counter, the keys, the end
}

TEST_F(ConfigFile, KilledHolderDoesNotBlockTheStore) {
    ASSERT_EQ(CFG_OK, createConfigInt(C("S"), C("k"), 1));
    msptest::Pipe ready;
    pid_t holder = msptest::StartChild([&] {
        cfgMgr.LockMutex();
        ready.Send();
        for (;;) ::pause();
        return 0;
    });
    ASSERT_TRUE(ready.Wait(kChildMs));
    ::kill(holder, SIGKILL);
    EXPECT_EQ(msptest::kChildSignalled, msptest::WaitChild(holder, kChildMs));
    EXPECT_EQ(0,
              msptest::RunChild([] { return setConfigInt(C("S"), C("k"), 2) == CFG_OK ? 0 : 1; }, kChildMs));
    EXPECT_EQ("2", GetInt("S", "k"));
}

}  // namespace
