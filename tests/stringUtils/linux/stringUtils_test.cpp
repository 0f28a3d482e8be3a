#include "msplatform/stringUtils.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "stringUtils/linux/internal.h"
#include "support/support.h"

namespace {

using msptest::GuardedBytes;

// Counts the blocks asked for, and can refuse them all.
struct AllocationSeam {
    static inline int requests = 0;
    static inline bool refuse = false;
    explicit AllocationSeam(bool refuseAll) {
        requests = 0;
        refuse = refuseAll;
        mspstring::allocate = [](size_t size) {
            ++requests;
            return refuse ? nullptr : std::malloc(size);
        };
    }
    ~AllocationSeam() { mspstring::allocate = ::malloc; }
};

// A literal's bytes with its terminator.
template <size_t N>
std::string Bytes(const char (&text)[N]) {
    return std::string(text, N);
}

// Texts end at an inaccessible page in these tables: nothing is read behind a terminator.
TEST(StringSearch, PositionsAffixesAndExtensions) {
    const struct {
        const char *text, *needle;
        int first, last;
    } cases[] = {
        {"", "", -1, 0},         {"abc", "", 0, 3},       {"", "a", -1, -1},    {"ab", "abc", -1, -1},
        {"abcabc", "bc", 1, 4},  {"aaa", "aa", 0, 1},     {"abc", "abc", 0, 0}, {"abcab", "abc", 0, 0},
        {"a\xFF", "\xFF", 1, 1}, {"ab", "b\x80", -1, -1},
    };
    for (const auto& c : cases) {
        GuardedBytes text = GuardedBytes::String(c.text), needle = GuardedBytes::String(c.needle);
        EXPECT_EQ(
            std::make_pair(IndexOf(text.data(), needle.data()), LastIndexOf(text.data(), needle.data())),
            std::make_pair(c.first, c.last))
            << c.text << " / " << c.needle;
    }
    // StartsWith and EndsWith, each without and with the case flag.
    const char* affixes[][3] = {
        {"abc", "abcd", "0000"}, {"a.MP3", ".mp3", "0001"},  {"a.MP3", "A", "0100"}, {"abc", "", "1111"},
        {"", "a", "0000"},       {"x\xE9", "X\xC9", "0000"}, {"ab", "b", "0011"},
    };
    for (const auto& [text, affix, expected] : affixes) {
        GuardedBytes t = GuardedBytes::String(text), a = GuardedBytes::String(affix);
        const char got[] = {
            char('0' + StartsWith(t.data(), a.data(), 0)), char('0' + StartsWith(t.data(), a.data(), 7)),
            char('0' + EndsWith(t.data(), a.data(), 0)), char('0' + EndsWith(t.data(), a.data(), -1)), 0};
        EXPECT_STREQ(got, expected) << text << " / " << affix;
    }
    const std::pair<const char*, int> extensions[] = {
        {"a/b.tar.gz", 7}, {"dir.d/file", -1}, {"dir.d\\file", -1}, {"file.", 4},
        {"", -1},          {".profile", 0},    {"c:\\a.b\\", -1}};
    for (const auto& [text, dot] : extensions) {
        GuardedBytes path = GuardedBytes::String(text);
        EXPECT_EQ(GetFileExtension(path.data()), dot < 0 ? nullptr : path.data() + dot) << text;
    }
    EXPECT_EQ(GetFileExtension(nullptr), nullptr);
}

// Both searches against the rule written out, on texts of two to four letters, half of them with needles
// made of a repeated word, so that periodic needles and near misses are frequent. Text and needle end at a
// guard page.
TEST(StringSearch, FirstAndLastPositionsFollowTheRule) {
    std::mt19937 random(5);
    for (int round = 0; round < 5000; ++round) {
        const unsigned letters = 2 + random() % 3;
        auto word = [&](size_t length) {
            std::string w(length, 'a');
            for (char& c : w) c = static_cast<char>('a' + random() % letters);
            return w;
        };
        std::string needle = word(random() % 9);
        if (round % 2 == 1) {
            const std::string unit = word(1 + random() % 3);
            while (needle.size() < 2 + random() % 10) needle += unit;
            if (random() % 2 == 0) needle[random() % needle.size()] = 'a';
        }
        std::string text;
        const size_t length = random() % 40;
        while (text.size() < length) text += random() % 2 == 0 ? needle : word(1 + random() % 4);
        int first = -1, last = -1;
        for (size_t p = 0; p + needle.size() <= text.size(); ++p) {
            if (text.compare(p, needle.size(), needle) != 0) continue;
            if (first < 0) first = static_cast<int>(p);
            last = static_cast<int>(p);
        }
        if (text.empty()) first = -1;
        GuardedBytes t = GuardedBytes::String(text), w = GuardedBytes::String(needle);
        ASSERT_EQ(std::make_pair(IndexOf(t.data(), w.data()), LastIndexOf(t.data(), w.data())),
                  std::make_pair(first, last))
            << text << " / " << needle;
    }
}

// A near miss at every position costs both searches one pass, not a comparison of the needle at each: 4 MiB
// of 'a' against needles of 512 KiB, 'a's then 'b' and 'b' then 'a's, which a naive search takes minutes
// over.
TEST(StringSearch, NearMissesAtEveryPositionTakeOnePass) {
    const std::string text(4 << 20, 'a');
    std::string endsInB(512 << 10, 'a'), startsWithB = endsInB;
    endsInB.back() = 'b';
    startsWithB.front() = 'b';
    const int failed = msptest::RunChild(
        [&] {
            for (const std::string* needle : {&endsInB, &startsWithB}) {
                if (IndexOf(text.c_str(), needle->c_str()) != -1) return 1;
                if (LastIndexOf(text.c_str(), needle->c_str()) != -1) return 2;
            }
            return 0;
        },
        10000);
    EXPECT_EQ(failed, 0) << "kChildTimedOut is " << msptest::kChildTimedOut;
}

// StrChomp changes one byte, at the first line break; MakeStrcpy copies into a new block.
TEST(StringCopies, ChompAndMakeStrcpy) {
    const std::pair<const char*, size_t> chomps[] = {
        {"one\r\ntwo\n", 3}, {"one", 3}, {"\nabc", 0}, {"a\rb", 1}};
    for (const auto& [text, cut] : chomps) {
        std::string buffer = text + Bytes("\0tail"), expected = buffer;
        expected[cut] = '\0';
        StrChomp(&buffer[0]);
        EXPECT_EQ(buffer, expected) << text;
    }

    const char text[] = "dir/\xE9t\xE9.mp3";
    for (const char* source : {text, static_cast<const char*>(nullptr)}) {
        char* copy = MakeStrcpy(source);
        ASSERT_NE(copy, nullptr);
        EXPECT_NE(copy, text);
        EXPECT_STREQ(copy, source != nullptr ? text : "");
        std::free(copy);
    }
    AllocationSeam seam(true);
    EXPECT_EQ(MakeStrcpy("abc"), nullptr);
    EXPECT_EQ(MakeStrcpy(nullptr), nullptr);
    EXPECT_EQ(AllocationSeam::requests, 2);
}

std::string Escaped(const std::string& source) {
    std::vector<char> out(static_cast<size_t>(HTTPUrlEscapeLength(source.c_str())) + 16, 'Z');
    const int written = HTTPUrlEscape(out.data(), source.c_str());
    EXPECT_EQ(written, HTTPUrlEscapeLength(source.c_str())) << source;
    EXPECT_EQ(out[static_cast<size_t>(written) - 1], '\0');
    EXPECT_EQ(out[static_cast<size_t>(written)], 'Z') << "wrote behind its count";
    return std::string(out.data());
}

// Every byte value against the set written out by hand. A count beyond INT_MAX is -1, never a smaller size
// that a destination could be allocated by. kFits blanks escape to exactly INT_MAX bytes; one more goes
// beyond (683 MiB of text, mapped from one).
TEST(HTTPUrlEscape, EscapesAllButTheUrlSetAndACountBeyondIntMaxIsMinusOne) {
    EXPECT_EQ(Escaped("a b/c"), "a%20b/c");
    EXPECT_EQ(Escaped(""), "");
    const std::string safe = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/@;:=+$-_.*";
    for (int c = 1; c < 256; ++c) {
        char expected[4];
        std::snprintf(expected, sizeof expected, safe.find(char(c)) != std::string::npos ? "%c" : "%%%02X",
                      c);
        EXPECT_EQ(Escaped(std::string(1, char(c))), expected) << c;
    }
    constexpr size_t kFits = (INT_MAX - 1) / 3, kMegabytes = 683;
    static_assert(3 * kFits + 1 == INT_MAX && kMegabytes << 20 > kFits);
    msptest::RepeatedText blanks(' ', kMegabytes);
    if (!blanks.text()) GTEST_SKIP() << "the system gives no 683 MiB of address space";
    const char* end = blanks.text() + (kMegabytes << 20);
    EXPECT_EQ(HTTPUrlEscapeLength(end - kFits - 1), -1);
}

// The buffer afterwards, its terminator included, and the result.
std::pair<int, std::string> Unescape(const std::string& text) {
    GuardedBytes buffer = GuardedBytes::String(text);
    const int result = HTTPUrlUnEscape(buffer.data());
    return {result, std::string(buffer.data(), buffer.size())};
}

// In place, at a guard page: a pair cut by the end is never read behind the terminator. Two hex digits are
// decoded directly, anything else as strtol reads it.
TEST(HTTPUrlUnEscape, DecodesInPlaceAndAnEscapeAtTheEndTakesWhatIsLeft) {
    const std::pair<const char*, std::pair<int, std::string>> cases[] = {
        {"a%20b", {3, Bytes("a b0b")}},  {"", {0, Bytes("")}},
        {"%00x", {2, Bytes("\0x0x")}},   {"ab%", {3, Bytes("ab\0")}},
        {"ab%4", {3, Bytes("ab\0044")}}, {"%", {1, Bytes("\0")}},
        {"%%41", {2, Bytes("\000141")}}, {"%fF", {1, Bytes("\377fF")}},
        {"%4z", {1, Bytes("\0044z")}},   {"%-1", {1, Bytes("\377-1")}},
        {"% 4", {1, Bytes("\004 4")}},   {"%0x", {1, Bytes("\0000x")}},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(Unescape(text), expected) << text;
}

// Texts thick with '%', digits, signs and blanks, against a decoder that measures the text first.
TEST(HTTPUrlUnEscape, RandomTextsDecodeAsTheLengthAtTheStartSays) {
    const char alphabet[] = "%%%0123456789aFgx+- \t";
    std::mt19937 random(7);
    for (int round = 0; round < 3000; ++round) {
        std::string text(random() % 12, ' ');
        for (char& c : text) c = alphabet[random() % (sizeof alphabet - 1)];
        std::string expected = text + '\0';
        size_t read = 0, write = 0;
        for (; read < text.size(); ++write) {
            const bool escape = text[read] == '%';
            expected[write] =
                escape ? char(std::strtol(text.substr(read + 1, 2).c_str(), nullptr, 16)) : text[read];
            read += escape ? 3 : 1;
        }
        ASSERT_EQ(Unescape(text), std::make_pair(int(write), expected)) << text;
    }
}

// The whole file (zero bytes included) and a zero byte behind it, in the one block asked for; the count may
// be left out. A missing file, directories (whatever size their file system tells by seeking: ext4 gives
// INT32_MAX to a 32-bit process, procfs 0), a FIFO that nobody writes (an open that waits for a writer would
// never return: hence the child with a time-out) and a file beyond 2^31-1 bytes give null without
// allocating; running out of memory gives null. Failures leave the count.
TEST(Cpyfilebuf, LoadsTheWholeFileAndFailuresGiveNullAndLeaveTheCount) {
    msptest::TempDir dir;
    std::string content;
    for (int i = 0; i < 70000; ++i) content += static_cast<char>(i * 7);
    for (const std::string& expected : {content, std::string()}) {
        msptest::WriteFile(dir.file("f"), expected);
        int count = -5;
        AllocationSeam seam(false);
        char* buffer = cpyfilebuf(dir.file("f").c_str(), &count);
        ASSERT_NE(buffer, nullptr);
        EXPECT_EQ(std::make_pair(AllocationSeam::requests, count), std::make_pair(1, int(expected.size())));
        EXPECT_EQ(std::string(buffer, expected.size() + 1), expected + '\0');
        std::free(buffer);
    }
    std::free(cpyfilebuf(dir.file("f").c_str(), nullptr));
    int count = 77;
    {
        AllocationSeam seam(true);
        EXPECT_EQ(cpyfilebuf(dir.file("f").c_str(), &count), nullptr);
        EXPECT_EQ(std::make_pair(AllocationSeam::requests, count), std::make_pair(1, 77));
    }

    const std::string fifo = dir.file("fifo"), sparse = dir.file("sparse");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const int fd = ::open(sparse.c_str(), O_CREAT | O_WRONLY | O_LARGEFILE, 0600);
    const bool sparseMade = fd >= 0 && ::ftruncate64(fd, static_cast<off64_t>(INT32_MAX) + 1) == 0;
    ::close(fd);
    const std::vector<std::string> paths = {dir.file("missing"), dir.path(), "/proc", fifo,
                                            sparseMade ? sparse : fifo};
    const int failed = msptest::RunChild(
        [&] {
            for (size_t i = 0; i < paths.size(); ++i) {
                AllocationSeam seam(false);
                if (cpyfilebuf(paths[i].c_str(), &count) != nullptr || count != 77 || seam.requests != 0)
                    return static_cast<int>(i) + 1;
            }
            return 0;
        },
        20000);
    EXPECT_EQ(failed, 0) << "kChildTimedOut is " << msptest::kChildTimedOut;
    if (!sparseMade) GTEST_SKIP() << "the temporary file system can't hold a sparse 2 GiB file";
}

// The units a down-conversion writes, without the terminator, in one-byte and 16-bit text.
using Down = std::pair<std::string, std::u16string>;

// Both outputs without a limit, the table's way over the source with zeros behind it: a sequence that takes
// the terminator's place ends the conversion after its output.
Down DownOracle(const std::string& source) {
    const std::string padded = source + std::string(4, '\0');
    Down out;
    for (size_t i = 0; padded[i] != '\0';) {
        const unsigned b = static_cast<unsigned char>(padded[i]),
                       b1 = static_cast<unsigned char>(padded[i + 1]);
        const unsigned b2 = b1 != 0 ? static_cast<unsigned char>(padded[i + 2]) : 0;
        const size_t take = b < 0x80 ? 1 : b < 0xE0 ? 2 : b < 0xF0 ? 3 : 4;
        if (take == 1 || (take == 2 && (b & 0x1C) == 0))
            out.first += static_cast<char>(take == 1 ? b : ((b & 0x03) << 6) | (b1 & 0x3F));
        if (take == 1) out.second += static_cast<char16_t>(b);
        if (take == 2) out.second += static_cast<char16_t>(((b & 0x1F) << 6) | (b1 & 0x3F));
        if (take == 3)
            out.second += static_cast<char16_t>(((b & 0x0F) << 12) | ((b1 & 0x3F) << 6) | (b2 & 0x3F));
        const size_t end = i + take;
        while (i < end && padded[i] != '\0') ++i;
        if (i < end) break;
    }
    return out;
}

// Both conversions into destinations of exactly `size` units that end at an inaccessible page, the source's
// terminator being its last accessible byte.
Down Convert(const std::string& source, int size) {
    GuardedBytes in = GuardedBytes::String(source), ansi(std::max(size, 0)), wide(std::max(size, 0) * 2);
    const unsigned short* units = reinterpret_cast<const unsigned short*>(wide.data());
    const int ansiResult = Utf8ToAnsi(ansi.data(), in.data(), size);
    const int wideResult = Utf8ToWide(reinterpret_cast<unsigned short*>(wide.data()), in.data(), size);
    if (size < 1 || ansiResult < 0 || ansiResult >= size || wideResult < 0 || wideResult >= size) {
        EXPECT_EQ(ansiResult | wideResult, 0) << "size " << size;
        return {};
    }
    EXPECT_EQ(ansi.data()[ansiResult] | units[wideResult], 0) << "terminators";
    return {std::string(ansi.data(), ansiResult), std::u16string(units, units + wideResult)};
}

// Continuation bytes are two-byte leads whose pair is taken unseen; 0xF8 to 0xFF are passed over as four
// bytes; a sequence cut by the end counts its missing bytes as zero and ends the conversion. A size below 1
// writes nothing (the destination has no byte here); a dropped sequence takes no room.
TEST(Utf8Down, TheLeadByteDecidesAndNothingIsReadBehindTheTerminator) {
    const struct {
        std::string source;
        int size;
        std::string ansi;
        std::u16string wide;
    } cases[] = {
        {"\xF0\x9F\x98\x80z", 10, "z", u"z"},
        {"\x83\xBF", 10, "\xFF", u"\u00FF"},
        {"\x80\x80", 10, {"", 1}, {u"", 1}},
        {"\370abcd", 10, "d", u"d"},
        {"\xFF\xFF\xFF\xFF\xC3\xA9", 10, "\xE9", u"\u00E9"},
        {"a\xC3", 10, "a\xC0", u"a\u00C0"},
        {"a\xE2", 10, "a", u"a\u2000"},
        {"a\xF0", 10, "a", u"a"},
        {"a\xE2\x82", 10, "a", u"a\u2080"},
        {"a\xF0\x9F\x98", 10, "a", u"a"},
        {"a\xFF\xFF", 10, "a", u"a"},
        {"abcdef", 3, "ab", u"ab"},
        {"\342\202\254\342\202\254ab", 2, "a", u"\u20AC"},
        {"abc", 0, "", u""},
        {"abc", -4, "", u""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Convert(c.source, c.size), Down(c.ansi, c.wide))
            << testing::PrintToString(c.source) << " size " << c.size;
    }
}

// Mostly high bytes, so that leads, cuts and bad sequences are frequent; every buffer ends at a guard page.
// Each conversion's output is the start of the unlimited one.
TEST(Utf8Down, RandomBytesFollowTheTable) {
    std::mt19937 random(4);
    for (int round = 0; round < 3000; ++round) {
        std::string source(random() % 24, ' ');
        for (char& c : source)
            c = static_cast<char>(random() % 4 == 0 ? 1 + random() % 127 : 128 + random() % 128);
        const int size = 1 + static_cast<int>(random() % 20);
        const Down expected = DownOracle(source);
        ASSERT_EQ(Convert(source, size),
                  Down(expected.first.substr(0, size - 1), expected.second.substr(0, size - 1)))
            << testing::PrintToString(source) << " size " << size;
    }
}

// 16-bit text as the functions read it: two bytes a unit, low byte first, then a zero unit whose second
// byte is the string's own terminator.
std::string Units(const std::u16string& units) {
    std::string bytes;
    for (char16_t u : units) bytes += {static_cast<char>(u & 0xFF), static_cast<char>(u >> 8)};
    return bytes + '\0';
}

// What an up-conversion writes, without the terminator, and the count it stores.
using Up = std::pair<std::string, int>;

// strToUtf8 or strToEscapedUri into a destination of exactly `size` bytes that ends at an inaccessible page;
// the source is one of 16-bit units if `wide`, else of their low bytes.
Up ToUtf8(const std::u16string& source, int size, bool wide, bool escape) {
    const std::string bytes = wide ? Units(source) : std::string(source.begin(), source.end());
    GuardedBytes in = GuardedBytes::String(bytes), out(std::max(size, 0), 'Z');
    int count = -99;
    const int result = (escape ? strToEscapedUri : strToUtf8)(out.data(), in.data(), size, wide, &count);
    if (size < 1 || result < 0 || result >= size) {
        EXPECT_EQ(result, 0) << "size " << size;
        return {"", count};
    }
    // The terminator, and behind it the bytes left alone.
    EXPECT_EQ(std::string(out.data() + result, size - result),
              Bytes("") + std::string(size - result - 1, 'Z'));
    return {std::string(out.data(), result), count};
}

// At the sizes around each stop: the closing step gives the last written byte back to the terminator, so
// plain text holds size - 2 bytes and an escape can lose its last digit. "%x" without padding. A size
// below 1 writes nothing and counts 0. Sources of units below 0x100 are also converted as one-byte text.
TEST(Utf8Up, ConversionAndTheByteTheClosingStepCosts) {
    const struct {
        std::u16string source;
        bool escape;
        int size;
        std::string text;
        int count;
    } cases[] = {
        {u"abc", false, 5, "abc", 3},
        {u"abc", false, 4, "ab", 2},
        {u"\u00E9", false, 5, "\xC3\xA9", 2},
        {u"\u00E9", false, 4, "", 0},
        {u"ab\u00E9", false, 5, "a", 1},
        {u"x\u20AC", false, 6, "x", 1},
        {u"\u00E9\u4100", false, 20, "\xC3\xA9\xE4\x84\x80", 5},
        {u"a b", true, 8, "a%20b", 3},
        {u"\u20AC", true, 10, "%e2%82%a", 2},
        {u"\u20AC", true, 9, "%e", 0},
        {u"\t", true, 5, "%9", 1},
        {u"\u000F\u0010\u007F", true, 20, "%f%10%7f", 3},
        {u"ab-", true, 6, "a", 1},
        {u"\u20AC", true, 1, "", 0},
        {u"abc", true, 0, "", 0},
        {u"abc", false, -1, "", 0},
        {u"abc", true, INT32_MIN, "", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(Units(c.source)) + " size " + std::to_string(c.size));
        for (bool wide : {true, false}) {
            if (!wide && std::any_of(c.source.begin(), c.source.end(), [](char16_t u) { return u > 0xFF; }))
                continue;
            EXPECT_EQ(ToUtf8(c.source, c.size, wide, c.escape), Up(c.text, c.count)) << wide;
        }
    }
}

// The full form, built the obvious way: UTF-8 bytes of each unit, escaped one by one if asked. `measured`
// is what strUtf8Len gives: 3 bytes for each escape and for the terminator.
std::string UpOracle(const std::u16string& units, bool escape, int* utf8Bytes, int* measured) {
    std::string out;
    *utf8Bytes = 0;
    *measured = escape ? 3 : 1;
    auto add = [&](unsigned byte, bool mayStand) {
        ++*utf8Bytes;
        *measured += !escape || mayStand ? 1 : 3;
        char hex[4];
        std::snprintf(hex, sizeof hex, !escape || mayStand ? "%c" : "%%%x", byte);
        out += hex;
    };
    for (char16_t u : units) {
        if (u < 0x80) {
            add(u, std::isalnum(u) != 0 || std::strchr("./:_?", u) != nullptr);
        } else {
            add(u < 0x800 ? 0xC0 | (u >> 6) : 0xE0 | (u >> 12), false);
            if (u >= 0x800) add(0x80 | ((u >> 6) & 0x3F), false);
            add(0x80 | (u & 0x3F), false);
        }
    }
    return out;
}

// Short texts, random 16-bit ones, and one-byte ones long enough for the runs the conversion takes whole:
// every size from 1 to past the whole form gives a prefix of it, and a write at or past the size faults.
TEST(Utf8Up, EverySizeGivesAPrefixOfTheWholeFormAndNeverWritesAtOrPastIt) {
    std::vector<std::u16string> sources = {u"AZaz09./:_?-@;=+$*~", u"a b\t\u007F",
                                           u"\u20ACx\u00E9y\uFFFF\u4100", u"/\u0800?\u07FF\u0080", u""};
    std::mt19937 random(11);
    for (int round = 0; round < 46; ++round) {
        std::u16string source(round < 40 ? 1 + random() % 12 : 40 + random() % 60, ' ');
        for (char16_t& c : source) {
            c = static_cast<char16_t>(round < 40          ? 1 + random() % 0xFFFF
                                      : random() % 3 == 0 ? 128 + random() % 128
                                                          : 1 + random() % 127);
        }
        sources.push_back(source);
    }
    for (const std::u16string& source : sources) {
        const bool narrow = std::none_of(source.begin(), source.end(), [](char16_t u) { return u > 0xFF; });
        for (auto [wide, escape] : {std::pair(true, false), {true, true}, {false, false}, {false, true}}) {
            if (!wide && !narrow) continue;
            int bytes = 0, measured = 0;
            const std::string whole = UpOracle(source, escape, &bytes, &measured);
            const std::string in = wide ? Units(source) : std::string(source.begin(), source.end());
            ASSERT_EQ(strUtf8Len(in.c_str(), wide ? 2 : 0, escape ? -1 : 0), measured);  // any non-zero flag
            const int needed = measured + (escape ? 0 : 2);
            int previous = 0;
            for (int size = 1; size <= needed + 4; ++size) {
                SCOPED_TRACE(testing::PrintToString(Units(source)) + " size " + std::to_string(size));
                const Up up = ToUtf8(source, size, wide, escape);  // a write at or past `size` faults
                const int length = static_cast<int>(up.first.size());
                EXPECT_EQ(up.first, whole.substr(0, length));
                EXPECT_TRUE(length <= std::max(0, size - 2) && length >= previous) << length;
                previous = length;
                if (size >= needed) {
                    EXPECT_EQ(up, Up(whole, bytes));
                }
            }
        }
    }
}

TEST(Utf8RoundTrip, OneByteAndSixteenBitTextComeBack) {
    std::string latin1;
    for (int c = 1; c < 256; ++c) latin1 += static_cast<char>(c);
    char utf8[400], back[256];
    EXPECT_EQ(strToUtf8(utf8, latin1.c_str(), sizeof utf8, 0, nullptr), 127 + 2 * 128);
    EXPECT_EQ(Utf8ToAnsi(back, utf8, sizeof back), 255);
    EXPECT_EQ(back, latin1);

    std::u16string units;
    for (int u = 1; u <= 0xFFFF; ++u) units += static_cast<char16_t>(u);
    const std::string source = Units(units);
    std::vector<char> encoded(static_cast<size_t>(strUtf8Len(source.c_str(), 1, 0)) + 2);
    strToUtf8(encoded.data(), source.c_str(), static_cast<int>(encoded.size()), 1, nullptr);
    std::vector<unsigned short> wide(units.size() + 1);
    ASSERT_EQ(Utf8ToWide(wide.data(), encoded.data(), static_cast<int>(wide.size())), 0xFFFF);
    EXPECT_EQ(std::u16string(wide.begin(), wide.end() - 1), units);
}

}  // namespace
