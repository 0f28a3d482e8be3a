#include "msplatform/event.h"

#include <errno.h>
#include <sys/time.h>

#include <atomic>
#include <chrono>
#include <limits>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "os/osTestSupport.h"

namespace {

using ostest::SystemCallsGuard;
using ostest::WaitUntil;
using ostest::Within;

// Records of the swapped system calls; one test at a time uses them.
std::atomic<int> waitCalls{0}, timedWaitCalls{0};
std::vector<struct timespec> deadlines;
struct timeval fakeNow;

// Counts and records, then answers 0 (a spurious wake-up) at the first call, EINTR at the second.
int SpuriousTimedWait(pthread_cond_t* cond, pthread_mutex_t* mutex, const struct timespec* at) {
    int call = ++timedWaitCalls;
    deadlines.push_back(*at);
    return call == 1 ? 0 : call == 2 ? EINTR : kRealOsSystemCalls.condTimedWait(cond, mutex, at);
}
int CountedTimedWait(pthread_cond_t* cond, pthread_mutex_t* mutex, const struct timespec* at) {
    ++timedWaitCalls;
    return kRealOsSystemCalls.condTimedWait(cond, mutex, at);
}

class EventTest : public ::testing::Test {
protected:
    void SetUp() override {
        waitCalls = 0;
        timedWaitCalls = 0;
        deadlines.clear();
    }
    SystemCallsGuard guard_;
    Event event_;
};

TEST_F(EventTest, StaysSetThroughWaitsUntilResetAndWaitZeroNeverBlocks) {
    osSystemCalls.condTimedWait = CountedTimedWait;
    Within("waits", [&] {
        EXPECT_EQ(0, event_.wait(0));
        EXPECT_EQ(1, timedWaitCalls) << "a clear event goes through the time-out";
        event_.set();
        event_.wait();
        for (int ms : {0, 100000, -1}) EXPECT_EQ(1, event_.wait(ms));
        event_.wait();
        event_.set();
    });
    EXPECT_EQ(1, timedWaitCalls) << "a set event does not wait at all";
    EXPECT_EQ(1, event_.isSet());
    event_.reset();
    EXPECT_EQ(0, event_.isSet());
    EXPECT_EQ(0, event_.wait(0));
}

TEST_F(EventTest, DeadlineCarriesIntoSecondsAndTakesTheArgumentAsUnsigned) {
    osSystemCalls.getTimeOfDay = [](struct timeval* now) { return *now = fakeNow, 0; };
    osSystemCalls.condTimedWait = [](pthread_cond_t*, pthread_mutex_t*, const struct timespec* at) {
        deadlines.push_back(*at);
        return ETIMEDOUT;
    };
    const time_t kMax = std::numeric_limits<time_t>::max();
    struct Case {
        time_t seconds;
        long microseconds;
        int milliseconds;
        time_t deadlineSeconds;
        long deadlineNanoseconds;
    } const cases[] = {
        {1000, 800000, 1500, 1002, 300000000},
        {1000, 0, 0, 1000, 0},
        {1000, 999999, 1, 1001, 999000},
        {1000, 0, 999, 1000, 999000000},
        {1000, 250000, -1, 1000 + 4294967, 545000000},  // 4294967295 ms, about 49.7 days
        {1000, 500000, 2147483647, 1000 + 2147484, 147000000},
        {kMax - 10, 0, -1, kMax, 999999999},  // held at the end of time_t
    };
    for (const Case& c : cases) {
        deadlines.clear();
        fakeNow.tv_sec = c.seconds;
        fakeNow.tv_usec = c.microseconds;
        EXPECT_EQ(0, event_.wait(c.milliseconds));
        ASSERT_EQ(1u, deadlines.size()) << c.milliseconds;
        EXPECT_EQ(c.deadlineSeconds, deadlines[0].tv_sec) << c.milliseconds;
        EXPECT_EQ(c.deadlineNanoseconds, deadlines[0].tv_nsec) << c.milliseconds;
    }
}

TEST_F(EventTest, SetReleasesExactlyOneOfTwoTimedWaiters) {
    osSystemCalls.condTimedWait = CountedTimedWait;
    std::atomic<int> released{0}, results{0};
    auto wait = [&] {
        results += event_.wait(600000);
        ++released;
    };
    std::thread first(wait), second(wait);
    // The counter moves with the mutex held, so a set after it finds both asleep.
    ASSERT_TRUE(WaitUntil([] { return timedWaitCalls == 2; }));
    event_.set();
    ASSERT_TRUE(WaitUntil([&] { return released >= 1; }));
    std::this_thread::sleep_for(ostest::kQuiet);
    EXPECT_EQ(1, released) << "one signal, not a broadcast";
    event_.set();
    Within("join the waiters", [&] {
        first.join();
        second.join();
    });
    EXPECT_EQ(2, results);
}

TEST_F(EventTest, SpuriousWakeUpsAndInterruptionsEndNeitherWait) {
    osSystemCalls.condWait = [](pthread_cond_t* cond, pthread_mutex_t* mutex) {
        int call = ++waitCalls;
        return call == 1 ? 0 : call == 2 ? EINTR : kRealOsSystemCalls.condWait(cond, mutex);
    };
    osSystemCalls.condTimedWait = SpuriousTimedWait;
    std::atomic<bool> returned{false};
    std::thread waiter([&] {
        event_.wait();
        returned = true;
    });
    ASSERT_TRUE(WaitUntil([] { return waitCalls == 3; }));
    EXPECT_FALSE(returned);
    event_.set();
    Within("join the waiter", [&] { waiter.join(); });
    EXPECT_EQ(3, waitCalls);

    event_.reset();
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, event_.wait(200));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(199));
    ASSERT_EQ(3u, deadlines.size());
    for (const struct timespec& at : deadlines) {
        EXPECT_EQ(deadlines[0].tv_sec, at.tv_sec);
        EXPECT_EQ(deadlines[0].tv_nsec, at.tv_nsec);
    }
}

TEST_F(EventTest, OtherErrorsEndTheWait) {
    osSystemCalls.condWait = [](pthread_cond_t*, pthread_mutex_t*) { return ++waitCalls, EINVAL; };
    osSystemCalls.condTimedWait = [](pthread_cond_t*, pthread_mutex_t*, const struct timespec*) {
        return ++timedWaitCalls, EINVAL;
    };
    Within("waits that fail", [&] {
        event_.wait();
        EXPECT_EQ(0, event_.wait(600000));
    });
    EXPECT_EQ(1, waitCalls);
    EXPECT_EQ(1, timedWaitCalls);
}

}  // namespace
