// The lock within one process, on names of the test's own; several processes meet in tests/stress.
#include "msplatform/mutex.h"

#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/sem.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "support/support.h"

namespace {

using std::chrono::milliseconds;

const auto Value = [](int id) { return ::semctl(id, 0, GETVAL); };  // -1 once the set is gone

struct Section {
    std::atomic<int> inside{0}, overlaps{0};
    std::atomic<pthread_t> last{};  // the thread that started last
    std::future<void> Pass(Mutex& m) {
        return std::async(std::launch::async, [&] {
            last = ::pthread_self();
            m.lock();
            overlaps += inside.exchange(1);
            std::this_thread::sleep_for(milliseconds(2));
            inside = 0;
            m.unlock();
        });
    }
};
bool Within(std::future<void>& done, int ms) {
    return done.wait_for(milliseconds(ms)) == std::future_status::ready;
}

// The key is the byte sum (bytes 0 to 255) times 99, so an anagram shares the set. It starts free, and unlock
// never raises it above 1. No name, or an empty one, gets a private set that starts free.
TEST(Mutex, KeyFirstValueAndUnlock) {
    const std::string name = msptest::LockName("\xff\x80mutex.key");
    Mutex m(name.c_str()), anagram(std::string(name.rbegin(), name.rend()).c_str());
    const int id = m.getid();
    ASSERT_GT(id, 0);
    EXPECT_EQ(id, anagram.getid());
    EXPECT_EQ(id, ::semget(msptest::LockKey(name), 0, 0));
    std::string values = std::to_string(Value(id));
    m.lock();
    values += std::to_string(Value(id));
    for (int i = 0; i < 2; ++i, values += std::to_string(Value(id))) anagram.unlock();
    EXPECT_EQ("1011", values);
    Mutex a, b(""), c(nullptr);
    for (Mutex* p : {&a, &b, &c}) EXPECT_TRUE(p->getid() > 0 && Value(p->getid()) == 1);
}

// In a fresh IPC namespace the first set gets the id 0, which counts as none: it is spent and another made.
// Where no set can be had, the object is inert: lock returns at once.
TEST(Mutex, FirstIdOfAFreshSystemIsSpentAndAnInertLockDoesNotBlock) {
    const auto child = [] {
        if (::unshare(CLONE_NEWIPC) != 0) return 77;
        msptest::WriteFile("/proc/sys/kernel/sem", "250 32000 32 1");  // room for one set
        Mutex m("mutex.fresh"), inert("mutex.inert");
        inert.lock();
        return m.getid() > 0 && Value(m.getid()) == 1 && inert.getid() <= 0 ? 0 : 1;
    };
    const int rc = msptest::RunChild(child, 30000);
    if (rc == 77) GTEST_SKIP() << "needs a new IPC namespace";
    EXPECT_EQ(0, rc);
}

// While a holder keeps the set, its waiters go on neither at a signal nor after the grace for never freed
// sets, and the destructor of another object waits half a second before it removes the set all the same.
// Then the waiters attach again by the name. A set at 0 on which no semop ever succeeded (its maker died
// before freeing it) is removed after the grace and made again. All objects of the name end on one set.
TEST(Mutex, RemovedAndNeverFreedSetsAreFollowedByTheNameAndAHeldOneIsNot) {
    const std::string name = msptest::LockName("mutex.follow");
    Mutex holder(name.c_str()), waiters(name.c_str());
    Mutex* owner = new Mutex(name.c_str());
    holder.lock();
    Section section;
    ::signal(SIGUSR1, [](int) {});
    auto removal = std::async(std::launch::async, [&] { delete owner; });
    auto a = section.Pass(waiters), b = section.Pass(waiters);
    for (int i = 0; i < 4; ++i) {
        std::this_thread::sleep_for(milliseconds(90));
        if (pthread_t waiter = section.last) ::pthread_kill(waiter, SIGUSR1);
    }
    EXPECT_FALSE(Within(removal, 0)) << "the set went while it was held";
    EXPECT_FALSE(Within(a, 0) || Within(b, 0)) << "a signal, or the grace, let a waiter through";
    EXPECT_TRUE(Within(removal, 1500)) << "the removal waits for ever";
    EXPECT_TRUE(Within(a, 30000) && Within(b, 30000)) << "the waiters stay on a removed set";
    ::signal(SIGUSR1, SIG_DFL);

    // The holder, still on the removed set, and the waiters meet a set that was made and never freed.
    ::semctl(waiters.getid(), 0, IPC_RMID);
    const int unfreed = ::semget(msptest::LockKey(name), 1, IPC_CREAT | IPC_EXCL | 0660);
    const auto start = std::chrono::steady_clock::now();
    auto c = section.Pass(holder), d = section.Pass(waiters);
    EXPECT_TRUE(Within(c, 30000) && Within(d, 30000)) << "a set never freed blocks for ever";
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_TRUE(waited >= milliseconds(200) && waited < milliseconds(1000));
    EXPECT_EQ(-1, Value(unfreed)) << "the set never freed is still there";
    ::semctl(unfreed, 0, IPC_RMID);  // lets the threads end after a fault
    EXPECT_EQ(0, section.overlaps.load());
    EXPECT_TRUE(holder.getid() == waiters.getid() && holder.getid() == Mutex(name.c_str()).getid());
}

}  // namespace
