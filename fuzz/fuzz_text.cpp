// The text conversions and escapes on any bytes: every Convert_*, Change_BOM and UCS_Length, the bounded
// UTF-8 conversions, the URI and HTTP URL escapes, and the string helpers. Every output goes to a block of
// exactly the size the header promises is enough, and what one direction writes the other must read back.
#include <wchar.h>

#include <vector>

#include "msplatform/stringUtils.h"
#include "msplatform/unicode.h"

#include "fuzz.h"

namespace {

using mspfuzz::Alloc;
using mspfuzz::Block;

// CHAR to UCS and back gives the bytes again; the counted form widens zero bytes too.
void WideConversions(const uint8_t* data, size_t size) {
    Block<char> text = mspfuzz::Terminated(data, size);
    const size_t n = strlen(text.get());
    Block<wchar_t> wide = Alloc<wchar_t>(n + 1);
    FUZZ_CHECK(Convert_CHAR_UCS(text.get(), wide.get()) == static_cast<int>(n));
    Block<char> back = Alloc<char>(n + 1);
    FUZZ_CHECK(Convert_UCS_CHAR(wide.get(), back.get()) == static_cast<int>(n));
    FUZZ_CHECK(memcmp(back.get(), text.get(), n + 1) == 0);

    Block<char> raw = mspfuzz::Exact(data, size);
    Block<wchar_t> counted = Alloc<wchar_t>(size + 1);
    FUZZ_CHECK(Convert_CHAR_UCS(raw.get(), counted.get(), static_cast<int>(size)) == static_cast<int>(size));
    FUZZ_CHECK(counted[size] == 0);

    // UTF-8 in: at most one unit per byte.
    Block<wchar_t> decoded = Alloc<wchar_t>(n + 1);
    const int units = Convert_UTF8_UCS(reinterpret_cast<const unsigned char*>(text.get()), decoded.get());
    FUZZ_CHECK(units >= 0 && static_cast<size_t>(units) <= n && decoded[static_cast<size_t>(units)] == 0);
    (void)UCS_Length(reinterpret_cast<const unsigned char*>(raw.get()), static_cast<int>(size));

    // Any 32-bit units: out to UTF-8 within three bytes a unit, out to CHAR, and swapped in place.
    const size_t count = size / sizeof(wchar_t);
    Block<wchar_t> units32 = Alloc<wchar_t>(count + 1);
    if (count) memcpy(units32.get(), data, count * sizeof(wchar_t));
    const size_t length = wcslen(units32.get());
    Block<unsigned char> utf8 = Alloc<unsigned char>(3 * length + 1);
    const int bytes = Convert_UCS_UTF8(units32.get(), utf8.get());
    FUZZ_CHECK(bytes >= 0 && static_cast<size_t>(bytes) <= 3 * length &&
               utf8[static_cast<size_t>(bytes)] == 0);
    Block<char> narrow = Alloc<char>(length + 1);
    FUZZ_CHECK(Convert_UCS_CHAR(units32.get(), narrow.get()) == static_cast<int>(length));
    FUZZ_CHECK(Change_BOM(units32.get()) == static_cast<int>(length));

    // Units of 1 to 0xFFFF go to UTF-8 and come back unchanged.
    std::vector<wchar_t> bmp;
    for (size_t i = 0; i + 1 < size; i += 2) {
        const wchar_t u = static_cast<wchar_t>(data[i] | data[i + 1] << 8);
        if (u) bmp.push_back(u);
    }
    Block<wchar_t> plane = Alloc<wchar_t>(bmp.size() + 1);
    if (!bmp.empty()) memcpy(plane.get(), bmp.data(), bmp.size() * sizeof(wchar_t));
    Block<unsigned char> encoded = Alloc<unsigned char>(3 * bmp.size() + 1);
    const int encodedBytes = Convert_UCS_UTF8(plane.get(), encoded.get());
    Block<wchar_t> again = Alloc<wchar_t>(static_cast<size_t>(encodedBytes) + 1);
    FUZZ_CHECK(Convert_UTF8_UCS(encoded.get(), again.get()) == static_cast<int>(bmp.size()));
    FUZZ_CHECK(memcmp(again.get(), plane.get(), (bmp.size() + 1) * sizeof(wchar_t)) == 0);
}

// Utf8ToAnsi and Utf8ToWide within a size the first byte chooses.
void BoundedDecoding(const uint8_t* data, size_t size) {
    if (size == 0) return;
    const int limit = data[0] % 64 + 1;
    Block<char> text = mspfuzz::Terminated(data + 1, size - 1);
    Block<char> ansi = Alloc<char>(static_cast<size_t>(limit));
    int r = Utf8ToAnsi(ansi.get(), text.get(), limit);
    FUZZ_CHECK(r >= 0 && r < limit && ansi[static_cast<size_t>(r)] == 0);
    Block<unsigned short> wide = Alloc<unsigned short>(static_cast<size_t>(limit));
    r = Utf8ToWide(wide.get(), text.get(), limit);
    FUZZ_CHECK(r >= 0 && r < limit && wide[static_cast<size_t>(r)] == 0);
}

// _strToUtf8 into the size strUtf8Len says (plus 2 for plain text) converts the whole text; any smaller
// size stops early and still ends the output inside the destination.
void EncodeToUtf8(const char* source, int isWide, int escape, int smallSize) {
    const int plain = strUtf8Len(source, isWide, 0);
    const int needed = strUtf8Len(source, isWide, escape);
    FUZZ_CHECK(plain >= 1 && needed >= plain);
    const int size = escape ? needed : needed + 2;
    Block<char> out = Alloc<char>(static_cast<size_t>(size));
    int count = -1;
    const int written = _strToUtf8(out.get(), source, size, isWide, &count, escape);
    // The escapes of 0x01 to 0x0F take two bytes where strUtf8Len counts three; the count of bytes
    // converted tells that nothing was left out.
    FUZZ_CHECK(escape ? written <= needed - 3 : written == needed - 1);
    FUZZ_CHECK(count == plain - 1);
    FUZZ_CHECK(out[static_cast<size_t>(written)] == 0 && strlen(out.get()) == static_cast<size_t>(written));

    const int small = smallSize % size + 1;
    Block<char> cut = Alloc<char>(static_cast<size_t>(small));
    const int part = _strToUtf8(cut.get(), source, small, isWide, nullptr, escape);
    FUZZ_CHECK(part >= 0 && part < small && part <= written && cut[static_cast<size_t>(part)] == 0);
    FUZZ_CHECK(memcmp(cut.get(), out.get(), static_cast<size_t>(part)) == 0);
}

void Escapes(const uint8_t* data, size_t size) {
    Block<char> text = mspfuzz::Terminated(data, size);
    const int smallSize = size ? data[size - 1] : 0;
    for (int escape = 0; escape < 2; ++escape) EncodeToUtf8(text.get(), 0, escape, smallSize);

    // 16-bit units, low byte first, up to a zero unit.
    const size_t even = size & ~static_cast<size_t>(1);
    Block<char> units = Alloc<char>(even + 2);
    if (even) memcpy(units.get(), data, even);
    for (int escape = 0; escape < 2; ++escape) EncodeToUtf8(units.get(), 1, escape, smallSize);

    // HTTP URL escaping: the length it promises, and the unescape gives the text back.
    const int length = static_cast<int>(strlen(text.get()));
    const int escapedSize = HTTPUrlEscapeLength(text.get());
    Block<char> escaped = Alloc<char>(static_cast<size_t>(escapedSize));
    FUZZ_CHECK(HTTPUrlEscape(escaped.get(), text.get()) == escapedSize);
    FUZZ_CHECK(HTTPUrlUnEscape(escaped.get()) == length);
    FUZZ_CHECK(memcmp(escaped.get(), text.get(), static_cast<size_t>(length)) == 0);
    const int decoded = HTTPUrlUnEscape(text.get());
    FUZZ_CHECK(decoded >= 0 && decoded <= length);
}

// The string helpers on the text in front of the first zero byte, with what follows it as the needle.
void Helpers(const uint8_t* data, size_t size) {
    Block<char> all = mspfuzz::Terminated(data, size);
    char* text = all.get();
    const size_t n = strlen(text);
    const char* needle = n < size ? text + n + 1 : text + n;
    const size_t m = strlen(needle);
    const int first = IndexOf(text, needle);
    const int last = LastIndexOf(text, needle);
    if (first >= 0) FUZZ_CHECK(static_cast<size_t>(first) + m <= n && memcmp(text + first, needle, m) == 0);
    if (last >= 0) FUZZ_CHECK(static_cast<size_t>(last) + m <= n && memcmp(text + last, needle, m) == 0);
    if (first >= 0) FUZZ_CHECK(last >= first);
    FUZZ_CHECK(StartsWith(text, needle, 0) == (m <= n && memcmp(text, needle, m) == 0 ? 1 : 0));
    FUZZ_CHECK(EndsWith(text, needle, 0) == (m <= n && memcmp(text + n - m, needle, m) == 0 ? 1 : 0));
    (void)StartsWith(text, needle, 1);
    (void)EndsWith(text, needle, 1);
    char* extension = GetFileExtension(text);
    if (extension) FUZZ_CHECK(extension >= text && extension < text + n && *extension == '.');
    char* copy = MakeStrcpy(text);
    FUZZ_CHECK(copy && strcmp(copy, text) == 0);
    StrChomp(copy);
    FUZZ_CHECK(strlen(copy) <= n && !strpbrk(copy, "\r\n"));
    free(copy);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 1 << 16) return 0;
    WideConversions(data, size);
    BoundedDecoding(data, size);
    Escapes(data, size);
    Helpers(data, size);
    return 0;
}
