#include "msplatform/md5.h"

#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

std::string Finish(MD5_CTX& context) {
    unsigned char digest[16];
    MD5Final(digest, &context);
    char hex[33];
    for (int i = 0; i < 16; ++i) snprintf(hex + 2 * i, 3, "%02x", digest[i]);
    return hex;
}

std::string Md5Hex(const void* data, size_t length) {
    MD5_CTX context;
    MD5Init(&context);
    MD5Update(&context, static_cast<const unsigned char*>(data), static_cast<unsigned int>(length));
    return Finish(context);
}

// Deterministic bytes of every value, with no period near the block size.
std::vector<unsigned char> PseudoRandom(size_t length) {
    std::vector<unsigned char> out(length);
    uint32_t seed = 7;
    for (unsigned char& byte : out)
        byte = static_cast<unsigned char>((seed = seed * 1664525u + 1013904223u) >> 24);
    return out;
}

// The standard suite, then runs of 'a' around the padding: 55 bytes still take the length in the same block.
TEST(Md5, KnownDigests) {
    const struct {
        std::string input;
        const char* digest;
    } cases[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"1234567890123456789012345678901234567890123456789012345678901234567890" + std::string("1234567890"),
         "57edf4a22be3c955ac49da2e2107b67a"},
        {std::string(55, 'a'), "ef1772b6dff9a122358552954ad0df65"},
        {std::string(56, 'a'), "3b0c8ac703f828b04c6c197006d17218"},
        {std::string(64, 'a'), "014842d480b571495a4a0363793f7367"},
        {std::string(120, 'a'), "5f61c0ccad4cac44c75ff505e1f1e537"},
        {std::string(1000000, 'a'), "7707d6ae4e027c70eea2a935c2296f21"},
    };
    for (const auto& c : cases) EXPECT_EQ(Md5Hex(c.input.data(), c.input.size()), c.digest) << c.input.size();
}

// Every message of 0 to 200 bytes cut in two at every point, with an empty update between: the digest is
// that of the same bytes in one call.
TEST(Md5, SplitUpdatesGiveTheSameDigest) {
    const std::vector<unsigned char> data = PseudoRandom(200);
    for (size_t length = 0; length <= 200; ++length) {
        const std::string whole = Md5Hex(data.data(), length);
        for (size_t cut = 0; cut <= length; ++cut) {
            MD5_CTX context;
            MD5Init(&context);
            MD5Update(&context, data.data(), static_cast<unsigned int>(cut));
            MD5Update(&context, data.data() + cut, 0);
            MD5Update(&context, data.data() + cut, static_cast<unsigned int>(length - cut));
            ASSERT_EQ(Finish(context), whole) << "length " << length << " cut at " << cut;
        }
    }
}

TEST(Md5, BitCountCarriesIntoTheHighWord) {
    const std::vector<unsigned char> data = PseudoRandom(128);
    MD5_CTX context;
    MD5Init(&context);
    context.count[0] = 0xFFFFFE00u;  // 2^32 - 512 bits: a whole number of blocks
    MD5Update(&context, data.data(), 128);
    EXPECT_EQ(context.count[0], 0x200u);
    EXPECT_EQ(context.count[1], 1u);
}

// Null pointers are ignored; the final step wipes the whole context, also without a digest to write.
TEST(Md5, NullPointersDoNothingAndFinalWipesTheContext) {
    MD5Init(nullptr);
    MD5Update(nullptr, reinterpret_cast<const unsigned char*>("abc"), 3);
    MD5Final(nullptr, nullptr);

    const std::vector<unsigned char> data = PseudoRandom(100);  // leaves 36 bytes in the buffer
    MD5_CTX zero, context;
    memset(&zero, 0, sizeof zero);
    for (bool withDigest : {true, false}) {
        MD5Init(&context);
        MD5Update(&context, nullptr, 10);
        MD5Update(&context, data.data(), 100);
        if (withDigest) {
            EXPECT_EQ(Finish(context), Md5Hex(data.data(), 100));
        } else {
            MD5Final(nullptr, &context);
        }
        EXPECT_EQ(memcmp(&context, &zero, sizeof context), 0) << withDigest;
    }
}

}  // namespace
