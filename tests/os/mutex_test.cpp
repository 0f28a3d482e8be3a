#include "msplatform/mutex.h"

#include <sched.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/support.h"

namespace {

constexpr int kChildMs = 30000;
using msptest::Pipe;

// Keys clear of the services' four semaphores; the pid keeps concurrent runs apart.
std::string TestName(const std::string& tag) {
    return "mspcfg.mutex." + tag + "." + std::to_string(::getpid());
}

key_t KeyOf(const std::string& name) {
    unsigned int sum = 0;
    for (unsigned char c : name) sum += c;
    return static_cast<key_t>(sum * 99u);
}

int Value(int id) {
    return ::semctl(id, 0, GETVAL);
}

// The key of a set, -1 once it is gone.
key_t KeyOfSet(int id) {
    struct semid_ds ds;
    return ::semctl(id, 0, IPC_STAT, &ds) == 0 ? ds.sem_perm.__key : -1;
}

void RemoveKey(key_t key) {
    int id = ::semget(key, 1, 0);
    if (id >= 0) ::semctl(id, 0, IPC_RMID);
}

// Never destroyed: a child's destructor would remove the parent's set.
Mutex* ChildMutex(const std::string& name) {
    return new Mutex(name.c_str());
}

TEST(Mutex, NamedSetHasTheByteSumKeyStartsFreeAndUnlockNeverRaisesAboveOne) {
    EXPECT_EQ(static_cast<key_t>((0xff + 0xfe + 0x80) * 99), KeyOf("\xff\xfe\x80"));
    for (const std::string& name :
         {TestName("key"), std::string("\xff\xfe\x80mspcfg.high"), std::string("Zq")}) {
        RemoveKey(KeyOf(name));
        Mutex m(name.c_str());
        ASSERT_GT(m.getid(), 0) << name;
        EXPECT_EQ(KeyOf(name), KeyOfSet(m.getid())) << name;
        int values[4];
        values[0] = Value(m.getid());
        m.lock();
        values[1] = Value(m.getid());
        m.unlock();
        values[2] = Value(m.getid());
        m.unlock();
        values[3] = Value(m.getid());
        EXPECT_EQ((std::vector<int>{1, 0, 1, 1}), std::vector<int>(values, values + 4)) << name;
    }
}

TEST(Mutex, UnnamedAndEmptyNamedLocksArePrivateAndFree) {
    Mutex a, b, c(""), d(nullptr);
    for (Mutex* m : {&a, &b, &c, &d}) {
        ASSERT_GT(m->getid(), 0);
        EXPECT_EQ(1, Value(m->getid()));
        m->lock();  // would block for ever on a set left at 0
        m->unlock();
    }
    EXPECT_EQ(4u, (std::set<int>{a.getid(), b.getid(), c.getid(), d.getid()}).size());
}

// On a fresh system the first set gets the id 0, which counts as none: the create spends it and makes
// another, instead of leaving every process of the machine inert.
TEST(Mutex, FirstIdOfAFreshSystemIsSpent) {
    const int rc = msptest::RunChild(
        [] {
            if (::unshare(CLONE_NEWIPC) != 0) return 77;
            Mutex m("mspcfg.mutex.fresh");
            return m.getid() > 0 && Value(m.getid()) == 1 ? 0 : 1;
        },
        kChildMs);
    if (rc == 77) GTEST_SKIP() << "needs a new IPC namespace";
    EXPECT_EQ(0, rc);
}

void IgnoreSignal(int) {}

// A waiter goes on neither at a signal nor before the holder is gone; a holder killed with SIGKILL lets it
// on.
TEST(Mutex, WaiterPassesNeitherAtASignalNorBeforeTheKilledHoldersEnd) {
    std::string name = TestName("held");
    RemoveKey(KeyOf(name));
    Mutex m(name.c_str());
    ASSERT_GT(m.getid(), 0);
    Pipe holding, ready, locked;
    pid_t holder = msptest::StartChild([&] {
        ChildMutex(name)->lock();
        holding.Send();
        for (;;) ::pause();
        return 0;
    });
    ASSERT_TRUE(holding.Wait(kChildMs));
    pid_t waiter = msptest::StartChild([&] {
        struct sigaction sa = {};
        sa.sa_handler = IgnoreSignal;
        ::sigaction(SIGUSR1, &sa, nullptr);
        Mutex* other = ChildMutex(name);
        ready.Send();
        other->lock();
        locked.Send();
        other->unlock();
        return 0;
    });
    ASSERT_TRUE(ready.Wait(kChildMs));
    for (int i = 0; i < 5; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        ::kill(waiter, SIGUSR1);
    }
    EXPECT_FALSE(locked.Wait(300)) << "a signal let the waiting process through";
    ::kill(holder, SIGKILL);
    EXPECT_EQ(msptest::kChildSignalled, msptest::WaitChild(holder, kChildMs));
    EXPECT_TRUE(locked.Wait(kChildMs));
    EXPECT_EQ(0, msptest::WaitChild(waiter, kChildMs));
    EXPECT_EQ(1, Value(m.getid()));
}

// Runs `body` in a thread and tells when it has returned.
class Background {
public:
    explicit Background(std::function<void()> body)
        : thread_([this, body] {
              body();
              done_ = true;
          }) {}
    ~Background() { thread_.join(); }
    // True once the body returned within `ms`.
    bool Within(int ms) const {
        for (auto end = Clock::now() + std::chrono::milliseconds(ms); !done_ && Clock::now() < end;)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        return done_;
    }

private:
    using Clock = std::chrono::steady_clock;
    std::atomic<bool> done_{false};
    std::thread thread_;
};

// A critical section that counts the holders it finds inside.
struct Section {
    std::atomic<int> inside{0}, overlaps{0};
    void Pass(Mutex& m) {
        m.lock();
        overlaps += inside.exchange(1);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        inside = 0;
        m.unlock();
    }
};

// The destructor takes the set before removing it, so a holder is never pulled out from under; the threads
// that waited behind it attach again by the name, to one new set that excludes them, the objects left on the
// old id and objects built later.
TEST(Mutex, RemovalWaitsForTheHolderAndWaitersFollowTheName) {
    const std::string name = TestName("follow");
    RemoveKey(KeyOf(name));
    Mutex holder(name.c_str()), waiters(name.c_str());
    auto owner = std::make_unique<Mutex>(name.c_str());
    const int first = owner->getid();
    ASSERT_GT(first, 0);
    Section section;
    holder.lock();
    section.inside = 1;
    {
        Background removal([&] { owner.reset(); });
        std::this_thread::sleep_for(std::chrono::milliseconds(50));  // the removal queues first
        Background a([&] { section.Pass(waiters); }), b([&] { section.Pass(waiters); });
        EXPECT_FALSE(removal.Within(100)) << "the set went while it was held";
        section.inside = 0;
        holder.unlock();
        EXPECT_TRUE(removal.Within(kChildMs));
    }
    EXPECT_EQ(0, section.overlaps.load());
    EXPECT_EQ(-1, KeyOfSet(first));
    const int second = waiters.getid();
    ASSERT_GT(second, 0);
    EXPECT_NE(first, second);
    EXPECT_EQ(KeyOf(name), KeyOfSet(second));
    EXPECT_EQ(1, Value(second));
    // The object left on the removed set: its unlock leaves the new one alone, its lock follows.
    waiters.lock();
    holder.unlock();
    EXPECT_EQ(0, Value(second));
    {
        Background late([&] { section.Pass(holder); });
        EXPECT_FALSE(late.Within(100));
        waiters.unlock();
        EXPECT_TRUE(late.Within(kChildMs));
    }
    EXPECT_EQ(second, holder.getid());
    Mutex later(name.c_str());
    EXPECT_EQ(second, later.getid());
}

// A set at 0 on which no semop ever succeeded is the one a creator killed before its SETVAL leaves. The
// waiters remove it after the grace, one of them makes it again, and they exclude each other there. The
// creator, had it only stalled, finds its SETVAL refused. A held set is never taken for such a one.
TEST(Mutex, NeverFreedSetIsMadeAgainAndAHeldOneIsNot) {
    {
        const std::string name = TestName("heldlong");
        RemoveKey(KeyOf(name));
        Mutex a(name.c_str()), b(name.c_str());
        a.lock();
        Background waiter([&] { b.lock(); });
        EXPECT_FALSE(waiter.Within(700)) << "a held set was taken for a never freed one";
        a.unlock();
        EXPECT_TRUE(waiter.Within(kChildMs));
        b.unlock();
        EXPECT_EQ(a.getid(), b.getid());
    }
    const std::string name = TestName("unfreed");
    RemoveKey(KeyOf(name));
    const int unfreed = ::semget(KeyOf(name), 1, IPC_CREAT | IPC_EXCL | 0660);
    ASSERT_GT(unfreed, 0);
    Mutex c(name.c_str()), d(name.c_str());
    ASSERT_EQ(unfreed, c.getid());
    Section section;
    const auto start = std::chrono::steady_clock::now();
    {
        Background first([&] { section.Pass(c); }), second([&] { section.Pass(d); });
        const bool through = first.Within(kChildMs) && second.Within(kChildMs);
        EXPECT_TRUE(through) << "a set never freed blocks for ever";
        if (!through) ::semctl(unfreed, 0, SETVAL, 2);  // lets the threads end
    }
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(200));
    EXPECT_LT(waited, std::chrono::milliseconds(1000));
    EXPECT_EQ(0, section.overlaps.load());
    EXPECT_EQ(-1, KeyOfSet(unfreed));
    EXPECT_EQ(c.getid(), d.getid());
    c.lock();
    EXPECT_NE(0, ::semctl(unfreed, 0, SETVAL, 1)) << "a stalled creator freed a set";
    EXPECT_EQ(0, Value(c.getid()));
    c.unlock();
}

TEST(Mutex, InertObjectNeitherBlocksNorTouchesTheSet) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to run a child as another user";
    std::string name = TestName("inert");
    RemoveKey(KeyOf(name));
    const int id = ::semget(KeyOf(name), 1, IPC_CREAT | 0600);  // held, and out of another user's reach
    ASSERT_GT(id, 0);
    ASSERT_EQ(0, ::semctl(id, 0, SETVAL, 0));
    EXPECT_EQ(0, msptest::RunChild(
                     [&] {
                         if (::setgid(65534) != 0 || ::setuid(65534) != 0) return 10;
                         Mutex m(name.c_str());
                         m.lock();
                         m.unlock();
                         return m.getid() > 0 ? 1 : 0;
                     },
                     kChildMs));
    EXPECT_EQ(0, Value(id)) << "the inert destructor left the set alone";
    ::semctl(id, 0, IPC_RMID);
}

// Processes that find no set at once must agree on one lock, and no value reset may free a held lock.
TEST(Mutex, ProcessesStartingTogetherExcludeEachOther) {
    msptest::TempDir dir;
    const std::string counter = dir.file("counter");
    constexpr int kChildren = 6, kRounds = 40;
    for (int attempt = 0; attempt < 3; ++attempt) {
        std::string name = TestName("race" + std::to_string(attempt));
        RemoveKey(KeyOf(name));
        msptest::WriteFile(counter, "0");
        Pipe go;
        std::vector<pid_t> children;
        for (int c = 0; c < kChildren; ++c) {
            children.push_back(msptest::StartChild([&] {
                if (!go.Wait(kChildMs)) return 2;
                Mutex* m = ChildMutex(name);
                for (int r = 0; r < kRounds; ++r) {
                    m->lock();
                    int n = std::stoi(msptest::ReadFile(counter));
                    std::this_thread::sleep_for(std::chrono::microseconds(200));
                    msptest::WriteFile(counter, std::to_string(n + 1));
                    m->unlock();
                }
                return m->getid() > 0 ? 0 : 3;
            }));
        }
        for (int c = 0; c < kChildren; ++c) go.Send();
        for (pid_t pid : children) EXPECT_EQ(0, msptest::WaitChild(pid, 120000));
        EXPECT_EQ(std::to_string(kChildren * kRounds), msptest::ReadFile(counter));
        RemoveKey(KeyOf(name));
    }
}

}  // namespace
