// A process killed with SIGKILL while it holds one of the library's four locks: the processes waiting for
// that lock go on at once, since the kernel undoes what the dead holder took.
#include "msplatform/mutex.h"

#include <signal.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "stress/stress.h"
#include "support/support.h"

namespace {

constexpr int kWaiters = 3, kChildMs = 60000;

class KilledHolder : public ::testing::TestWithParam<const char*> {};

TEST_P(KilledHolder, WaitersGoOnWithinASecond) {
    const char* name = GetParam();
    for (int round = 0, rounds = stress::Scaled(1, 20); round < rounds; ++round) {
        msptest::Pipe held, waiting, through;
        // A child's Mutex is never destroyed: its destructor would remove the set for every process.
        const pid_t holder = msptest::StartChild([&] {
            Mutex* m = new Mutex(name);
            if (m->getid() <= 0) return 1;
            m->lock();
            held.Send();
            for (;;) ::pause();
        });
        ASSERT_TRUE(held.Wait(kChildMs)) << name;
        std::vector<pid_t> waiters;
        for (int w = 0; w < kWaiters; ++w)
            waiters.push_back(msptest::StartChild([&] {
                Mutex* m = new Mutex(name);
                if (m->getid() <= 0) return 1;
                waiting.Send();
                m->lock();
                through.Send();
                m->unlock();
                return 0;
            }));
        for (int w = 0; w < kWaiters; ++w) ASSERT_TRUE(waiting.Wait(kChildMs)) << name;
        EXPECT_FALSE(through.Wait(200)) << name << ": a waiter got through while the holder lived";

        const long long killedAt = stress::NowMs();
        ::kill(holder, SIGKILL);
        for (int w = 0; w < kWaiters; ++w) ASSERT_TRUE(through.Wait(kChildMs)) << name;
        const long long after = stress::NowMs() - killedAt;
        EXPECT_LT(after, 1000) << name;
        EXPECT_EQ(msptest::kChildSignalled, msptest::WaitChild(holder, kChildMs));
        for (pid_t pid : waiters) EXPECT_EQ(0, msptest::WaitChild(pid, kChildMs)) << name;
        if (round == 0) printf("%s: %d waiters through %lld ms after the kill\n", name, kWaiters, after);
    }
}

INSTANTIATE_TEST_SUITE_P(FourLocks, KilledHolder,
                         ::testing::Values("cfgCtrlMgr", "eventLogger", "languageReader", "MediaMapper"),
                         [](const ::testing::TestParamInfo<const char*>& info) {
                             return std::string(info.param);
                         });

}  // namespace
