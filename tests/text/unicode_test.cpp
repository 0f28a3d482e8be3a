#include "msplatform/unicode.h"

#include <stdint.h>
#include <string.h>

#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/support.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Units = std::vector<wchar_t>;

// `count` elements that end at a page without access (filled with 0xA5): one element too far faults.
template <typename T>
struct Guarded : msptest::GuardedBytes {
    explicit Guarded(size_t count) : GuardedBytes(count * sizeof(T), 0xA5) {}
    T* data() { return reinterpret_cast<T*>(GuardedBytes::data()); }
    std::vector<T> take(size_t n) { return std::vector<T>(data(), data() + n); }
};

// A zero-terminated copy of `text` that ends at a guard page.
template <typename T>
struct GuardedText : Guarded<T> {
    explicit GuardedText(const std::vector<T>& text) : Guarded<T>(text.size() + 1) {
        std::copy(text.begin(), text.end(), this->data());
        this->data()[text.size()] = 0;
    }
};

Units Wide(std::initializer_list<uint32_t> values) {
    Units u;
    for (uint32_t v : values) u.push_back(static_cast<wchar_t>(v));
    return u;
}

TEST(ConvertCharUcs, WidensEachByteWithoutDecoding) {
    struct Case {
        std::string source;
        Units expected;
    } cases[] = {
        {"", {}},
        {"abc", Wide({'a', 'b', 'c'})},
        {"\xC3\xA9", Wide({0xC3, 0xA9})},
        {"A\xE9\xFF\x80", Wide({0x41, 0xE9, 0xFF, 0x80})},
    };
    for (const Case& c : cases) {
        GuardedText<char> source(std::vector<char>(c.source.begin(), c.source.end()));
        Guarded<wchar_t> out(c.source.size() + 1);
        const int result = Convert_CHAR_UCS(source.data(), out.data());
        Units expected = c.expected;
        expected.push_back(0);
        EXPECT_EQ(static_cast<int>(c.expected.size()), result) << c.source;
        EXPECT_EQ(expected, out.take(c.source.size() + 1)) << c.source;
    }
}

TEST(ConvertCharUcs, CountedFormCopiesZeroBytesAndTakesNoNegativeCount) {
    const char source[] = {0x41, 0x00, 0x42};
    {
        Guarded<wchar_t> out(4);
        EXPECT_EQ(3, Convert_CHAR_UCS(source, out.data(), 3));
        EXPECT_EQ(Wide({0x41, 0, 0x42, 0}), out.take(4));
    }
    for (int count : {0, -1, -1000}) {
        Guarded<wchar_t> out(1);
        EXPECT_EQ(0, Convert_CHAR_UCS(source, out.data(), count)) << count;
        EXPECT_EQ(Wide({0}), out.take(1)) << count;
    }
    {
        // High bytes are not sign-extended.
        const char high[] = {'\xFF', '\x80'};
        Guarded<wchar_t> out(3);
        EXPECT_EQ(2, Convert_CHAR_UCS(high, out.data(), 2));
        EXPECT_EQ(Wide({0xFF, 0x80, 0}), out.take(3));
    }
}

TEST(Conversions, NullPointersGiveMinusOneAndWriteNothing) {
    wchar_t wide[4] = {0x4100, 0, 0, 0};
    unsigned char bytes[4] = {'a', 0, 0, 0};
    char narrow[4] = {'a', 0, 0, 0};
    const wchar_t wideSource[] = {0x41, 0};
    const unsigned char byteSource[] = {0x41, 0};

    EXPECT_EQ(-1, Convert_CHAR_UCS(nullptr, wide));
    EXPECT_EQ(-1, Convert_CHAR_UCS("a", nullptr));
    EXPECT_EQ(-1, Convert_CHAR_UCS(nullptr, wide, 1));
    EXPECT_EQ(-1, Convert_CHAR_UCS("a", nullptr, 1));
    EXPECT_EQ(-1, Convert_UCS_UTF8(nullptr, bytes));
    EXPECT_EQ(-1, Convert_UCS_UTF8(wideSource, nullptr));
    EXPECT_EQ(-1, Convert_UTF8_UCS(nullptr, wide));
    EXPECT_EQ(-1, Convert_UTF8_UCS(byteSource, nullptr));
    EXPECT_EQ(-1, Convert_UCS_CHAR(nullptr, narrow));
    EXPECT_EQ(-1, Convert_UCS_CHAR(wideSource, nullptr));
    EXPECT_EQ(-1, Change_BOM(nullptr));

    EXPECT_EQ(0x4100, wide[0]);
    EXPECT_EQ('a', bytes[0]);
    EXPECT_EQ('a', narrow[0]);
}

TEST(ConvertUcsUtf8, EncodesLow16BitsInOneToThreeBytes) {
    struct Case {
        Units source;
        Bytes expected;
    } cases[] = {
        {{}, {}},
        {Wide({0x41}), {0x41}},
        {Wide({0x7F}), {0x7F}},
        {Wide({0x80}), {0xC2, 0x80}},
        {Wide({0xFF}), {0xC3, 0xBF}},
        {Wide({0x7FF}), {0xDF, 0xBF}},
        {Wide({0x800}), {0xE0, 0xA0, 0x80}},
        {Wide({0x4E2D}), {0xE4, 0xB8, 0xAD}},
        {Wide({0xFFFF}), {0xEF, 0xBF, 0xBF}},
        // Surrogates encode like their neighbours.
        {Wide({0xD800, 0xDFFF}), {0xED, 0xA0, 0x80, 0xED, 0xBF, 0xBF}},
        // Above 0xFFFF only the low 16 bits count: 0x1F600 encodes as 0xF600.
        {Wide({0x1F600}), {0xEF, 0x98, 0x80}},
        {Wide({0xFFFFFFFFu}), {0xEF, 0xBF, 0xBF}},
        // 0x10000 has zero low bits: one zero byte, counted, after which the output reads shorter.
        {Wide({0x10000}), {0x00}},
        {Wide({0x61, 0x10000, 0x62}), {0x61, 0x00, 0x62}},
        {Wide({'a', 0xE9, 0x4E2D}), {0x61, 0xC3, 0xA9, 0xE4, 0xB8, 0xAD}},
    };
    for (const Case& c : cases) {
        GuardedText<wchar_t> source(c.source);
        Guarded<unsigned char> out(3 * c.source.size() + 1);
        const int result = Convert_UCS_UTF8(source.data(), out.data());
        ASSERT_EQ(static_cast<int>(c.expected.size()), result)
            << "first unit " << std::hex << (c.source.empty() ? 0 : c.source[0]);
        Bytes expected = c.expected;
        expected.push_back(0);
        EXPECT_EQ(expected, out.take(expected.size()));
    }
}

struct DecodeCase {
    Bytes source;
    std::vector<uint32_t> expected;
};

std::vector<uint32_t> Decoded(const Bytes& bytes, int* result) {
    GuardedText<unsigned char> source(bytes);
    Guarded<wchar_t> out(bytes.size() + 1);
    *result = Convert_UTF8_UCS(source.data(), out.data());
    std::vector<uint32_t> units;
    if (*result < 0) return units;
    for (int i = 0; i <= *result; ++i) units.push_back(static_cast<uint32_t>(out.data()[i]));
    return units;
}

template <size_t N>
void ExpectDecodes(const DecodeCase (&cases)[N]) {
    for (const DecodeCase& c : cases) {
        int result = 0;
        std::vector<uint32_t> units = Decoded(c.source, &result);
        std::vector<uint32_t> expected = c.expected;
        expected.push_back(0);
        EXPECT_EQ(static_cast<int>(c.expected.size()), result) << ::testing::PrintToString(c.source);
        EXPECT_EQ(expected, units) << ::testing::PrintToString(c.source);
    }
}

TEST(ConvertUtf8Ucs, DecodesByTheLeadAndTheTopBitOfTheNextByte) {
    const DecodeCase cases[] = {
        {{}, {}},
        {{0x41, 0x62}, {0x41, 0x62}},
        {{0xC3, 0xA9}, {0xE9}},
        {{0xDF, 0xBF}, {0x7FF}},
        {{0xE4, 0xB8, 0xAD}, {0x4E2D}},
        {{0xEF, 0xBF, 0xBF}, {0xFFFF}},
        {{0xF0, 0x9F, 0x98, 0x80}, {0x1F600}},
        {{0xF0, 0x9F, 0x98, 0x80, 0x41}, {0x1F600, 0x41}},
        // A lead whose next byte has its top bit clear stands for itself; so does the byte before the end.
        {{0x63, 0xE9}, {0x63, 0xE9}},
        {{0xC3, 0x41}, {0xC3, 0x41}},
        {{0xE4, 0x41, 0x42}, {0xE4, 0x41, 0x42}},
        {{0xF0, 0x41}, {0xF0, 0x41}},
        {{0xC3}, {0xC3}},
        // Continuation bytes in the place of a lead keep their Latin-1 value.
        {{0x80}, {0x80}},
        {{0xBF, 0x41, 0xA9}, {0xBF, 0x41, 0xA9}},
        // Only the next byte is tested: later bytes are taken as they are and their bits merge.
        {{0xE4, 0xB8, 0x41}, {0x4EC1}},
        {{0xE0, 0xC0, 0xC0}, {0x1040}},
        {{0xC0, 0xC0}, {0x40}},
        // Overlong forms aren't checked: 0xC0 0x80 gives a zero unit, which is counted.
        {{0xC0, 0x80}, {0x0}},
        {{0xF0, 0x80, 0x80, 0x80, 0x41}, {0x0, 0x41}},
        // Leads 0xF8..0xFF take the four-byte row and can exceed 21 bits.
        {{0xF8, 0x88, 0x80, 0x80}, {0x208000}},
        {{0xFF, 0xBF, 0xBF, 0xBF}, {0x3FFFFF}},
        {{0xFF}, {0xFF}},
        {{0xFE, 0x41}, {0xFE, 0x41}},
    };
    ExpectDecodes(cases);
}

// The source ends at a guard page, so any read behind the terminator faults.
TEST(ConvertUtf8Ucs, SequencesCutByTheEndNeverReadBehindTheTerminator) {
    const DecodeCase cases[] = {
        // The terminator stands in for the third byte and contributes 0x80.
        {{0xE4, 0xB8}, {0x4E80}},
        {{0x61, 0x62, 0xE4, 0xB8}, {0x61, 0x62, 0x4E80}},
        // Four-byte leads: a missing byte counts as a zero byte, like the terminator that stands before it.
        {{0xF0, 0x9F, 0x98}, {0x1F680}},
        {{0xF0, 0x9F}, {0x1F080}},
        {{0xFF, 0xFF}, {0x3FF080}},
        {{0xFF, 0xFF, 0xFF}, {0x3FFFC0}},
        {{0x41, 0xF8, 0x80}, {0x41, 0x202080}},
    };
    ExpectDecodes(cases);
}

TEST(ConvertUtf8Ucs, UndoesConvertUcsUtf8ForEveryUnitUpTo0xFFFF) {
    // Surrogates are outside Unicode text, but they come back too: neither side treats them apart.
    Units all;
    for (uint32_t c = 1; c <= 0xFFFF; ++c) all.push_back(static_cast<wchar_t>(c));
    GuardedText<wchar_t> source(all);
    Guarded<unsigned char> bytes(3 * all.size() + 1);
    const int length = Convert_UCS_UTF8(source.data(), bytes.data());
    ASSERT_EQ(0x7F * 1 + (0x7FF - 0x7F) * 2 + (0xFFFF - 0x7FF) * 3, length);
    EXPECT_EQ(static_cast<int>(all.size()), UCS_Length(bytes.data(), length));

    Guarded<wchar_t> back(static_cast<size_t>(length) + 1);
    ASSERT_EQ(static_cast<int>(all.size()), Convert_UTF8_UCS(bytes.data(), back.data()));
    all.push_back(0);
    EXPECT_EQ(all, back.take(all.size()));
}

TEST(ConvertUcsChar, KeepsTheLow8BitsOfEachUnit) {
    struct Case {
        Units source;
        std::string expected;
    } cases[] = {
        {{}, ""},
        {Wide({'a', 'b'}), "ab"},
        {Wide({0xFF}), "\xFF"},
        {Wide({0x1E9, 0x4E2D, 0x12345641}), std::string("\xE9\x2D\x41")},
        // A unit with zero low bits gives a zero byte, which is counted.
        {Wide({0x61, 0x100, 0x62}), std::string("a\0b", 3)},
    };
    for (const Case& c : cases) {
        GuardedText<wchar_t> source(c.source);
        Guarded<char> out(c.source.size() + 1);
        ASSERT_EQ(static_cast<int>(c.expected.size()), Convert_UCS_CHAR(source.data(), out.data()));
        EXPECT_EQ(c.expected + '\0', std::string(out.data(), c.source.size() + 1));
    }
}

TEST(ChangeBom, SwapsUntilTheFirstUnitWithoutAHighByte) {
    struct Case {
        Units text;
        Units expected;
    } cases[] = {
        {{}, {}},
        {Wide({0x4100, 0x4200}), Wide({0x0041, 0x0042})},
        {Wide({0x4100, 0x0043, 0x4400}), Wide({0x0041, 0x0043, 0x4400})},
        {Wide({0xFEFF, 0x1234}), Wide({0xFFFE, 0x3412})},
        // Bits 16..31 are dropped, on the swapped units and on the one that stops the walk.
        {Wide({0x12345678, 0x7FFF0041, 0x12345678}), Wide({0x7856, 0x41, 0x12345678})},
        // A stopping unit can become zero; the length on entry is still the result and the tail stays.
        {Wide({0x10000, 0x4100}), Wide({0x0, 0x4100})},
    };
    for (const Case& c : cases) {
        GuardedText<wchar_t> text(c.text);
        EXPECT_EQ(static_cast<int>(c.text.size()), Change_BOM(text.data()));
        Units expected = c.expected;
        expected.push_back(0);
        EXPECT_EQ(expected, text.take(expected.size()));
    }

    // Twice over units with both bytes set gives the text back.
    Units all;
    for (uint32_t c = 0x0101; c <= 0xFFFF; ++c) {
        if ((c & 0xFF) != 0) all.push_back(static_cast<wchar_t>(c));
    }
    GuardedText<wchar_t> text(all);
    EXPECT_EQ(static_cast<int>(all.size()), Change_BOM(text.data()));
    EXPECT_EQ(static_cast<int>(all.size()), Change_BOM(text.data()));
    EXPECT_EQ(all, text.take(all.size()));
}

TEST(UcsLength, CountsLeadBytesOnly) {
    struct Case {
        Bytes buffer;
        int length;
        int expected;
    } cases[] = {
        {{'a', 'b', 'c'}, 3, 3},
        {{'a', 'b', 'c'}, 2, 2},
        {{0xC3, 0xA9, 0xE4, 0xB8, 0xAD, 0xF0, 0x9F, 0x98, 0x80}, 9, 3},
        {{0x80, 0xBF}, 2, 2},
        {{'a', 0, 'b'}, 3, 3},
        // A buffer that ends inside a sequence still counts it, without reading its missing bytes.
        {{0xE4, 0xB8}, 2, 1},
        {{0xF0}, 1, 1},
        {{0x41, 0xFF}, 2, 2},
        {{'a'}, 0, 0},
        {{'a'}, -5, 0},
    };
    for (const Case& c : cases) {
        Guarded<unsigned char> buffer(c.buffer.size());
        std::copy(c.buffer.begin(), c.buffer.end(), buffer.data());
        EXPECT_EQ(c.expected, UCS_Length(buffer.data(), c.length)) << ::testing::PrintToString(c.buffer);
    }
    EXPECT_EQ(0, UCS_Length(nullptr, 10));
}

// The decoder as the table reads, over the source padded with zero bytes: the oracle for random input.
std::vector<uint32_t> ReferenceDecode(const Bytes& text) {
    Bytes s(text);
    s.resize(text.size() + 4, 0);
    const size_t n = strlen(reinterpret_cast<const char*>(s.data()));
    std::vector<uint32_t> units;
    for (size_t i = 0; i < n;) {
        const uint32_t l = s[i], b = s[i + 1], t = s[i + 2], q = s[i + 3];
        if (l >= 0xF0 && (b & 0x80)) {
            units.push_back(((l ^ 0xF0) << 18) | ((b ^ 0x80) << 12) | ((t ^ 0x80) << 6) | (q ^ 0x80));
            i += 4;
        } else if (l >= 0xE0 && (b & 0x80)) {
            units.push_back(((l ^ 0xE0) << 12) | ((b ^ 0x80) << 6) | (t ^ 0x80));
            i += 3;
        } else if (l >= 0xC0 && (b & 0x80)) {
            units.push_back(((l ^ 0xC0) << 6) | (b ^ 0x80));
            i += 2;
        } else {
            units.push_back(l);
            i += 1;
        }
    }
    units.push_back(0);
    return units;
}

TEST(Conversions, RandomInputStaysInBoundsAndFollowsTheTables) {
    std::mt19937 random(20261123);
    // Mostly high bytes, so that leads and cut sequences are frequent.
    std::uniform_int_distribution<int> length(0, 40);
    std::uniform_int_distribution<int> byte(0, 255);
    std::uniform_int_distribution<int> kind(0, 9);
    for (int round = 0; round < 4000; ++round) {
        Bytes text(static_cast<size_t>(length(random)));
        for (unsigned char& b : text) {
            const int k = kind(random);
            b = static_cast<unsigned char>(k < 6 ? 0x80 + byte(random) % 0x80 : k < 9 ? byte(random) : 0x41);
            if (b == 0) b = 0xF8;
        }
        const size_t n = text.size();

        int result = 0;
        std::vector<uint32_t> units = Decoded(text, &result);
        ASSERT_EQ(ReferenceDecode(text), units) << ::testing::PrintToString(text);
        // Counting by lead bytes stays inside the given length, whatever the leads promise.
        Guarded<unsigned char> counted(n);
        std::copy(text.begin(), text.end(), counted.data());
        const int characters = UCS_Length(counted.data(), static_cast<int>(n));
        ASSERT_LE(characters, static_cast<int>(n));
        ASSERT_EQ(n > 0, characters > 0);

        // Random 32-bit units with non-zero low bits: the encoder keeps to 3 bytes a unit and the decoder
        // gives the low 16 bits back.
        Units source(n);
        for (wchar_t& u : source) {
            uint32_t v = static_cast<uint32_t>(random());
            if ((v & 0xFFFF) == 0) v |= 1;
            u = static_cast<wchar_t>(v);
        }
        GuardedText<wchar_t> wideSource(source);
        Guarded<unsigned char> encoded(3 * n + 1);
        const int bytes = Convert_UCS_UTF8(wideSource.data(), encoded.data());
        ASSERT_LE(bytes, static_cast<int>(3 * n));
        Guarded<wchar_t> decoded(static_cast<size_t>(bytes) + 1);
        ASSERT_EQ(static_cast<int>(n), Convert_UTF8_UCS(encoded.data(), decoded.data()));
        ASSERT_EQ(static_cast<int>(n), UCS_Length(encoded.data(), bytes));
        for (size_t i = 0; i < n; ++i) {
            ASSERT_EQ(static_cast<uint32_t>(source[i]) & 0xFFFF, static_cast<uint32_t>(decoded.data()[i]));
        }

        ASSERT_EQ(static_cast<int>(n), Change_BOM(wideSource.data()));
    }
}

// The encoder as its table reads: the oracle for the texts below.
Bytes ReferenceEncode(const Units& units) {
    Bytes bytes;
    for (wchar_t u : units) {
        const uint32_t c = static_cast<uint32_t>(u) & 0xFFFF;
        if (c < 0x80) {
            bytes.push_back(static_cast<unsigned char>(c));
        } else if (c < 0x800) {
            bytes.push_back(static_cast<unsigned char>(0xC0 + (c >> 6)));
            bytes.push_back(static_cast<unsigned char>(0x80 + (c & 0x3F)));
        } else {
            bytes.push_back(static_cast<unsigned char>(0xE0 + (c >> 12)));
            bytes.push_back(static_cast<unsigned char>(0x80 + ((c >> 6) & 0x3F)));
            bytes.push_back(static_cast<unsigned char>(0x80 + (c & 0x3F)));
        }
    }
    bytes.push_back(0);
    return bytes;
}

// Texts long enough for the block loops, made of pieces of one kind each (ASCII runs, sequences, stray and
// cut sequences, units of every width), ending at every offset around the loops' blocks, some long enough
// to go from blocks of ASCII to other blocks and back; each output buffer is exactly as long as the result
// plus its terminator, and ends at a guard page.
TEST(Conversions, TextsAcrossWordBlocksFollowTheTables) {
    std::mt19937 random(20261124);
    auto pick = [&](uint32_t n) { return static_cast<uint32_t>(random() % n); };
    for (int round = 0; round < 3000; ++round) {
        const size_t length = round % 10 == 9 ? 300 + pick(700) : 40 + static_cast<size_t>(round % 220);
        const uint32_t flavour =
            pick(4);  // 0: well-formed, 1: mostly ASCII, 2: anything, 3: high runs and cuts
        Bytes text;
        while (text.size() < length) {
            const uint32_t kind =
                flavour == 1 ? (pick(8) == 0 ? 1 + pick(4) : 0) : pick(flavour == 0 ? 4 : 7);
            if (kind == 0) {
                for (uint32_t n = 1 + pick(20); n > 0; --n)
                    text.push_back(static_cast<unsigned char>(1 + pick(127)));
            } else if (kind <= 3) {  // a well-formed sequence of kind + 1 bytes
                static const unsigned char kLeads[] = {0xC0, 0xE0, 0xF0};
                text.push_back(static_cast<unsigned char>(kLeads[kind - 1] | pick(kind == 1 ? 32 : 16)));
                for (uint32_t n = kind; n > 0; --n)
                    text.push_back(static_cast<unsigned char>(0x80 | pick(64)));
            } else if (kind == 4) {  // a lead, then an ASCII byte
                text.push_back(static_cast<unsigned char>(0xC0 + pick(64)));
                text.push_back(static_cast<unsigned char>(1 + pick(127)));
            } else if (flavour == 3) {  // a long run of high bytes, which may reach the end
                for (uint32_t n = 1 + pick(90); n > 0; --n)
                    text.push_back(static_cast<unsigned char>(0x80 + pick(128)));
            } else {  // any non-zero bytes
                for (uint32_t n = 1 + pick(6); n > 0; --n)
                    text.push_back(static_cast<unsigned char>(1 + pick(255)));
            }
        }
        text.resize(length);
        if (flavour == 3)
            text.back() = static_cast<unsigned char>(0xE0 + pick(32));  // a sequence cut by the end

        const std::vector<uint32_t> expected = ReferenceDecode(text);
        GuardedText<unsigned char> source(text);
        Guarded<wchar_t> decoded(expected.size());
        ASSERT_EQ(static_cast<int>(expected.size()) - 1, Convert_UTF8_UCS(source.data(), decoded.data()))
            << ::testing::PrintToString(text);
        const Units got = decoded.take(expected.size());
        ASSERT_EQ(expected, std::vector<uint32_t>(got.begin(), got.end())) << ::testing::PrintToString(text);

        // The other way, over units of every width and bits above 16.
        Units units;
        while (units.size() < length) {
            static const uint32_t kTops[] = {0x80, 0x800, 0x10000, 0xFFFFFFFFu};
            const uint32_t top = kTops[flavour == 1 ? (pick(8) == 0 ? 1 + pick(3) : 0) : pick(4)];
            for (uint32_t n = 1 + pick(12); n > 0; --n) {
                uint32_t v = static_cast<uint32_t>(random()) % top;
                if (v == 0) v = 0x10000;  // a zero low half: a zero byte, counted, inside the text
                units.push_back(static_cast<wchar_t>(v));
            }
        }
        units.resize(length);
        const Bytes bytes = ReferenceEncode(units);
        GuardedText<wchar_t> wide(units);
        Guarded<unsigned char> encoded(bytes.size());
        ASSERT_EQ(static_cast<int>(bytes.size()) - 1, Convert_UCS_UTF8(wide.data(), encoded.data())) << round;
        ASSERT_EQ(bytes, encoded.take(bytes.size())) << round;
    }
}

TEST(Conversions, LongAsciiRunsBetweenOtherCharactersFollowTheTables) {
    // ASCII runs of every length around the block sizes of the conversions, between multi-byte characters
    // and stray high bytes, in both directions.
    std::mt19937 random(7);
    for (int round = 0; round < 500; ++round) {
        Bytes text;
        Units units;
        while (text.size() < 200) {
            for (int run = static_cast<int>(random() % 20); run > 0; --run) {
                const unsigned char c = static_cast<unsigned char>(1 + random() % 127);
                text.push_back(c);
                units.push_back(static_cast<wchar_t>(c | (random() % 4 == 0 ? 0x10000u : 0u)));
            }
            const uint32_t high = 0x80 + random() % 0xFF80;
            text.push_back(static_cast<unsigned char>(random() % 2 ? 0xC3 : 0xE4));
            units.push_back(static_cast<wchar_t>(high));
        }
        int result = 0;
        ASSERT_EQ(ReferenceDecode(text), Decoded(text, &result)) << ::testing::PrintToString(text);

        GuardedText<wchar_t> wide(units);
        Guarded<unsigned char> encoded(3 * units.size() + 1);
        const int bytes = Convert_UCS_UTF8(wide.data(), encoded.data());
        Bytes expected;
        for (wchar_t u : units) {
            const uint32_t c = static_cast<uint32_t>(u) & 0xFFFF;
            if (c < 0x80) {
                expected.push_back(static_cast<unsigned char>(c));
            } else if (c < 0x800) {
                expected.push_back(static_cast<unsigned char>(0xC0 + (c >> 6)));
                expected.push_back(static_cast<unsigned char>(0x80 + (c & 0x3F)));
            } else {
                expected.push_back(static_cast<unsigned char>(0xE0 + (c >> 12)));
                expected.push_back(static_cast<unsigned char>(0x80 + ((c >> 6) & 0x3F)));
                expected.push_back(static_cast<unsigned char>(0x80 + (c & 0x3F)));
            }
        }
        ASSERT_EQ(static_cast<int>(expected.size()), bytes);
        ASSERT_EQ(Bytes(encoded.data(), encoded.data() + bytes + 1), [&] {
            Bytes e(expected);
            e.push_back(0);
            return e;
        }());
    }
}

}  // namespace
