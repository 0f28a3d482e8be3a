// ZvString against a model, null (no text) or a text, over random runs of operations on two strings.
#include "msplatform/zvString.h"

#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "text/internal.h"

namespace {

using Model = std::optional<std::string>;

// The interface takes char* but never writes through it: literals, on read-only pages, hold it to that.
const auto T = [](const char* text) { return const_cast<char*>(text); };

// The null string gains nothing by appends and equals nothing; assigning its own text, a tail of it or the
// string itself (by a move too) keeps that text; indexing never reaches the last byte; find takes a set of
// bytes; substr hands out a new zeroed block of 2 * length + 1 bytes, positions kept inside the text, and one
// byte for a null string.
TEST(ZvString, FollowsItsModelOverRandomOperations) {
    const char* texts[] = {nullptr, "", "a", "Ab", "abc", "cab", "MiX d\xE9\xC9", " x1"};
    std::mt19937 random(3);
    for (int run = 0; run < 400; ++run) {
        ZvString s[2];
        Model m[2];
        for (int step = 0; step < 10; ++step) {
            const int i = random() % 2, k = random() % 2, op = random() % 11;
            const char* t = texts[random() % 8];
            ZvString& a = s[i];
            Model& x = m[i];
            const Model other = m[k];  // before the operation: it may be on the same string
            const size_t tail = x ? random() % (x->size() + 1) : 0, up = random() % 2;
            if (op == 0) a = T(t), x = t ? Model(t) : Model();
            if (op == 1) (up ? a = s[k] : a = ZvString(s[k])), x = other;  // a copy constructed or assigned
            if (op == 2) a += T(t), x = x && t ? Model(*x + t) : x;
            if (op == 3) a.append(s[k]), x = x && other ? Model(*x + *other) : x;
            if (op == 4) a = a + s[k], x = x && other ? Model(*x + *other) : x;
            if (op == 5) a = s[k] + T(t), x = other && t ? Model(*other + t) : other;
            if (op == 6 && x) a = a.c_str() + tail, x = x->substr(tail);
            if (op == 7) a.erase(), x.reset();
            if (op == 10) s[k] = std::move(a), m[k] = std::exchange(x, k == i ? x : Model());
            char* edited = op == 8 ? a.strrev() : op == 9 ? (up ? a.toupper() : a.tolower()) : a.c_str();
            if (op == 8 && x) std::reverse(x->begin(), x->end());
            if (op == 9 && x)
                for (char& c : *x) c = char(up ? ::toupper(c & 0xFF) : ::tolower(c & 0xFF));
            ASSERT_EQ(edited, a.c_str());
            const std::string text = x.value_or(""), set = t ? t : "";
            ASSERT_EQ(a.c_str() ? Model(a.c_str()) : Model(), x) << run << ' ' << step << ' ' << op;
            const std::vector<size_t> got = {a.length(), size_t(a.empty()), size_t(a == T(t)),
                                             size_t(a == s[k]), a.find(T(t))};
            ASSERT_EQ(got, (std::vector<size_t>{text.size(), text.empty(), x && t && *x == t,
                                                x && m[k] && *x == *m[k],
                                                x ? std::min(text.find_first_of(set), text.size()) : 0}));
            for (unsigned index : {0u, 1u, 2u, unsigned(text.size()), UINT_MAX - 1, UINT_MAX})
                ASSERT_EQ(a[index], text.size() > 1 && index < text.size() - 1 ? text[index] : 0) << index;
            const int n = int(text.size()), start = int(random() % 8) - 2, end = int(random() % 8) - 2;
            char* part = a.substr(start, end);
            const size_t from = std::clamp(start, 0, n), to = std::clamp(end, 0, n);
            std::string expected(2 * text.size() + 1, '\0');
            if (from < to) expected.replace(0, to - from, text, from, to - from);
            ASSERT_EQ(std::string(part, expected.size()), expected) << start << ".." << end;
            ::free(part);
        }
    }
}

// Out of memory an append keeps its text and block, the rest give null. InternalAllocate wipes what realloc
// kept, and for zero bytes still gives a block, so that null always means out of memory.
TEST(ZvString, RunningOutOfMemoryIsSafeAndBlocksAreWiped) {
    ZvString s(T("abc"));
    char* block = s.InternalAllocate(nullptr, 4);
    block = s.InternalAllocate(static_cast<char*>(memcpy(block, "abc", 4)), 64);
    EXPECT_EQ(std::string(block, 64), std::string(64, '\0'));
    EXPECT_NE(block = s.InternalAllocate(block, 0), nullptr);
    s.InternalDeallocate(block);
    char* buffer = s.c_str();
    const msptext::Reallocate saved = msptext::zvStringReallocate;
    msptext::zvStringReallocate = [](void*, size_t) -> void* { return nullptr; };
    s += s;
    ZvString copy(s);
    EXPECT_EQ(std::make_tuple(s.c_str(), copy.c_str(), s.substr(0, 2), s.InternalAllocate(nullptr, 8)),
              std::make_tuple(buffer, nullptr, nullptr, nullptr));
    s = T("def");
    msptext::zvStringReallocate = saved;
    EXPECT_EQ(s.c_str(), nullptr);
}

}  // namespace
