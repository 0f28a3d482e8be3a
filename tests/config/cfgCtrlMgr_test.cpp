// Section and the reading steps of ZvConfigCtrlMgr, without the file lock: these tests never initialise a
// manager, so they make no semaphore.
#include "msplatform/cfgCtrlMgr.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <climits>
#include <string>
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

// What writeToCfgFile puts out, as one string.
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

class SectionTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(CFG_OK, s.initialize("Sec")); }
    void TearDown() override { s.uninitialize(); }
    Section s{};
};

TEST_F(SectionTest, KeysKeepTheirOrderTypeAndCase) {
    EXPECT_EQ("[Sec]\r\n\r\n", Written(s));
    keyInfo* firstNode = s.firstKey;
    ASSERT_EQ(CFG_OK, s.createIntKey(C("Alpha"), -42));
    EXPECT_EQ(firstNode, s.firstKey);  // the end node was filled in place
    EXPECT_NE(s.firstKey, s.lastKey);
    ASSERT_EQ(CFG_OK, s.createUTF8Key(C("beta"), U("x\"y"), 3));
    ASSERT_EQ(CFG_OK, s.createIntKey(C("GAMMA"), INT_MIN));
    ASSERT_EQ(CFG_OK, s.createUTF8Key(C("empty"), U("ignored"), 0));
    EXPECT_EQ(dtypeNone, s.lastKey->type);
    EXPECT_EQ(nullptr, s.lastKey->next);

    // Later keys are found, in any case; the name keeps the case it was created with.
    int v = 0;
    EXPECT_EQ(CFG_OK, s.getIntKeyValue(C("gamma"), v));
    EXPECT_EQ(INT_MIN, v);
    EXPECT_EQ(CFG_KEY_EXISTS, s.createIntKey(C("ALPHA"), 7));
    EXPECT_EQ(CFG_OK, s.getIntKeyValue(C("alpha"), v));
    EXPECT_EQ(-42, v);
    dtype t = dtypeNone;
    EXPECT_EQ(CFG_OK, s.getKeyType(C("BETA"), t));
    EXPECT_EQ(dtypeUTF8, t);
    EXPECT_EQ(CFG_KEY_NOT_FOUND, s.getKeyType(C("delta"), t));

    EXPECT_EQ(
        "[Sec]\r\n"
        "Alpha=-42\r\n"
        "beta=\"x\"y\"\r\n"
        "GAMMA=-2147483648\r\n"
        "empty=\"\"\r\n"
        "\r\n",
        Written(s));
}

TEST_F(SectionTest, TypeMismatchChangesNothing) {
    ASSERT_EQ(CFG_OK, s.createIntKey(C("i"), 5));
    ASSERT_EQ(CFG_OK, s.createUTF8Key(C("s"), U("abc"), 3));
    int v = 99, len = 99;
    unsigned char buf[8] = "zzzzzzz";
    EXPECT_EQ(CFG_TYPE_MISMATCH, s.getIntKeyValue(C("s"), v));
    EXPECT_EQ(99, v);
    EXPECT_EQ(CFG_TYPE_MISMATCH, s.getUTF8KeyValLen(C("i"), len));
    EXPECT_EQ(99, len);
    EXPECT_EQ(CFG_TYPE_MISMATCH, s.getUTF8KeyValue(C("i"), buf, 7));
    EXPECT_STREQ("zzzzzzz", reinterpret_cast<char*>(buf));
    EXPECT_EQ(CFG_TYPE_MISMATCH, s.setUTF8KeyValue(C("i"), U("x"), 1));
    EXPECT_EQ(CFG_TYPE_MISMATCH, s.setIntKeyValue(C("s"), 1));
    EXPECT_EQ("[Sec]\r\ni=5\r\ns=\"abc\"\r\n\r\n", Written(s));
}

TEST_F(SectionTest, StoredLengthAndCopyRule) {
    ASSERT_EQ(CFG_OK, s.createUTF8Key(C("cut"), U("abcdef"), 3));
    ASSERT_EQ(CFG_OK, s.createUTF8Key(C("zero"), U("ab\0cd"), 5));
    ASSERT_EQ(CFG_OK, s.createUTF8Key(C("six"), U("abcdef"), 6));
    ASSERT_EQ(CFG_OK, s.createUTF8Key(C("none"), U("abc"), 0));
    int len = -1;
    EXPECT_EQ(CFG_OK, s.getUTF8KeyValLen(C("cut"), len));
    EXPECT_EQ(3, len);
    EXPECT_EQ(CFG_OK, s.getUTF8KeyValLen(C("zero"), len));
    EXPECT_EQ(2, len);
    EXPECT_EQ(CFG_OK, s.getUTF8KeyValLen(C("none"), len));
    EXPECT_EQ(0, len);

    struct Case {
        const char* key;
        int length;
        std::string expected;  // the whole 8-byte buffer afterwards, which starts as "########"
    };
    const Case cases[] = {
        {"six", 3, std::string("abc#####")},       // cut: no terminator, fourth byte untouched
        {"six", 6, std::string("abcdef\0#", 8)},   // fits exactly: terminator copied
        {"six", 7, std::string("abcdef\0#", 8)},   //
        {"none", 0, std::string("\0#######", 8)},  // length 0 writes the one terminator
        {"zero", 5, std::string("ab\0#####", 8)},  // stops at the inner zero byte
        {"six", 0, std::string("########")},       // cut to nothing
    };
    for (const Case& c : cases) {
        unsigned char buf[8];
        memset(buf, '#', sizeof buf);
        EXPECT_EQ(CFG_OK, s.getUTF8KeyValue(C(c.key), buf, c.length)) << c.key << " " << c.length;
        EXPECT_EQ(c.expected, std::string(reinterpret_cast<char*>(buf), 8)) << c.key << " " << c.length;
    }

    ASSERT_EQ(CFG_OK, s.setUTF8KeyValue(C("six"), U("xy"), 2));
    EXPECT_EQ(CFG_OK, s.getUTF8KeyValLen(C("six"), len));
    EXPECT_EQ(2, len);
    EXPECT_EQ("[Sec]\r\ncut=\"abc\"\r\nzero=\"ab\"\r\nsix=\"xy\"\r\nnone=\"\"\r\n\r\n", Written(s));
}

// Every check in its order: a bad name before a missing list, a missing list before a missing key.
TEST(Section, ChecksRunInOrder) {
    Section bare{};  // a record whose initialize never succeeded
    Section& b = bare;
    int v = 0;
    dtype t = dtypeNone;
    unsigned char buf[4] = {};
    for (char* name : {static_cast<char*>(nullptr), C("")}) {
        EXPECT_EQ(CFG_BAD_ARGUMENT, b.createIntKey(name, 1));
        EXPECT_EQ(CFG_BAD_ARGUMENT, b.createUTF8Key(name, U("a"), 1));
        EXPECT_EQ(CFG_BAD_ARGUMENT, b.setIntKeyValue(name, 1));
        EXPECT_EQ(CFG_BAD_ARGUMENT, b.setUTF8KeyValue(name, U("a"), 1));
        EXPECT_EQ(CFG_BAD_ARGUMENT, b.getIntKeyValue(name, v));
        EXPECT_EQ(CFG_BAD_ARGUMENT, b.getUTF8KeyValLen(name, v));
        EXPECT_EQ(CFG_BAD_ARGUMENT, b.getUTF8KeyValue(name, buf, 3));
        EXPECT_EQ(CFG_BAD_ARGUMENT, b.getKeyType(name, t));
        EXPECT_EQ(CFG_BAD_ARGUMENT, b.initialize(name));
    }
    EXPECT_EQ(nullptr, b.name);  // a refused initialize sets no field
    EXPECT_EQ(nullptr, b.firstKey);
    EXPECT_EQ(CFG_BAD_ARGUMENT, b.createUTF8Key(C("k"), nullptr, 1));
    EXPECT_EQ(CFG_BAD_ARGUMENT, b.createUTF8Key(C("k"), U("a"), -1));
    EXPECT_EQ(CFG_BAD_ARGUMENT, b.setUTF8KeyValue(C("k"), nullptr, 1));
    EXPECT_EQ(CFG_BAD_ARGUMENT, b.setUTF8KeyValue(C("k"), U("a"), -1));
    EXPECT_EQ(CFG_BAD_ARGUMENT, b.getUTF8KeyValue(C("k"), nullptr, 1));
    EXPECT_EQ(CFG_BAD_ARGUMENT, b.getUTF8KeyValue(C("k"), buf, -1));
    EXPECT_EQ(CFG_BAD_ARGUMENT, b.writeToCfgFile(nullptr));

    EXPECT_EQ(CFG_NO_NODES, b.createIntKey(C("k"), 1));
    EXPECT_EQ(CFG_NO_NODES, b.createUTF8Key(C("k"), U("a"), 1));
    EXPECT_EQ(CFG_NO_NODES, b.setIntKeyValue(C("k"), 1));
    EXPECT_EQ(CFG_NO_NODES, b.setUTF8KeyValue(C("k"), U("a"), 1));
    EXPECT_EQ(CFG_NO_NODES, b.getIntKeyValue(C("k"), v));
    EXPECT_EQ(CFG_NO_NODES, b.getUTF8KeyValLen(C("k"), v));
    EXPECT_EQ(CFG_NO_NODES, b.getUTF8KeyValue(C("k"), buf, 3));
    EXPECT_EQ(CFG_NO_NODES, b.getKeyType(C("k"), t));
    int rc = 0;
    EXPECT_EQ("", Written(b, &rc));
    EXPECT_EQ(CFG_NO_NODES, rc);
    b.uninitialize();  // harmless on a record without lists
    b.uninitialize();

    Section s{};
    ASSERT_EQ(CFG_OK, s.initialize("S"));
    EXPECT_EQ(CFG_KEY_NOT_FOUND, s.setIntKeyValue(C("k"), 1));
    EXPECT_EQ(CFG_KEY_NOT_FOUND, s.setUTF8KeyValue(C("k"), U("a"), 1));
    EXPECT_EQ(CFG_KEY_NOT_FOUND, s.getIntKeyValue(C("k"), v));
    EXPECT_EQ(CFG_KEY_NOT_FOUND, s.getUTF8KeyValLen(C("k"), v));
    EXPECT_EQ(CFG_KEY_NOT_FOUND, s.getUTF8KeyValue(C("k"), buf, 3));
    ASSERT_EQ(CFG_OK, s.createUTF8Key(C("k"), U("a"), 1));
    EXPECT_EQ(CFG_KEY_EXISTS, s.createUTF8Key(C("K"), U("b"), 1));
    EXPECT_EQ(CFG_KEY_EXISTS, s.createIntKey(C("K"), 1));
    EXPECT_EQ("[S]\r\nk=\"a\"\r\n\r\n", Written(s));
    s.uninitialize();
    EXPECT_EQ(nullptr, s.firstKey);
    EXPECT_EQ(nullptr, s.name);
}

// ---- the reading steps of the manager ----

std::vector<std::string> Lines(const std::string& bytes) {
    msptest::TempDir dir;
    std::string path = dir.file("f");
    msptest::WriteFile(path, bytes);
    ZvConfigCtrlMgr m;
    std::vector<std::string> lines;
    FILE* f = fopen(path.c_str(), "rb");
    char* line = nullptr;
    while (!feof(f) && lines.size() < 100) {
        if (m.getLineInfo(f, &line) != 1) break;
        lines.push_back(line);
        free(line);
    }
    fclose(f);
    return lines;
}

TEST(ConfigReader, LineEndings) {
    using L = std::vector<std::string>;
    EXPECT_EQ(L({"a", "b"}), Lines("a\nb"));
    EXPECT_EQ(L({"a", "b", ""}), Lines("a\nb\n"));
    EXPECT_EQ(L({"a", "b", ""}), Lines("a\r\nb\r\n"));
    EXPECT_EQ(L({"a", "b"}), Lines("a\rXb"));  // a lone CR swallows the next byte
    EXPECT_EQ(L({"a", "", "b"}), Lines("a\n\nb"));
    EXPECT_EQ(L({"a", "", "", ""}), Lines("a\r\r\n\n"));  // the CR takes the second CR
    EXPECT_EQ(L({""}), Lines(""));
    EXPECT_EQ(L({"a", "c"}), Lines(std::string("a\0b\nc", 5)));  // a zero byte ends the text
    EXPECT_EQ(L({"\xff\x80\x01"}), Lines("\xff\x80\x01"));       // 0xFF is a byte, not the end
    const std::string longLine(100000, 'x');
    EXPECT_EQ(L({longLine, "y"}), Lines(longLine + "\r\ny"));
    for (size_t n : {15, 16, 17, 31, 32, 33}) EXPECT_EQ(L({std::string(n, 'q')}), Lines(std::string(n, 'q')));
}

TEST(ConfigReader, ReadErrorEndsTheLoop) {
    msptest::TempDir dir;
    FILE* f = fopen(dir.path().c_str(), "rb");  // a directory opens, but every read fails
    if (!f) GTEST_SKIP() << "this system does not open directories as streams";
    ZvConfigCtrlMgr m;
    char* line = nullptr;
    int calls = 0, lines = 0;
    while (!feof(f) && calls++ < 10) {
        if (m.getLineInfo(f, &line) != 1) break;
        ++lines;
        free(line);
    }
    fclose(f);
    EXPECT_LE(lines, 1);
    EXPECT_LT(calls, 10);
}

TEST(ConfigReader, SectionLines) {
    ZvConfigCtrlMgr m;
    const std::pair<const char*, int> cases[] = {
        {"[a]", 1}, {"[]", 1},   {"[a=b]", 1}, {"[[x]]", 1}, {"[ a b ]", 1}, {"[", 0},
        {"]", 0},   {" [a]", 0}, {"[a] ", 0},  {"a]", 0},    {"", 0},        {"[a", 0},
    };
    for (const auto& c : cases) {
        std::string line = c.first;
        EXPECT_EQ(c.second, m.isLineInfoASection(&line[0])) << c.first;
    }
    EXPECT_EQ(0, m.isLineInfoASection(nullptr));
    EXPECT_EQ(CFG_BAD_ARGUMENT, m.addSection(nullptr));
    EXPECT_EQ(CFG_BAD_ARGUMENT, m.addSection(C("x")));
    EXPECT_EQ(CFG_BAD_ARGUMENT, m.updateKey(nullptr));
    EXPECT_EQ(CFG_BAD_ARGUMENT, m.updateKey(C("")));
    EXPECT_EQ(0, m.updateKey(C("no equals sign")));
    std::string orphan = "k=1";
    EXPECT_EQ(0, m.updateKey(&orphan[0]));  // no section yet: nowhere to go
    EXPECT_EQ(CFG_NO_NODES, m.writeCfgValues());
    EXPECT_EQ(nullptr, m.getSectionNode(C("x")));

    std::string a = "[A b]", empty = "[]", key = "k=5";
    EXPECT_EQ(CFG_OK, m.addSection(&a[0]));
    EXPECT_EQ("[A b", a.substr(0, 4));  // the closing bracket became the terminator
    EXPECT_EQ(CFG_OK, m.addSection(&empty[0]));
    EXPECT_EQ(CFG_OK, m.updateKey(&key[0]));  // goes to the nameless record and is dropped
    Section* s = m.getSectionNode(C("a B"));
    ASSERT_NE(nullptr, s);
    EXPECT_STREQ("A b", s->name);
    ASSERT_NE(nullptr, s->next);
    EXPECT_EQ(nullptr, s->next->name);
    EXPECT_EQ(nullptr, s->next->firstKey);
    EXPECT_EQ(nullptr, m.getSectionNode(C("")));
    m.clearNodes();
    EXPECT_EQ(nullptr, m.getSectionNode(C("a b")));
}

}  // namespace
