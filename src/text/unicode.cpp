#include "msplatform/unicode.h"

#include <stdint.h>
#include <string.h>
#include <wchar.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

// These run on every directory entry the server walks. Short texts go through single passes that find the
// terminator as they go; past their first 64 units, the two conversions between UTF-8 and wide text measure
// the rest, so that they can read it a block at a time without ever touching a byte behind the terminator.

namespace {

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

// One sequence by the decoding rule, with four bytes or more left before the end: no test for the end.
inline const unsigned char* DecodeSequence(const unsigned char* in, wchar_t*& out) {
    const uint32_t lead = in[0];
    const uint32_t next = in[1];
    if (lead < 0xC0 || (next & 0x80) == 0) {
        *out++ = static_cast<wchar_t>(lead);
        return in + 1;
    }
    if (lead < 0xE0) {
        *out++ = static_cast<wchar_t>(((lead ^ 0xC0) << 6) | (next ^ 0x80));
        return in + 2;
    }
    if (lead < 0xF0) {
        *out++ = static_cast<wchar_t>(((lead ^ 0xE0) << 12) | ((next ^ 0x80) << 6) | (in[2] ^ 0x80u));
        return in + 3;
    }
    *out++ = static_cast<wchar_t>(((lead ^ 0xF0) << 18) | ((next ^ 0x80) << 12) | ((in[2] ^ 0x80u) << 6) |
                                  (in[3] ^ 0x80u));
    return in + 4;
}

#if defined(__SSE2__)

// Decodes from `in` (a character's start, 64 units or more behind the text's start) to the terminator,
// measuring first, in blocks of 16 bytes while 64 bytes or more are left. A block of ASCII, two- and
// three-byte sequences that follow the usual UTF-8 layout (every continuation byte claimed by its lead, no
// byte from 0xF0) decodes by the rule to what it decodes to in the usual way: every byte position gets the
// value of a character ending there, and the positions where one does end are kept. The block's cost
// doesn't depend on where its characters change width, so mixed text has no branch to mispredict. Any
// other block goes by the rule one sequence at a time.
wchar_t* DecodeLong(const unsigned char* in, wchar_t* out) {
    const unsigned char* const end = in + strlen(reinterpret_cast<const char*>(in));
    const __m128i zero = _mm_setzero_si128();
    uint32_t carry = 0;  // bit 0 and 1: this block's first bytes, claimed by a lead of the block before
    while (end - in >= 64) {
        const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
        const uint32_t high = static_cast<uint32_t>(_mm_movemask_epi8(x));
        if ((high | carry) == 0) {
            const __m128i low8 = _mm_unpacklo_epi8(x, zero), high8 = _mm_unpackhi_epi8(x, zero);
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_unpacklo_epi16(low8, zero));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 4), _mm_unpackhi_epi16(low8, zero));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 8), _mm_unpacklo_epi16(high8, zero));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 12), _mm_unpackhi_epi16(high8, zero));
            in += 16;
            out += 16;
            continue;
        }
        // Signed compares: 0x80..0xBF lie below -64, leads from 0xE0 above -33, from 0xF0 above -17.
        const __m128i isCont = _mm_cmplt_epi8(x, _mm_set1_epi8(-64));
        const uint32_t cont = static_cast<uint32_t>(_mm_movemask_epi8(isCont));
        const uint32_t lead3 =
            high & static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpgt_epi8(x, _mm_set1_epi8(-33))));
        const uint32_t lead4 =
            high & static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpgt_epi8(x, _mm_set1_epi8(-17))));
        const uint32_t claimed = carry | ((high & ~cont) << 1) | (lead3 << 2);
        if ((claimed & 0xFFFFu) != cont || lead4 != 0) {
            // From the lead that the carry stands for (one byte back, or two behind a continuation byte),
            // by the rule, past this block.
            if (carry & 1) in -= in[-1] >= 0xC0 ? 1 : 2;
            for (const unsigned char* stop = in + 16; in < stop;) in = DecodeSequence(in, out);
            carry = 0;
            continue;
        }
        // A character ending at a position: the byte itself (ASCII) or its low six bits, the byte before's
        // six under a continuation byte (a two-byte lead's sixth bit is 0), the lead's four from two back
        // under two continuation bytes. Values stay below 0x10000, 16 bits a position.
        const __m128i before = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in - 1));
        const __m128i twoBack = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in - 2));
        const __m128i beforeIsCont = _mm_cmplt_epi8(before, _mm_set1_epi8(-64));
        alignas(16) uint32_t value[16];
        for (int half = 0; half < 2; ++half) {
            const auto widen = [&](__m128i v, __m128i with) {
                return half == 0 ? _mm_unpacklo_epi8(v, with) : _mm_unpackhi_epi8(v, with);
            };
            const __m128i c = widen(isCont, isCont), cb = widen(beforeIsCont, beforeIsCont);
            const __m128i own = _mm_and_si128(
                widen(x, zero), _mm_xor_si128(_mm_set1_epi16(0x7F), _mm_and_si128(c, _mm_set1_epi16(0x40))));
            const __m128i prior =
                _mm_and_si128(_mm_slli_epi16(_mm_and_si128(widen(before, zero), _mm_set1_epi16(0x3F)), 6), c);
            const __m128i lead =
                _mm_and_si128(_mm_slli_epi16(_mm_and_si128(widen(twoBack, zero), _mm_set1_epi16(0x0F)), 12),
                              _mm_and_si128(c, cb));
            const __m128i v = _mm_or_si128(own, _mm_or_si128(prior, lead));
            _mm_store_si128(reinterpret_cast<__m128i*>(value + 8 * half), _mm_unpacklo_epi16(v, zero));
            _mm_store_si128(reinterpret_cast<__m128i*>(value + 8 * half + 4), _mm_unpackhi_epi16(v, zero));
        }
        // Every value is stored; the output moves on where a character ends (the next byte isn't claimed).
        const uint32_t ends = ~(claimed >> 1);
#pragma GCC unroll 16
        for (int k = 0; k < 16; ++k) {
            *out = static_cast<wchar_t>(value[k]);
            out += (ends >> k) & 1;
        }
        carry = claimed >> 16;
        in += 16;
    }
    if (carry & 1) in -= in[-1] >= 0xC0 ? 1 : 2;  // back to the lead of the character not yet stored
    return DecodeBytes(in, out, nullptr).out;
}

#else

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
            in = DecodeSequence(in, out);
        } while ((in[0] & 0x80) != 0 && end - in >= 4);
    }
    return DecodeBytes(in, out, nullptr).out;
}

#endif

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
