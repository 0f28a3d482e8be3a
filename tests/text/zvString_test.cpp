#include "msplatform/zvString.h"

#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "text/internal.h"

namespace {

// The interface takes char* but never writes through an argument: literals, on read-only pages, hold it to
// it.
char* T(const char* text) {
    return const_cast<char*>(text);
}

std::string Of(const char* text) {
    return text != nullptr ? text : "<null>";
}
std::string Of(ZvString& s) {
    return Of(s.c_str());
}

// Swaps the allocator behind ZvString for the scope: it counts requests and fails while `failing` is set.
struct AllocatorSeam {
    static inline int requests;
    static inline bool failing;
    AllocatorSeam() {
        requests = 0;
        failing = false;
        msptext::zvStringReallocate = [](void* old, size_t size) -> void* {
            ++requests;
            return failing ? nullptr : ::realloc(old, size);
        };
    }
    ~AllocatorSeam() { msptext::zvStringReallocate = saved; }
    msptext::Reallocate saved = msptext::zvStringReallocate;
};

// Null (no buffer) and empty differ: a null string gains nothing by appends and equals nothing.
TEST(ZvString, NullEmptyAndTextAcrossCopiesComparisonsAndAppends) {
    const struct {
        const char *left, *right, *sum;
        int equal;
    } cases[] = {{nullptr, nullptr, nullptr, 0},
                 {nullptr, "", nullptr, 0},
                 {nullptr, "x", nullptr, 0},
                 {"", nullptr, "", 0},
                 {"", "", "", 1},
                 {"", "x", "x", 0},
                 {"abc", nullptr, "abc", 0},
                 {"abc", "abc", "abcabc", 1},
                 {"abc", "abd", "abcabd", 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(Of(c.left) + " and " + Of(c.right));
        ZvString left(T(c.left)), right(T(c.right)), copy(left);
        ZvString plus = left + right, plusText = left + T(c.right);
        EXPECT_EQ(Of(left), Of(c.left));
        EXPECT_EQ(Of(copy), Of(c.left));
        if (c.left != nullptr) {
            EXPECT_TRUE(left.c_str() != c.left && copy.c_str() != left.c_str());
        }
        EXPECT_EQ(left.length(), c.left != nullptr ? strlen(c.left) : 0u);
        EXPECT_EQ(left.empty(), c.left == nullptr || c.left[0] == 0);
        EXPECT_EQ(left == right, c.equal);
        EXPECT_EQ(left == T(c.right), c.equal);
        EXPECT_EQ(Of(plus), Of(c.sum));
        EXPECT_EQ(Of(plusText), Of(c.sum));
        ZvString a(left), b(left), d(left);
        a += right;
        b.append(T(c.right));
        d.append(right);
        EXPECT_EQ(Of(a) + Of(b) + Of(d), Of(c.sum) + Of(c.sum) + Of(c.sum));
        left = right;
        EXPECT_EQ(Of(left), Of(c.right));
        copy.erase();
        EXPECT_EQ(copy.c_str(), nullptr);
    }
}

// A result of + can be assigned, and a string moved: the buffer changes hands, the source is null after it,
// the target's old text is freed (the leak check would see it), and moving a string onto itself keeps it.
TEST(ZvString, ResultsAndStringsMoveIntoPlace) {
    ZvString a(T("ab")), b(T("cd")), c(T("old"));
    c = a + b;
    c = c + T("!");
    EXPECT_EQ(Of(c), "abcd!");
    char* buffer = c.c_str();
    ZvString d(std::move(c));
    EXPECT_EQ(std::make_pair(c.c_str(), d.c_str()), std::make_pair(static_cast<char*>(nullptr), buffer));
    c = T("other");
    c = std::move(d);
    ZvString& same = c;
    c = std::move(same);
    EXPECT_EQ(std::make_pair(c.c_str(), d.c_str()), std::make_pair(buffer, static_cast<char*>(nullptr)));
    EXPECT_EQ(Of(c), "abcd!");
}

// A string of its own text, or a tail of it, keeps that text in its buffer; an append reads it before the
// old buffer goes. Queries and in-place edits allocate nothing; an operation takes only what it keeps.
TEST(ZvString, OwnTextAndWhatEachOperationAllocates) {
    AllocatorSeam seam;
    ZvString s(T("abcd"));
    char* buffer = s.c_str();
    ZvString& alias = s;
    s = alias;
    s = s.c_str();
    s = s.c_str() + 1;
    EXPECT_EQ(Of(s), "bcd");
    EXPECT_EQ(buffer, s.c_str());
    (void)(s == T("d"));
    (void)s[1];
    (void)s.find(T("c"));
    EXPECT_EQ(buffer, s.strrev());
    EXPECT_EQ(buffer, s.toupper());
    EXPECT_EQ(buffer, s.tolower());
    EXPECT_EQ(1, seam.requests);
    s += s;
    s += s.c_str() + 4;
    EXPECT_EQ(Of(s), "dcbdcbcb");
    EXPECT_EQ(3, seam.requests);
    ::free(s.substr(0, 1));
    ZvString sum = s + T("d");  // the copy, then the append
    EXPECT_EQ(6, seam.requests);
    s = s.c_str() + 8;
    EXPECT_EQ(Of(s), "");  // an empty text, not null
}

TEST(ZvString, IndexingNeverReachesTheLastByte) {
    ZvString abc(T("abc")), one(T("a")), blank(T("")), null;
    for (unsigned int index : {0u, 1u, 2u, 3u, 100u, UINT_MAX - 1, UINT_MAX}) {
        EXPECT_EQ(abc[index], index == 0 ? 'a' : index == 1 ? 'b' : 0) << index;
        EXPECT_EQ(one[index] | blank[index] | null[index], 0) << index;
    }
}

// The argument is a set of bytes; no set holds no byte. A null or empty string gives 0.
TEST(ZvString, FindTakesItsArgumentAsASetOfBytes) {
    ZvString s(T("abc")), blank(T("")), null;
    const std::pair<const char*, unsigned int> cases[] = {{"xc", 2}, {"z", 3}, {"cba", 0},
                                                          {"bc", 1}, {"", 3},  {nullptr, 3}};
    for (const auto& [set, expected] : cases) {
        EXPECT_EQ(s.find(T(set)), expected) << Of(set);
        EXPECT_EQ(blank.find(T(set)) + null.find(T(set)), 0u) << Of(set);
    }
}

TEST(ZvString, EditsInPlace) {
    const char* cases[][4] = {{"", "", "", ""},
                              {"a", "a", "A", "a"},
                              {"ab", "ba", "AB", "ab"},
                              {"abc", "cba", "ABC", "abc"},
                              {"MiX d\351\311", "\311\351d XiM", "MIX D\351\311", "mix d\351\311"}};
    for (const auto& c : cases) {
        ZvString s(T(c[0]));
        std::string out = Of(s.strrev());
        out += "|" + Of(s.strrev());
        out += "|" + Of(s.toupper());
        out += "|" + Of(s.tolower());
        EXPECT_EQ(out, std::string(c[1]) + "|" + c[0] + "|" + c[2] + "|" + c[3]);
    }
    ZvString null;
    EXPECT_EQ(Of(null.strrev()) + Of(null.toupper()) + Of(null.tolower()), "<null><null><null>");
}

// A new zeroed buffer of 2 * length + 1 bytes; positions are kept inside the text. Null and empty strings
// give an empty text in a one-byte buffer.
TEST(ZvString, SubstrHandsOutANewZeroedBuffer) {
    ZvString s(T("abcd")), null, blank(T(""));
    const struct {
        int start, end;
        const char* expected;
    } cases[] = {{1, 3, "bc"}, {0, 4, "abcd"}, {2, 2, ""},
                 {3, 1, ""},   {-2, 2, "ab"},  {2, 100, "cd"},
                 {10, 20, ""}, {-5, -1, ""},   {INT_MIN, INT_MAX, "abcd"}};
    for (const auto& c : cases) {
        char* part = s.substr(c.start, c.end);
        ASSERT_NE(nullptr, part);
        EXPECT_EQ(std::string(part, 9), c.expected + std::string(9 - strlen(c.expected), '\0'))
            << c.start << ".." << c.end;
        ::free(part);
    }
    for (ZvString* t : {&null, &blank}) {
        char* part = t->substr(0, 5);
        ASSERT_NE(nullptr, part);
        EXPECT_EQ('\0', part[0]);
        ::free(part);
    }
}

// An append keeps the text and its buffer; an assignment leaves the string null.
TEST(ZvString, RunningOutOfMemoryIsSafe) {
    ZvString s(T("abc"));
    char* buffer = s.c_str();
    AllocatorSeam seam;
    seam.failing = true;
    s += T("def");
    s += s;
    EXPECT_EQ(Of(s), "abc");
    EXPECT_EQ(buffer, s.c_str());
    EXPECT_EQ(nullptr, s.substr(0, 2));
    EXPECT_EQ(nullptr, s.InternalAllocate(nullptr, 8));
    ZvString copy(s);
    EXPECT_EQ(nullptr, copy.c_str());
    s = T("def");
    EXPECT_EQ(nullptr, s.c_str());
}

// Zero bytes still give a block of its own, so that null always means out of memory.
TEST(ZvString, InternalAllocateWipesWhatReallocKept) {
    ZvString s;
    char* block = s.InternalAllocate(nullptr, 4);
    memcpy(block, "abc", 4);
    block = s.InternalAllocate(block, 64);
    EXPECT_EQ(std::string(64, '\0'), std::string(block, 64));
    block = s.InternalAllocate(block, 0);
    ASSERT_NE(nullptr, block);
    s.InternalDeallocate(block);
    s.InternalDeallocate(nullptr);
}

}  // namespace
