#include "msplatform/event.h"

#include <errno.h>

#include <atomic>
#include <limits>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "os/osTestSupport.h"

namespace {

std::atomic<int> waitCalls{0};
std::vector<struct timespec> deadlines;
struct timeval fakeNow;

// The swapped waits answer in turn: a spurious wake-up, EINTR, then an error that ends the wait.
const int kAnswers[] = {0, EINTR, EINVAL};
const auto Scripted = [] { return kAnswers[waitCalls++ % 3]; };

// Set wakes a blocked waiter and stays set through any number of waits until reset; wait(0) on a clear event
// goes through the time-out at once. Neither a spurious wake-up nor EINTR ends a wait on a clear event or
// moves its deadline; another error ends it. The deadline carries microseconds into seconds, takes the
// argument as unsigned, and stays within time_t.
TEST(Event, SetWaitResetWakeUpsAndDeadlines) {
    SystemCallsGuard guard;
    Event event;
    msptest::Within("waits", [&] {
        EXPECT_EQ(0, event.wait(0));
        std::thread waiter([&] { event.wait(); });
        std::this_thread::sleep_for(msptest::kQuiet);
        event.set();
        waiter.join();
        for (int ms : {0, -1}) EXPECT_EQ(1, event.wait(ms));
        event.reset();
        EXPECT_EQ(0, event.isSet());
        osSystemCalls.condWait = [](pthread_cond_t*, pthread_mutex_t*) { return Scripted(); };
        osSystemCalls.condTimedWait = [](pthread_cond_t*, pthread_mutex_t*, const struct timespec* at) {
            return deadlines.push_back(*at), Scripted();
        };
        event.wait();
        EXPECT_EQ(0, event.wait(600000));
    });
    EXPECT_EQ(6, waitCalls);
    ASSERT_EQ(3u, deadlines.size());
    EXPECT_TRUE(deadlines[0].tv_sec == deadlines[2].tv_sec && deadlines[0].tv_nsec == deadlines[2].tv_nsec);

    osSystemCalls.getTimeOfDay = [](struct timeval* now) { return *now = fakeNow, 0; };
    const time_t kMax = std::numeric_limits<time_t>::max();
    const std::tuple<time_t, long, int, time_t, long> cases[] = {
        {1000, 800000, 1500, 1002, 300000000},
        {1000, 250000, -1, 1000 + 4294967, 545000000},  // 4294967295 ms, about 49.7 days
        {kMax - 10, 0, -1, kMax, 999999999},            // held at the end of time_t
    };
    for (const auto& [seconds, microseconds, milliseconds, deadlineSeconds, deadlineNanoseconds] : cases) {
        fakeNow = {seconds, microseconds};
        EXPECT_EQ(0, event.wait(milliseconds));
        EXPECT_EQ(std::make_pair(deadlineSeconds, deadlineNanoseconds),
                  std::make_pair(deadlines.back().tv_sec, deadlines.back().tv_nsec))
            << milliseconds;
    }
}

}  // namespace
