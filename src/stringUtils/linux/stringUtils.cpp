#include "msplatform/stringUtils.h"

#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>

#include "os/openForReading.h"
#include "stringUtils/linux/internal.h"

namespace mspstring {
void* (*allocate)(size_t size) = ::malloc;
}  // namespace mspstring

int StrCaseCmp(const char* a, const char* b) {
    return ::strcasecmp(a, b);
}

int StrnCaseCmp(const char* a, const char* b, size_t length) {
    return ::strncasecmp(a, b, length);
}

namespace {

constexpr char kLowerHex[] = "0123456789abcdef";  // the URI form's "%x"
constexpr char kUpperHex[] = "0123456789ABCDEF";  // HTTPUrlEscape's "%XX"

// Bytes that the URI form lets stand for themselves.
constexpr bool standsForItselfInUri(unsigned int c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
           c == '/' || c == ':' || c == '_' || c == '?';
}

// The bytes a UTF-8 sequence takes by its lead, as the conversions count them: continuation bytes count as
// two-byte leads, and 0xF8 to 0xFF are passed over like four-byte leads.
int sequenceLength(unsigned char lead) {
    if (lead < 0x80) return 1;
    if (lead < 0xE0) return 2;
    if (lead < 0xF0) return 3;
    return 4;
}

// Reads the sequence at `source` into `bytes` (the lead first) and gives its length; the bytes that a cut
// sequence lacks are zero, and nothing behind the terminator is read. `*cut` tells whether the end came
// first.
int readSequence(const unsigned char* source, unsigned char bytes[4], bool* cut) {
    const int length = sequenceLength(source[0]);
    bytes[0] = source[0];
    int i = 1;
    for (; i < length && source[i] != 0; ++i) bytes[i] = source[i];
    *cut = i < length;
    for (; i < length; ++i) bytes[i] = 0;
    return length;
}

// Bytes that HTTPUrlEscape lets stand for themselves.
constexpr bool standsForItselfInHttpUrl(unsigned char c) {
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
    switch (c) {
        case '/':
        case '@':
        case ';':
        case ':':
        case '=':
        case '+':
        case '$':
        case '-':
        case '_':
        case '.':
        case '*':
            return true;
        default:
            return false;
    }
}

// What each byte costs in HTTPUrlEscape's output: 1 if it stands for itself, 3 for "%XX". One load per byte
// instead of a chain of tests.
struct UrlWidths {
    unsigned char width[256];
};

constexpr UrlWidths makeUrlWidths() {
    UrlWidths table{};
    for (int c = 0; c < 256; ++c)
        table.width[c] = standsForItselfInHttpUrl(static_cast<unsigned char>(c)) ? 1 : 3;
    return table;
}

constexpr UrlWidths kUrlWidths = makeUrlWidths();

// The escaped form's size as HTTPUrlEscape and HTTPUrlEscapeLength give it. A size beyond INT_MAX gives -1, a
// size no allocation accepts: any positive answer would be smaller than the form, and a caller who sized a
// destination by it would be written past.
int EscapedCount(unsigned long long bytes) {
    return bytes > static_cast<unsigned long long>(INT_MAX) ? -1 : static_cast<int>(bytes);
}

int hexValue(unsigned char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// The stream's size by seeking to its end, or -1 if it can't be told (a pipe, a device) or doesn't fit the
// signed 32-bit count. On the target ftell itself fails beyond 2 GiB; elsewhere the limit is kept here.
// A directory has no size to tell, whatever the seek says: ext4 answers a 32-bit process with INT32_MAX
// (which would cost a 2 GiB allocation before the read fails), procfs with 0.
long streamSize(FILE* file) {
    struct stat64 status;
    if (::fstat64(::fileno(file), &status) != 0 || S_ISDIR(status.st_mode)) return -1;
    if (::fseek(file, 0, SEEK_END) != 0) return -1;
    const long size = ::ftell(file);
    if (size < 0 || static_cast<unsigned long>(size) > static_cast<unsigned long>(INT32_MAX)) return -1;
    if (::fseek(file, 0, SEEK_SET) != 0) return -1;
    return size;
}

// A string of known length read from its end: s(0) is its last byte.
struct Backward {
    const unsigned char* end;
    unsigned char operator()(size_t i) const { return *(end - 1 - i); }
};

// Where the maximal suffix of x[0, m) begins, under the byte order or under its reverse, and the period of
// that suffix: one pass, no memory.
size_t MaximalSuffix(Backward x, size_t m, bool reversedOrder, size_t* period) {
    size_t start = 0;  // the best suffix so far, x[start, m)
    size_t j = 1;      // the suffix compared with it, x[j, m)
    size_t k = 0;      // bytes of the current period matched
    size_t p = 1;
    while (j + k < m) {
        const unsigned char a = x(j + k), b = x(start + k);
        if (a == b) {
            if (k + 1 == p) {
                j += p;
                k = 0;
            } else {
                ++k;
            }
        } else if ((a < b) != reversedOrder) {
            j += k + 1;
            k = 0;
            p = j - start;
        } else {
            start = j;
            j = start + 1;
            k = 0;
            p = 1;
        }
    }
    *period = p;
    return start;
}

// The first position of x[0, m) in y[0, n), or n if there is none; 0 < m <= n. Crochemore and Perrin's
// two-way search: the needle is split where no shift can be missed, the right part is compared first, and a
// mismatch moves on by what was matched. Time linear in n + m, a constant amount of memory.
size_t TwoWaySearch(Backward x, size_t m, Backward y, size_t n) {
    size_t period, reversedPeriod;
    const size_t start = MaximalSuffix(x, m, false, &period);
    const size_t reversedStart = MaximalSuffix(x, m, true, &reversedPeriod);
    const size_t split = start > reversedStart ? start : reversedStart;
    if (start <= reversedStart) period = reversedPeriod;
    // A needle whose left part recurs one period on is periodic: once its right part matched, the needle
    // moves on by the period and keeps the m - period bytes known to agree. Otherwise it moves on by more
    // than its larger part.
    bool periodic = true;
    for (size_t i = 0; i < split && periodic; ++i) periodic = x(i) == x(i + period);
    if (!periodic) period = (split > m - split ? split : m - split) + 1;
    size_t known = 0;  // bytes at the start of the needle known to agree at `position`
    for (size_t position = 0; position <= n - m;) {
        size_t i = split > known ? split : known;
        while (i < m && x(i) == y(position + i)) ++i;
        if (i < m) {
            position += i - split + 1;
            known = 0;
            continue;
        }
        // The right part matched: the left part then, back to what is known to agree.
        i = split;
        while (i > known && x(i - 1) == y(position + i - 1)) --i;
        if (i <= known) return position;
        position += period;
        known = periodic ? m - period : 0;
    }
    return n;
}

}  // namespace

int Utf8ToAnsi(char* destination, const char* source, int size) {
    if (size < 1) return 0;
    const unsigned char* in = reinterpret_cast<const unsigned char*>(source);
    int written = 0;
    while (*in != 0 && written < size - 1) {
        unsigned char bytes[4];
        bool cut;
        const int length = readSequence(in, bytes, &cut);
        if (length == 1) {
            destination[written++] = static_cast<char>(bytes[0]);
        } else if (length == 2 && (bytes[0] & 0x1C) == 0) {
            destination[written++] = static_cast<char>(((bytes[0] & 0x03) << 6) | (bytes[1] & 0x3F));
        }
        if (cut) break;
        in += length;
    }
    destination[written] = '\0';
    return written;
}

int Utf8ToWide(unsigned short* destination, const char* source, int size) {
    if (size < 1) return 0;
    const unsigned char* in = reinterpret_cast<const unsigned char*>(source);
    int written = 0;
    while (*in != 0 && written < size - 1) {
        unsigned char bytes[4];
        bool cut;
        const int length = readSequence(in, bytes, &cut);
        if (length == 1) {
            destination[written++] = bytes[0];
        } else if (length == 2) {
            destination[written++] =
                static_cast<unsigned short>(((bytes[0] & 0x1F) << 6) | (bytes[1] & 0x3F));
        } else if (length == 3) {
            destination[written++] = static_cast<unsigned short>(
                ((bytes[0] & 0x0F) << 12) | ((bytes[1] & 0x3F) << 6) | (bytes[2] & 0x3F));
        }
        if (cut) break;
        in += length;
    }
    destination[written] = 0;
    return written;
}

int strUtf8Len(const char* source, int isWide, int escape) {
    const unsigned char* in = reinterpret_cast<const unsigned char*>(source);
    const int step = isWide != 0 ? 2 : 1;
    // Wide enough that no source that fits in memory can wrap it.
    unsigned long long total = 0;
    for (;; in += step) {
        const unsigned int c = isWide != 0 ? in[0] | (in[1] << 8) : in[0];
        if (c < 0x80) {
            total += escape != 0 && !standsForItselfInUri(c) ? 3 : 1;
        } else {
            total += (c < 0x800 ? 2 : 3) * (escape != 0 ? 3 : 1);
        }
        if (c == 0) break;
    }
    return total > static_cast<unsigned long long>(INT_MAX) ? INT_MAX : static_cast<int>(total);
}

namespace {

// What _strToUtf8 makes of one unit below 0x100, plain or escaped: the bytes, and the UTF-8 bytes they count.
struct Encoded {
    char bytes[6];
    unsigned char length;  // 1, 2, 3 or 6
    unsigned char items;   // 1 or 2
};

struct EncodingTable {
    Encoded unit[256];
};

constexpr EncodingTable makeEncodingTable(bool escape) {
    EncodingTable table{};
    for (unsigned int c = 0; c < 256; ++c) {
        Encoded& e = table.unit[c];
        const unsigned int bytes[2] = {c < 0x80 ? c : 0xC0 | (c >> 6), 0x80 | (c & 0x3F)};
        e.items = c < 0x80 ? 1 : 2;
        for (unsigned int i = 0; i < e.items; ++i) {
            const unsigned int b = bytes[i];
            if (!escape || (c < 0x80 && (c == 0 || standsForItselfInUri(c)))) {
                e.bytes[e.length++] = static_cast<char>(b);
            } else {
                e.bytes[e.length++] = '%';
                if (b >= 0x10) e.bytes[e.length++] = kLowerHex[b >> 4];
                e.bytes[e.length++] = kLowerHex[b & 0x0F];
            }
        }
    }
    return table;
}

constexpr EncodingTable kPlainEncoding = makeEncodingTable(false);
constexpr EncodingTable kEscapedEncoding = makeEncodingTable(true);

// The room that _strToUtf8's table paths keep, and why it suffices.
constexpr int kLargestUnitBytes = 9;  // a unit of 0x800 or more, escaped: "%e2%82%ac"
constexpr int kWidestRoomTest = 3;    // the loop begins no character at j >= limit - 3
// While more room than this is left, no unit can meet a room test of the loop: the table paths run up to it.
constexpr int kTableRoom = kLargestUnitBytes + kWidestRoomTest;
// The narrow path stores whole entries, whose bytes behind the real ones are scratch.
constexpr size_t kEntryBytes = sizeof(Encoded::bytes);
constexpr size_t kScratchBytes = kEntryBytes - 1;
// It leaves the last units of the text to the other table path; each writes at least one byte, so together
// they cover the scratch of the last entry stored.
constexpr size_t kTailUnits = 5;
static_assert(kTailUnits >= kScratchBytes, "the tail covers the scratch");
// It begins no entry at limit - kNarrowRoom or beyond, so the last entry's scratch, and every tail unit
// that writes over it, lies below limit - kTableRoom, where no room test can stop the tail.
constexpr int kNarrowRoom = 24;
static_assert(kNarrowRoom >= kTableRoom + kEntryBytes, "the tail is never stopped");

// Encodes units from `in` while the write position is below `end`, up to the terminator or the first unit of
// 0x100 or more; moves `j` and `items` on and gives the first unit not encoded. Writes only the bytes of the
// encoding, nothing behind them.
template <bool kWide>
const unsigned char* encodeFromTable(const EncodingTable& table, const unsigned char* in, char* destination,
                                     size_t end, int& j, int& items) {
    char* out = destination + j;
    char* const stop = destination + end;
    int counted = items;
    for (; out < stop; in += kWide ? 2 : 1) {
        const unsigned int c = kWide ? in[0] | (in[1] << 8) : in[0];
        if (c == 0 || (kWide && c >= 0x100)) break;
        const Encoded& e = table.unit[c];
        out[0] = e.bytes[0];
        if (e.length > 1) {
            out[1] = e.bytes[1];
            if (e.length > 2) {
                out[2] = e.bytes[2];
                if (e.length > 3) {
                    out[3] = e.bytes[3];
                    out[4] = e.bytes[4];
                    out[5] = e.bytes[5];
                }
            }
        }
        out += e.length;
        counted += e.items;
    }
    j = static_cast<int>(out - destination);
    items = counted;
    return in;
}

// The same for one-byte text of known length, without a branch per byte: every unit stores its whole table
// entry (kEntryBytes) and moves on by its real length. The bytes behind the real ones are scratch that the
// next units overwrite: the caller keeps kTailUnits units of text and kNarrowRoom bytes of room behind
// `end` for them.
const unsigned char* encodeNarrowFromTable(const EncodingTable& table, const unsigned char* in,
                                           const unsigned char* inEnd, char* destination, size_t end, int& j,
                                           int& items) {
    char* out = destination + j;
    char* const stop = destination + end;
    int counted = items;
    for (; out < stop && in < inEnd; ++in) {
        const Encoded& e = table.unit[*in];
        memcpy(out, e.bytes, sizeof e.bytes);
        out += e.length;
        counted += e.items;
    }
    j = static_cast<int>(out - destination);
    items = counted;
    return in;
}

}  // namespace

int _strToUtf8(char* destination, const char* source, int size, int isWide, int* count, int escape) {
    if (size < 1) {
        if (count != nullptr) *count = 0;
        return 0;
    }
    const unsigned char* in = reinterpret_cast<const unsigned char*>(source);
    const int step = isWide != 0 ? 2 : 1;
    const int limit = size - 1;
    int j = 0;
    int items = 0;
    // One byte as it is, or as "%x": lower case, without padding.
    auto put = [&](unsigned int byte, bool escaped) {
        if (!escaped) {
            destination[j++] = static_cast<char>(byte);
        } else {
            destination[j++] = '%';
            if (byte >= 0x10) destination[j++] = kLowerHex[byte >> 4];
            destination[j++] = kLowerHex[byte & 0x0F];
        }
        ++items;
    };
    // While the destination has more than kTableRoom bytes of room left, no unit can meet any of the room
    // tests below, so units under 0x100 come from a table, with no test but the terminator's.
    if (limit > kTableRoom) {
        const EncodingTable& table = escape != 0 ? kEscapedEncoding : kPlainEncoding;
        const size_t end = static_cast<size_t>(limit - kTableRoom);
        if (isWide == 0) {
            const size_t length = strlen(source);
            if (length > kTailUnits && limit > kNarrowRoom)
                in = encodeNarrowFromTable(table, in, in + (length - kTailUnits), destination,
                                           static_cast<size_t>(limit - kNarrowRoom), j, items);
        }
        in = isWide != 0 ? encodeFromTable<true>(table, in, destination, end, j, items)
                         : encodeFromTable<false>(table, in, destination, end, j, items);
    }
    for (;; in += step) {
        const unsigned int c = isWide != 0 ? in[0] | (in[1] << 8) : in[0];
        if (c < 0x80) {
            if (j >= limit) break;
            if (escape != 0 && c != 0 && !standsForItselfInUri(c)) {
                if (j >= limit - 3) break;
                put(c, true);
            } else {
                put(c, false);  // the terminator too, in both modes
            }
            if (c == 0) break;
            continue;
        }
        const int n = c < 0x800 ? 2 : 3;
        if (j >= limit - 3) break;
        put(n == 2 ? 0xC0 | (c >> 6) : 0xE0 | (c >> 12), escape != 0);
        if (escape == 0 ? j >= limit - n : j > limit - 3 * (n - 1)) break;
        for (int shift = 6 * (n - 2); shift >= 0; shift -= 6) put(0x80 | ((c >> shift) & 0x3F), escape != 0);
    }
    // Gives the stored terminator back after a complete run, and the last byte written after a stop for room.
    if (j > 0) --j;
    destination[j] = '\0';
    if (count != nullptr) *count = items > 0 ? items - 1 : 0;
    return j;
}

int strToUtf8(char* destination, const char* source, int size, int isWide, int* count) {
    return _strToUtf8(destination, source, size, isWide, count, 0);
}

int strToEscapedUri(char* destination, const char* source, int size, int isWide, int* count) {
    return _strToUtf8(destination, source, size, isWide, count, 1);
}

extern "C" {

int IndexOf(const char* text, const char* needle) {
    // Nothing is found in an empty text, not even the empty needle.
    if (*text == '\0') return -1;
    const char* found = ::strstr(text, needle);
    return found != nullptr ? static_cast<int>(found - text) : -1;
}

int LastIndexOf(const char* text, const char* needle) {
    const size_t n = ::strlen(text);
    const size_t m = ::strlen(needle);
    if (m > n) return -1;
    if (m == 0) return static_cast<int>(n);
    if (m == 1) {
        const void* found = ::memrchr(text, needle[0], n);
        return found != nullptr ? static_cast<int>(static_cast<const char*>(found) - text) : -1;
    }
    // Both read from their ends, so the first occurrence found is the last one.
    const size_t fromEnd = TwoWaySearch(Backward{reinterpret_cast<const unsigned char*>(needle) + m}, m,
                                        Backward{reinterpret_cast<const unsigned char*>(text) + n}, n);
    return fromEnd < n ? static_cast<int>(n - m - fromEnd) : -1;
}

char* MakeStrcpy(const char* text) {
    if (text == nullptr) text = "";
    const size_t size = ::strlen(text) + 1;
    char* copy = static_cast<char*>(mspstring::allocate(size));
    if (copy != nullptr) ::memcpy(copy, text, size);
    return copy;
}

void StrChomp(char* text) {
    text[::strcspn(text, "\r\n")] = '\0';
}

char* cpyfilebuf(const char* path, int* count) {
    FILE* file = nullptr;
    char* buffer = nullptr;
    try {
        file = OpenForReading(path);
        if (file == nullptr) throw "File open error !!!";
        const long size = streamSize(file);
        if (size >= 0) {
            buffer = static_cast<char*>(mspstring::allocate(static_cast<size_t>(size) + 1));
            if (buffer == nullptr) throw "Not enough memory found !!!";
            // Only the byte behind the content needs clearing: a short read gives the buffer up.
            buffer[size] = '\0';
            const size_t got = ::fread(buffer, 1, static_cast<size_t>(size), file);
            if (count != nullptr) *count = static_cast<int>(got);
            if (got < static_cast<size_t>(size)) {
                ::free(buffer);
                buffer = nullptr;
            }
        }
    } catch (...) {
        // Failures are the caller's null result, never a message.
    }
    if (file != nullptr) ::fclose(file);
    return buffer;
}

char* GetFileExtension(char* path) {
    if (path == nullptr) return nullptr;
    for (char* p = path + ::strlen(path); p-- != path;) {
        if (*p == '.') return p;
        if (*p == '/' || *p == '\\') return nullptr;
    }
    return nullptr;
}

int StartsWith(const char* text, const char* prefix, int ignoreCase) {
    const size_t m = ::strlen(prefix);
    const int diff = ignoreCase != 0 ? StrnCaseCmp(text, prefix, m) : ::strncmp(text, prefix, m);
    return diff == 0 ? 1 : 0;
}

int EndsWith(const char* text, const char* suffix, int ignoreCase) {
    const size_t n = ::strlen(text);
    const size_t m = ::strlen(suffix);
    if (m > n) return 0;
    const char* tail = text + (n - m);
    const int diff = ignoreCase != 0 ? StrnCaseCmp(tail, suffix, m) : ::strncmp(tail, suffix, m);
    return diff == 0 ? 1 : 0;
}

int HTTPUrlEscape(char* destination, const char* source) {
    char* out = destination;
    for (const unsigned char* in = reinterpret_cast<const unsigned char*>(source); *in != 0; ++in) {
        const unsigned char c = *in;
        if (kUrlWidths.width[c] == 1) {
            *out++ = static_cast<char>(c);
        } else {
            out[0] = '%';
            out[1] = kUpperHex[c >> 4];
            out[2] = kUpperHex[c & 0x0F];
            out += 3;
        }
    }
    *out++ = '\0';
    return EscapedCount(static_cast<unsigned long long>(out - destination));
}

int HTTPUrlEscapeLength(const char* source) {
    // Wide enough for any text in memory: on the 32-bit target 720 MB of blanks would overflow an int.
    unsigned long long length = 1;
    for (const unsigned char* in = reinterpret_cast<const unsigned char*>(source); *in != 0; ++in) {
        length += kUrlWidths.width[*in];
    }
    return EscapedCount(length);
}

int HTTPUrlUnEscape(char* text) {
    // One pass up to the terminator that the string had at the start. The write position never passes the
    // read position, so every byte read, the pair behind a '%' included, is still the original one.
    size_t read = 0;
    size_t write = 0;
    while (text[read] != '\0') {
        if (text[read] != '%') {
            text[write++] = text[read++];
            continue;
        }
        // The pair stops at the terminator, and so does the decoding.
        const unsigned char first = static_cast<unsigned char>(text[read + 1]);
        const unsigned char second = first != 0 ? static_cast<unsigned char>(text[read + 2]) : 0;
        const int high = hexValue(first);
        const int low = hexValue(second);
        long value;
        if (high >= 0 && low >= 0) {
            value = high * 16 + low;
        } else {
            // Blanks, signs, single digits and "0x": strtol decides.
            const char pair[3] = {static_cast<char>(first), static_cast<char>(second), '\0'};
            value = ::strtol(pair, nullptr, 16);
        }
        text[write++] = static_cast<char>(value & 0xFF);
        if (second == 0) break;
        read += 3;
    }
    return static_cast<int>(write);
}

}  // extern "C"
