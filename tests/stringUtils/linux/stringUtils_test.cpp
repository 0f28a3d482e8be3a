#include "msplatform/stringUtils.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "stringUtils/linux/internal.h"
#include "support/support.h"

namespace {

// Bytes placed so that they end right before a page without access: reading or writing one byte beyond them
// faults, natively and under emulation alike, with or without the sanitizers.
class GuardedBytes {
public:
    explicit GuardedBytes(size_t size) : size_(size) {
        page_ = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
        span_ = ((size + page_ - 1) / page_ + 1) * page_;
        void* map = ::mmap(nullptr, span_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (map == MAP_FAILED) std::abort();
        base_ = static_cast<char*>(map);
        if (::mprotect(base_ + span_ - page_, page_, PROT_NONE) != 0) std::abort();
        data_ = base_ + span_ - page_ - size;
    }
    // A zero-terminated copy of `text` whose terminator is the last accessible byte.
    static GuardedBytes String(const std::string& text) {
        GuardedBytes bytes(text.size() + 1);
        std::memcpy(bytes.data(), text.c_str(), text.size() + 1);
        return bytes;
    }
    GuardedBytes(GuardedBytes&& other) noexcept
        : page_(other.page_), span_(other.span_), size_(other.size_), base_(other.base_), data_(other.data_) {
        other.base_ = nullptr;
    }
    GuardedBytes(const GuardedBytes&) = delete;
    GuardedBytes& operator=(const GuardedBytes&) = delete;
    ~GuardedBytes() {
        if (base_ != nullptr) ::munmap(base_, span_);
    }

    char* data() { return data_; }
    size_t size() const { return size_; }

private:
    size_t page_;
    size_t span_;
    size_t size_;
    char* base_;
    char* data_;
};

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
        EXPECT_EQ(IndexOf(c.text, c.needle), c.first);
        EXPECT_EQ(LastIndexOf(c.text, c.needle), c.last);
    }
}

TEST(StringSearch, NeverReadsBehindEitherTerminator) {
    const char* texts[] = {"", "a", "ab", "abcab", "bcb"};
    const char* needles[] = {"", "b", "ab", "bc", "abcabc"};
    for (const char* t : texts) {
        for (const char* n : needles) {
            GuardedBytes text = GuardedBytes::String(t);
            GuardedBytes needle = GuardedBytes::String(n);
            const std::string s(t);
            const size_t first = s.find(n);
            const size_t last = s.rfind(n);
            EXPECT_EQ(IndexOf(text.data(), needle.data()),
                      s.empty() || first == std::string::npos ? -1 : static_cast<int>(first));
            EXPECT_EQ(LastIndexOf(text.data(), needle.data()),
                      last == std::string::npos ? -1 : static_cast<int>(last));
        }
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
    EXPECT_EQ(Escaped("\xE9"), "%E9");
    EXPECT_EQ(Escaped("\n"), "%0A");
    EXPECT_EQ(Escaped(""), "");
    EXPECT_EQ(HTTPUrlEscapeLength(""), 1);
    EXPECT_EQ(Escaped("/@;:=+$-_.*"), "/@;:=+$-_.*");
    EXPECT_EQ(Escaped("%?&#~!'(),"), "%25%3F%26%23%7E%21%27%28%29%2C");

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

TEST(HTTPUrlUnEscape, DecodesInPlaceAndLeavesTheOldTail) {
    const Unescape u = UnescapeAt("a%20b");
    EXPECT_EQ(u.result, 3);
    EXPECT_EQ(u.bytes, std::string("a b0b\0", 6));
    EXPECT_EQ(UnescapeAt("").result, 0);
    EXPECT_EQ(UnescapeAt("plain text").bytes, std::string("plain text\0", 11));
    EXPECT_EQ(UnescapeAt("plain text").result, 10);
    const Unescape zero = UnescapeAt("%00x");
    EXPECT_EQ(zero.result, 2);
    EXPECT_EQ(zero.bytes, std::string("\0x0x\0", 5));
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

TEST(HTTPUrlUnEscape, AnEscapeAtTheEndTakesWhatIsLeft) {
    // The buffers end at an inaccessible page: the pair is never read behind the terminator.
    Unescape u = UnescapeAt("ab%");
    EXPECT_EQ(u.result, 3);
    EXPECT_EQ(u.bytes, std::string("ab\0\0", 4));
    u = UnescapeAt("ab%4");
    EXPECT_EQ(u.result, 3);
    EXPECT_EQ(u.bytes, std::string("ab\x04"
                                   "4\0",
                                   5));
    u = UnescapeAt("%");
    EXPECT_EQ(u.result, 1);
    EXPECT_EQ(u.bytes, std::string("\0\0", 2));
    u = UnescapeAt("%%41");
    EXPECT_EQ(u.result, 2);  // "%4" gives 0, then '1'
    EXPECT_EQ(u.bytes, std::string("\0"
                                   "141\0",
                                   5));
}

TEST(HTTPUrl, EscapeThenUnescapeGivesTheSourceBack) {
    std::mt19937 random(20261123);
    for (int round = 0; round < 2000; ++round) {
        std::string source(random() % 64, ' ');
        for (char& c : source) c = static_cast<char>(1 + random() % 255);
        std::string escaped = Escaped(source);
        GuardedBytes buffer = GuardedBytes::String(escaped);
        const int length = HTTPUrlUnEscape(buffer.data());
        ASSERT_EQ(length, static_cast<int>(source.size()));
        ASSERT_EQ(std::string(buffer.data(), static_cast<size_t>(length)), source);
    }
}

// ---- Whole files -----------------------------------------------------------------------------------------

TEST(Cpyfilebuf, LoadsTheWholeFileFollowedByAZeroByte) {
    msptest::TempDir dir;
    std::string content;
    for (int i = 0; i < 70000; ++i) content += static_cast<char>(i * 7);  // zero bytes included
    msptest::WriteFile(dir.file("f.bin"), content);
    int count = -5;
    char* buffer = cpyfilebuf(dir.file("f.bin").c_str(), &count);
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

TEST(Cpyfilebuf, AllocatesOnlyTheBufferItHandsOut) {
    msptest::TempDir dir;
    msptest::WriteFile(dir.file("f"), "abc");
    AllocationSeam seam(false);
    int count = 0;
    char* buffer = cpyfilebuf(dir.file("f").c_str(), &count);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(AllocationSeam::requests, 1);
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

TEST(Cpyfilebuf, AStreamWithoutASizeGivesNull) {
    msptest::TempDir dir;
    const std::string fifo = dir.file("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    // Held open for writing, so that opening it for reading can't block; in a child, so that a hang fails.
    const int holder = ::open(fifo.c_str(), O_RDWR | O_NONBLOCK);
    ASSERT_GE(holder, 0);
    const int status = msptest::RunChild(
        [&] {
            int count = 77;
            AllocationSeam seam(false);
            char* buffer = cpyfilebuf(fifo.c_str(), &count);
            return buffer == nullptr && count == 77 && AllocationSeam::requests == 0 ? 0 : 1;
        },
        20000);
    ::close(holder);
    EXPECT_EQ(status, 0);
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

}  // namespace
