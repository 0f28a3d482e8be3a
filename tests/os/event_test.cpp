#include "msplatform/event.h"

#include <errno.h>
#include <sys/time.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <limits>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "os/osTestSupport.h"

namespace {

using ostest::kLongWait;
using ostest::kQuiet;
using ostest::SystemCallsGuard;
using ostest::Within;

// Counters and records of the swapped system calls; one test at a time uses them.
std::atomic<int> waitCalls{0};
std::atomic<int> timedWaitCalls{0};
std::vector<struct timespec> deadlines;
struct timeval fakeNow;

void ResetCounters() {
    waitCalls = 0;
    timedWaitCalls = 0;
    deadlines.clear();
}

bool WaitUntil(const std::function<bool()>& condition) {
    auto limit = std::chrono::steady_clock::now() + kLongWait;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > limit) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

TEST(Event, StaysSetThroughWaitsUntilReset) {
    Event event;
    EXPECT_EQ(0, event.isSet());
    event.set();
    EXPECT_EQ(1, event.isSet());
    Within("waits on a set event", [&] {
        event.wait();
        EXPECT_EQ(1, event.wait(0));
        EXPECT_EQ(1, event.wait(100000));
        EXPECT_EQ(1, event.wait(-1));
        event.wait();
    });
    EXPECT_EQ(1, event.isSet());
    event.set();
    EXPECT_EQ(1, event.isSet());
    event.reset();
    EXPECT_EQ(0, event.isSet());
    EXPECT_EQ(0, event.wait(0));
}

TEST(Event, WaitZeroNeverBlocks) {
    SystemCallsGuard guard;
    ResetCounters();
    osSystemCalls.condTimedWait = [](pthread_cond_t* cond, pthread_mutex_t* mutex,
                                     const struct timespec* at) {
        ++timedWaitCalls;
        return kRealOsSystemCalls.condTimedWait(cond, mutex, at);
    };
    Event event;
    Within("wait(0) on a clear event", [&] { EXPECT_EQ(0, event.wait(0)); });
    EXPECT_EQ(1, timedWaitCalls) << "a clear event goes through the time-out";
    event.set();
    Within("wait(0) on a set event", [&] { EXPECT_EQ(1, event.wait(0)); });
    EXPECT_EQ(1, timedWaitCalls) << "a set event does not wait at all";
}

TEST(Event, DeadlineCarriesIntoSecondsAndTakesTheArgumentAsUnsigned) {
    SystemCallsGuard guard;
    osSystemCalls.getTimeOfDay = [](struct timeval* now) {
        *now = fakeNow;
        return 0;
    };
    osSystemCalls.condTimedWait = [](pthread_cond_t*, pthread_mutex_t*, const struct timespec* at) {
        ++timedWaitCalls;
        deadlines.push_back(*at);
        return ETIMEDOUT;
    };
    struct Case {
        time_t seconds;
        long microseconds;
        int milliseconds;
        time_t deadlineSeconds;
        long deadlineNanoseconds;
    };
    const time_t kMax = std::numeric_limits<time_t>::max();
    const Case cases[] = {
        {1000, 800000, 1500, 1002, 300000000},
        {1000, 0, 0, 1000, 0},
        {1000, 999999, 1, 1001, 999000},
        {1000, 0, 999, 1000, 999000000},
        {1000, 250000, -1, 1000 + 4294967, 545000000},  // 4294967295 ms, about 49.7 days
        {1000, 500000, 2147483647, 1000 + 2147484, 147000000},
        {kMax - 10, 0, -1, kMax, 999999999},  // held at the end of time_t
    };
    for (const Case& c : cases) {
        ResetCounters();
        fakeNow.tv_sec = c.seconds;
        fakeNow.tv_usec = c.microseconds;
        Event event;
        EXPECT_EQ(0, event.wait(c.milliseconds));
        ASSERT_EQ(1, timedWaitCalls) << c.milliseconds;
        EXPECT_EQ(c.deadlineSeconds, deadlines[0].tv_sec) << c.milliseconds;
        EXPECT_EQ(c.deadlineNanoseconds, deadlines[0].tv_nsec) << c.milliseconds;
    }
}

TEST(Event, SetWakesATimedWaiter) {
    SystemCallsGuard guard;
    ResetCounters();
    osSystemCalls.condTimedWait = [](pthread_cond_t* cond, pthread_mutex_t* mutex,
                                     const struct timespec* at) {
        ++timedWaitCalls;
        return kRealOsSystemCalls.condTimedWait(cond, mutex, at);
    };
    Event event;
    std::atomic<int> result{-1};
    std::thread waiter([&] { result = event.wait(600000); });
    ASSERT_TRUE(WaitUntil([] { return timedWaitCalls >= 1; }));
    event.set();
    Within("join the waiter", [&] { waiter.join(); });
    EXPECT_EQ(1, result);
    EXPECT_EQ(1, event.isSet());
}

TEST(Event, SetReleasesExactlyOneOfTwoWaiters) {
    SystemCallsGuard guard;
    ResetCounters();
    osSystemCalls.condWait = [](pthread_cond_t* cond, pthread_mutex_t* mutex) {
        ++waitCalls;
        return kRealOsSystemCalls.condWait(cond, mutex);
    };
    Event event;
    std::atomic<int> released{0};
    std::thread first([&] {
        event.wait();
        ++released;
    });
    std::thread second([&] {
        event.wait();
        ++released;
    });
    // The counter moves with the mutex held, so a set after it finds both asleep.
    ASSERT_TRUE(WaitUntil([] { return waitCalls == 2; }));
    event.set();
    ASSERT_TRUE(WaitUntil([&] { return released >= 1; }));
    std::this_thread::sleep_for(kQuiet);
    EXPECT_EQ(1, released) << "one signal, not a broadcast";
    event.set();
    Within("join the waiters", [&] {
        first.join();
        second.join();
    });
    EXPECT_EQ(2, released);
}

TEST(Event, SpuriousWakeUpsAndInterruptionsDoNotEndTheWait) {
    SystemCallsGuard guard;
    ResetCounters();
    // The first two wake-ups come at once, with the event clear: one spurious, one interrupted.
    osSystemCalls.condWait = [](pthread_cond_t* cond, pthread_mutex_t* mutex) {
        int call = ++waitCalls;
        if (call == 1) return 0;
        if (call == 2) return EINTR;
        return kRealOsSystemCalls.condWait(cond, mutex);
    };
    Event event;
    std::atomic<bool> returned{false};
    std::thread waiter([&] {
        event.wait();
        returned = true;
    });
    ASSERT_TRUE(WaitUntil([] { return waitCalls == 3; }));
    EXPECT_FALSE(returned);
    event.set();
    Within("join the waiter", [&] { waiter.join(); });
    EXPECT_EQ(3, waitCalls);
}

TEST(Event, SpuriousWakeUpsKeepTheTimedWaitsDeadline) {
    SystemCallsGuard guard;
    ResetCounters();
    osSystemCalls.condTimedWait = [](pthread_cond_t* cond, pthread_mutex_t* mutex,
                                     const struct timespec* at) {
        int call = ++timedWaitCalls;
        deadlines.push_back(*at);
        if (call == 1) return 0;
        if (call == 2) return EINTR;
        return kRealOsSystemCalls.condTimedWait(cond, mutex, at);
    };
    Event event;
    struct timeval start, end;
    gettimeofday(&start, nullptr);
    EXPECT_EQ(0, event.wait(200));
    gettimeofday(&end, nullptr);
    ASSERT_EQ(3, timedWaitCalls);
    for (const struct timespec& at : deadlines) {
        EXPECT_EQ(deadlines[0].tv_sec, at.tv_sec);
        EXPECT_EQ(deadlines[0].tv_nsec, at.tv_nsec);
    }
    long elapsedMs = (end.tv_sec - start.tv_sec) * 1000L + (end.tv_usec - start.tv_usec) / 1000;
    EXPECT_GE(elapsedMs, 199);
}

TEST(Event, OtherErrorsEndTheWait) {
    SystemCallsGuard guard;
    ResetCounters();
    osSystemCalls.condWait = [](pthread_cond_t*, pthread_mutex_t*) {
        ++waitCalls;
        return EINVAL;
    };
    osSystemCalls.condTimedWait = [](pthread_cond_t*, pthread_mutex_t*, const struct timespec*) {
        ++timedWaitCalls;
        return EINVAL;
    };
    Event event;
    Within("waits that fail", [&] {
        event.wait();
        EXPECT_EQ(0, event.wait(600000));
    });
    EXPECT_EQ(1, waitCalls);
    EXPECT_EQ(1, timedWaitCalls);
}

}  // namespace
