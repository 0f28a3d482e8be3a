#include "msplatform/unicode.h"

#include <stdint.h>
#include <string.h>
#include <wchar.h>

// These run on every directory entry the server walks. Short texts go through single passes that find the
// terminator as they go; past their first 64 units, the two conversions between UTF-8 and wide text measure
// the rest, so that they can read it a block at a time without ever touching a byte behind the terminator.

namespace {

uint64_t Load64(const void* p) {
    uint64_t word;
    memcpy(&word, p, sizeof word);
    return word;
}

constexpr uint64_t kHighBits = 0x8080808080808080u;

// Index of the first byte, in memory order, whose top bit is set in `high` (which holds top bits only, at
// least one of them).
unsigned FirstHighByte(uint64_t high) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    return static_cast<unsigned>(__builtin_clzll(high)) >> 3;
#else
    return static_cast<unsigned>(__builtin_ctzll(high)) >> 3;
#endif
}

// Stores the four bytes of `bytes` in memory from its lowest byte up, whatever the byte order.
void Store32LowFirst(unsigned char* p, uint32_t bytes) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    bytes = __builtin_bswap32(bytes);
#endif
    memcpy(p, &bytes, sizeof bytes);
}

struct DecodePositions {
    const unsigned char* in;
    wchar_t* out;
    bool done;  // the terminator was reached (or swallowed by a cut sequence)
};

// The byte-at-a-time decoder, from `in` (at or before the terminator) to the terminator, or until `out`
// reaches `stop` (never, for a null `stop`). Invariant: `in` points at or before the terminator. Only the
// byte after the lead is tested, and only its top bit; when that bit is set the byte isn't the terminator, so
// the third byte can still be read. The fourth is read only if the third isn't the terminator: a byte missing
// behind the end counts as a zero byte, as the terminator itself does when it stands at the place of a
// continuation byte.
DecodePositions DecodeBytes(const unsigned char* in, wchar_t* out, const wchar_t* stop) {
    for (uint32_t lead; (lead = in[0]) != 0;) {
        if (out == stop) return {in, out, false};
        if (lead < 0x80) {
            *out++ = static_cast<wchar_t>(lead);
            in += 1;
            continue;
        }
        const uint32_t next = in[1];
        if (lead < 0xC0 || (next & 0x80) == 0) {
            // Not a sequence: a lone Latin-1 byte keeps its value.
            *out++ = static_cast<wchar_t>(lead);
            in += 1;
        } else if (lead < 0xE0) {
            *out++ = static_cast<wchar_t>(((lead ^ 0xC0) << 6) | (next ^ 0x80));
            in += 2;
        } else if (lead < 0xF0) {
            const uint32_t third = in[2];
            *out++ = static_cast<wchar_t>(((lead ^ 0xE0) << 12) | ((next ^ 0x80) << 6) | (third ^ 0x80));
            if (third == 0) return {in, out, true};  // the sequence swallowed the terminator
            in += 3;
        } else {
            const uint32_t third = in[2];
            const uint32_t fourth = third != 0 ? in[3] : 0;
            *out++ = static_cast<wchar_t>(((lead ^ 0xF0) << 18) | ((next ^ 0x80) << 12) |
                                          ((third ^ 0x80) << 6) | (fourth ^ 0x80));
            if (third == 0 || fourth == 0) return {in, out, true};
            in += 4;
        }
    }
    return {in, out, true};
}

// Decodes from `in` to the terminator, measuring first: while 64 bytes or more are left, at least 16 units
// are still to come (no sequence is longer than four bytes), so 16 units may be stored ahead and the bytes of
// any sequence read without a test for the end.
wchar_t* DecodeLong(const unsigned char* in, wchar_t* out) {
    const unsigned char* const end = in + strlen(reinterpret_cast<const char*>(in));
    while (end - in >= 64) {
        // The next 16 bytes, widened as if they were ASCII; only the units before the first high byte stay.
        unsigned char block[16];
        memcpy(block, in, sizeof block);  // a copy, so that the compiler need not fear aliasing
        for (int k = 0; k < 16; ++k) out[k] = static_cast<wchar_t>(block[k]);
        const uint64_t first = Load64(in) & kHighBits;
        const uint64_t second = Load64(in + 8) & kHighBits;
        if ((first | second) == 0) {
            in += 16;
            out += 16;
            continue;
        }
        const unsigned ascii = first != 0 ? FirstHighByte(first) : 8 + FirstHighByte(second);
        in += ascii;
        out += ascii;
        // Then the run of high bytes, one sequence at a time, each with four bytes or more left before the
        // end. The input moves on by constants that branches choose, not by a loaded length, so the
        // processor runs ahead on its predictions.
        do {
            const uint32_t lead = in[0];
            const uint32_t next = in[1];
            if (lead < 0xC0 || (next & 0x80) == 0) {
                *out++ = static_cast<wchar_t>(lead);
                in += 1;
            } else if (lead < 0xE0) {
                *out++ = static_cast<wchar_t>(((lead ^ 0xC0) << 6) | (next ^ 0x80));
                in += 2;
            } else if (lead < 0xF0) {
                *out++ = static_cast<wchar_t>(((lead ^ 0xE0) << 12) | ((next ^ 0x80) << 6) | (in[2] ^ 0x80u));
                in += 3;
            } else {
                *out++ = static_cast<wchar_t>(((lead ^ 0xF0) << 18) | ((next ^ 0x80) << 12) |
                                              ((in[2] ^ 0x80u) << 6) | (in[3] ^ 0x80u));
                in += 4;
            }
        } while ((in[0] & 0x80) != 0 && end - in >= 4);
    }
    return DecodeBytes(in, out, nullptr).out;
}

// Encodes one unit by its low 16 bits.
unsigned char* EncodeUnit(uint32_t unit, unsigned char* out) {
    const uint32_t c = unit & 0xFFFFu;
    if (c < 0x80) {
        *out++ = static_cast<unsigned char>(c);
    } else if (c < 0x800) {
        *out++ = static_cast<unsigned char>(0xC0 + (c >> 6));
        *out++ = static_cast<unsigned char>(0x80 + (c & 0x3F));
    } else {
        *out++ = static_cast<unsigned char>(0xE0 + (c >> 12));
        *out++ = static_cast<unsigned char>(0x80 + ((c >> 6) & 0x3F));
        *out++ = static_cast<unsigned char>(0x80 + (c & 0x3F));
    }
    return out;
}

struct Positions {
    const wchar_t* in;
    unsigned char* out;
};

// What a 16-bit value encodes to, by its bits 6..15: bits 0..23 hold its bytes from the first on, ready for
// one store, with all but bits 0..5 of the value in place (the 0x80 of the last continuation byte, or below
// 0x80 the value's bit 6); bits 24..28 the shift that puts bits 0..5 of the value into the last byte; bits
// 30..31 the number of bytes. The fourth byte of the store is left to be overwritten.
struct EncodeTable {
    uint32_t entry[1024];
    constexpr EncodeTable() : entry() {
        for (uint32_t high = 0; high < 1024; ++high) {
            uint32_t bytes = 0, length = 0;
            if (high < 2) {
                bytes = high << 6, length = 1;
            } else if (high < 32) {
                bytes = (0xC0 | high) | (0x80u << 8), length = 2;
            } else {
                bytes = (0xE0 | (high >> 6)) | ((0x80 | (high & 0x3F)) << 8) | (0x80u << 16), length = 3;
            }
            entry[high] = bytes | ((8 * (length - 1)) << 24) | (length << 30);
        }
    }
};
constexpr EncodeTable kEncodeTable;

// Copies blocks of 16 ASCII units as bytes while 16 units or more are left before `end`; stops at the first
// block that isn't all ASCII. Not inlined: its restrict-qualified parameters are what let the compiler treat
// a block as vectors.
__attribute__((noinline)) Positions EncodeAsciiBlocks(const wchar_t* __restrict in, const wchar_t* end,
                                                      unsigned char* __restrict out) {
    while (end - in >= 16) {
        uint32_t bits = 0;
        for (int k = 0; k < 16; ++k) bits |= static_cast<uint32_t>(in[k]);
        if ((bits & 0xFF80u) != 0) break;
        for (int k = 0; k < 16; ++k) out[k] = static_cast<unsigned char>(in[k]);
        in += 16;
        out += 16;
    }
    return {in, out};
}

// Encodes the `length` units at `in`, none of them the terminator. While 20 units or more are left, every
// unit stores four bytes and keeps the one to three it needs (at least three more units follow, each of at
// least one byte), and blocks of 16 ASCII units are copied as they come; after a block that isn't all ASCII,
// the next three go through the table untested. Not inlined, like the function above.
__attribute__((noinline)) unsigned char* EncodeRange(const wchar_t* __restrict in, size_t length,
                                                     unsigned char* __restrict out) {
    const wchar_t* const end = in + length;
    unsigned skip = 0;  // blocks to go before the next test for ASCII: mixed text seldom has a whole block
    while (end - in >= 20) {
        if (skip == 0) {
            uint32_t bits = 0;
            for (int k = 0; k < 16; ++k) bits |= static_cast<uint32_t>(in[k]);
            if ((bits & 0xFF80u) == 0) {
                const Positions at = EncodeAsciiBlocks(in, end, out);
                in = at.in;
                out = at.out;
                continue;
            }
            skip = 3;
        } else {
            --skip;
        }
        // Mixed text changes width at random: each unit goes through the table, without a branch.
#pragma GCC unroll 16
        for (int k = 0; k < 16; ++k) {
            const uint32_t c = static_cast<uint32_t>(in[k]) & 0xFFFFu;
            const uint32_t entry = kEncodeTable.entry[c >> 6];
            Store32LowFirst(out, entry | ((c & 0x3F) << ((entry >> 24) & 31)));
            out += entry >> 30;
        }
        in += 16;
    }
    for (; in != end; ++in) out = EncodeUnit(static_cast<uint32_t>(*in), out);
    return out;
}

}  // namespace

int Convert_CHAR_UCS(const char* source, wchar_t* destination) {
    if (source == nullptr || destination == nullptr) return -1;
    const unsigned char* in = reinterpret_cast<const unsigned char*>(source);
    wchar_t* out = destination;
    for (; *in != 0; ++in) *out++ = static_cast<wchar_t>(*in);
    *out = 0;
    return static_cast<int>(out - destination);
}

int Convert_CHAR_UCS(const char* source, wchar_t* destination, int count) {
    if (source == nullptr || destination == nullptr) return -1;
    if (count < 0) count = 0;
    const unsigned char* in = reinterpret_cast<const unsigned char*>(source);
    for (int i = 0; i < count; ++i) destination[i] = static_cast<wchar_t>(in[i]);
    destination[count] = 0;
    return count;
}

int Convert_UCS_UTF8(const wchar_t* source, unsigned char* destination) {
    if (source == nullptr || destination == nullptr) return -1;
    // Short texts, such as file names, go unit by unit in one pass; a text of more than 64 units is measured
    // from there on, for the block loop.
    unsigned char* out = destination;
    int left = 64;
    for (const wchar_t* in = source; *in != 0; ++in, --left) {
        if (left == 0) {
            out = EncodeRange(in, wcslen(in), out);
            break;
        }
        out = EncodeUnit(static_cast<uint32_t>(*in), out);
    }
    *out = 0;
    return static_cast<int>(out - destination);
}

int Convert_UTF8_UCS(const unsigned char* source, wchar_t* destination) {
    if (source == nullptr || destination == nullptr) return -1;
    // Short texts, such as file names, go byte by byte in one pass; a text that gives more than 64 units is
    // measured from there on, for the block loop.
    DecodePositions at = DecodeBytes(source, destination, destination + 64);
    if (!at.done) {
        at.out = DecodeLong(at.in, at.out);
    }
    *at.out = 0;
    return static_cast<int>(at.out - destination);
}

int Convert_UCS_CHAR(const wchar_t* source, char* destination) {
    if (source == nullptr || destination == nullptr) return -1;
    char* out = destination;
    for (const wchar_t* in = source; *in != 0; ++in) {
        *out++ = static_cast<char>(static_cast<uint32_t>(*in) & 0xFFu);
    }
    *out = 0;
    return static_cast<int>(out - destination);
}

int Change_BOM(wchar_t* text) {
    if (text == nullptr) return -1;
    wchar_t* unit = text;
    // Swap until the first unit with a zero high byte; it keeps its low byte and ends the walk. Every unit is
    // read before it is changed, so the length on entry is still found in the same pass.
    for (; *unit != 0; ++unit) {
        const uint32_t value = static_cast<uint32_t>(*unit);
        const uint32_t high = (value >> 8) & 0xFFu;
        const uint32_t low = value & 0xFFu;
        if (high == 0) {
            *unit++ = static_cast<wchar_t>(low);
            break;
        }
        *unit = static_cast<wchar_t>(high + (low << 8));
    }
    while (*unit != 0) ++unit;
    *unit = 0;
    return static_cast<int>(unit - text);
}

int UCS_Length(const unsigned char* buffer, int length) {
    if (buffer == nullptr || length <= 0) return 0;
    // Unsigned, so that a lead near the end of a buffer of INT_MAX bytes can't overflow the index.
    const unsigned int end = static_cast<unsigned int>(length);
    int count = 0;
    for (unsigned int i = 0; i < end; ++count) {
        const unsigned char lead = buffer[i];
        if (lead >= 0xF0) {
            i += 4;
        } else if (lead >= 0xE0) {
            i += 3;
        } else if (lead >= 0xC0) {
            i += 2;
        } else {
            i += 1;
        }
    }
    return count;
}
