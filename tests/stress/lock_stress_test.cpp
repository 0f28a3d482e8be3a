// A process killed with SIGKILL while it holds one of the four locks of the library: the processes waiting
// for that lock go on at once, since the kernel undoes what the dead holder took.
#include "msplatform/mutex.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "stress/stress.h"
#include "support/support.h"

namespace {

constexpr int kWaiters = 3;
constexpr int kChildMs = 60000;
constexpr long long kGoOnMs = 1000;

// A child's Mutex is never destroyed: its destructor would remove the set for every process.
Mutex* Attach(const char* name) {
    static std::vector<Mutex*> kept;
    kept.push_back(new Mutex(name));
    return kept.back();
}

bool ReadByte(int fd, int timeoutMs) {
    pollfd p = {fd, POLLIN, 0};
    char c;
    return ::poll(&p, 1, timeoutMs) == 1 && ::read(fd, &c, 1) == 1;
}

void WriteTime(int fd) {
    const long long now = stress::NowMs();
    if (::write(fd, &now, sizeof now) != sizeof now) _exit(3);
}

class KilledHolder : public ::testing::TestWithParam<const char*> {};

TEST_P(KilledHolder, WaitersGoOnWithinASecond) {
    const char* name = GetParam();
    const int rounds = stress::Scaled(1, 20);
    for (int round = 0; round < rounds; ++round) {
        int held[2], waiting[2], acquired[2];
        ASSERT_EQ(0, ::pipe(held));
        ASSERT_EQ(0, ::pipe(waiting));
        ASSERT_EQ(0, ::pipe(acquired));
        pid_t holder = msptest::StartChild([&] {
            Mutex* m = Attach(name);
            if (m->getid() <= 0) return 1;
            m->lock();
            if (::write(held[1], "h", 1) != 1) return 2;
            for (;;) ::pause();
        });
        ASSERT_TRUE(ReadByte(held[0], kChildMs)) << name;
        std::vector<pid_t> waiters;
        for (int w = 0; w < kWaiters; ++w) {
            waiters.push_back(msptest::StartChild([&] {
                Mutex* m = Attach(name);
                if (m->getid() <= 0) return 1;
                if (::write(waiting[1], "w", 1) != 1) return 2;
                m->lock();
                WriteTime(acquired[1]);
                m->unlock();
                return 0;
            }));
        }
        for (int w = 0; w < kWaiters; ++w) ASSERT_TRUE(ReadByte(waiting[0], kChildMs)) << name;
        // While the holder lives, nobody gets through.
        pollfd p = {acquired[0], POLLIN, 0};
        EXPECT_EQ(0, ::poll(&p, 1, 200)) << name;

        const long long killedAt = stress::NowMs();
        ::kill(holder, SIGKILL);
        EXPECT_EQ(msptest::kChildSignalled, msptest::WaitChild(holder, kChildMs));
        long long latest = 0;
        for (int w = 0; w < kWaiters; ++w) {
            long long at = 0;
            ASSERT_EQ(1, ::poll(&p, 1, kChildMs)) << name;
            ASSERT_EQ(static_cast<ssize_t>(sizeof at), ::read(acquired[0], &at, sizeof at));
            latest = at > latest ? at : latest;
        }
        for (pid_t pid : waiters) EXPECT_EQ(0, msptest::WaitChild(pid, kChildMs)) << name;
        EXPECT_LT(latest - killedAt, kGoOnMs) << name;
        if (round == 0)
            printf("%s: %d waiters through %lld ms after the kill\n", name, kWaiters, latest - killedAt);
        for (int fd : {held[0], held[1], waiting[0], waiting[1], acquired[0], acquired[1]}) ::close(fd);
    }
}

INSTANTIATE_TEST_SUITE_P(FourLocks, KilledHolder,
                         ::testing::Values("cfgCtrlMgr", "eventLogger", "languageReader", "MediaMapper"),
                         [](const ::testing::TestParamInfo<const char*>& info) {
                             return std::string(info.param);
                         });

}  // namespace
