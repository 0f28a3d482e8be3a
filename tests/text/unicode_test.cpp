#include "msplatform/unicode.h"

#include <stdint.h>

#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "support/support.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Units = std::vector<wchar_t>;

// `count` elements filled with 0xA5 bytes, or a copy of `text` (with a terminator if `terminate`), that end
// at a page without access: one element too far faults.
template <typename T>
struct Guarded : msptest::GuardedBytes {
    explicit Guarded(size_t count) : GuardedBytes(count * sizeof(T), 0xA5) {}
    Guarded(const std::vector<T>& text, bool terminate) : Guarded(text.size() + terminate) {
        std::copy(text.begin(), text.end(), data());
        if (terminate) data()[text.size()] = 0;
    }
    T* data() { return reinterpret_cast<T*>(GuardedBytes::data()); }
    std::vector<T> all() { return std::vector<T>(data(), data() + size() / sizeof(T)); }
};

// The result and the whole block of `size` elements (filled with 0xA5 bytes) that `convert` leaves, against
// the model's text, its terminator and the fill behind them.
template <typename T, typename Convert>
::testing::AssertionResult Leaves(std::vector<T> text, size_t size, Convert convert) {
    Guarded<T> out(size);
    const int n = convert(out.data()), expected = static_cast<int>(text.size());
    text.push_back(0);
    text.resize(size, static_cast<T>(0xA5A5A5A5u));  // 0xA5 in every byte
    if (n == expected && text == out.all()) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "result " << n << ", expected " << expected;
}

// The models. Decoding looks at the lead byte and the top bit of the next byte only; later bytes are taken
// as they are, and those behind the terminator count as zero bytes.
Units Decode(const Bytes& text) {
    Bytes s(text);
    s.resize(text.size() + 4, 0);
    Units units;
    for (size_t i = 0; i < text.size();) {
        const uint32_t l = s[i], b = s[i + 1], t = (s[i + 2] ^ 0x80u) & 0xFF, q = (s[i + 3] ^ 0x80u) & 0xFF;
        if (!(b & 0x80) || l < 0xC0)
            units.push_back(static_cast<wchar_t>(l)), i += 1;
        else if (l < 0xE0)
            units.push_back(static_cast<wchar_t>(((l ^ 0xC0) << 6) | (b ^ 0x80))), i += 2;
        else if (l < 0xF0)
            units.push_back(static_cast<wchar_t>(((l ^ 0xE0) << 12) | ((b ^ 0x80) << 6) | t)), i += 3;
        else
            units.push_back(static_cast<wchar_t>(((l ^ 0xF0) << 18) | ((b ^ 0x80) << 12) | (t << 6) | q)),
                i += 4;
    }
    return units;
}

// Encoding takes the low 16 bits of a unit, in one to three bytes.
Bytes Encode(const Units& units) {
    Bytes bytes;
    for (wchar_t u : units) {
        const uint32_t c = static_cast<uint32_t>(u) & 0xFFFF;
        if (c >= 0x800) bytes.push_back(static_cast<unsigned char>(0xE0 + (c >> 12)));
        if (c >= 0x800) bytes.push_back(static_cast<unsigned char>(0x80 + ((c >> 6) & 0x3F)));
        if (c >= 0x80 && c < 0x800) bytes.push_back(static_cast<unsigned char>(0xC0 + (c >> 6)));
        bytes.push_back(static_cast<unsigned char>(c >= 0x80 ? 0x80 + (c & 0x3F) : c));
    }
    return bytes;
}

// Swaps the two low bytes of each unit up to the first without a high byte, which keeps its low byte alone.
Units Swapped(Units units) {
    units.push_back(0);
    for (wchar_t& u : units) {
        const uint32_t h = (static_cast<uint32_t>(u) >> 8) & 0xFF, b = static_cast<uint32_t>(u) & 0xFF;
        u = static_cast<wchar_t>(h ? h + (b << 8) : b);
        if (!h) break;
    }
    return units;
}

// Counts by lead bytes alone.
int Counted(const Bytes& text, int length) {
    int count = 0;
    for (int i = 0; i < length; ++count)
        i += text[i] >= 0xF0 ? 4 : text[i] >= 0xE0 ? 3 : text[i] >= 0xC0 ? 2 : 1;
    return count;
}

TEST(Unicode, NullPointersFail) {
    wchar_t wide[1] = {7};
    unsigned char bytes[1] = {7};
    char narrow[1] = {7};
    EXPECT_EQ(-11, Convert_CHAR_UCS(nullptr, wide) + Convert_CHAR_UCS("a", nullptr) +
                       Convert_CHAR_UCS(nullptr, wide, 1) + Convert_CHAR_UCS("a", nullptr, 1) +
                       Convert_UCS_UTF8(nullptr, bytes) + Convert_UCS_UTF8(L"a", nullptr) +
                       Convert_UTF8_UCS(nullptr, wide) + Convert_UTF8_UCS(bytes, nullptr) +
                       Convert_UCS_CHAR(nullptr, narrow) + Convert_UCS_CHAR(L"a", nullptr) +
                       Change_BOM(nullptr) - UCS_Length(nullptr, 10));
    EXPECT_TRUE(wide[0] == 7 && bytes[0] == 7 && narrow[0] == 7);
}

// ASCII runs across every alignment of the block loops, sequences of every length, cut, overlong, surrogate
// and above 0x10FFFF ones, lone continuation bytes, leads before ASCII; often a lead cut by the end.
Bytes RandomBytes(std::mt19937& random, size_t length) {
    auto pick = [&](uint32_t n) { return static_cast<unsigned char>(random() % n); };
    static const Bytes kOdd[] = {{0xC0, 0x80},       {0xE0, 0x80, 0x80},       {0xF0, 0x80, 0x80, 0x80},
                                 {0xED, 0xA0, 0x80}, {0xF4, 0x90, 0x80, 0x80}, {0xFF, 0xBF, 0xBF, 0xBF}};
    Bytes b;
    const uint32_t flavour = random() % 4;  // 0: long runs without ASCII, to the end; 1: plain text
    while (b.size() < length) {
        const uint32_t kind = flavour == 0   ? "\2\3\4\7"[random() % 4]
                              : flavour == 1 ? 2 * (random() % 2)
                                             : random() % 8,
                       n = 1 + random() % (kind < 2       ? (flavour == 1 ? 4 : 90)
                                           : flavour == 1 ? 2
                                                          : 6);
        for (uint32_t k = 0; k < n && kind < 2; ++k) b.push_back(1 + pick(127));
        if (kind == 2 || kind == 3)
            b.push_back(n == 1 ? 0xC0 | pick(32) : n == 2 ? 0xE0 | pick(16) : 0xF0 | pick(16));
        for (uint32_t k = 0; k < n + (kind == 2) - 1 && (kind == 2 || kind == 3); ++k)
            b.push_back(0x80 | pick(64));
        for (uint32_t k = 0; k < n && kind == 4; ++k) b.push_back(0x80 | pick(64));
        if (kind == 5) b.push_back(0xC0 + pick(64)), b.push_back(1 + pick(127));
        for (uint32_t k = 0; k < n && kind == 6; ++k) b.push_back(1 + pick(255));
        if (kind == 7) b.insert(b.end(), kOdd[n - 1].begin(), kOdd[n - 1].end());
    }
    b.resize(length);
    if (length > 0 && random() % 2) b[length - 1 - random() % std::min<size_t>(length, 3)] = 0xC0 + pick(64);
    return b;
}

// Units: runs of one width each (ASCII, two and three bytes, above 0xFFFF, any 32 bits); a zero low half.
Units RandomUnits(std::mt19937& random, size_t length) {
    static const uint32_t kTops[] = {0x80, 0x800, 0x10000, 0x110000, 0xFFFFFFFF};
    Units u;
    while (u.size() < length)
        for (uint32_t top = kTops[random() % 5], n = 1 + random() % (top == 0x80 ? 90 : 8), v; n > 0; --n)
            v = static_cast<uint32_t>(random()) % top, u.push_back(static_cast<wchar_t>(v ? v : 0x10000));
    u.resize(length);
    return u;
}

// Every conversion over generated texts of every length up to 300 and some longer, each output in a block
// of exactly the result's size on even rounds and of the documented worst case (whose rest must stay
// untouched) on odd ones. The first round takes every unit from 1 to 0xFFFF and its bytes.
TEST(Unicode, ConversionsFollowTheModels) {
    std::mt19937 random(20261125);
    for (int round = 0; round < 3000; ++round) {
        const size_t length = round % 10 == 9 ? 300 + random() % 1200 : static_cast<size_t>(round % 300);
        Units units = RandomUnits(random, length);
        if (round == 0)
            for (uint32_t c = 1; c <= 0xFFFF; ++c) units.push_back(static_cast<wchar_t>(c));
        const Bytes text = round == 0 ? Encode(units) : RandomBytes(random, length);
        const bool exact = round % 2 == 0;
        const size_t n = text.size(), m = units.size();
        Guarded<unsigned char> source(text, true);
        Guarded<wchar_t> wide(units, true);

        const char* chars = reinterpret_cast<const char*>(source.data());
        const Units decoded = Decode(text);
        ASSERT_TRUE(Leaves(decoded, exact ? decoded.size() + 1 : n + 1, [&](wchar_t* d) {
            return Convert_UTF8_UCS(source.data(), d);
        })) << ::testing::PrintToString(text);
        ASSERT_TRUE(Leaves(Units(text.begin(), text.end()), n + 1,
                           [&](wchar_t* d) { return Convert_CHAR_UCS(chars, d); }));
        const Bytes encoded = Encode(units);
        ASSERT_TRUE(Leaves(encoded, exact ? encoded.size() + 1 : 3 * m + 1, [&](unsigned char* d) {
            return Convert_UCS_UTF8(wide.data(), d);
        })) << round;
        const std::vector<char> narrowed(units.begin(), units.end());  // the low byte of each unit
        ASSERT_TRUE(Leaves(narrowed, m + 1, [&](char* d) { return Convert_UCS_CHAR(wide.data(), d); }));
        ASSERT_EQ(static_cast<int>(m), Change_BOM(wide.data()));
        ASSERT_EQ(Swapped(units), wide.all()) << round;

        // Counted forms read exactly `count` bytes of a block of that size, zero bytes included.
        Bytes withZeros(text);
        for (unsigned char& b : withZeros) b = random() % 8 ? b : 0;
        const int count = static_cast<int>(random() % (n + 3)) - 2;
        const size_t kept = count > 0 ? static_cast<size_t>(count) : 0;
        Guarded<unsigned char> counted(Bytes(withZeros.begin(), withZeros.begin() + kept), false);
        ASSERT_EQ(Counted(withZeros, count), UCS_Length(counted.data(), count));
        ASSERT_TRUE(Leaves(Units(withZeros.begin(), withZeros.begin() + kept), kept + 1, [&](wchar_t* d) {
            return Convert_CHAR_UCS(reinterpret_cast<const char*>(counted.data()), d, count);
        }));
    }
}

}  // namespace
