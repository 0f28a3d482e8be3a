// Section and the reading steps of ZvConfigCtrlMgr, without the file lock (no manager is initialised).
#include "msplatform/cfgCtrlMgr.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <climits>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "support/support.h"

namespace {

char* C(const char* s) {
    return const_cast<char*>(s);
}
unsigned char* U(const char* s) {
    return reinterpret_cast<unsigned char*>(const_cast<char*>(s));
}

std::string Written(Section& s, int* rc = nullptr) {
    char* buf = nullptr;
    size_t size = 0;
    FILE* f = open_memstream(&buf, &size);
    int r = s.writeToCfgFile(f);
    fclose(f);
    std::string out(buf, size);
    free(buf);
    if (rc) *rc = r;
    return out;
}

// The codes of the eight key operations on one name (gets, type, sets, creates), then what the gets left in
// their outputs, which start as 99, 99, "zzz" and -1.
std::string Codes(Section& s, const char* name) {
    int v = 99, len = 99;
    dtype t = dtypeNone;
    unsigned char buf[4] = "zzz";
    const int rc[] = {s.getIntKeyValue(C(name), v),       s.getUTF8KeyValLen(C(name), len),
                      s.getUTF8KeyValue(C(name), buf, 3), s.getKeyType(C(name), t),
                      s.setIntKeyValue(C(name), 1),       s.setUTF8KeyValue(C(name), U("a"), 1),
                      s.createIntKey(C(name), 1),         s.createUTF8Key(C(name), U("a"), 1)};
    std::string out;
    for (int r : rc) out += std::to_string(r) + " ";
    return out + "| " + std::to_string(v) + " " + std::to_string(len) + " " + reinterpret_cast<char*>(buf) +
           " " + std::to_string(t);
}

class SectionTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(CFG_OK, s.initialize("Sec")); }
    void TearDown() override { s.uninitialize(); }
    Section s{};
};

TEST_F(SectionTest, KeysKeepOrderTypeAndCaseAndFailuresChangeNothing) {
    EXPECT_EQ("[Sec]\r\n\r\n", Written(s));
    keyInfo* const endNode = s.firstKey;
    ASSERT_EQ(CFG_OK, s.createIntKey(C("Alpha"), -42));
    EXPECT_EQ(endNode, s.firstKey);  // the end node was filled in place, and a new one ends the list
    EXPECT_TRUE(s.lastKey != endNode && !s.lastKey->name && s.lastKey->type == dtypeNone && !s.lastKey->next);
    ASSERT_EQ(CFG_OK, s.createUTF8Key(C("beta"), U("x\"y"), 3));
    ASSERT_EQ(CFG_OK, s.createIntKey(C("GAMMA"), INT_MIN));
    ASSERT_EQ(CFG_OK, s.createUTF8Key(C("empty"), U("ignored"), 0));
    EXPECT_EQ("[Sec]\r\nAlpha=-42\r\nbeta=\"x\"y\"\r\nGAMMA=-2147483648\r\nempty=\"\"\r\n\r\n", Written(s));
    EXPECT_EQ("1 -5 -5 1 1 -5 -3 -3 | -42 99 zzz 1", Codes(s, "ALPHA"));
    EXPECT_EQ("-5 1 1 1 -5 1 -3 -3 | 99 3 x\"y 0", Codes(s, "Beta"));
    EXPECT_EQ("-4 -4 -4 -4 -4 -4 1 -3 | 99 99 zzz -1", Codes(s, "delta"));
    EXPECT_EQ("[Sec]\r\nAlpha=1\r\nbeta=\"a\"\r\nGAMMA=-2147483648\r\nempty=\"\"\r\ndelta=1\r\n\r\n",
              Written(s));
}

TEST_F(SectionTest, StoredLengthAndCopyRule) {
    ASSERT_EQ(CFG_OK, s.createUTF8Key(C("cut"), U("abcdef"), 3));
    ASSERT_EQ(CFG_OK, s.createUTF8Key(C("zero"), U("ab\0cd"), 5));
    ASSERT_EQ(CFG_OK, s.createUTF8Key(C("six"), U("abcdef"), 6));
    ASSERT_EQ(CFG_OK, s.createUTF8Key(C("none"), U("abc"), 0));
    // Key, stored length; length given to the copy and the whole buffer after it, which starts as "########".
    // clang-format off
    const std::tuple<const char*, int, int, std::string> cases[] = {
        {"cut", 3, 3, std::string("abc\0####", 8)}, {"zero", 2, 5, std::string("ab\0#####", 8)},
        {"six", 6, 0, "########"},
        {"none", 0, 0, std::string("\0#######", 8)}, {"six", 6, 3, "abc#####"},
        {"six", 6, 6, std::string("abcdef\0#", 8)}, {"six", 6, 7, std::string("abcdef\0#", 8)}};
    // clang-format on
    for (const auto& [key, stored, length, expected] : cases) {
        int len = -1;
        unsigned char buf[8];
        memset(buf, '#', sizeof buf);
        EXPECT_EQ(CFG_OK, s.getUTF8KeyValLen(C(key), len));
        EXPECT_EQ(stored, len) << key;
        EXPECT_EQ(CFG_OK, s.getUTF8KeyValue(C(key), buf, length)) << key << " " << length;
        EXPECT_EQ(expected, std::string(reinterpret_cast<char*>(buf), 8)) << key << " " << length;
    }
    ASSERT_EQ(CFG_OK, s.setUTF8KeyValue(C("six"), U("xy"), 2));
    EXPECT_EQ("[Sec]\r\ncut=\"abc\"\r\nzero=\"ab\"\r\nsix=\"xy\"\r\nnone=\"\"\r\n\r\n", Written(s));
}

// A bad name before a missing list; a bad value, length or buffer before a missing list too.
TEST(Section, ChecksRunInOrder) {
    Section b{};  // a record whose initialize never succeeded
    for (const char* name : {static_cast<const char*>(nullptr), ""}) {
        EXPECT_EQ("-1 -1 -1 -1 -1 -1 -1 -1 | 99 99 zzz -1", Codes(b, name));
        EXPECT_EQ(CFG_BAD_ARGUMENT, b.initialize(name));
    }
    EXPECT_EQ(nullptr, b.name);
    EXPECT_EQ(nullptr, b.firstKey);
    unsigned char buf[4] = {};
    for (int rc : {b.createUTF8Key(C("k"), nullptr, 1), b.createUTF8Key(C("k"), U("a"), -1),
                   b.setUTF8KeyValue(C("k"), nullptr, 1), b.setUTF8KeyValue(C("k"), U("a"), -1),
                   b.getUTF8KeyValue(C("k"), nullptr, 1), b.getUTF8KeyValue(C("k"), buf, -1),
                   b.writeToCfgFile(nullptr)})
        EXPECT_EQ(CFG_BAD_ARGUMENT, rc);
    EXPECT_EQ("-2 -2 -2 -2 -2 -2 -2 -2 | 99 99 zzz -1", Codes(b, "k"));
    int rc = 0;
    EXPECT_EQ("", Written(b, &rc));
    EXPECT_EQ(CFG_NO_NODES, rc);
    b.uninitialize();  // harmless on a record without lists, twice too
    b.uninitialize();
}

// ---- the reading steps of the manager ----

std::vector<std::string> Lines(FILE* f) {
    ZvConfigCtrlMgr m;
    std::vector<std::string> lines;
    char* line = nullptr;
    while (!feof(f) && lines.size() < 100 && m.getLineInfo(f, &line) == 1) {
        lines.push_back(line);
        free(line);
    }
    fclose(f);
    return lines;
}

std::vector<std::string> Lines(const std::string& bytes) {
    msptest::TempDir dir;
    msptest::WriteFile(dir.file("f"), bytes);
    return Lines(fopen(dir.file("f").c_str(), "rb"));
}

// LF, CR LF, a lone CR taking the next byte, zero bytes and 0xFF are read at file level (ReaderForms,
// RewriteKeepsOnlyWhatTheReaderKept); here what those can't show.
TEST(ConfigReader, LineEndings) {
    using L = std::vector<std::string>;
    EXPECT_EQ(L({"a", "", "", ""}), Lines("a\r\r\n\n"));  // the CR takes the second CR
    EXPECT_EQ(L({""}), Lines(""));
    const std::string longLine(100000, 'x');
    EXPECT_EQ(L({longLine, "y"}), Lines(longLine + "\r\ny"));
    for (size_t n : {15, 16, 17, 31, 32, 33}) EXPECT_EQ(L({std::string(n, 'q')}), Lines(std::string(n, 'q')));
    // A directory opens as a stream whose every read fails: the loop must end.
    msptest::TempDir dir;
    if (FILE* f = fopen(dir.path().c_str(), "rb")) {
        EXPECT_LE(Lines(f).size(), 1u);
    }
}

TEST(ConfigReader, SectionLines) {
    ZvConfigCtrlMgr m;
    const std::pair<const char*, int> cases[] = {{"[a]", 1},     {"[]", 1}, {"[a=b]", 1}, {"[[x]]", 1},
                                                 {"[ a b ]", 1}, {"[", 0},  {"]", 0},     {" [a]", 0},
                                                 {"[a] ", 0},    {"a]", 0}, {"", 0},      {"[a", 0}};
    for (const auto& c : cases) {
        std::string line = c.first;
        EXPECT_EQ(c.second, m.isLineInfoASection(&line[0])) << c.first;
    }
    EXPECT_EQ(0, m.isLineInfoASection(nullptr));
    std::string orphan = "k=1";
    for (int rc : {m.addSection(nullptr), m.addSection(C("x")), m.updateKey(nullptr), m.updateKey(C(""))})
        EXPECT_EQ(CFG_BAD_ARGUMENT, rc);
    EXPECT_EQ(0, m.updateKey(C("no equals sign")));
    EXPECT_EQ(0, m.updateKey(&orphan[0]));  // no section yet: nowhere to go
    EXPECT_EQ(CFG_NO_NODES, m.writeCfgValues());
}

}  // namespace
