#include "msplatform/md5.h"

#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

std::string Hex(const unsigned char digest[16]) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    for (int i = 0; i < 16; ++i) {
        out += kDigits[digest[i] >> 4];
        out += kDigits[digest[i] & 15];
    }
    return out;
}

std::string Md5Hex(const void* data, size_t length) {
    MD5_CTX context;
    MD5Init(&context);
    MD5Update(&context, static_cast<const unsigned char*>(data), static_cast<unsigned int>(length));
    unsigned char digest[16];
    MD5Final(digest, &context);
    return Hex(digest);
}

// Deterministic bytes that cover every byte value and no period near the block size.
std::vector<unsigned char> PseudoRandom(size_t length, uint32_t seed) {
    std::vector<unsigned char> out(length);
    for (size_t i = 0; i < length; ++i) {
        seed = seed * 1664525u + 1013904223u;
        out[i] = static_cast<unsigned char>(seed >> 24);
    }
    return out;
}

TEST(Md5, StandardTestSuite) {
    struct Case {
        const char* input;
        const char* digest;
    };
    const Case cases[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(Md5Hex(c.input, strlen(c.input)), c.digest) << '"' << c.input << '"';
}

// Lengths around the padding boundaries: 55 bytes still take the length in the same block, 56 do not.
TEST(Md5, LengthsAroundThePadding) {
    struct Case {
        size_t length;
        const char* digest;
    };
    const Case cases[] = {
        {55, "ef1772b6dff9a122358552954ad0df65"},  {56, "3b0c8ac703f828b04c6c197006d17218"},
        {57, "652b906d60af96844ebd21b674f35e93"},  {63, "b06521f39153d618550606be297466d5"},
        {64, "014842d480b571495a4a0363793f7367"},  {65, "c743a45e0d2e6a95cb859adae0248435"},
        {119, "8a7bd0732ed6a28ce75f6dabc90e1613"}, {120, "5f61c0ccad4cac44c75ff505e1f1e537"},
        {128, "e510683b3f5ffe4093d021808bc6ff70"}, {1000000, "7707d6ae4e027c70eea2a935c2296f21"},
    };
    for (const Case& c : cases) {
        const std::string input(c.length, 'a');
        EXPECT_EQ(Md5Hex(input.data(), input.size()), c.digest) << c.length << " times 'a'";
    }
}

// Every message of 0 to 200 bytes, split in two at every point, and a longer message fed in pieces of every
// length from 0 to 200, with empty updates in between: the digest is that of the same bytes in one call.
TEST(Md5, SplitUpdatesGiveTheSameDigest) {
    const std::vector<unsigned char> data = PseudoRandom(3000, 7);
    for (size_t length = 0; length <= 200; ++length) {
        const std::string whole = Md5Hex(data.data(), length);
        for (size_t cut = 0; cut <= length; ++cut) {
            MD5_CTX context;
            MD5Init(&context);
            MD5Update(&context, data.data(), static_cast<unsigned int>(cut));
            MD5Update(&context, data.data() + cut, static_cast<unsigned int>(length - cut));
            unsigned char digest[16];
            MD5Final(digest, &context);
            ASSERT_EQ(Hex(digest), whole) << "length " << length << " cut at " << cut;
        }
    }
    const std::string whole = Md5Hex(data.data(), data.size());
    for (size_t piece = 0; piece <= 200; ++piece) {
        MD5_CTX context;
        MD5Init(&context);
        size_t done = 0;
        while (done < data.size()) {
            // A zero piece length still moves on, one byte at a time after each empty update.
            const size_t n = std::min(piece, data.size() - done);
            MD5Update(&context, data.data() + done, static_cast<unsigned int>(n));
            if (n == 0) MD5Update(&context, data.data() + done, 1);
            done += n == 0 ? 1 : n;
        }
        unsigned char digest[16];
        MD5Final(digest, &context);
        ASSERT_EQ(Hex(digest), whole) << "pieces of " << piece;
    }
}

TEST(Md5, BitCountCarriesIntoTheHighWord) {
    const std::vector<unsigned char> data = PseudoRandom(128, 1);
    MD5_CTX context;
    MD5Init(&context);
    context.count[0] = 0xFFFFFE00u;  // 2^32 - 512 bits: a whole number of blocks
    MD5Update(&context, data.data(), 128);
    EXPECT_EQ(context.count[0], 0x200u);
    EXPECT_EQ(context.count[1], 1u);
}

TEST(Md5, FinalWipesTheWholeContext) {
    MD5_CTX context;
    MD5Init(&context);
    const std::vector<unsigned char> data = PseudoRandom(100, 3);
    MD5Update(&context, data.data(), 100);  // leaves 36 bytes in the buffer
    unsigned char digest[16];
    MD5Final(digest, &context);

    MD5_CTX zero;
    memset(&zero, 0, sizeof zero);
    EXPECT_EQ(memcmp(&context, &zero, sizeof context), 0);
    EXPECT_EQ(Hex(digest), Md5Hex(data.data(), data.size()));

    // A null digest still finishes and wipes.
    MD5Init(&context);
    MD5Update(&context, data.data(), 100);
    MD5Final(nullptr, &context);
    EXPECT_EQ(memcmp(&context, &zero, sizeof context), 0);
}

// Null pointers are ignored: no read, no write, the context unchanged.
TEST(Md5, NullPointersDoNothing) {
    MD5Init(nullptr);
    MD5Update(nullptr, reinterpret_cast<const unsigned char*>("abc"), 3);
    MD5Final(nullptr, nullptr);

    MD5_CTX context;
    MD5Init(&context);
    MD5Update(&context, nullptr, 10);
    MD5Update(&context, reinterpret_cast<const unsigned char*>("abc"), 3);
    unsigned char digest[16];
    MD5Final(digest, &context);
    EXPECT_EQ(Hex(digest), "900150983cd24fb0d6963f7d28e17f72");
}

}  // namespace
