#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/sysinfo.h>
#include <sys/time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ident/internal.h"
#include "msplatform/md5.h"
#include "msplatform/uuid.h"
#include "msplatform/uuid_utils.h"
#include "support/support.h"

// The calls behind the random node, made known in this binary: a record of 0x5A bytes, a host name that fills
// all 260 bytes of its area when given the 256 it is due, and a time of day one microsecond on per reading.
long micros = 0;
extern "C" int sysinfo(struct sysinfo* info) noexcept {
    return memset(info, 0x5A, sizeof *info), 0;
}
extern "C" int gethostname(char* name, size_t length) noexcept {
    return memset(name, 'h', length == 256 ? 260 : 0), 0;
}
extern "C" int gettimeofday(struct timeval* tv, void*) noexcept {
    return *tv = timeval{1700000000, micros++}, 0;
}

namespace {

// The digest of `data` given in two updates, cut at `cut`; in hex if asked.
std::string Md5(const std::string& data, size_t cut, bool hex = true) {
    MD5_CTX context;
    unsigned char digest[16];
    char text[33];
    MD5Init(&context);
    MD5Update(&context, reinterpret_cast<const unsigned char*>(data.data()), unsigned(cut));
    MD5Update(&context, reinterpret_cast<const unsigned char*>(data.data()) + cut,
              unsigned(data.size() - cut));
    MD5Final(digest, &context);
    for (int i = 0; i < 16; ++i) snprintf(text + 2 * i, 3, "%02x", digest[i]);
    return hex ? std::string(text) : std::string(reinterpret_cast<char*>(digest), 16);
}

// Known digests, each input cut at every point (55 bytes still fit the length in their block); the bit count
// carries into its high word, even in one 512 MiB update; the final step wipes the context, digest or not.
TEST(Md5, DigestsSplitsCountAndWipe) {
    const std::pair<std::string, const char*> cases[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
        {std::string(55, 'a'), "ef1772b6dff9a122358552954ad0df65"},
        {std::string(56, 'a'), "3b0c8ac703f828b04c6c197006d17218"},
        {std::string(64, 'a'), "014842d480b571495a4a0363793f7367"},
        {std::string(1000000, 'a'), "7707d6ae4e027c70eea2a935c2296f21"}};
    for (const auto& [input, digest] : cases)
        for (size_t cut = 0; cut <= input.size(); cut += input.size() > 100 ? 333331 : 1)
            ASSERT_EQ(Md5(input, cut), digest) << input.size() << " cut at " << cut;
    MD5_CTX context, zero = {};
    MD5Init(&context);
    context.count[0] = 0xFFFFFE00u;       // 2^32 - 512 bits: a whole number of blocks
    msptest::RepeatedText big('a', 512);  // 2^32 bits and 80 bytes in one update: both words move
    ASSERT_TRUE(big.text()) << "the system gives no 512 MiB of address space";
    MD5Update(&context, reinterpret_cast<const unsigned char*>(big.text()), (512u << 20) + 80);
    EXPECT_EQ(std::make_pair(context.count[0], context.count[1]), std::make_pair(0x80u, 2u));
    MD5Final(nullptr, &context);  // with 16 bytes buffered
    EXPECT_EQ(memcmp(&context, &zero, sizeof context), 0);
}

constexpr uint64_t kEpochOffset = 0x01B21DD213814000ULL, kReading = kEpochOffset + 1700000000ULL * 10000000;

// The clock behind get_system_time: it stays on `now` for `holdReads` readings, then moves on 1 us a reading.
struct timeval now;
long reads = 0, holdReads = 1L << 30;

// Ticks since 1582 in 64 bits. The first UUID seeds srand by the reading shifted right by 10, halves xor-ed;
// each takes its clock sequence from rand(), its node from the digest of the system record, time of day and
// host name. A reading serves 1025 UUIDs, then the clock is read until it moves; a null record reads nothing.
TEST(Uuid, FieldsComeFromTheClockAndEachReadingServes1025) {
    uuidClockReader = [](struct timeval* tv) { return now.tv_usec += ++reads > holdReads, *tv = now, 0; };
    uuid_time_t t = 0;  // before 1970
    EXPECT_EQ((now = {-0x7FFFFFFF, 0}, get_system_time(&t), t), kEpochOffset - 0x7FFFFFFFULL * 10000000);
    uuidGeneratorState = UuidGeneratorState{0, 0, 0}, now = {1700000000, 0}, reads = 0, micros = 0;
    uuid_t u;
    EXPECT_EQ(uuid_create(nullptr), 1);
    srand(unsigned(kReading >> 10) ^ unsigned(kReading >> 42));
    std::vector<unsigned> sequences(1025);
    for (unsigned& sequence : sequences) sequence = unsigned(rand()) & 0xFFFF;
    std::string block = std::string(sizeof(struct sysinfo), 0x5A) + std::string(sizeof(timeval) + 260, 'h');
    for (long i = 0; i <= 1024; ++i) {
        const timeval tv = {1700000000, i};
        auto node = Md5(block.replace(sizeof(struct sysinfo), sizeof tv, (char*)&tv, sizeof tv), 0, false);
        ASSERT_EQ(uuid_create(&u), 1);
        ASSERT_EQ(reads, i + 2) << i;  // the first call reads once more, for the seed
        ASSERT_EQ(std::make_tuple(u.time_low, u.time_mid, u.time_hi_and_version, u.clock_seq_hi_and_reserved,
                                  u.clock_seq_low, std::string(reinterpret_cast<char*>(u.node), 6)),
                  std::make_tuple(uint32_t(kReading + i), uint16_t(kReading >> 32),
                                  uint16_t((kReading >> 48 & 0x0FFF) | 0x1000),
                                  uint8_t((sequences[i] & 0x3F00) >> 8 | 0x80), uint8_t(sequences[i]),
                                  char(node[0] | 0x80) + node.substr(1, 5)));
    }
    holdReads = reads + 40;
    EXPECT_EQ((uuid_create(&u), u.time_low), uint32_t(kReading + 10));
    EXPECT_EQ(reads, 1026 + 41);
    now = {1700000000, 0}, reads = 0;
    EXPECT_EQ((uuid_create(&u), u.time_low), uint32_t(kReading));
}

}  // namespace
