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

uint64_t Timestamp(const uuid_t& u) {
    return uint64_t(u.time_low) | uint64_t(u.time_mid) << 32 | uint64_t(u.time_hi_and_version & 0x0FFF) << 48;
}

bool HasVersionAndVariant(const uuid_t& u) {
    return (u.time_hi_and_version >> 12) == 1 && (u.clock_seq_hi_and_reserved >> 6) == 2;
}

// A clock the test drives. It stays on `now` for `holdReads` readings, then moves on by one microsecond
// at each further reading.
struct FakeClock {
    struct timeval now;
    long reads;
    long holdReads;
};
FakeClock fakeClock;

int ReadFakeClock(struct timeval* tv) {
    if (++fakeClock.reads > fakeClock.holdReads) {
        if (++fakeClock.now.tv_usec == 1000000) {
            fakeClock.now.tv_usec = 0;
            ++fakeClock.now.tv_sec;
        }
    }
    *tv = fakeClock.now;
    return 0;
}

// Puts the fake clock in place and the generator back to its start; restores both at the end.
class WithFakeClock : public ::testing::Test {
protected:
    void SetUp() override {
        savedState_ = uuidGeneratorState;
        uuidGeneratorState = UuidGeneratorState{0, 0, 1};
        Set(1700000000, 0);
        uuidClockReader = ReadFakeClock;
    }
    void TearDown() override {
        uuidClockReader = UuidSystemClock;
        uuidGeneratorState = savedState_;
    }
    static void Set(time_t sec, suseconds_t usec) {
        fakeClock.now.tv_sec = sec;
        fakeClock.now.tv_usec = usec;
        fakeClock.reads = 0;
        fakeClock.holdReads = 1L << 30;
    }

private:
    UuidGeneratorState savedState_;
};

TEST(Uuid, HundredThousandInARow) {
    const int kCount = 100000;
    std::vector<std::array<unsigned char, 16>> all(kCount);
    uint64_t previous = 0;
    int sameNodeAsPrevious = 0;
    uuid_t last{};
    for (int i = 0; i < kCount; ++i) {
        uuid_t u;
        ASSERT_EQ(uuid_create(&u), 1);
        ASSERT_TRUE(HasVersionAndVariant(u)) << i;
        ASSERT_NE(u.node[0] & 0x80, 0) << i;
        const uint64_t t = Timestamp(u);
        ASSERT_GE(t, previous) << "timestamp went backwards at " << i;
        if (i > 0 && memcmp(u.node, last.node, 6) == 0) ++sameNodeAsPrevious;
        previous = t;
        last = u;
        memcpy(all[i].data(), &u, 16);
    }
    std::sort(all.begin(), all.end());
    EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end()) << "two UUIDs are equal";
    // The node is hashed from the time of day in microseconds among others: two UUIDs in one microsecond can
    // share it, but most successive ones must differ.
    EXPECT_LT(sameNodeAsPrevious, kCount / 10);
}

TEST(Uuid, NullRecordGivesOneAndNothingElse) {
    EXPECT_EQ(uuid_create(nullptr), 1);
}

TEST(Uuid, NodeIsFreshWithTheTopBitSet) {
    unsigned char a[6], b[6];
    get_ieee_node_identifier(a);
    // A new microsecond guarantees a different time of day in the hashed block.
    struct timeval start, now;
    gettimeofday(&start, nullptr);
    do gettimeofday(&now, nullptr);
    while (now.tv_sec == start.tv_sec && now.tv_usec == start.tv_usec);
    get_ieee_node_identifier(b);
    EXPECT_NE(a[0] & 0x80, 0);
    EXPECT_NE(b[0] & 0x80, 0);
    EXPECT_NE(memcmp(a, b, 6), 0);

    unsigned char seed[16];
    get_random_info(seed);
    get_ieee_node_identifier(nullptr);
    get_random_info(nullptr);
}

TEST_F(WithFakeClock, SystemTimeCountsTicksSince1582) {
    struct Case {
        time_t sec;
        suseconds_t usec;
        uint64_t expected;
    };
    std::vector<Case> cases = {
        {0, 0, kEpochOffset},
        {1, 0, kEpochOffset + 10000000},
        {0, 1, kEpochOffset + 10},
        {0, 999999, kEpochOffset + 9999990},
        {1700000000, 123456, kEpochOffset + 17000000000000000ULL + 1234560},
        // The last second of a 32-bit time_t, and the one after it: seconds times 10^7 needs 64 bits.
        {0x7FFFFFFF, 999999, kEpochOffset + 0x7FFFFFFFULL * 10000000 + 9999990},
        {0x7FFFFFFE, 0, kEpochOffset + 0x7FFFFFFEULL * 10000000},
        // Before 1970, down to the start of 1901.
        {-1, 0, kEpochOffset - 10000000},
        {-0x7FFFFFFF, 0, kEpochOffset - 0x7FFFFFFFULL * 10000000},
    };
    if (sizeof(time_t) == 8) {
        // Year 5138, only with a 64-bit time_t.
        const time_t far = static_cast<time_t>(100000000000LL);
        cases.push_back({far, 5, kEpochOffset + 1000000000000000000ULL + 50});
    }
    for (const Case& c : cases) {
        Set(c.sec, c.usec);
        uuid_time_t t = 0;
        get_system_time(&t);
        EXPECT_EQ(t, c.expected) << c.sec << " s " << c.usec << " us";
    }
    get_system_time(nullptr);
}

TEST_F(WithFakeClock, FieldsFromTheTimestamp) {
    Set(0x12345678, 0x5432);
    uuid_t u;
    ASSERT_EQ(uuid_create(&u), 1);
    const uint64_t t = kEpochOffset + 0x12345678ULL * 10000000 + 0x5432ULL * 10;
    EXPECT_EQ(u.time_low, static_cast<uint32_t>(t));
    EXPECT_EQ(u.time_mid, static_cast<uint16_t>(t >> 32));
    EXPECT_EQ(u.time_hi_and_version, static_cast<uint16_t>(((t >> 48) & 0x0FFF) | 0x1000));
    // Host order: the first four bytes are time_low as the host stores it, not swapped.
    uint32_t low;
    memcpy(&low, &u, 4);
    EXPECT_EQ(low, static_cast<uint32_t>(t));
}

TEST_F(WithFakeClock, OneReadingServes1025UuidsThenTheCallWaits) {
    const uint64_t reading = kEpochOffset + 1700000000ULL * 10000000;
    for (int i = 0; i <= 1024; ++i) {
        uuid_t u;
        ASSERT_EQ(uuid_create(&u), 1);
        ASSERT_EQ(Timestamp(u), reading + i) << i;
        ASSERT_EQ(fakeClock.reads, i + 1);
    }
    // The 1026th keeps reading the clock until it moves: 40 more readings of the same value, then the next
    // microsecond, which starts a fresh count.
    fakeClock.holdReads = fakeClock.reads + 40;
    uuid_t u;
    ASSERT_EQ(uuid_create(&u), 1);
    EXPECT_EQ(fakeClock.reads, 1025 + 41);
    EXPECT_EQ(Timestamp(u), reading + 10);
    fakeClock.holdReads = 1L << 30;  // the clock stays on the new reading
    ASSERT_EQ(uuid_create(&u), 1);
    EXPECT_EQ(Timestamp(u), reading + 10 + 1);
}

TEST_F(WithFakeClock, ClockMovingOnResetsTheCount) {
    const uint64_t reading = kEpochOffset + 1700000000ULL * 10000000;
    uuid_t u;
    for (int i = 0; i < 5; ++i) uuid_create(&u);
    EXPECT_EQ(Timestamp(u), reading + 4);
    Set(1700000000, 1);
    uuid_create(&u);
    EXPECT_EQ(Timestamp(u), reading + 10);
    // Back to an earlier reading: it differs from the last one, so it counts from 0 again.
    Set(1700000000, 0);
    uuid_create(&u);
    EXPECT_EQ(Timestamp(u), reading);
}

// The first call seeds srand once with the reading shifted right by 10, its halves combined by exclusive or;
// every UUID draws a new clock sequence from rand().
TEST_F(WithFakeClock, SeedsOnceAndDrawsAClockSequenceForEachUuid) {
    uuidGeneratorState.randomSeeded = 0;
    Set(1700000000, 777);
    uuid_t a, b;
    ASSERT_EQ(uuid_create(&a), 1);
    EXPECT_EQ(fakeClock.reads, 2);  // the timestamp, then the seed
    ASSERT_EQ(uuid_create(&b), 1);
    EXPECT_EQ(fakeClock.reads, 3);  // no second seeding
    EXPECT_EQ(uuidGeneratorState.randomSeeded, 1);

    const uint64_t shifted = (kEpochOffset + 1700000000ULL * 10000000 + 7770) >> 10;
    srand(static_cast<unsigned int>(shifted) ^ static_cast<unsigned int>(shifted >> 32));
    for (const uuid_t* u : {&a, &b}) {
        const unsigned sequence = static_cast<unsigned>(rand()) & 0xFFFF;
        EXPECT_EQ(u->clock_seq_hi_and_reserved, ((sequence & 0x3F00) >> 8) | 0x80);
        EXPECT_EQ(u->clock_seq_low, sequence & 0xFF);
    }
}

}  // namespace
