#include "msplatform/md5.h"

#include <stddef.h>
#include <string.h>

namespace {

inline uint32_t Rotl(uint32_t x, int n) {
    return (x << n) | (x >> (32 - n));
}

// Words are little-endian whatever the host: a plain load where the host agrees, bytes otherwise.
inline uint32_t Load32(const unsigned char* p) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    uint32_t v;
    memcpy(&v, p, 4);
    return v;
#else
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
#endif
}

inline void Store32(unsigned char* p, uint32_t v) {
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
    p[2] = static_cast<unsigned char>(v >> 16);
    p[3] = static_cast<unsigned char>(v >> 24);
}

// The four round functions, in forms with one operation fewer than the textbook ones.
inline uint32_t F(uint32_t x, uint32_t y, uint32_t z) {
    return z ^ (x & (y ^ z));
}
inline uint32_t G(uint32_t x, uint32_t y, uint32_t z) {
    return y ^ (z & (x ^ y));
}
inline uint32_t H(uint32_t x, uint32_t y, uint32_t z) {
    return x ^ y ^ z;
}
inline uint32_t I(uint32_t x, uint32_t y, uint32_t z) {
    return y ^ (x | ~z);
}

#define MD5_STEP(f, a, b, c, d, x, t, s) \
    a += f(b, c, d) + (x) + (t);         \
    a = Rotl(a, s) + b;

// Hashes `blocks` whole blocks of 64 bytes straight from `data`.
void Transform(uint32_t state[4], const unsigned char* data, size_t blocks) {
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
    for (; blocks != 0; --blocks, data += 64) {
        uint32_t x[16];
        for (int i = 0; i < 16; ++i) x[i] = Load32(data + 4 * i);
        const uint32_t aa = a, bb = b, cc = c, dd = d;

        MD5_STEP(F, a, b, c, d, x[0], 0xd76aa478, 7)
        MD5_STEP(F, d, a, b, c, x[1], 0xe8c7b756, 12)
        MD5_STEP(F, c, d, a, b, x[2], 0x242070db, 17)
        MD5_STEP(F, b, c, d, a, x[3], 0xc1bdceee, 22)
        MD5_STEP(F, a, b, c, d, x[4], 0xf57c0faf, 7)
        MD5_STEP(F, d, a, b, c, x[5], 0x4787c62a, 12)
        MD5_STEP(F, c, d, a, b, x[6], 0xa8304613, 17)
        MD5_STEP(F, b, c, d, a, x[7], 0xfd469501, 22)
        MD5_STEP(F, a, b, c, d, x[8], 0x698098d8, 7)
        MD5_STEP(F, d, a, b, c, x[9], 0x8b44f7af, 12)
        MD5_STEP(F, c, d, a, b, x[10], 0xffff5bb1, 17)
        MD5_STEP(F, b, c, d, a, x[11], 0x895cd7be, 22)
        MD5_STEP(F, a, b, c, d, x[12], 0x6b901122, 7)
        MD5_STEP(F, d, a, b, c, x[13], 0xfd987193, 12)
        MD5_STEP(F, c, d, a, b, x[14], 0xa679438e, 17)
        MD5_STEP(F, b, c, d, a, x[15], 0x49b40821, 22)

        MD5_STEP(G, a, b, c, d, x[1], 0xf61e2562, 5)
        MD5_STEP(G, d, a, b, c, x[6], 0xc040b340, 9)
        MD5_STEP(G, c, d, a, b, x[11], 0x265e5a51, 14)
        MD5_STEP(G, b, c, d, a, x[0], 0xe9b6c7aa, 20)
        MD5_STEP(G, a, b, c, d, x[5], 0xd62f105d, 5)
        MD5_STEP(G, d, a, b, c, x[10], 0x02441453, 9)
        MD5_STEP(G, c, d, a, b, x[15], 0xd8a1e681, 14)
        MD5_STEP(G, b, c, d, a, x[4], 0xe7d3fbc8, 20)
        MD5_STEP(G, a, b, c, d, x[9], 0x21e1cde6, 5)
        MD5_STEP(G, d, a, b, c, x[14], 0xc33707d6, 9)
        MD5_STEP(G, c, d, a, b, x[3], 0xf4d50d87, 14)
        MD5_STEP(G, b, c, d, a, x[8], 0x455a14ed, 20)
        MD5_STEP(G, a, b, c, d, x[13], 0xa9e3e905, 5)
        MD5_STEP(G, d, a, b, c, x[2], 0xfcefa3f8, 9)
        MD5_STEP(G, c, d, a, b, x[7], 0x676f02d9, 14)
        MD5_STEP(G, b, c, d, a, x[12], 0x8d2a4c8a, 20)

        MD5_STEP(H, a, b, c, d, x[5], 0xfffa3942, 4)
        MD5_STEP(H, d, a, b, c, x[8], 0x8771f681, 11)
        MD5_STEP(H, c, d, a, b, x[11], 0x6d9d6122, 16)
        MD5_STEP(H, b, c, d, a, x[14], 0xfde5380c, 23)
        MD5_STEP(H, a, b, c, d, x[1], 0xa4beea44, 4)
        MD5_STEP(H, d, a, b, c, x[4], 0x4bdecfa9, 11)
        MD5_STEP(H, c, d, a, b, x[7], 0xf6bb4b60, 16)
        MD5_STEP(H, b, c, d, a, x[10], 0xbebfbc70, 23)
        MD5_STEP(H, a, b, c, d, x[13], 0x289b7ec6, 4)
        MD5_STEP(H, d, a, b, c, x[0], 0xeaa127fa, 11)
        MD5_STEP(H, c, d, a, b, x[3], 0xd4ef3085, 16)
        MD5_STEP(H, b, c, d, a, x[6], 0x04881d05, 23)
        MD5_STEP(H, a, b, c, d, x[9], 0xd9d4d039, 4)
        MD5_STEP(H, d, a, b, c, x[12], 0xe6db99e5, 11)
        MD5_STEP(H, c, d, a, b, x[15], 0x1fa27cf8, 16)
        MD5_STEP(H, b, c, d, a, x[2], 0xc4ac5665, 23)

        MD5_STEP(I, a, b, c, d, x[0], 0xf4292244, 6)
        MD5_STEP(I, d, a, b, c, x[7], 0x432aff97, 10)
        MD5_STEP(I, c, d, a, b, x[14], 0xab9423a7, 15)
        MD5_STEP(I, b, c, d, a, x[5], 0xfc93a039, 21)
        MD5_STEP(I, a, b, c, d, x[12], 0x655b59c3, 6)
        MD5_STEP(I, d, a, b, c, x[3], 0x8f0ccc92, 10)
        MD5_STEP(I, c, d, a, b, x[10], 0xffeff47d, 15)
        MD5_STEP(I, b, c, d, a, x[1], 0x85845dd1, 21)
        MD5_STEP(I, a, b, c, d, x[8], 0x6fa87e4f, 6)
        MD5_STEP(I, d, a, b, c, x[15], 0xfe2ce6e0, 10)
        MD5_STEP(I, c, d, a, b, x[6], 0xa3014314, 15)
        MD5_STEP(I, b, c, d, a, x[13], 0x4e0811a1, 21)
        MD5_STEP(I, a, b, c, d, x[4], 0xf7537e82, 6)
        MD5_STEP(I, d, a, b, c, x[11], 0xbd3af235, 10)
        MD5_STEP(I, c, d, a, b, x[2], 0x2ad7d2bb, 15)
        MD5_STEP(I, b, c, d, a, x[9], 0xeb86d391, 21)

        a += aa;
        b += bb;
        c += cc;
        d += dd;
    }
    state[0] = a;
    state[1] = b;
    state[2] = c;
    state[3] = d;
}

#undef MD5_STEP

}  // namespace

void MD5Init(MD5_CTX* context) {
    if (context == nullptr) return;
    context->state[0] = 0x67452301;
    context->state[1] = 0xefcdab89;
    context->state[2] = 0x98badcfe;
    context->state[3] = 0x10325476;
    context->count[0] = 0;
    context->count[1] = 0;
}

void MD5Update(MD5_CTX* context, const unsigned char* input, unsigned int inputLen) {
    // A null input with a length is a caller's fault: nothing is read rather than reading through null.
    if (context == nullptr || input == nullptr || inputLen == 0) return;

    size_t used = (context->count[0] >> 3) & 0x3F;
    const uint32_t bitsLow = static_cast<uint32_t>(inputLen) << 3;
    context->count[0] += bitsLow;
    if (context->count[0] < bitsLow) ++context->count[1];
    context->count[1] += static_cast<uint32_t>(inputLen) >> 29;

    size_t left = inputLen;
    if (used != 0) {
        const size_t room = 64 - used;
        if (left < room) {
            memcpy(context->buffer + used, input, left);
            return;
        }
        memcpy(context->buffer + used, input, room);
        Transform(context->state, context->buffer, 1);
        input += room;
        left -= room;
    }
    // Whole blocks are hashed where they lie, without a copy into the buffer.
    if (left >= 64) {
        Transform(context->state, input, left / 64);
        input += left & ~size_t(63);
        left &= 63;
    }
    if (left != 0) memcpy(context->buffer, input, left);
}

void MD5Final(unsigned char digest[16], MD5_CTX* context) {
    if (context == nullptr) return;

    size_t used = (context->count[0] >> 3) & 0x3F;
    context->buffer[used++] = 0x80;
    if (used > 56) {
        memset(context->buffer + used, 0, 64 - used);
        Transform(context->state, context->buffer, 1);
        used = 0;
    }
    memset(context->buffer + used, 0, 56 - used);
    Store32(context->buffer + 56, context->count[0]);
    Store32(context->buffer + 60, context->count[1]);
    Transform(context->state, context->buffer, 1);

    if (digest != nullptr) {
        for (int i = 0; i < 4; ++i) Store32(digest + 4 * i, context->state[i]);
    }

    // The context held the digest and the tail of the input: wipe it, and keep the compiler from dropping
    // the stores as dead.
    memset(context, 0, sizeof *context);
    __asm__ __volatile__("" : : "r"(context) : "memory");
}
