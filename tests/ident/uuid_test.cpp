#include "msplatform/uuid.h"
#include "msplatform/uuid_utils.h"

#include <stdlib.h>
#include <string.h>
#include <sys/time.h>

#include <algorithm>
#include <array>
#include <vector>

#include <gtest/gtest.h>

#include "ident/internal.h"

namespace {

constexpr uint64_t kEpochOffset = 0x01B21DD213814000ULL;
constexpr uint64_t kReading = kEpochOffset + 1700000000ULL * 10000000;  // the fake clock's start

uint64_t Timestamp(const uuid_t& u) {
    return uint64_t(u.time_low) | uint64_t(u.time_mid) << 32 | uint64_t(u.time_hi_and_version & 0x0FFF) << 48;
}

// A clock the test drives: it stays on `now` for `holdReads` readings, then moves on by 1 us per reading.
struct FakeClock {
    struct timeval now;
    long reads, holdReads;
} fakeClock;

int ReadFakeClock(struct timeval* tv) {
    if (++fakeClock.reads > fakeClock.holdReads) ++fakeClock.now.tv_usec;
    *tv = fakeClock.now;
    return 0;
}

// Puts the fake clock in place and the generator back to its start; restores both at the end.
class WithFakeClock : public ::testing::Test {
protected:
    void SetUp() override {
        uuidGeneratorState = UuidGeneratorState{0, 0, 0};
        Set(1700000000, 0);
        uuidClockReader = ReadFakeClock;
    }
    void TearDown() override {
        uuidClockReader = UuidSystemClock;
        uuidGeneratorState = saved_;
    }
    static void Set(time_t sec, suseconds_t usec) { fakeClock = {{sec, usec}, 0, 1L << 30}; }
    uuid_t Create() {
        uuid_t u;
        EXPECT_EQ(uuid_create(&u), 1);
        return u;
    }

private:
    UuidGeneratorState saved_ = uuidGeneratorState;
};

TEST(Uuid, HundredThousandInARowAreDistinctOrderedAndMarked) {
    const int kCount = 100000;
    std::vector<std::array<unsigned char, 16>> all(kCount);
    uint64_t previous = 0;
    int sameNodeAsPrevious = 0;
    uuid_t u, last{};
    for (int i = 0; i < kCount; ++i, last = u) {
        ASSERT_EQ(uuid_create(&u), 1);
        ASSERT_EQ(u.time_hi_and_version >> 12, 1) << i;
        ASSERT_EQ(u.clock_seq_hi_and_reserved >> 6, 2) << i;
        ASSERT_NE(u.node[0] & 0x80, 0) << i;
        ASSERT_GE(Timestamp(u), previous) << "timestamp went backwards at " << i;
        previous = Timestamp(u);
        sameNodeAsPrevious += memcmp(u.node, last.node, 6) == 0;
        memcpy(all[i].data(), &u, 16);
    }
    std::sort(all.begin(), all.end());
    EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end()) << "two UUIDs are equal";
    // The node hashes the time of day in microseconds: neighbours may share one, but few do.
    EXPECT_LT(sameNodeAsPrevious, kCount / 10);
}

TEST(Uuid, NodeIsFreshWithTheTopBitSetAndNullArgumentsDoNothing) {
    unsigned char a[6], b[6];
    get_ieee_node_identifier(a);
    struct timeval start, now;  // a new microsecond: a different time of day in the hashed block
    gettimeofday(&start, nullptr);
    do gettimeofday(&now, nullptr);
    while (now.tv_sec == start.tv_sec && now.tv_usec == start.tv_usec);
    get_ieee_node_identifier(b);
    EXPECT_NE(a[0] & b[0] & 0x80, 0);
    EXPECT_NE(memcmp(a, b, 6), 0);
    get_ieee_node_identifier(nullptr);
    get_random_info(nullptr);
    get_system_time(nullptr);
}

TEST_F(WithFakeClock, SystemTimeCountsTicksSince1582) {
    std::vector<std::pair<struct timeval, uint64_t>> cases = {
        {{0, 0}, kEpochOffset},
        {{1700000000, 123456}, kReading + 1234560},
        // Seconds times 10^7 needs 64 bits at the end of a 32-bit time_t; before 1970 down to 1901.
        {{0x7FFFFFFF, 999999}, kEpochOffset + 0x7FFFFFFFULL * 10000000 + 9999990},
        {{-1, 0}, kEpochOffset - 10000000},
        {{-0x7FFFFFFF, 0}, kEpochOffset - 0x7FFFFFFFULL * 10000000},
    };
    if (sizeof(time_t) == 8)
        cases.push_back({{time_t(100000000000LL), 5}, kEpochOffset + 1000000000000000050ULL});
    for (const auto& [tv, expected] : cases) {
        Set(tv.tv_sec, tv.tv_usec);
        uuid_time_t t = 0;
        get_system_time(&t);
        EXPECT_EQ(t, expected) << tv.tv_sec << " s " << tv.tv_usec << " us";
    }
}

// The first call seeds srand once with the reading shifted right by 10, its halves combined by exclusive or;
// every UUID draws its clock sequence from rand(). A reading serves 1025 UUIDs, then the call reads the clock
// until it moves; any other reading, also an earlier one, starts the count again. A null record reads
// nothing.
TEST_F(WithFakeClock, FieldsComeFromTheReadingAndEachReadingServes1025) {
    EXPECT_EQ(uuid_create(nullptr), 1);
    EXPECT_EQ(fakeClock.reads, 0);
    const uint64_t shifted = kReading >> 10;
    srand(static_cast<unsigned int>(shifted) ^ static_cast<unsigned int>(shifted >> 32));
    std::vector<unsigned> sequences(1025);
    for (unsigned& sequence : sequences) sequence = static_cast<unsigned>(rand()) & 0xFFFF;
    for (int i = 0; i <= 1024; ++i) {
        const uuid_t u = Create();
        const unsigned sequence = sequences[i];
        ASSERT_EQ(fakeClock.reads, i + 2) << i;  // the first call reads once more, for the seed
        ASSERT_EQ(u.time_low, static_cast<uint32_t>(kReading + i));
        ASSERT_EQ(u.time_mid, static_cast<uint16_t>(kReading >> 32));
        ASSERT_EQ(u.time_hi_and_version, static_cast<uint16_t>(((kReading >> 48) & 0x0FFF) | 0x1000));
        ASSERT_EQ(u.clock_seq_hi_and_reserved, ((sequence & 0x3F00) >> 8) | 0x80);
        ASSERT_EQ(u.clock_seq_low, sequence & 0xFF);
    }
    fakeClock.holdReads = fakeClock.reads + 40;
    EXPECT_EQ(Timestamp(Create()), kReading + 10);
    EXPECT_EQ(fakeClock.reads, 1026 + 41);
    fakeClock.holdReads = 1L << 30;
    EXPECT_EQ(Timestamp(Create()), kReading + 11);
    Set(1700000000, 0);
    EXPECT_EQ(Timestamp(Create()), kReading);
}

}  // namespace
