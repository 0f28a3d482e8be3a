#include "msplatform/stringUtils.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdint>
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
    static void* allocate(size_t size) {
        ++requests;
        return refuse ? nullptr : std::malloc(size);
    }
    AllocationSeam(bool refuseAll) {
        requests = 0;
        refuse = refuseAll;
        mspstring::allocate = &AllocationSeam::allocate;
    }
    ~AllocationSeam() { mspstring::allocate = ::malloc; }
};

// ---- Positions -------------------------------------------------------------------------------------------

TEST(StringSearch, FirstAndLastPositions) {
    struct Case {
        const char* text;
        const char* needle;
        int first;
        int last;
    };
    const Case cases[] = {
        {"", "", -1, 0},         {"abc", "", 0, 3},       {"", "a", -1, -1},     {"ab", "abc", -1, -1},
        {"abcabc", "bc", 1, 4},  {"aaa", "aa", 0, 1},     {"abc", "abc", 0, 0},  {"abc", "c", 2, 2},
        {"abc", "x", -1, -1},    {"abcab", "abc", 0, 0},  {"xAbab", "ab", 3, 3}, {"\xE9t\xE9", "\xE9", 0, 2},
        {"a\xFF", "\xFF", 1, 1}, {"ab", "b\x80", -1, -1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string("text '") + c.text + "' needle '" + c.needle + "'");
        GuardedBytes text = GuardedBytes::String(c.text);  // neither is read behind its terminator
        GuardedBytes needle = GuardedBytes::String(c.needle);
        EXPECT_EQ(IndexOf(text.data(), needle.data()), c.first);
        EXPECT_EQ(LastIndexOf(text.data(), needle.data()), c.last);
    }
}

// ---- Copies and cuts -------------------------------------------------------------------------------------

TEST(MakeStrcpy, CopiesIntoANewBufferAndGivesAnEmptyStringForNull) {
    const char text[] = "dir/\xE9t\xE9.mp3";
    char* copy = MakeStrcpy(text);
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy, text);
    EXPECT_STREQ(copy, text);
    std::free(copy);

    char* empty = MakeStrcpy(nullptr);
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(empty[0], '\0');
    std::free(empty);
}

TEST(MakeStrcpy, GivesNullWhenMemoryRunsOut) {
    AllocationSeam seam(true);
    EXPECT_EQ(MakeStrcpy("abc"), nullptr);
    EXPECT_EQ(MakeStrcpy(nullptr), nullptr);
    EXPECT_EQ(AllocationSeam::requests, 2);
}

TEST(StrChomp, CutsAtTheFirstLineBreakWhereverItStands) {
    struct Case {
        std::string in;
        std::string out;
    };
    const Case cases[] = {
        {"one\r\ntwo\n", "one"}, {"one", "one"},       {"", ""}, {"\nabc", ""}, {"a\rb", "a"},
        {"ab\n", "ab"},          {"a b\tc", "a b\tc"},
    };
    for (const Case& c : cases) {
        const std::string before = c.in + '\0' + "tail";
        std::string expected = before;
        if (c.out.size() < c.in.size()) expected[c.out.size()] = '\0';  // one byte changes, no more
        std::string buffer = before;
        StrChomp(&buffer[0]);
        EXPECT_EQ(buffer, expected) << c.in;
        EXPECT_EQ(std::string(buffer.c_str()), c.out) << c.in;
    }
}

// ---- Paths -----------------------------------------------------------------------------------------------

TEST(GetFileExtension, PointsAtTheLastDotOfTheLastElement) {
    struct Case {
        std::string path;
        int dot;  // -1: null
    };
    const Case cases[] = {
        {"a/b.tar.gz", 7}, {"dir.d/file", -1}, {"dir.d\\file", -1}, {"file.", 4}, {"", -1},
        {".profile", 0},   {"noext", -1},      {"a\\b.MP3", 3},     {"/x/.y", 3}, {"c:\\a.b\\", -1},
    };
    for (const Case& c : cases) {
        GuardedBytes path = GuardedBytes::String(c.path);
        char* result = GetFileExtension(path.data());
        if (c.dot < 0) {
            EXPECT_EQ(result, nullptr) << c.path;
        } else {
            EXPECT_EQ(result, path.data() + c.dot) << c.path;
        }
    }
    EXPECT_EQ(GetFileExtension(nullptr), nullptr);
}

TEST(Affixes, StartsWithAndEndsWithInBothModes) {
    struct Case {
        const char* text;
        const char* affix;
        int starts;      // flag clear
        int startsCase;  // flag set
        int ends;
        int endsCase;
    };
    const Case cases[] = {
        {"abc", "abcd", 0, 0, 0, 0},
        {"Song.MP3", ".mp3", 0, 0, 0, 1},
        {"Song.MP3", "song", 0, 1, 0, 0},
        {"abc", "", 1, 1, 1, 1},
        {"", "", 1, 1, 1, 1},
        {"", "a", 0, 0, 0, 0},
        {"abc", "abc", 1, 1, 1, 1},
        {"abc", "ABC", 0, 1, 0, 1},
        {"x\xE9", "X\xC9", 0, 0, 0, 0},
        {"ab", "b", 0, 0, 1, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string("text '") + c.text + "' affix '" + c.affix + "'");
        GuardedBytes text = GuardedBytes::String(c.text);
        GuardedBytes affix = GuardedBytes::String(c.affix);
        EXPECT_EQ(StartsWith(text.data(), affix.data(), 0), c.starts);
        EXPECT_EQ(StartsWith(text.data(), affix.data(), 7), c.startsCase);
        EXPECT_EQ(EndsWith(text.data(), affix.data(), 0), c.ends);
        EXPECT_EQ(EndsWith(text.data(), affix.data(), -1), c.endsCase);
    }
}

// ---- URL escaping ----------------------------------------------------------------------------------------

std::string Escaped(const std::string& source) {
    std::vector<char> out(static_cast<size_t>(HTTPUrlEscapeLength(source.c_str())) + 16, 'Z');
    const int written = HTTPUrlEscape(out.data(), source.c_str());
    EXPECT_EQ(written, HTTPUrlEscapeLength(source.c_str())) << source;
    EXPECT_EQ(out[static_cast<size_t>(written) - 1], '\0');
    EXPECT_EQ(out[static_cast<size_t>(written)], 'Z') << "wrote behind its count";
    return std::string(out.data());
}

TEST(HTTPUrlEscape, EscapesAllButTheUrlSet) {
    EXPECT_EQ(Escaped("a b/c"), "a%20b/c");
    EXPECT_EQ(HTTPUrlEscapeLength("a b/c"), 8);
    EXPECT_EQ(Escaped(""), "");
    EXPECT_EQ(HTTPUrlEscapeLength(""), 1);
    // Every byte value, against the set written out by hand.
    const std::string safe = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/@;:=+$-_.*";
    for (int c = 1; c < 256; ++c) {
        const std::string source(1, static_cast<char>(c));
        char expected[4];
        if (safe.find(static_cast<char>(c)) != std::string::npos) {
            std::snprintf(expected, sizeof expected, "%c", c);
        } else {
            std::snprintf(expected, sizeof expected, "%%%02X", c);
        }
        EXPECT_EQ(Escaped(source), expected) << c;
    }
}

struct Unescape {
    int result;
    std::string bytes;  // the whole buffer afterwards, its terminator included
};

Unescape UnescapeAt(const std::string& text) {
    GuardedBytes buffer = GuardedBytes::String(text);
    const int result = HTTPUrlUnEscape(buffer.data());
    return {result, std::string(buffer.data(), buffer.size())};
}

// 720 MiB of blanks escape to more than 2 GiB: the length stops at the largest int rather than overflowing.
TEST(HTTPUrlEscape, LengthOfAHugeTextSaturates) {
    msptest::RepeatedText blanks(' ', 720);
    if (!blanks.text()) GTEST_SKIP() << "the system gives no 720 MiB of address space";
    EXPECT_EQ(HTTPUrlEscapeLength(blanks.text()), INT_MAX);
}

// The buffers end at an inaccessible page: a pair cut by the end is never read behind the terminator.
TEST(HTTPUrlUnEscape, DecodesInPlaceAndAnEscapeAtTheEndTakesWhatIsLeft) {
    const struct {
        const char* text;
        int result;
        std::string bytes;
    } cases[] = {
        {"a%20b", 3, std::string("a b0b\0", 6)},
        {"", 0, std::string(1, '\0')},
        {"plain text", 10, std::string("plain text\0", 11)},
        {"%00x", 2, std::string("\0x0x\0", 5)},
        {"ab%", 3, std::string("ab\0\0", 4)},
        {"ab%4", 3, std::string("ab\0044\0", 5)},
        {"%", 1, std::string("\0\0", 2)},
        {"%%41", 2, std::string("\000141\0", 5)},  // "%4" gives 0, then '1'
    };
    for (const auto& c : cases) {
        const Unescape u = UnescapeAt(c.text);
        EXPECT_EQ(u.result, c.result) << c.text;
        EXPECT_EQ(u.bytes, c.bytes) << c.text;
    }
}

TEST(HTTPUrlUnEscape, ReadsThePairAsStrtolDoes) {
    struct Case {
        std::string pair;
        unsigned char value;
    };
    const Case cases[] = {
        {"41", 0x41}, {"fF", 0xFF}, {"Ab", 0xAB}, {"4z", 4}, {"zz", 0},   {" 4", 4}, {"\t7", 7},
        {"+5", 5},    {"-1", 0xFF}, {"-f", 0xF1}, {"0x", 0}, {"x1", 0},   {"g1", 0}, {"--", 0},
        {"  ", 0},    {"+-", 0},    {"9%", 9},    {"%4", 0}, {"\n\n", 0}, {"00", 0},
    };
    for (const Case& c : cases) {
        const Unescape u = UnescapeAt("<%" + c.pair + ">");
        EXPECT_EQ(u.result, 3) << c.pair;
        EXPECT_EQ(static_cast<unsigned char>(u.bytes[1]), c.value) << "'" << c.pair << "'";
        EXPECT_EQ(u.bytes[2], '>') << c.pair;
    }
}

TEST(HTTPUrlUnEscape, RandomTextsDecodeAsTheLengthAtTheStartSays) {
    // Texts thick with '%', digits, signs and blanks, against a decoder that measures the text first.
    const char alphabet[] = "%%%0123456789aFgx+- \t";
    std::mt19937 random(7);
    for (int round = 0; round < 3000; ++round) {
        std::string text(random() % 12, ' ');
        for (char& c : text) c = alphabet[random() % (sizeof alphabet - 1)];
        std::string expected = text + '\0';
        size_t read = 0;
        size_t write = 0;
        while (read < text.size()) {
            if (text[read] != '%') {
                expected[write++] = text[read++];
                continue;
            }
            const std::string pair = text.substr(read + 1, 2);
            expected[write++] = static_cast<char>(std::strtol(pair.c_str(), nullptr, 16) & 0xFF);
            read += 3;
        }
        const Unescape u = UnescapeAt(text);
        ASSERT_EQ(u.result, static_cast<int>(write)) << text;
        ASSERT_EQ(u.bytes, expected) << text;
    }
}

// ---- Whole files -----------------------------------------------------------------------------------------

TEST(Cpyfilebuf, LoadsTheWholeFileFollowedByAZeroByte) {
    msptest::TempDir dir;
    std::string content;
    for (int i = 0; i < 70000; ++i) content += static_cast<char>(i * 7);  // zero bytes included
    msptest::WriteFile(dir.file("f.bin"), content);
    int count = -5;
    char* buffer;
    {
        AllocationSeam seam(false);
        buffer = cpyfilebuf(dir.file("f.bin").c_str(), &count);
        EXPECT_EQ(AllocationSeam::requests, 1);  // only the buffer it hands out
    }
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(count, 70000);
    EXPECT_EQ(std::string(buffer, content.size()), content);
    EXPECT_EQ(buffer[content.size()], '\0');
    std::free(buffer);

    msptest::WriteFile(dir.file("empty"), "");
    count = -5;
    buffer = cpyfilebuf(dir.file("empty").c_str(), &count);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(buffer[0], '\0');
    std::free(buffer);

    // The count may be left out.
    buffer = cpyfilebuf(dir.file("f.bin").c_str(), nullptr);
    ASSERT_NE(buffer, nullptr);
    std::free(buffer);
}

TEST(Cpyfilebuf, FailuresGiveNullAndLeaveTheCount) {
    msptest::TempDir dir;
    int count = 77;
    EXPECT_EQ(cpyfilebuf(dir.file("missing").c_str(), &count), nullptr);
    EXPECT_EQ(count, 77);

    // A directory opens, but has no size to read.
    EXPECT_EQ(cpyfilebuf(dir.path().c_str(), &count), nullptr);
    EXPECT_EQ(count, 77);

    msptest::WriteFile(dir.file("f"), "abc");
    {
        AllocationSeam seam(true);
        EXPECT_EQ(cpyfilebuf(dir.file("f").c_str(), &count), nullptr);
        EXPECT_EQ(AllocationSeam::requests, 1);
    }
    EXPECT_EQ(count, 77);
}

TEST(Cpyfilebuf, AFifoWithoutAWriterGivesNullAtOnce) {
    msptest::TempDir dir;
    const std::string fifo = dir.file("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    // Nobody holds the other end: an open that waits for a writer would never return. A FIFO has no size.
    const int status = msptest::RunChild(
        [&] {
            int count = 77;
            AllocationSeam seam(false);
            char* buffer = cpyfilebuf(fifo.c_str(), &count);
            return buffer == nullptr && count == 77 && AllocationSeam::requests == 0 ? 0 : 1;
        },
        20000);
    EXPECT_EQ(status, 0) << "kChildTimedOut is " << msptest::kChildTimedOut;
}

TEST(Cpyfilebuf, AFileBeyondTheSigned32BitSizeGivesNullWithoutAllocating) {
    msptest::TempDir dir;
    const std::string path = dir.file("sparse");
    const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_LARGEFILE, 0600);
    ASSERT_GE(fd, 0);
    const int truncated = ::ftruncate64(fd, static_cast<off64_t>(INT32_MAX) + 1);
    ::close(fd);
    if (truncated != 0) GTEST_SKIP() << "the temporary file system can't hold a sparse 2 GiB file";
    AllocationSeam seam(false);
    int count = 77;
    EXPECT_EQ(cpyfilebuf(path.c_str(), &count), nullptr);
    EXPECT_EQ(count, 77);
    EXPECT_EQ(AllocationSeam::requests, 0);
}

// ---- UTF-8 down to one-byte and 16-bit text -------------------------------------------------------------

// What Utf8ToAnsi and Utf8ToWide give, followed the table's way over the source with zeros behind it: a
// sequence that takes the terminator's place ends the conversion after its output.
struct Down {
    std::string ansi;
    std::u16string wide;
};

Down DownOracle(const std::string& source, size_t ansiRoom, size_t wideRoom) {
    const std::string padded = source + std::string(4, '\0');
    Down out;
    for (size_t i = 0; padded[i] != '\0';) {
        const unsigned b = static_cast<unsigned char>(padded[i]);
        const unsigned b1 = static_cast<unsigned char>(padded[i + 1]);
        const unsigned b2 = b1 != 0 ? static_cast<unsigned char>(padded[i + 2]) : 0;
        size_t take;
        int ansi = -1;
        int wide = -1;
        if (b < 0x80) {
            take = 1;
            ansi = wide = static_cast<int>(b);
        } else if (b < 0xE0) {
            take = 2;
            wide = static_cast<int>(((b & 0x1F) << 6) | (b1 & 0x3F));
            if ((b >= 0xC0 && b <= 0xC3) || (b >= 0x80 && b <= 0x83) || (b >= 0xA0 && b <= 0xA3)) {
                ansi = static_cast<int>(((b & 0x03) << 6) | (b1 & 0x3F));
            }
        } else if (b < 0xF0) {
            take = 3;
            wide = static_cast<int>(((b & 0x0F) << 12) | ((b1 & 0x3F) << 6) | (b2 & 0x3F));
        } else {
            take = 4;
        }
        if (ansi >= 0 && out.ansi.size() < ansiRoom) out.ansi += static_cast<char>(ansi);
        if (wide >= 0 && out.wide.size() < wideRoom) out.wide += static_cast<char16_t>(wide);
        if (out.ansi.size() >= ansiRoom && out.wide.size() >= wideRoom) break;
        const size_t end = i + take;
        for (; i < end && padded[i] != '\0'; ++i) {
        }
        if (i < end) break;
    }
    return out;
}

// Both conversions of `source`, each into a destination of exactly `size` units that ends at an inaccessible
// page, the source's terminator being its last accessible byte.
struct DownResult {
    int ansiResult;
    std::string ansi;  // the destination's units up to the result, then the terminator
    int wideResult;
    std::u16string wide;
};

DownResult Convert(const std::string& source, int size) {
    GuardedBytes in = GuardedBytes::String(source);
    const size_t room = static_cast<size_t>(std::max(size, 0));
    GuardedBytes ansi(room);
    GuardedBytes wide(room * 2);
    DownResult r;
    r.ansiResult = Utf8ToAnsi(ansi.data(), in.data(), size);
    r.wideResult = Utf8ToWide(reinterpret_cast<unsigned short*>(wide.data()), in.data(), size);
    if (size >= 1) {
        r.ansi.assign(ansi.data(), static_cast<size_t>(r.ansiResult) + 1);
        const unsigned short* units = reinterpret_cast<const unsigned short*>(wide.data());
        for (int k = 0; k <= r.wideResult; ++k) r.wide += static_cast<char16_t>(units[k]);
    }
    return r;
}

TEST(Utf8Down, TheLeadByteDecides) {
    struct Case {
        std::string source;
        std::string ansi;
        std::u16string wide;
    };
    const Case cases[] = {
        {"A\303\251B", "A\351B", u"A\u00E9B"},
        {"A\342\202\254B", "AB", u"A\u20ACB"},
        {"\xC4\x80", "", u"\u0100"},
        {"\xE2\x82\xAC", "", u"\u20AC"},
        {"\xF0\x9F\x98\x80", "", u""},
        {"\xF0\x9F\x98\x80z", "z", u"z"},
        // Continuation bytes are two-byte leads; their pair is taken without a look at it.
        {"\x83\xBF", "\xFF", u"\u00FF"},
        {"\241A", "A", u"A"},
        {"\x90\x80x", "x", u"\u0400x"},
        {"\303A", "\301", u"\u00C1"},
        {"\x80\x80", std::string(1, '\0'), std::u16string(1, u'\0')},
        // 0xF8 to 0xFF are passed over as four bytes.
        {"\370abcd", "d", u"d"},
        {"\xFF\xFF\xFF\xFF\xC3\xA9", "\xE9", u"\u00E9"},
        {"\376a/bc", "c", u"c"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.source));
        const DownResult r = Convert(c.source, 10);
        EXPECT_EQ(r.ansiResult, static_cast<int>(c.ansi.size()));
        EXPECT_EQ(r.ansi, c.ansi + '\0');
        EXPECT_EQ(r.wideResult, static_cast<int>(c.wide.size()));
        EXPECT_EQ(r.wide, c.wide + u'\0');
    }
}

TEST(Utf8Down, SequencesCutByTheEndNeverReadBehindTheTerminator) {
    // The source's terminator is the last byte before an inaccessible page: any look behind it faults.
    struct Case {
        std::string source;
        std::string ansi;
        std::u16string wide;
    };
    const Case cases[] = {
        {"a\xC3", "a\xC0", u"a\u00C0"}, {"a\xC4", "a", u"a\u0100"}, {"a\xE2", "a", u"a\u2000"},
        {"a\xE2\x82", "a", u"a\u2080"}, {"a\xF0", "a", u"a"},       {"a\xF0\x9F\x98", "a", u"a"},
        {"a\xF8", "a", u"a"},           {"a\xFF\xFF", "a", u"a"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.source));
        const DownResult r = Convert(c.source, 10);
        EXPECT_EQ(r.ansi, c.ansi + '\0');
        EXPECT_EQ(r.ansiResult, static_cast<int>(c.ansi.size()));
        EXPECT_EQ(r.wide, c.wide + u'\0');
        EXPECT_EQ(r.wideResult, static_cast<int>(c.wide.size()));
    }
}

TEST(Utf8Down, WritesAtMostSizeMinusOneUnitsAndTheTerminator) {
    DownResult r = Convert("abcdef", 3);
    EXPECT_EQ(r.ansiResult, 2);
    EXPECT_EQ(r.ansi, std::string("ab\0", 3));
    EXPECT_EQ(r.wideResult, 2);
    EXPECT_EQ(r.wide, std::u16string(u"ab\0", 3));

    for (const char* source : {"", "abc", "\xC3\xA9"}) {
        r = Convert(source, 1);
        EXPECT_EQ(r.ansiResult, 0);
        EXPECT_EQ(r.ansi, std::string(1, '\0'));
        EXPECT_EQ(r.wideResult, 0);
        EXPECT_EQ(r.wide, std::u16string(1, u'\0'));
    }
    // A dropped sequence takes no room: the output is full only with units written.
    r = Convert("\342\202\254\342\202\254ab", 2);
    EXPECT_EQ(r.ansi, std::string("a\0", 2));
    EXPECT_EQ(r.wide, std::u16string(u"\u20AC\0", 2));
    // A size below 1: the destination, which has no byte at all here, is not touched.
    r = Convert("abc", 0);
    EXPECT_EQ(r.ansiResult, 0);
    EXPECT_EQ(r.wideResult, 0);
    r = Convert("abc", -4);
    EXPECT_EQ(r.ansiResult, 0);
    EXPECT_EQ(r.wideResult, 0);
}

// ---- One-byte and 16-bit text up to UTF-8 ---------------------------------------------------------------

// 16-bit text as the functions read it: two bytes a unit, low byte first, then a zero unit.
std::string Units(const std::u16string& units) {
    std::string bytes;
    for (char16_t u : units) {
        bytes += static_cast<char>(u & 0xFF);
        bytes += static_cast<char>(u >> 8);
    }
    return bytes + std::string(2, '\0');
}

struct Up {
    int result;
    int count;
    std::string text;  // the destination up to the result
};

// _strToUtf8 into a destination of exactly `size` bytes that ends at an inaccessible page. The source is
// given with its terminator(s) in place.
Up ToUtf8(const std::string& sourceWithTerminator, int size, bool wide, bool escape) {
    GuardedBytes in(sourceWithTerminator.size());
    std::memcpy(in.data(), sourceWithTerminator.data(), sourceWithTerminator.size());
    GuardedBytes out(static_cast<size_t>(std::max(size, 0)), 'Z');
    Up up;
    up.count = -99;
    up.result = _strToUtf8(out.data(), in.data(), size, wide ? 1 : 0, &up.count, escape ? 1 : 0);
    if (size >= 1) {
        EXPECT_GE(up.result, 0);
        EXPECT_LT(up.result, size);
        EXPECT_EQ(out.data()[up.result], '\0');
        up.text.assign(out.data(), static_cast<size_t>(up.result));
        // The bytes behind the terminator are left alone.
        EXPECT_EQ(std::string(out.data() + up.result + 1, static_cast<size_t>(size - up.result - 1)),
                  std::string(static_cast<size_t>(size - up.result - 1), 'Z'));
    }
    return up;
}

Up Narrow(const std::string& text, int size, bool escape) {
    return ToUtf8(text + '\0', size, false, escape);
}
Up Wide(const std::u16string& text, int size, bool escape) {
    return ToUtf8(Units(text), size, true, escape);
}

TEST(Utf8Up, LengthsPlainAndEscaped) {
    struct Case {
        std::string source;  // terminator(s) included
        bool wide;
        int plain;
        int escaped;
    };
    const Case cases[] = {
        {std::string("abc", 4), false, 4, 6},
        {std::string("\xE9", 2), false, 3, 9},
        {std::string(1, '\0'), false, 1, 3},
        {std::string("a b", 4), false, 4, 8},
        {std::string("AZaz09./:_?", 12), false, 12, 14},
        {std::string("-@;=+$*~", 9), false, 9, 27},
        {Units(u"\u20AC"), true, 4, 12},
        {Units(u"\u007F\u0080\u07FF\u0800\uFFFF"), true, 1 + 2 + 2 + 3 + 3 + 1, 3 + 6 + 6 + 9 + 9 + 3},
        {Units(u"\u4100"), true, 4, 12},  // bytes 00 41: a unit is zero only with both bytes
        {std::string("\x80\xFF", 3), false, 5, 15},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.source));
        GuardedBytes in(c.source.size());
        std::memcpy(in.data(), c.source.data(), c.source.size());
        EXPECT_EQ(strUtf8Len(in.data(), c.wide ? 1 : 0, 0), c.plain);
        EXPECT_EQ(strUtf8Len(in.data(), c.wide ? 2 : 0, -1), c.escaped);
    }
}

TEST(Utf8Up, PlainConversionAndTheByteTheClosingStepCosts) {
    struct Case {
        std::string source;
        int size;
        std::string text;
        int count;
    };
    const Case cases[] = {
        {"abc", 5, "abc", 3},
        {"abc", 4, "ab", 2},
        {"abc", 1, "", 0},
        {"\xE9", 5, "\xC3\xA9", 2},
        {"\xE9", 4, "", 0},
        {"", 1, "", 0},
        {"", 5, "", 0},
        {"a\xE9", 6, "a\xC3\xA9", 3},
        {"a\xE9", 5, "", 0},
        {"ab\xE9", 5, "a", 1},
        {"abcd\xE9", 9, "abcd\xC3\xA9", 6},
        {"abcd\xE9", 8, "abc", 3},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.source) + " size " + std::to_string(c.size));
        const Up up = Narrow(c.source, c.size, false);
        EXPECT_EQ(up.text, c.text);
        EXPECT_EQ(up.result, static_cast<int>(c.text.size()));
        EXPECT_EQ(up.count, c.count);
    }
    // Sixteen-bit units: the lead of a three-byte character loses its continuation, then the closing step
    // takes the lead too.
    Up up = Wide(u"\u20AC", 6, false);
    EXPECT_EQ(up.text, "\xE2\x82\xAC");
    EXPECT_EQ(up.count, 3);
    up = Wide(u"\u20AC", 5, false);
    EXPECT_EQ(up.text, "");
    EXPECT_EQ(up.count, 0);
    up = Wide(u"x\u20AC", 6, false);
    EXPECT_EQ(up.text, "x");  // the lead that lost its continuation goes to the closing step
    EXPECT_EQ(up.count, 1);
    up = Wide(u"A\u00E9\u4100", 20, false);
    EXPECT_EQ(up.text, "A\xC3\xA9\xE4\x84\x80");
    EXPECT_EQ(up.count, 6);
    EXPECT_EQ(strToUtf8(nullptr, "", 0, 0, &up.count), 0);
    EXPECT_EQ(up.count, 0);
}

TEST(Utf8Up, EscapedConversion) {
    struct Case {
        std::u16string source;
        int size;
        std::string text;
        int count;
    };
    const Case cases[] = {
        {u"a b", 8, "a%20b", 3},
        {u"\u20AC", 12, "%e2%82%ac", 3},
        {u"\u20AC", 11, "%e2%82%ac", 3},
        {u"\u20AC", 10, "%e2%82%a", 2},  // the last escape loses its last digit
        {u"\u20AC", 9, "%e", 0},
        {u"\t", 5, "%9", 1},
        {u"\t", 4, "", 0},
        {u"-", 5, "%2d", 1},
        {u"\u000F\u0010\u007F", 20, "%f%10%7f", 3},
        {u"ab-", 6, "a", 1},  // the escape isn't begun, the closing step takes the 'b'
        {u"\u00E9", 8, "%c3%a9", 2},
        {u"\u00E9", 7, "%c3%a", 1},
        {u"\u00E9", 6, "%c", 0},
        {u"AZaz09./:_?", 13, "AZaz09./:_?", 11},
        {u"", 3, "", 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(Units(c.source)) + " size " + std::to_string(c.size));
        const Up wide = Wide(c.source, c.size, true);
        EXPECT_EQ(wide.text, c.text);
        EXPECT_EQ(wide.result, static_cast<int>(c.text.size()));
        EXPECT_EQ(wide.count, c.count);
        bool narrow = true;
        std::string bytes;
        for (char16_t u : c.source) {
            narrow = narrow && u < 0x100;
            bytes += static_cast<char>(u);
        }
        if (narrow) {
            const Up one = Narrow(bytes, c.size, true);
            EXPECT_EQ(one.text, c.text);
            EXPECT_EQ(one.count, c.count);
        }
    }
    // The two wrappers pass the escape flag on.
    char out[16];
    int count = 0;
    EXPECT_EQ(strToEscapedUri(out, "a b", sizeof out, 0, &count), 5);
    EXPECT_STREQ(out, "a%20b");
    EXPECT_EQ(strToUtf8(out, "a b", sizeof out, 0, nullptr), 3);
    EXPECT_STREQ(out, "a b");
}

TEST(Utf8Up, ASizeOfOneGivesTheEmptyStringInEveryFunction) {
    for (bool escape : {false, true}) {
        EXPECT_EQ(Narrow("abc", 1, escape).text, "");
        EXPECT_EQ(Narrow("\xE9", 1, escape).count, 0);
        EXPECT_EQ(Wide(u"\u20AC", 1, escape).result, 0);
    }
    // Below 1 nothing is written: the destination has no accessible byte at all.
    for (int size : {0, -1, INT32_MIN}) {
        const Up up = Narrow("abc", size, true);
        EXPECT_EQ(up.result, 0);
        EXPECT_EQ(up.count, 0);
    }
}

// The full form, built the obvious way: UTF-8 bytes of each unit, escaped one by one if asked.
std::string UpOracle(const std::u16string& units, bool escape, int* utf8Bytes) {
    std::string out;
    *utf8Bytes = 0;
    auto add = [&](unsigned byte, bool mayStand) {
        ++*utf8Bytes;
        if (!escape || mayStand) {
            out += static_cast<char>(byte);
        } else {
            char hex[4];
            std::snprintf(hex, sizeof hex, "%%%x", byte);
            out += hex;
        }
    };
    for (char16_t u : units) {
        if (u < 0x80) {
            add(u, std::isalnum(u) != 0 || std::strchr("./:_?", u) != nullptr);
        } else if (u < 0x800) {
            add(0xC0 | (u >> 6), false);
            add(0x80 | (u & 0x3F), false);
        } else {
            add(0xE0 | (u >> 12), false);
            add(0x80 | ((u >> 6) & 0x3F), false);
            add(0x80 | (u & 0x3F), false);
        }
    }
    return out;
}

// Short 16-bit texts, and one-byte texts long enough for the runs the conversion takes whole: every size
// from 1 to past the whole form.
TEST(Utf8Up, EverySizeGivesAPrefixOfTheWholeFormAndNeverWritesAtOrPastIt) {
    std::vector<std::pair<std::u16string, bool>> sources = {{u"abc", true},
                                                            {u"a b\t-", true},
                                                            {u"\u20ACx\u00E9y\uFFFF", true},
                                                            {u"/\u0800?\u07FF", true},
                                                            {u"", true}};
    std::mt19937 random(11);
    for (int round = 0; round < 6; ++round) {
        std::u16string source(40 + random() % 60, ' ');
        for (char16_t& c : source)
            c = static_cast<char16_t>(random() % 3 == 0 ? 128 + random() % 128 : 1 + random() % 127);
        sources.emplace_back(source, false);
    }
    for (const auto& [source, wide] : sources) {
        const std::string narrow(source.begin(), source.end());
        for (bool escape : {false, true}) {
            int bytes = 0;
            const std::string whole = UpOracle(source, escape, &bytes);
            const int length =
                wide ? strUtf8Len(Units(source).c_str(), 1, escape) : strUtf8Len(narrow.c_str(), 0, escape);
            const int needed = length + (escape ? 0 : 2);
            int previous = 0;
            for (int size = 1; size <= needed + 4; ++size) {
                SCOPED_TRACE(testing::PrintToString(Units(source)) + " size " + std::to_string(size));
                const Up up = wide ? Wide(source, size, escape)
                                   : Narrow(narrow, size, escape);  // a write at or past `size` faults
                EXPECT_EQ(up.text, whole.substr(0, up.text.size()));
                EXPECT_LE(up.result, std::max(0, size - 2));
                EXPECT_GE(up.result, previous);
                previous = up.result;
                if (size >= needed) {
                    EXPECT_EQ(up.text, whole);
                    EXPECT_EQ(up.count, bytes);
                }
            }
        }
    }
}

TEST(Utf8RoundTrip, OneByteAndSixteenBitTextComeBack) {
    std::string latin1;
    for (int c = 1; c < 256; ++c) latin1 += static_cast<char>(c);
    std::vector<char> utf8(static_cast<size_t>(strUtf8Len(latin1.c_str(), 0, 0)) + 2);
    int count = 0;
    const int length = strToUtf8(utf8.data(), latin1.c_str(), static_cast<int>(utf8.size()), 0, &count);
    EXPECT_EQ(length, 127 + 2 * 128);
    EXPECT_EQ(count, length);
    std::vector<char> back(latin1.size() + 1);
    EXPECT_EQ(Utf8ToAnsi(back.data(), utf8.data(), static_cast<int>(back.size())), 255);
    EXPECT_EQ(std::string(back.data()), latin1);

    std::u16string units;
    for (int u = 1; u <= 0xFFFF; ++u) units += static_cast<char16_t>(u);
    const std::string source = Units(units);
    utf8.assign(static_cast<size_t>(strUtf8Len(source.c_str(), 1, 0)) + 2, 'Z');
    strToUtf8(utf8.data(), source.c_str(), static_cast<int>(utf8.size()), 1, &count);
    std::vector<unsigned short> wide(units.size() + 1);
    ASSERT_EQ(Utf8ToWide(wide.data(), utf8.data(), static_cast<int>(wide.size())), 0xFFFF);
    for (int u = 1; u <= 0xFFFF; ++u) ASSERT_EQ(wide[static_cast<size_t>(u - 1)], u);
}

TEST(Utf8Random, BoundedRunOverRandomBytes) {
    // Every source and destination ends at an inaccessible page; the sanitizers watch the rest.
    std::mt19937 random(4);
    auto randomBytes = [&](size_t length) {
        std::string bytes(length, ' ');
        // Mostly high bytes, so that leads, cuts and bad sequences are frequent.
        for (char& c : bytes)
            c = static_cast<char>(random() % 4 == 0 ? 1 + random() % 127 : 128 + random() % 128);
        return bytes;
    };
    for (int round = 0; round < 3000; ++round) {
        const std::string source = randomBytes(random() % 24);
        const int size = 1 + static_cast<int>(random() % 20);
        const Down expected =
            DownOracle(source, static_cast<size_t>(size - 1), static_cast<size_t>(size - 1));
        const DownResult r = Convert(source, size);
        ASSERT_EQ(r.ansi, expected.ansi + '\0') << testing::PrintToString(source) << " size " << size;
        ASSERT_EQ(r.wide, expected.wide + u'\0') << testing::PrintToString(source) << " size " << size;

        // The same bytes as 16-bit units (odd lengths padded), and as one-byte text, up to UTF-8.
        std::u16string units;
        for (size_t k = 0; k + 1 < source.size(); k += 2) {
            units += static_cast<char16_t>(static_cast<unsigned char>(source[k]) |
                                           static_cast<unsigned char>(source[k + 1]) << 8);
        }
        const bool escape = random() % 2 == 0;
        int bytes = 0;
        const std::string whole = UpOracle(units, escape, &bytes);
        const Up up = Wide(units, size * 3, escape);
        ASSERT_EQ(up.text, whole.substr(0, up.text.size()));
        const Up one = Narrow(source, size * 3, escape);
        std::u16string widened(source.begin(), source.end());
        for (char16_t& u : widened) u &= 0xFF;
        ASSERT_EQ(one.text, UpOracle(widened, escape, &bytes).substr(0, one.text.size()));
    }
}

}  // namespace
