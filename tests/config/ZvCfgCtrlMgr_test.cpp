// The flat functions on the process's store, against real files in a temporary directory.
#include "msplatform/ZvCfgCtrlMgr.h"

#include <signal.h>
#include <sys/ipc.h>
#include <sys/resource.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <initializer_list>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "config/internal.h"
#include "support/support.h"

using namespace std::string_literals;

namespace {

constexpr int kChildMs = 120000;
constexpr key_t kCfgKey = 99297;  // "cfgCtrlMgr"

char* C(const std::string& s) {
    return const_cast<char*>(s.c_str());
}
unsigned char* U(const char* s) {
    return reinterpret_cast<unsigned char*>(const_cast<char*>(s));
}

// A key's value as "i:" + integer, or "s:" + string through the usual pair of calls; else "<code>".
std::string Get(const std::string& section, const std::string& key) {
    int v = 0, len = -1;
    if (getConfigInt(C(section), C(key), v) == CFG_OK) return "i:" + std::to_string(v);
    const int rc = getConfigStringLen(C(section), C(key), len);
    if (rc != CFG_OK) return "<" + std::to_string(rc) + ">";
    std::string buf(static_cast<size_t>(len) + 1, '#');
    if (getConfigString(C(section), C(key), U(&buf[0]), len) != CFG_OK || buf.back() != '\0') return "<copy>";
    return "s:" + buf.substr(0, buf.size() - 1);
}

std::string Codes(std::initializer_list<int> codes) {
    std::string out;
    for (int c : codes) out += (out.empty() ? "" : " ") + std::to_string(c);
    return out;
}

// get, create and set of one key of [S], as codes.
std::string Probe(const char* key) {
    int v = 0;
    return Codes({getConfigInt(C("S"), C(key), v), createConfigInt(C("S"), C(key), 2),
                  setConfigInt(C("S"), C(key), 2)});
}

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

TEST(ConfigLifecycle, PathsAndReinitialisation) {
    msptest::TempDir dir;
    deinitializeConfig();
    int v = 0;
    dtype t = dtypeNone;
    // The state is tested before any look at the arguments.
    EXPECT_EQ("-8 -8 -8 -8 -8 -8 -8 -8",
              Codes({createConfigInt(nullptr, nullptr, 1), createConfigString(nullptr, nullptr, nullptr, -1),
                     getConfigInt(nullptr, nullptr, v), setConfigInt(nullptr, nullptr, 1),
                     getConfigStringLen(nullptr, nullptr, v), getConfigString(nullptr, nullptr, nullptr, -1),
                     setConfigString(nullptr, nullptr, nullptr, -1), getKeyType(nullptr, nullptr, t)}));
    EXPECT_EQ(CFG_BAD_ARGUMENT, initializeConfig(""));
    EXPECT_EQ(CFG_BAD_ARGUMENT, initializeConfig(nullptr));
    // 260 bytes is the limit: one more is refused and leaves the store uninitialised.
    const std::string at260 = dir.path() + "/" + std::string(259 - dir.path().size(), 'p');
    EXPECT_EQ(CFG_BAD_ARGUMENT, initializeConfig((at260 + "q").c_str()));
    EXPECT_EQ("<-8>", Get("s", "k"));
    ASSERT_EQ(CFG_OK, initializeConfig(at260.c_str()));
    EXPECT_EQ(CFG_OK, createConfigInt(C("s"), C("k"), 1));
    const int semId = ::semget(kCfgKey, 1, 0);
    EXPECT_GT(semId, 0);
    // A second initialize keeps the first path.
    EXPECT_EQ(CFG_ALREADY_INITIALIZED, initializeConfig(dir.file("other.cfg").c_str()));
    EXPECT_EQ(CFG_OK, createConfigInt(C("s"), C("j"), 2));
    EXPECT_FALSE(msptest::FileExists(dir.file("other.cfg")));
    EXPECT_EQ("[s]\r\nk=1\r\nj=2\r\n\r\n", msptest::ReadFile(at260));
    // After deinitialisation: another file (relative, resolved at each access), the same semaphore.
    deinitializeConfig();
    EXPECT_EQ("<-8>", Get("s", "k"));
    deinitializeConfig();  // twice is harmless
    ASSERT_EQ(CFG_OK, initializeConfig("rel.cfg"));
    {
        msptest::ScopedChdir cd(dir.path());
        EXPECT_EQ(CFG_OK, createConfigInt(C("r"), C("k"), 4));
    }
    EXPECT_EQ("[r]\r\nk=4\r\n\r\n", msptest::ReadFile(dir.file("rel.cfg")));
    EXPECT_EQ(semId, ::semget(kCfgKey, 1, 0));
    deinitializeConfig();
}

TEST_F(ConfigFile, CreatesAndSetsInTheWritersBytes) {
    EXPECT_EQ(CFG_OK, createConfigInt(C("Server"), C("port"), 8200));
    EXPECT_EQ("[Server]\r\nport=8200\r\n\r\n", Read());
    EXPECT_EQ(CFG_OK, createConfigString(C("Server"), C("name"), U("My \"NAS\" \xc3\xa9"), 11));
    EXPECT_EQ(CFG_OK, createConfigInt(C("LANGUAGE"), C("neg"), -17));
    EXPECT_EQ(CFG_OK, createConfigString(C("LANGUAGE"), C("empty"), U(""), 0));
    EXPECT_EQ(CFG_OK, createConfigInt(C("server"), C("max"), 2147483647));
    EXPECT_EQ("s:My \"NAS\" \xc3\xa9 i:-17", Get("SERVER", "NAME") + " " + Get("language", "NEG"));
    EXPECT_EQ(CFG_OK, setConfigInt(C("server"), C("PORT"), 0));
    EXPECT_EQ(CFG_OK, setConfigString(C("Server"), C("name"), U("x"), 1));
    EXPECT_EQ(
        "[Server]\r\nport=0\r\nname=\"x\"\r\nmax=2147483647\r\n\r\n[LANGUAGE]\r\nneg=-17\r\nempty="
        "\"\"\r\n\r\n",
        Read());
}

// A refused operation does not write: the LF file would come back with CR LF endings.
TEST_F(ConfigFile, FailedOperationsLeaveTheFileAlone) {
    const std::string lf = "[S]\nk=1\ns=\"v\"\n";
    Write(lf);
    int v = 0;
    dtype t = dtypeNone;
    unsigned char buf[4] = {};
    // With the section missing, the section's own checks are never reached, except by a create, which makes
    // the section in memory only (the last three).
    EXPECT_EQ(
        "-3 -4 -6 -6 -5 -1 -1 -1 -1 -1 -1 -1 -1 -6 -6 -1",
        Codes({createConfigInt(C("s"), C("K"), 2), setConfigInt(C("S"), C("nope"), 2),
               setConfigInt(C("T"), C("k"), 2), getConfigInt(C("T"), C("k"), v),
               setConfigString(C("S"), C("k"), U("w"), 1), getKeyType(C("S"), nullptr, t),
               createConfigInt(C("S"), nullptr, 1), createConfigInt(C("S"), C(""), 1),
               getConfigInt(C(""), C("k"), v), createConfigString(C("S"), C("n"), nullptr, 1),
               createConfigString(C("S"), C("n"), U("a"), -1), getConfigString(C("S"), C("s"), buf, -1),
               getConfigString(C("S"), C("s"), nullptr, 1), setConfigString(C("T"), C("s"), nullptr, 1),
               getConfigString(C("T"), C("s"), nullptr, 1), createConfigString(C("T"), C("s"), nullptr, 1)}));
    EXPECT_EQ(lf, Read());
}

TEST_F(ConfigFile, GetKeyTypeAnswersFromMemory) {
    Write("[S]\r\ni=1\r\ns=\"x\"\r\n");
    dtype t = dtypeNone;
    EXPECT_EQ(CFG_SECTION_NOT_FOUND, getKeyType(C("S"), C("i"), t));  // nothing read yet
    EXPECT_EQ(dtypeNone, t);
    EXPECT_EQ("i:1", Get("S", "i"));
    std::string answers;
    for (const char* key : {"I", "s", "z"}) {
        const int rc = getKeyType(C("s"), C(key), t);
        answers += std::to_string(rc) + ":" + std::to_string(t) + " ";
    }
    EXPECT_EQ("1:1 1:0 -4:0 ", answers);
    // Another process changes the file: the answer stays what this process last read.
    Write("[S]\r\ni=\"now a string\"\r\n");
    EXPECT_EQ(CFG_OK, getKeyType(C("S"), C("i"), t));
    EXPECT_EQ(dtypeInt, t);
    EXPECT_EQ("s:now a string", Get("S", "i"));
    EXPECT_EQ(CFG_OK, getKeyType(C("S"), C("i"), t));
    EXPECT_EQ(dtypeUTF8, t);
}

// The lax reader, one or two file lines per case, binary and zero bytes included.
TEST_F(ConfigFile, ReaderForms) {
    // Lines in [S], key, what Get gives. A zero byte ends a line's text (and a string still loses its last
    // byte); a section line that starts with one is an empty line.
    // clang-format off
    const std::string cases[][3] = {
        {"k=\"\"", "k", "s:"}, {"k=\"", "k", "s:"}, {"k=\"abc\"", "k", "s:abc"}, {"k=\"abc", "k", "s:ab"},
        {"k=\"abc\"tail", "k", "s:abc\"tai"}, {"k=\"a=b\"", "k", "s:a=b"}, {"k=\"ab\0cd\""s, "k", "s:a"},
        {"k=\"\x01\xff\x80\xc3\xa9\x7f\"", "k", "s:\x01\xff\x80\xc3\xa9\x7f"}, {"k=4\0 junk"s, "k", "i:4"},
        {"\0[U]\r\nu=1"s, "u", "i:1"}, {"\xfe=1", "\xfe", "i:1"}, {"k=", "k", "i:0"}, {"k=text", "k", "i:0"},
        {"k=12ab", "k", "i:12"}, {"k= \t-7", "k", "i:-7"}, {"k=+5", "k", "i:5"}, {"k=007", "k", "i:7"},
        {"k=0x1F", "k", "i:0"}, {"k=2147483647", "k", "i:2147483647"}, {"k=2147483648", "k", "i:2147483647"},
        {"k=99999999999999999999", "k", "i:2147483647"}, {"k=-2147483648", "k", "i:-2147483648"},
        {"k=-99999999999999999999", "k", "i:-2147483648"}, {"k= \"x\"", "k", "i:0"}, {"x=y=5", "x", "i:0"},
        {"a b =1", "a b ", "i:1"}, {"a b =1", "a b", "<-4>"}, {"x=y=5", "x=y", "<-4>"}, {"=5", "", "<-1>"},
        {"no equals", "no equals", "<-4>"}, {" [T]", " [T", "<-4>"}};
    // clang-format on
    for (const auto& c : cases) {
        Write("[S]\r\n" + c[0] + "\r\n");
        EXPECT_EQ(c[2], Get("S", c[1])) << c[0];
    }
}

// Key lines ahead of the first section or behind "[]" are dropped; "[]" is left out of the rewrite.
TEST_F(ConfigFile, RewriteKeepsOnlyWhatTheReaderKept) {
    // A lone CR swallows the next byte; lookups see the first of repeated sections; the last line has no end.
    Write("orphan=1\n[A]\nk=1\n\nK=2\nn=+0012\ns=\"open\n[]\r\nlost=2\r\n[B]\rXj=3\r\n[a]\r\nk=9\r\nz=4");
    std::string got;
    for (const char* key : {"k", "z", "lost", "orphan"}) got += Get("A", key) + " ";
    EXPECT_EQ("i:1 <-4> <-4> <-4> i:3 s:ope", got + Get("B", "j") + " " + Get("a", "s"));
    dtype t = dtypeNone;
    EXPECT_EQ(CFG_BAD_ARGUMENT, getKeyType(C(""), C("lost"), t));
    EXPECT_EQ(CFG_OK, setConfigInt(C("a"), C("K"), 5));
    EXPECT_EQ("[A]\r\nk=5\r\nn=12\r\ns=\"ope\"\r\n\r\n[B]\r\nj=3\r\n\r\n[a]\r\nk=9\r\nz=4\r\n\r\n", Read());
    // A file of nothing but "[]": a create appends its own section behind the nameless record.
    Write("[]\r\n");
    EXPECT_EQ(CFG_OK, createConfigInt(C("C"), C("c"), 5));
    EXPECT_EQ("[C]\r\nc=5\r\n\r\n", Read());
}

// The reader's rules as a model: what a rewrite of `file` holds after it was read.
std::string ModelRewrite(const std::string& file) {
    struct Key {
        std::string name, value;
        bool text;
        long number;
    };
    std::vector<std::pair<std::string, std::vector<Key>>> sections;
    for (size_t at = 0; at < file.size();) {
        size_t end = file.find_first_of("\r\n", at);
        if (end == std::string::npos) end = file.size();
        const std::string line = file.substr(at, end - at).c_str();  // a zero byte ends the text
        at = end + (end < file.size() && file[end] == '\r' ? 2 : 1);
        if (line.size() >= 2 && line.front() == '[' && line.back() == ']') {
            sections.push_back({line.substr(1, line.size() - 2), {}});
            continue;
        }
        const size_t eq = line.find('=');
        if (eq == std::string::npos || eq == 0 || sections.empty() || sections.back().first.empty()) continue;
        Key key{line.substr(0, eq), line.substr(eq + 1), false, 0};
        if (!key.value.empty() && key.value[0] == '"') {
            key.text = true;
            key.value = key.value.substr(1, key.value.size() > 1 ? key.value.size() - 2 : 0);
        } else {
            key.number =
                std::min<long>(INT_MAX, std::max<long>(INT_MIN, strtol(key.value.c_str(), nullptr, 10)));
        }
        std::vector<Key>& keys = sections.back().second;
        bool repeated = false;
        for (const Key& k : keys) repeated = repeated || strcasecmp(k.name.c_str(), key.name.c_str()) == 0;
        if (!repeated) keys.push_back(key);
    }
    std::string out;
    for (const auto& [name, keys] : sections) {
        if (name.empty()) continue;
        out += "[" + name + "]\r\n";
        for (const Key& k : keys)
            out += k.name + "=" + (k.text ? "\"" + k.value + "\"" : std::to_string(k.number)) + "\r\n";
        out += "\r\n";
    }
    return out;
}

// Files of random lines, some at the sizes around the read buffer's switch from the stack to the heap: a
// create in a section of its own rewrites what the reader kept, which must be what the rules keep.
TEST_F(ConfigFile, ReaderKeepsWhatTheRulesKeep) {
    // clang-format off
    const std::string pieces[] = {
        "[S]", "[s]", "[T x]", "[]", "[", " [S]", "[S] ", "[a=b]", "[[x]]", "k", "K", "key", "a b", " k", "\xe9",
        "\xc9", "=", "=", "=", "\"", "\"v\"", "\"a=b\"", "1", "-5", "+7", " 12", "007", "999999999", "1000000000",
        "2147483648", "-99999999999", "12ab", "x", "\r\n", "\r\n", "\n", "\r", "\r\r", "\0"s};
    // clang-format on
    std::mt19937 random(20261124);
    for (int round = 0; round < 300; ++round) {
        const size_t length = round < 8 ? 4090 + round : random() % (round % 16 == 0 ? 6000 : 120);
        std::string file;
        while (file.size() < length) file += pieces[random() % (sizeof pieces / sizeof pieces[0])];
        file.resize(length);
        Write(file);
        ASSERT_EQ(CFG_OK, createConfigInt(C("Q"), C("q"), 1)) << round;
        ASSERT_EQ(ModelRewrite(file) + "[Q]\r\nq=1\r\n\r\n", Read()) << round;
    }
}

TEST_F(ConfigFile, VeryLongLinesAndNames) {
    const std::string big(300000, 'v'), name(5000, 'N'), value = big + "w";
    Write("[" + name + "]\n" + name + "=\"" + big + "\"\n");
    EXPECT_EQ("s:" + big, Get(name, name));
    EXPECT_EQ(CFG_OK, setConfigString(C(name), C(name), U(value.c_str()), static_cast<int>(value.size())));
    EXPECT_EQ("[" + name + "]\r\n" + name + "=\"" + value + "\"\r\n\r\n", Read());
}

// ---- files the store must survive without losing what they hold ----

// A directory or a FIFO with no writer: the reader must neither spin nor wait (a child, so a hang fails). A
// file that holds more than its size promises (a /proc file gives 0, then many pages) is read whole.
TEST_F(ConfigFile, PathNamingADirectoryOrAFifo) {
    ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600));
    for (const std::string& target : {dir.path(), path, "/proc/self/smaps"s}) {
        deinitializeConfig();
        ASSERT_EQ(CFG_OK, initializeConfig(target.c_str()));
        EXPECT_EQ(0, msptest::RunChild([] { return Probe("k") == "-6 0 -6" ? 0 : 1; }, kChildMs)) << target;
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
            if (::access(path.c_str(), R_OK) == 0 || ::access(path.c_str(), W_OK) != 0) return 11;
            return Probe("keep") == "-6 0 -6" ? 0 : 1;
        },
        kChildMs);
    EXPECT_EQ(0, rc);
    ::chmod(path.c_str(), 0600);
    EXPECT_EQ(content, Read());
}

// A process that cannot use the semaphore (another user's, mode 0660) works without it and says nothing, at
// every initialize: a tool's output must stay its own.
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
            m->uninitialize();
            init += m->initialize(path.c_str());
            if (out.Finish() != "" || init != 2 * CFG_OK) return 1;
            if (m->createIntKey(C("S"), C("k"), 7) != CFG_OK) return 3;
            int v = 0;
            return m->getKeyIntValue(C("S"), C("k"), v) != CFG_OK || v != 7 ? 4 : 0;
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
            const std::string big(200, 'b');
            return createConfigString(C("S"), C("big"), U(big.c_str()), 200) != CFG_FILE_ERROR ? 2 : 0;
        },
        kChildMs);
    EXPECT_EQ(0, rc);
}

// ---- several processes on one file ----

TEST_F(ConfigFile, ConcurrentProcessesLoseNoUpdate) {
    constexpr int kProcesses = 4, kKeys = 250;
    std::vector<pid_t> children;
    for (int p = 0; p < kProcesses; ++p)
        children.push_back(msptest::StartChild([p] {
            for (int k = 0; k < kKeys; ++k)
                if (createConfigInt(C("shared"), C("p" + std::to_string(p) + "k" + std::to_string(k)),
                                    p * 1000 + k) != CFG_OK)
                    return 1;
            return 0;
        }));
    for (pid_t pid : children) EXPECT_EQ(0, msptest::WaitChild(pid, 10 * kChildMs));
    for (int p = 0; p < kProcesses; ++p)
        for (int k = 0; k < kKeys; ++k) {
            const std::string key = "p" + std::to_string(p) + "k" + std::to_string(k);
            EXPECT_EQ("i:" + std::to_string(p * 1000 + k), Get("shared", key)) << key;
        }
    const std::string file = Read();
    size_t lines = 0;
    for (size_t at = file.find("\r\n"); at != std::string::npos; at = file.find("\r\n", at + 2)) ++lines;
    EXPECT_EQ(1u + kProcesses * kKeys + 1, lines);  // section, the keys, the end
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
    EXPECT_EQ("i:2", Get("S", "k"));
}

}  // namespace
