// The store and the server identity helpers against real files in temporary directories.
#include "msplatform/ZvCfgCtrlMgr.h"
#include "msplatform/commonAPIs.h"

#include <signal.h>
#include <strings.h>
#include <sys/resource.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "config/internal.h"
#include "support/support.h"

using namespace std::string_literals;

// Set in a child: every allocation that the library makes with nothrow new fails.
static bool failNothrowNew = false;
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return failNothrowNew ? nullptr : ::operator new(size);
    } catch (...) {
        return nullptr;
    }
}

namespace {

const auto C = [](const std::string& s) { return const_cast<char*>(s.c_str()); };
const auto U = [](const std::string& s) { return reinterpret_cast<unsigned char*>(C(s)); };

// A key's value as "i:" + integer or "s:" + string, else "<code>". A string is copied twice into heap blocks
// of exactly the size the copy rule needs: whole, and cut at `cut` bytes (the block's last byte then stays).
std::string Get(const std::string& section, const std::string& key, unsigned cut = 0) {
    int v = 0, len = -1;
    if (getConfigInt(C(section), C(key), v) == CFG_OK) return "i:" + std::to_string(v);
    const int rc = getConfigStringLen(C(section), C(key), len);
    if (rc != CFG_OK) return "<" + std::to_string(rc) + ">";
    const size_t n = static_cast<size_t>(len), c = cut % (n + 1);
    std::vector<unsigned char> whole(n + 1, '#'), part(c + 1, '#');
    getConfigString(C(section), C(key), whole.data(), len);
    getConfigString(C(section), C(key), part.data(), static_cast<int>(c));
    const std::string value(whole.begin(), whole.end());
    if (whole.back() != 0 ||
        std::string(part.begin(), part.end()) != value.substr(0, c) + (c == n ? '\0' : '#'))
        return "<copy>";
    return "s:" + value.substr(0, n);
}

std::string Codes(std::initializer_list<int> codes) {
    std::string out;
    for (int c : codes) out += std::to_string(c) + " ";
    return out;
}

class ConfigFile : public ::testing::Test {
protected:
    void SetUp() override {
        deinitializeConfig();
        ASSERT_EQ(CFG_OK, initializeConfig(path.c_str()));
    }
    void TearDown() override { deinitializeConfig(); }
    msptest::TempDir dir;
    std::string path = dir.file("MediaServer.cfg");
};

// The path is at most 260 bytes; a second initialize keeps the first path; after a deinitialize another
// file, with the same semaphore. getKeyType answers from what the last operation read. A refused operation
// writes nothing.
TEST_F(ConfigFile, InitialisationAndRefusedOperations) {
    const std::string at260 = dir.path() + "/" + std::string(259 - dir.path().size(), 'p');
    deinitializeConfig();
    EXPECT_EQ("-8 -1 -1 -1 ", Codes({createConfigInt(C("S"), C("k"), 1), initializeConfig(""),
                                     initializeConfig(nullptr), initializeConfig((at260 + "q").c_str())}));
    const int semId = ::semget(99297, 1, 0);  // "cfgCtrlMgr"
    EXPECT_EQ("1 -7 1 ", Codes({initializeConfig(at260.c_str()), initializeConfig(path.c_str()),
                                createConfigInt(C("s"), C("j"), 2)}));
    EXPECT_EQ("[s]\r\nj=2\r\n\r\n", msptest::ReadFile(at260));
    deinitializeConfig();
    deinitializeConfig();
    ASSERT_EQ(CFG_OK, initializeConfig(path.c_str()));
    EXPECT_TRUE(semId > 0 && semId == ::semget(99297, 1, 0));
    msptest::WriteFile(path, "[S]\nk=1\ns=\"v\"\n");
    int v = 0;
    dtype t = dtypeNone;
    unsigned char buf[4] = {};
    EXPECT_EQ(
        "-6 -1 -1 -1 -1 -1 -1 -1 -1 -4 1 1 ",
        Codes({getKeyType(C("S"), C("k"), t), getKeyType(C("S"), nullptr, t), getConfigInt(C(""), C("k"), v),
               createConfigString(C("S"), C("n"), nullptr, 1), createConfigString(C("S"), C("n"), U("a"), -1),
               setConfigString(C("S"), C("s"), nullptr, 1), getConfigString(C("S"), C("s"), buf, -1),
               getConfigString(C("S"), C("s"), nullptr, 1), createConfigString(C("T"), C("s"), nullptr, 1),
               getKeyType(C("T"), C("s"), t), getKeyType(C("s"), C("K"), t), t}));
    EXPECT_EQ("[S]\nk=1\ns=\"v\"\n", msptest::ReadFile(path));
}

// The model: sections of keys, each key with its value as the writer puts it.
using Keys = std::vector<std::pair<std::string, std::string>>;
using Store = std::vector<std::pair<std::string, Keys>>;

// Lines end at LF or CR; a CR takes the next byte with it; a zero byte ends a line's text; an ending as the
// last byte is followed by one more, empty, line.
std::vector<std::string> ModelLines(const std::string& file) {
    std::vector<std::string> lines;
    for (size_t at = 0; at <= file.size();) {
        const size_t end = std::min(file.find_first_of("\r\n", at), file.size());
        lines.push_back(file.substr(at, end - at).c_str());
        if (end == file.size()) break;
        at = end + (file[end] == '\r' ? 2 : 1);
    }
    return lines;
}

template <class List>
auto* Named(List& list, const std::string& name) {
    for (auto& e : list)
        if (!e.first.empty() && strcasecmp(e.first.c_str(), name.c_str()) == 0) return &e;
    return static_cast<decltype(&list[0])>(nullptr);
}

// A section line makes a section, repeated or not. A key line goes into the last section if that has a name,
// split at the first "=": a string is all behind the quote but the line's last byte, else strtol's number
// kept to 32 bits. Key lines without a name or repeating one are dropped.
Store ModelRead(const std::string& file) {
    Store store;
    for (const std::string& line : ModelLines(file)) {
        const size_t eq = line.find('=');
        if (line.size() >= 2 && line.front() == '[' && line.back() == ']') {
            store.push_back({line.substr(1, line.size() - 2), {}});
        } else if (eq != std::string::npos && eq > 0 && !store.empty() && !store.back().first.empty() &&
                   !Named(store.back().second, line.substr(0, eq))) {
            const std::string v = line.substr(eq + 1);
            const long long n = std::clamp(strtoll(v.c_str(), nullptr, 10), -2147483648LL, 2147483647LL);
            store.back().second.push_back(
                {line.substr(0, eq),
                 v[0] == '"' ? v.substr(0, std::max<size_t>(v.size(), 2) - 1) + '"' : std::to_string(n)});
        }
    }
    return store;
}

std::string ModelWrite(const Store& store) {
    std::string out;
    for (const auto& [name, keys] : store) {
        if (!name.empty()) out += "[" + name + "]\r\n";
        for (const auto& [key, value] : keys) out += key + "=" + value + "\r\n";
        if (!name.empty()) out += "\r\n";
    }
    return out;
}

std::string ModelGet(Store& store, const std::string& section, const std::string& key) {
    auto* s = Named(store, section);
    auto* k = s ? Named(s->second, key) : nullptr;
    if (!k) return s ? "<-4>" : "<-6>";
    return k->second[0] == '"' ? "s:" + k->second.substr(1, k->second.size() - 2) : "i:" + k->second;
}

int ModelChange(Store& store, bool create, const std::string& section, const Keys::value_type& key) {
    auto* s = Named(store, section);
    if (!s && !create) return CFG_SECTION_NOT_FOUND;
    if (!s) s = &store.emplace_back(section, Keys());
    auto* k = Named(s->second, key.first);
    if (create && !k) s->second.push_back(key);
    if (create || !k) return create ? (k ? CFG_KEY_EXISTS : CFG_OK) : CFG_KEY_NOT_FOUND;
    if ((k->second[0] == '"') != (key.second[0] == '"')) return CFG_TYPE_MISMATCH;
    k->second = key.second;
    return CFG_OK;
}

// Pieces of lines; some files mostly numbered keys (sections of more than 32 and 64 keys), some ending
// around the read buffer's switch from the stack to the heap, a few with a very long name and line.
std::string RandomFile(std::mt19937& random, int round) {
    static const std::string kPieces[] = {
        "[S]",   "[s]", "[T x]", "[]",  "[",         " [S]",       "[S] ",        "[a=b]",
        "[[x]]", "k",   "K",     "key", "a b",       " k",         "\xe9",        "\xc9",
        "x=y",   "=",   "=",     "=",   "\"",        "\"v\"",      "x",           "\r\n",
        "\r\n",  "\n",  "\n",    "\r",  "\r\r",      "\0"s,        "-",           "+",
        " ",     "0",   "7",     "42",  "999999999", "2147483648", "-2147483649", "12345678901234567890"};
    const size_t length = round < 12 ? 4090 + round : random() % (round % 16 == 0 ? 6000 : 200);
    std::string file;
    while (file.size() < length) {
        const unsigned pick = random() % 8;
        if (round % 3 == 0 && pick < 6)
            file += (pick ? "k" : "K") + std::to_string(random() % 90) + "=" + std::to_string(int(random())) +
                    "\n";
        else
            file += kPieces[random() % (sizeof kPieces / sizeof kPieces[0])];
    }
    file.resize(length);
    if (round % 200 == 100)
        return "[" + std::string(5000, 'N') + "]\nv=\"" + std::string(300000, 'v') + "\n" + file;
    return file;
}

std::vector<std::string> Lines(const std::string& path) {
    std::vector<std::string> lines;
    FILE* f = fopen(path.c_str(), "rb");
    for (char* line = nullptr; f && lines.size() < 100000 && cfgMgr.getLineInfo(f, &line) == 1; free(line))
        lines.push_back(line);
    if (f) fclose(f);
    return lines;
}

// Random files: the line reader and the line steps on the store's list; values got. Creates and sets of
// random names and values (CR, LF, quotes, zero bytes, lengths cut), answered and written as the model says.
TEST_F(ConfigFile, ReaderAndWriterFollowTheRules) {
    static const std::string kSections[] = {"S", "s", "T x", "a=b", "[x]", "Q", "L\nM"};
    // "kaytfs" and "ka1rja" share their 32-bit FNV-1a hash.
    static const std::string kKeys[] = {"k",   "K",  "key", "a b", " k",     "\xe9",
                                        "x=y", "k7", "K40", "n\r", "kaytfs", "ka1rja"};
    static const std::string kValues[] = {"",   "v",   "\"",  "a=b",  "\r\n[s]\r\nk=5",
                                          "\n", "\rq", "[S]", "a\0b"s};
    std::mt19937 random(20261125);
    auto any = [&](const auto& list) { return list[random() % (sizeof list / sizeof list[0])]; };
    for (int round = 0; round < 1500; ++round) {
        std::string file = RandomFile(random, round);
        msptest::WriteFile(path, file);
        ASSERT_EQ(ModelLines(file), Lines(path)) << round;
        Store store = ModelRead(file);
        cfgMgr.clearNodes();
        for (std::string line : Lines(path))
            cfgMgr.isLineInfoASection(&line[0]) ? cfgMgr.addSection(&line[0]) : cfgMgr.updateKey(&line[0]);
        ASSERT_EQ(store.empty() ? CFG_NO_NODES : CFG_OK, cfgMgr.writeCfgValues()) << round;
        ASSERT_EQ(store.empty() ? file : ModelWrite(store), msptest::ReadFile(path)) << round;
        msptest::WriteFile(path, file);
        for (int step = 0; step < 3; ++step) {
            store = ModelRead(file);
            for (int i = 0; i < 4 && !store.empty(); ++i) {  // values of the file got
                const auto& [name, keys] = store[random() % store.size()];
                if (keys.empty()) continue;
                const std::string& key = keys[random() % keys.size()].first;
                ASSERT_EQ(ModelGet(store, name, key), Get(name, key, random())) << round;
            }
            const unsigned op = random() % 4;
            const std::string section = any(kSections), key = any(kKeys), value = any(kValues) + any(kValues);
            ASSERT_EQ(ModelGet(store, section, key), Get(section, key, random())) << round;
            const int number = int(random()), length = int(random() % (value.size() + 1));
            const int rc = op == 0   ? createConfigInt(C(section), C(key), number)
                           : op == 1 ? createConfigString(C(section), C(key), U(value), length)
                           : op == 2 ? setConfigInt(C(section), C(key), number)
                                     : setConfigString(C(section), C(key), U(value), length);
            const std::string written =
                op % 2 ? '"' + std::string(value.substr(0, length).c_str()) + '"' : std::to_string(number);
            ASSERT_EQ(ModelChange(store, op < 2, section, {key, written}), rc) << round << " " << op;
            if (rc == CFG_OK) file = ModelWrite(store);
            ASSERT_EQ(file, msptest::ReadFile(path)) << round;
        }
    }
}

// A directory, a FIFO with no writer, a file that can't be read or whose reading runs out of memory: the
// reader neither spins nor waits, and nothing is written. A /proc file (size 0, then many pages) is read
// whole. A short write is reported.
TEST_F(ConfigFile, WhatCannotBeReadWholeIsNotReplaced) {
    const std::string content = "[S]\r\nk=1\r\n\r\n", unreadable = dir.file("unreadable"), big(200, 'b');
    const std::string outOfMemory = dir.file("outOfMemory"), limited = dir.file("limited");
    for (const std::string& file : {unreadable, outOfMemory}) msptest::WriteFile(file, content);
    ASSERT_EQ(0, ::chmod(unreadable.c_str(), 0200));
    ASSERT_EQ(0, ::chmod(dir.path().c_str(), 0777));
    ASSERT_TRUE(::geteuid() != 0 || ::chown(unreadable.c_str(), 65534, 65534) == 0);
    ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600));
    EXPECT_LE(Lines(dir.path()).size(), 1u);  // every read of a directory stream fails: the line reader stops
    const struct rlimit limit = {64, 64};
    for (const std::string& target :
         {dir.path(), path, "/proc/self/smaps"s, unreadable, limited, outOfMemory}) {
        deinitializeConfig();
        ASSERT_EQ(CFG_OK, initializeConfig(target.c_str()));
        auto child = [&] {
            int v = 0;
            failNothrowNew = target == outOfMemory;
            if (target == limited)
                return ::signal(SIGXFSZ, SIG_IGN) != SIG_ERR && ::setrlimit(RLIMIT_FSIZE, &limit) == 0 &&
                       createConfigString(C("S"), C("big"), U(big), 200) == CFG_FILE_ERROR;
            if (target == unreadable && ::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0))
                return false;
            return (target != unreadable || ::access(unreadable.c_str(), R_OK) != 0) &&
                   Codes({getConfigInt(C("S"), C("k"), v), createConfigInt(C("S"), C("k"), 2),
                          setConfigInt(C("S"), C("k"), 2)}) == (failNothrowNew ? "-6 -2 -6 " : "-6 0 -6 ");
        };
        EXPECT_EQ(0, msptest::RunChild([&] { return child() ? 0 : 1; }, 60000)) << target;
    }
    struct stat st;
    EXPECT_TRUE(::stat(path.c_str(), &st) == 0 && S_ISFIFO(st.st_mode));
    ::chmod(unreadable.c_str(), 0600);
    EXPECT_EQ(content + content, msptest::ReadFile(unreadable) + msptest::ReadFile(outOfMemory));
}

// The scan paths from `file`, or the code and whether *paths was touched.
std::string ScanPaths(const std::string& file) {
    msptest::WriteFile("MediaServer.cfg", file);
    unsigned char sentinel = 0, *paths = &sentinel;
    const int rc = getConfigScanPaths(&paths);
    const std::string out = rc == 0 ? "0 "s + reinterpret_cast<char*>(paths)
                                    : std::to_string(rc) + (paths == &sentinel ? "" : " touched");
    if (rc == 0) free(paths);
    return out;
}

// An empty name becomes the host name; a set one stays, the file not even rewritten. A host name buffer too
// short fails with nothing written past it. Scan paths: a missing or integer key fails, creating nothing.
TEST(CommonApis, ServerNameAndScanPaths) {
    msptest::TempDir dir;
    msptest::ScopedChdir cd(dir.path());
    char name[129] = {};
    ASSERT_EQ(0, getComputerName(name, 128));
    const std::string host = name;
    memset(name, 'x', sizeof name);
    EXPECT_EQ("-1 -1 -1 ", Codes({getComputerName(name, static_cast<int>(host.size())),
                                  getComputerName(nullptr, 9), getComputerName(name, -5)}));
    EXPECT_EQ('x', name[host.size()]);
    const std::string cases[][2] = {
        {"[upnp]\nserverName=\"\"\nport=80\n", "[upnp]\r\nserverName=\"" + host + "\"\r\nport=80\r\n\r\n"},
        {"[upnp]\nserverName=\"N\"\n", "[upnp]\nserverName=\"N\"\n"},
        {"[upnp]\nserverName=7\n", "[upnp]\nserverName=7\n"}};
    for (const auto& [before, after] : cases) {
        deinitializeConfig();
        msptest::WriteFile("MediaServer.cfg", before);
        EXPECT_EQ(before.find("=7") == std::string::npos ? 0 : -1, setServerNameFromComputerName());
        EXPECT_EQ(after, msptest::ReadFile("MediaServer.cfg"));
    }
    EXPECT_EQ("-1", ScanPaths("[MCM]\nscanPaths=5\n"));
    EXPECT_EQ("-1", ScanPaths("[MCM]\nscan=\"x\"\n"));
    EXPECT_EQ("[MCM]\nscan=\"x\"\n", msptest::ReadFile("MediaServer.cfg"));
    EXPECT_EQ("0 /a;/b", ScanPaths("[MCM]\nscanPaths=\"/a;/b\"\n"));
    EXPECT_EQ(-1, getConfigScanPaths(nullptr));
    EXPECT_EQ("0 ", ScanPaths("[MCM]\nscanPaths=\"\"\n"));
    deinitializeConfig();
}

}  // namespace
