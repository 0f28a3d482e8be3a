#include "msplatform/stringUtils.h"

#include <strings.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <random>
#include <tuple>

#include "stringUtils/linux/internal.h"
#include "support/support.h"

namespace {

// The helpers' allocator counts the blocks asked for, and refuses them while `refuse` is set.
int requests = 0, refuse = 0;
[[maybe_unused]] const auto installed =
    mspstring::allocate = [](size_t size) { return ++requests, refuse ? nullptr : std::malloc(size); };

// Few letters, for repeats and near misses; then a near miss at every position (minutes for a naive search).
TEST(StringHelpers, SearchesAffixesAndExtensionsFollowTheirRules) {
    std::mt19937 random(5);
    for (int round = 0; round < 6000; ++round) {
        const unsigned letters = 2 + random() % 8;
        auto letter = [&] { return std::string(1, "abA./\\\n\r\xC9"[random() % letters]); };
        std::string needle, text;
        for (size_t length = random() % 9; needle.size() < length;) needle += letter();
        for (size_t length = random() % 40; text.size() < length;) text += random() % 2 ? needle : letter();
        const size_t n = text.size(), m = needle.size(), mark = text.find_last_of("./\\");
        const int flag = int(random() % 3) - 1;
        auto compare = flag ? ::strncasecmp : ::strncmp;
        const std::vector<int> expected = {mark < n && text[mark] == '.' ? int(mark) : -1,
                                           n ? int(text.find(needle)) : -1, int(text.rfind(needle)),
                                           m <= n && !compare(text.c_str(), needle.c_str(), m),
                                           m <= n && !compare(&text[n - m], needle.c_str(), m)};
        std::vector<char> t(text.c_str(), text.c_str() + n + 1), w(needle.c_str(), needle.c_str() + m + 1);
        char *x = t.data(), *y = w.data();  // blocks of their exact size, for a read before or behind them
        const std::vector<int> got = {GetFileExtension(x) ? int(GetFileExtension(x) - x) : -1, IndexOf(x, y),
                                      LastIndexOf(x, y), StartsWith(x, y, flag), EndsWith(x, y, flag)};
        ASSERT_EQ(got, expected) << testing::PrintToString(text) << " / " << testing::PrintToString(needle);
    }
    const std::string t(4 << 20, 'a');
    std::string b(512 << 10, 'a'), a = b;
    b.back() = a.front() = 'b';
    for (auto* s : {a.c_str(), b.c_str()}) EXPECT_EQ(IndexOf(t.c_str(), s) & LastIndexOf(t.c_str(), s), -1);
}

// Escapes against the set written out, unescapes against strtol; beyond INT_MAX the count is -1, not a size.
TEST(HTTPUrl, EscapeAndUnescapeFollowTheirRulesAndACountBeyondIntMaxIsMinusOne) {
    const std::string stands = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/@;:=+$-_.*";
    std::mt19937 random(7);
    for (int round = 0; round < 4000; ++round) {
        std::string text(random() % 14, ' '), escaped, out, decoded;
        for (char& c : text) {
            c = random() % 2 ? "%%%0123456789aFgGx+- \t"[random() % 22] : char(1 + random() % 255);
            char e[4];
            std::snprintf(e, sizeof e, stands.find(c) != std::string::npos ? "%c" : "%%%02X", c & 0xFF);
            escaped += e;
        }
        auto pair = [&](size_t at) { return char(std::strtol(text.substr(at, 2).c_str(), nullptr, 16)); };
        for (size_t read = 0; read < text.size(); read += text[read] == '%' ? 3 : 1)
            decoded += text[read] != '%' ? text[read] : pair(read + 1);
        msptest::GuardedBytes in = msptest::GuardedBytes::String(text);
        out.assign(escaped.size() + 5, 'Z');
        ASSERT_EQ(HTTPUrlEscapeLength(in.data()), HTTPUrlEscape(&out[0], in.data()));
        ASSERT_EQ(out, escaped + '\0' + "ZZZZ");
        ASSERT_EQ(HTTPUrlUnEscape(in.data()), int(decoded.size())) << text;
        ASSERT_EQ(std::string(in.data(), in.size()), decoded + text.substr(decoded.size()) + '\0');
    }
    msptest::RepeatedText blanks(' ', 683);  // 683 MiB mapped from one; then one blank more than fits
    if (!blanks.text()) GTEST_SKIP() << "the system gives no 683 MiB of address space";
    EXPECT_EQ(HTTPUrlEscapeLength(blanks.text() + (683 << 20) - ((INT_MAX - 1) / 3 + 1)), -1);
}

// One block: the file and a zero byte. Null, count left, nothing allocated: a missing file, directories, a
// FIFO (an open that waited would hang), 2^31 bytes; or out of memory. A short read (sysfs) counts its bytes.
TEST(StringHelpers, BlocksHandedOut) {
    msptest::TempDir dir;
    const std::string f = dir.file("f"), fifo = dir.file("fifo"), big = dir.file("big");
    int got = 0;
    for (const std::string& content : {std::string("a\0\xFF\n", 4), std::string()}) {
        msptest::WriteFile(f, content);
        char* buffer = (requests = 0, cpyfilebuf(f.c_str(), &got));
        EXPECT_EQ(std::make_tuple(requests, got, std::string(buffer, content.size() + 1)),
                  std::make_tuple(1, int(content.size()), content + '\0'));
        std::free(buffer);
    }
    std::free(cpyfilebuf(f.c_str(), nullptr));
    msptest::WriteFile(big, "");
    const bool bigMade = ::truncate64(big.c_str(), off64_t{INT32_MAX} + 1) == 0;
    const std::string paths[] = {f + "x", dir.path(), "/proc", fifo, bigMade ? big : fifo, f};
    auto failures = [&] {
        int count = 77;
        for (int i = 0; i < 6; ++i) {
            requests = 0, refuse = i == 5;  // the last one without memory
            if (cpyfilebuf(paths[i].c_str(), &count) || count != 77 || requests != refuse) return i + 1;
        }
        return 0;
    };
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(0, msptest::RunChild(failures, 20000));
    const char* sys = "/sys/devices/system/cpu/online";
    EXPECT_TRUE(access(sys, R_OK) || (!cpyfilebuf(sys, &got) && got == int(msptest::ReadFile(sys).size())));
    char* copies[] = {MakeStrcpy("dir/\xE9t\xE9"), MakeStrcpy(nullptr)};
    EXPECT_EQ(std::string(copies[0]) + "|" + copies[1], "dir/\xE9t\xE9|");
    std::free(copies[0]), std::free(copies[1]);
    EXPECT_EQ((refuse = 1, MakeStrcpy("abc")), GetFileExtension(nullptr));  // both null
    refuse = 0;
}

// Utf8ToAnsi, Utf8ToWide by the table: 0xF8-0xFF take four bytes, a cut sequence takes zeros and ends it.
template <typename Unit>
std::pair<int, std::vector<Unit>> DownModel(const std::string& source, int size, bool wide) {
    std::vector<Unit> out(size_t(std::max(size, 0)) + 4, Unit('Z'));
    const std::string s = source + std::string(3, '\0');
    int written = 0;
    for (size_t i = 0, end = 0; s[i] != '\0' && written < size - 1 && i == end;) {
        const unsigned b = (unsigned char)s[i], b1 = s[i + 1] & 0x3F, b2 = s[i + 2] & 0x3F;
        end = i + (b < 0x80 ? 1 : b < 0xE0 ? 2 : b < 0xF0 ? 3 : 4);
        if (end == i + 1) out[written++] = Unit(b);
        if (end == i + 2 && (wide || (b & 0x1C) == 0)) out[written++] = Unit((b & 0x1F) << 6 | b1);
        if (end == i + 3 && wide) out[written++] = Unit((b & 0x0F) << 12 | b1 << 6 | b2);
        while (i < end && s[i] != '\0') ++i;
    }
    if (size > 0) out[size_t(written)] = 0;
    return {written, out};
}

const std::string kUriStands = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789./:_?";
using Up = std::tuple<int, int, std::string>;  // result, count, the destination and four bytes behind it

// _strToUtf8 by its steps: "%x" escapes; the closing step gives the last byte written to the terminator.
Up UpModel(const std::u16string& units, int size, bool escape) {
    std::string out(size_t(std::max(size, 0)) + 4, 'Z'), w;  // w: what is written
    int limit = size - 1, items = 0;
    auto j = [&] { return int(w.size()); };
    auto put = [&](unsigned byte, bool escaped) {
        char e[4] = {char(byte)};
        w.append(e, size_t(escaped ? std::snprintf(e, sizeof e, "%%%x", byte) : 1)), ++items;
    };
    for (size_t i = 0; size > 0; ++i) {
        const unsigned c = i < units.size() ? units[i] : 0;
        const int n = c < 0x800 ? 2 : 3;
        const bool escaped = escape && c != 0 && (c >= 0x80 || kUriStands.find(char(c)) == std::string::npos);
        if (j() >= limit - (escaped || c >= 0x80 ? 3 : 0)) break;
        if (c < 0x80) put(c, escaped);
        if (c == 0) break;
        if (c < 0x80) continue;
        put(n == 2 ? 0xC0 | c >> 6 : 0xE0 | c >> 12, escape);
        if (escape ? j() + 3 * (n - 1) > limit : j() >= limit - n) break;
        for (int shift = 6 * (n - 2); shift >= 0; shift -= 6) put(0x80 | (c >> shift & 0x3F), escape);
    }
    if (size > 0) out.replace(0, w.size(), w)[size_t(std::max(j() - 1, 0))] = '\0';
    return {std::max(j() - 1, 0), std::max(items - 1, 0), out};
}

// Down: high bytes, for leads and cuts. Up: every size, entry and flag; 16-bit texts, long one-byte ones.
TEST(Utf8, BoundedConversionsFollowTheirRules) {
    std::mt19937 random(4);
    for (int round = 0; round < 4000; ++round) {
        std::string source(random() % 24, ' ');
        for (char& c : source) c = char(random() % 4 == 0 ? 1 + random() % 127 : 128 + random() % 128);
        const int size = int(random() % 23) - 1;
        msptest::GuardedBytes in = msptest::GuardedBytes::String(source);
        std::vector<char> ansi(size_t(std::max(size, 0)) + 4, 'Z');
        std::vector<unsigned short> wide(ansi.begin(), ansi.end());
        const int a = Utf8ToAnsi(ansi.data(), in.data(), size), w = Utf8ToWide(wide.data(), in.data(), size);
        ASSERT_EQ(std::make_pair(a, ansi), DownModel<char>(source, size, false)) << size;
        ASSERT_EQ(std::make_pair(w, wide), DownModel<unsigned short>(source, size, true)) << size;
    }
    for (int round = 0; round < 180; ++round) {
        const bool wide = round % 4 >= 2, escape = round % 2 == 1, longer = round >= 140;
        std::u16string units(longer ? 40 + random() % 120 : random() % 13, ' ');
        std::string bytes;
        int measured = escape ? 3 : 1;
        for (char16_t& u : units) {
            const unsigned top = wide && !longer ? 0xFFFFu >> random() % 3 * 4 : 0xFF;
            u = random() % 5 ? char16_t(1 + random() % top)
                             : u"\u007F\u0080\u00FF\u0100\u07FF\u0800\uFFFF"[random() % (wide ? 7 : 3)];
            const bool stands = u < 0x80 && kUriStands.find(char(u)) != std::string::npos;
            measured += (u < 0x80 ? 1 : u < 0x800 ? 2 : 3) * (escape && !stands ? 3 : 1);
            bytes += wide ? std::string{char(u & 0xFF), char(u >> 8)} : std::string(1, char(u));
        }
        msptest::GuardedBytes in = msptest::GuardedBytes::String(wide ? bytes + '\0' : bytes);
        ASSERT_EQ(strUtf8Len(in.data(), wide ? 2 : 0, escape ? -1 : 0), measured);
        for (int size = -1; size <= measured + 30; ++size) {  // room to spare for the table paths
            const Up expected = UpModel(units, size, escape);
            std::string out(size_t(std::max(size, 0)) + 4, 'Z');
            int count = -99, *counted = size % 7 == 3 ? nullptr : &count;
            const int result =
                size % 2 ? _strToUtf8(&out[0], in.data(), size, wide ? 3 : 0, counted, -escape)
                         : (escape ? strToEscapedUri : strToUtf8)(&out[0], in.data(), size, wide, counted);
            ASSERT_EQ(Up(result, counted ? count : std::get<1>(expected), out), expected)
                << testing::PrintToString(bytes) << " size " << size;
        }
    }
}

}  // namespace
