// The lock within one process, on names of the test's own; several processes meet in tests/stress.
#include "msplatform/mutex.h"

#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "support/support.h"

namespace {

using std::chrono::milliseconds;
constexpr int kWaitMs = 30000;

int Value(int id) {
    return ::semctl(id, 0, GETVAL);
}

// The key of a set, -1 once it is gone.
key_t KeyOfSet(int id) {
    struct semid_ds ds;
    return ::semctl(id, 0, IPC_STAT, &ds) == 0 ? ds.sem_perm.__key : -1;
}

std::future<void> Start(const std::function<void()>& body) {
    return std::async(std::launch::async, body);
}
bool Within(std::future<void>& done, int ms) {
    return done.wait_for(milliseconds(ms)) == std::future_status::ready;
}

// A critical section that counts the holders it finds inside.
struct Section {
    std::atomic<int> inside{0}, overlaps{0};
    void Pass(Mutex& m) {
        m.lock();
        overlaps += inside.exchange(1);
        std::this_thread::sleep_for(milliseconds(2));
        inside = 0;
        m.unlock();
    }
};

// The key is the byte sum (bytes 0 to 255) times 99, so an anagram shares the set. It starts free, and unlock
// never raises it above 1. No name, or an empty one, gets a private set that starts free.
TEST(Mutex, KeyFirstValueAndUnlock) {
    const std::string name = msptest::LockName("\xff\x80mutex.key");
    Mutex m(name.c_str()), anagram(std::string(name.rbegin(), name.rend()).c_str());
    const int id = m.getid();
    ASSERT_GT(id, 0);
    EXPECT_EQ(id, anagram.getid());
    EXPECT_EQ(msptest::LockKey(name), KeyOfSet(id));
    std::string values = std::to_string(Value(id));
    m.lock();
    values += std::to_string(Value(id));
    for (int i = 0; i < 2; ++i, values += std::to_string(Value(id))) anagram.unlock();
    EXPECT_EQ("1011", values);
    Mutex a, b(""), c(nullptr);
    for (Mutex* p : {&a, &b, &c}) {
        ASSERT_GT(p->getid(), 0);
        EXPECT_EQ(1, Value(p->getid()));
        p->lock();  // would block for ever on a set left at 0
        p->unlock();
    }
    EXPECT_TRUE(a.getid() != b.getid() && b.getid() != c.getid() && a.getid() != c.getid());
}

// In a fresh IPC namespace the first set gets the id 0, which counts as none: it is spent and another made.
// Where no set can be had, the object is inert: lock returns at once.
TEST(Mutex, FirstIdOfAFreshSystemIsSpentAndAnInertLockDoesNotBlock) {
    const int rc = msptest::RunChild(
        [] {
            if (::unshare(CLONE_NEWIPC) != 0) return 77;
            Mutex m("mutex.fresh");
            if (m.getid() <= 0 || Value(m.getid()) != 1) return 1;
            msptest::WriteFile("/proc/sys/kernel/sem", "250 32000 32 1");  // room for m's set alone
            Mutex inert("mutex.inert");
            inert.lock();
            inert.lock();
            inert.unlock();
            return inert.getid() <= 0 && Value(m.getid()) == 1 ? 0 : 2;
        },
        kWaitMs);
    if (rc == 77) GTEST_SKIP() << "needs a new IPC namespace";
    EXPECT_EQ(0, rc);
}

// The destructor takes the set before removing it; a holder of its own process that never gives it back is
// waited for half a second and loses it all the same. The threads that waited attach again by the name, to
// one new set that excludes them, the object left on the removed set and objects built later.
TEST(Mutex, RemovalWaitsBoundedAndWaitersFollowTheName) {
    const std::string name = msptest::LockName("mutex.follow");
    Mutex holder(name.c_str()), waiters(name.c_str());
    Mutex* owner = new Mutex(name.c_str());
    const int first = owner->getid();
    holder.lock();
    Section section;
    {
        auto removal = Start([&] { delete owner; });
        auto a = Start([&] { section.Pass(waiters); }), b = Start([&] { section.Pass(waiters); });
        EXPECT_FALSE(Within(removal, 300)) << "the set went while it was held";
        EXPECT_TRUE(Within(removal, 1500)) << "the removal waits for ever";
    }
    EXPECT_EQ(0, section.overlaps.load());
    const int second = waiters.getid();
    EXPECT_EQ(-1, KeyOfSet(first));
    EXPECT_EQ(msptest::LockKey(name), KeyOfSet(second));
    waiters.lock();
    holder.unlock();  // on the removed set: the new one stays held
    EXPECT_EQ(0, Value(second));
    auto late = Start([&] { holder.lock(); });
    EXPECT_FALSE(Within(late, 100));
    waiters.unlock();
    EXPECT_TRUE(Within(late, kWaitMs));
    holder.unlock();
    EXPECT_EQ(second, holder.getid());
    EXPECT_EQ(second, Mutex(name.c_str()).getid());
}

void Ignore(int) {}

// A waiter on a held set goes on neither at a signal nor after the grace for never freed sets. A set at 0 on
// which no semop ever succeeded is one whose maker died before freeing it: the waiters remove it after the
// grace, one of them makes it again, and they exclude each other there.
TEST(Mutex, NeverFreedSetIsMadeAgainAndAHeldOneIsNot) {
    const std::string name = msptest::LockName("mutex.unfreed");
    {
        struct sigaction ignore = {}, before;
        ignore.sa_handler = Ignore;
        ::sigaction(SIGUSR1, &ignore, &before);
        Mutex a(name.c_str()), b(name.c_str());
        a.lock();
        std::atomic<pthread_t> waiter{};
        auto waiting = Start([&] {
            waiter = ::pthread_self();
            b.lock();
        });
        for (int i = 0; i < 7; ++i) {
            std::this_thread::sleep_for(milliseconds(100));
            ::pthread_kill(waiter, SIGUSR1);
        }
        EXPECT_FALSE(Within(waiting, 0)) << "a signal, or the grace, let the waiter through";
        a.unlock();
        EXPECT_TRUE(Within(waiting, kWaitMs));
        b.unlock();
        ::sigaction(SIGUSR1, &before, nullptr);
    }
    const int unfreed = ::semget(msptest::LockKey(name), 1, IPC_CREAT | IPC_EXCL | 0660);
    ASSERT_GT(unfreed, 0);
    Mutex c(name.c_str()), d(name.c_str());
    Section section;
    const auto start = std::chrono::steady_clock::now();
    {
        auto first = Start([&] { section.Pass(c); }), second = Start([&] { section.Pass(d); });
        const bool through = Within(first, kWaitMs) && Within(second, kWaitMs);
        EXPECT_TRUE(through) << "a set never freed blocks for ever";
        if (!through) ::semctl(unfreed, 0, SETVAL, 2);  // lets the threads end
    }
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_TRUE(waited >= milliseconds(200) && waited < milliseconds(1000));
    EXPECT_EQ(0, section.overlaps.load());
    EXPECT_EQ(-1, KeyOfSet(unfreed));
    EXPECT_EQ(c.getid(), d.getid());
}

}  // namespace
