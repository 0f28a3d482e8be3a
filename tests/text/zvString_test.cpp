#include "msplatform/zvString.h"

#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include <gtest/gtest.h>

#include "text/internal.h"

namespace {

// The interface takes char*, so texts come from writable buffers.
struct Text {
    explicit Text(const char* text) : bytes(text, text + strlen(text) + 1) {}
    char* get() { return bytes.data(); }
    std::vector<char> bytes;
};

// Swaps the allocator behind ZvString for the scope: it counts requests and fails while `failing` is set.
struct AllocatorSeam {
    static inline int requests;
    static inline bool failing;
    AllocatorSeam() {
        requests = 0;
        failing = false;
        msptext::zvStringReallocate = [](void* old, size_t size) -> void* {
            ++requests;
            return failing ? nullptr : old != nullptr ? ::realloc(old, size) : ::malloc(size);
        };
    }
    ~AllocatorSeam() { msptext::zvStringReallocate = saved; }
    msptext::Reallocate saved = msptext::zvStringReallocate;
};

std::string Of(ZvString& s) {
    return s.c_str() != nullptr ? std::string(s.c_str()) : std::string("<null>");
}

TEST(ZvString, NullAndEmptyAreDifferentStates) {
    Text empty(""), abc("abc");

    ZvString null;
    EXPECT_EQ(nullptr, null.c_str());
    EXPECT_EQ(0u, null.length());
    EXPECT_EQ(1, null.empty());

    ZvString blank(empty.get());
    ASSERT_NE(nullptr, blank.c_str());
    EXPECT_NE(empty.get(), blank.c_str());
    EXPECT_EQ("", Of(blank));
    EXPECT_EQ(0u, blank.length());
    EXPECT_EQ(1, blank.empty());

    ZvString text(abc.get());
    EXPECT_NE(abc.get(), text.c_str());
    EXPECT_EQ("abc", Of(text));
    EXPECT_EQ(3u, text.length());
    EXPECT_EQ(0, text.empty());

    ZvString fromNull(static_cast<char*>(nullptr));
    EXPECT_EQ(nullptr, fromNull.c_str());
    ZvString copyOfNull(null), copyOfText(text);
    EXPECT_EQ(nullptr, copyOfNull.c_str());
    EXPECT_EQ("abc", Of(copyOfText));
    EXPECT_NE(text.c_str(), copyOfText.c_str());

    text.erase();
    EXPECT_EQ(nullptr, text.c_str());
    blank = static_cast<char*>(nullptr);
    EXPECT_EQ(nullptr, blank.c_str());
    copyOfText = null;
    EXPECT_EQ(nullptr, copyOfText.c_str());
}

TEST(ZvString, AppendsOnlyToAStringThatHasBeenAssigned) {
    Text x("x"), empty(""), abc("abc");

    ZvString s;
    s += x.get();
    EXPECT_EQ(nullptr, s.c_str());
    EXPECT_EQ(0u, s.length());
    s = empty.get();
    s += x.get();
    EXPECT_EQ("x", Of(s));
    s.append(abc.get());
    EXPECT_EQ("xabc", Of(s));
    s += static_cast<char*>(nullptr);
    EXPECT_EQ("xabc", Of(s));

    ZvString other(abc.get()), null;
    s += other;
    s.append(other);
    EXPECT_EQ("xabcabcabc", Of(s));
    s += null;
    EXPECT_EQ("xabcabcabc", Of(s));

    // Onto itself: the old buffer goes only after the copy.
    ZvString t(abc.get());
    t += t;
    EXPECT_EQ("abcabc", Of(t));
    t += t.c_str() + 4;
    EXPECT_EQ("abcabcbc", Of(t));

    s.erase();
    s += x.get();
    EXPECT_EQ(nullptr, s.c_str());
}

TEST(ZvString, ANullStringEqualsNothing) {
    Text abc("abc"), abc2("abc"), abd("abd"), empty("");
    ZvString null, otherNull, blank(empty.get()), a(abc.get()), b(abc2.get()), d(abd.get());

    EXPECT_EQ(0, null == otherNull);
    EXPECT_EQ(0, null == null);
    EXPECT_EQ(0, null == blank);
    EXPECT_EQ(0, null == static_cast<char*>(nullptr));
    EXPECT_EQ(0, null == abc.get());

    EXPECT_EQ(1, a == b);
    EXPECT_EQ(1, a == a);
    EXPECT_EQ(1, a == abc.get());
    EXPECT_EQ(0, a == null);
    EXPECT_EQ(0, a == d);
    EXPECT_EQ(0, a == static_cast<char*>(nullptr));
    EXPECT_EQ(1, blank == empty.get());
}

TEST(ZvString, IndexingNeverReachesTheLastByte) {
    Text abc("abc"), a("a"), empty("");
    ZvString s(abc.get()), one(a.get()), blank(empty.get()), null;
    const struct {
        unsigned int index;
        char expected;
    } cases[] = {{0, 'a'}, {1, 'b'}, {2, 0}, {3, 0}, {4, 0}, {100, 0}, {UINT_MAX - 1, 0}, {UINT_MAX, 0}};
    for (const auto& c : cases) EXPECT_EQ(c.expected, s[c.index]) << c.index;
    for (unsigned int index : {0u, 1u, 2u, UINT_MAX - 1, UINT_MAX}) {
        EXPECT_EQ(0, one[index]) << index;
        EXPECT_EQ(0, blank[index]) << index;
        EXPECT_EQ(0, null[index]) << index;
    }
}

TEST(ZvString, FindTakesItsArgumentAsASetOfBytes) {
    Text abc("abc"), empty("");
    ZvString s(abc.get()), blank(empty.get()), null;
    const struct {
        const char* set;
        unsigned int expected;
    } cases[] = {{"xc", 2}, {"z", 3}, {"cba", 0}, {"bc", 1}, {"", 3}, {"ca", 0}};
    for (const auto& c : cases) {
        Text set(c.set);
        EXPECT_EQ(c.expected, s.find(set.get())) << c.set;
        EXPECT_EQ(0u, blank.find(set.get())) << c.set;
        EXPECT_EQ(0u, null.find(set.get())) << c.set;
    }
    // No set holds no byte.
    EXPECT_EQ(3u, s.find(nullptr));
    EXPECT_EQ(0u, blank.find(nullptr));
    EXPECT_EQ(0u, null.find(nullptr));
}

TEST(ZvString, EditsInPlaceAndReturnsTheOwnBuffer) {
    const struct {
        const char* text;
        const char* reversed;
        const char* upper;
        const char* lower;
    } cases[] = {
        {"", "", "", ""},
        {"a", "a", "A", "a"},
        {"ab", "ba", "AB", "ab"},
        {"abc", "cba", "ABC", "abc"},
        {"a1b", "b1a", "A1B", "a1b"},
        {"MiX d\xE9\xC9",
         "\xC9\xE9"
         "d XiM",
         "MIX D\xE9\xC9", "mix d\xE9\xC9"},
    };
    for (const auto& c : cases) {
        Text text(c.text);
        ZvString s(text.get());
        char* buffer = s.c_str();
        EXPECT_EQ(buffer, s.strrev());
        EXPECT_EQ(c.reversed, Of(s));
        s.strrev();
        EXPECT_EQ(buffer, s.toupper());
        EXPECT_EQ(c.upper, Of(s));
        EXPECT_EQ(buffer, s.tolower());
        EXPECT_EQ(c.lower, Of(s));
    }
    ZvString null;
    EXPECT_EQ(nullptr, null.strrev());
    EXPECT_EQ(nullptr, null.toupper());
    EXPECT_EQ(nullptr, null.tolower());
}

TEST(ZvString, PlusFollowsTheNullRuleOfTheLeftSide) {
    Text a("a"), b("b");
    ZvString left(a.get()), right(b.get()), null;

    ZvString ab = left + right;
    EXPECT_EQ("ab", Of(ab));
    ZvString aText = left + b.get();
    EXPECT_EQ("ab", Of(aText));
    EXPECT_EQ("a", Of(left));
    EXPECT_EQ("b", Of(right));

    ZvString withNull = left + null;
    EXPECT_EQ("a", Of(withNull));
    EXPECT_NE(left.c_str(), withNull.c_str());
    ZvString withNullText = left + static_cast<char*>(nullptr);
    EXPECT_EQ("a", Of(withNullText));
    ZvString fromNull = null + right;
    EXPECT_EQ(nullptr, fromNull.c_str());
    ZvString fromNullText = null + b.get();
    EXPECT_EQ(nullptr, fromNullText.c_str());
}

TEST(ZvString, SubstrHandsOutANewZeroedBuffer) {
    Text abcd("abcd"), empty("");
    ZvString s(abcd.get());
    const struct {
        int start, end;
        const char* expected;
    } cases[] = {
        {1, 3, "bc"},
        {0, 4, "abcd"},
        {2, 2, ""},
        {3, 1, ""},
        {0, 0, ""},
        // Positions outside the text are kept inside it.
        {-2, 2, "ab"},
        {2, 100, "cd"},
        {10, 20, ""},
        {-5, -1, ""},
        {INT_MIN, INT_MAX, "abcd"},
    };
    for (const auto& c : cases) {
        char* part = s.substr(c.start, c.end);
        ASSERT_NE(nullptr, part);
        EXPECT_NE(s.c_str(), part);
        // 2 * length + 1 bytes, all zero behind the copied part.
        const size_t copied = strlen(c.expected);
        EXPECT_EQ(std::string(c.expected) + std::string(9 - copied, '\0'), std::string(part, 9))
            << c.start << ".." << c.end;
        ::free(part);
    }
    EXPECT_EQ("abcd", Of(s));

    // Null and empty strings give an empty text in a one-byte buffer.
    ZvString null, blank(empty.get());
    for (ZvString* t : {&null, &blank}) {
        char* part = t->substr(0, 5);
        ASSERT_NE(nullptr, part);
        EXPECT_EQ('\0', part[0]);
        ::free(part);
    }
}

TEST(ZvString, AssigningItsOwnTextKeepsIt) {
    Text abc("abc");
    ZvString s(abc.get());
    char* buffer = s.c_str();
    ZvString& alias = s;

    s = alias;
    EXPECT_EQ("abc", Of(s));
    s = s.c_str();
    EXPECT_EQ("abc", Of(s));
    EXPECT_EQ(buffer, s.c_str());

    // A tail of its own text.
    s = s.c_str() + 1;
    EXPECT_EQ("bc", Of(s));
    s = s.c_str() + 2;
    EXPECT_EQ("", Of(s));
    EXPECT_NE(nullptr, s.c_str());  // an empty text, not null
}

TEST(ZvString, RunningOutOfMemoryIsSafe) {
    Text abc("abc"), def("def");
    ZvString s(abc.get());
    AllocatorSeam seam;
    seam.failing = true;

    // An append keeps the text.
    char* buffer = s.c_str();
    s += def.get();
    EXPECT_EQ("abc", Of(s));
    EXPECT_EQ(buffer, s.c_str());
    s += s;
    EXPECT_EQ("abc", Of(s));

    EXPECT_EQ(nullptr, s.substr(0, 2));
    EXPECT_EQ(nullptr, s.InternalAllocate(nullptr, 8));

    ZvString copy(s);
    EXPECT_EQ(nullptr, copy.c_str());

    // An assignment leaves the string null.
    s = def.get();
    EXPECT_EQ(nullptr, s.c_str());

    seam.failing = false;
    s = def.get();
    EXPECT_EQ("def", Of(s));
}

TEST(ZvString, AllocatesOnlyWhatTheOperationHandsOutOrKeeps) {
    Text abc("abc"), d("d"), set("c");
    AllocatorSeam seam;
    ZvString s(abc.get());
    EXPECT_EQ(1, seam.requests);
    s += d.get();
    EXPECT_EQ(2, seam.requests);
    s = s.c_str();
    s = s.c_str() + 1;
    (void)(s == d.get());
    (void)s[1];
    (void)s.find(set.get());
    s.strrev();
    s.toupper();
    EXPECT_EQ(2, seam.requests);
    ::free(s.substr(0, 1));
    EXPECT_EQ(3, seam.requests);
    ZvString sum = s + d.get();
    EXPECT_EQ(5, seam.requests);  // the copy, then the append
}

TEST(ZvString, InternalAllocateWipesWhatReallocKept) {
    ZvString s;
    char* block = s.InternalAllocate(nullptr, 4);
    ASSERT_NE(nullptr, block);
    EXPECT_EQ(std::string(4, '\0'), std::string(block, 4));
    memcpy(block, "abc", 4);
    block = s.InternalAllocate(block, 64);
    ASSERT_NE(nullptr, block);
    EXPECT_EQ(std::string(64, '\0'), std::string(block, 64));
    // Zero bytes still give a block of its own, so null always means out of memory.
    block = s.InternalAllocate(block, 0);
    ASSERT_NE(nullptr, block);
    s.InternalDeallocate(block);
    s.InternalDeallocate(nullptr);
}

}  // namespace
