#include "msplatform/mutex.h"

#include <errno.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/support.h"

namespace {

constexpr int kChildMs = 30000;

// Names of the tests' own, whose keys stay clear of the services' four semaphores; the pid keeps runs of
// this binary apart from each other's leftovers.
std::string TestName(const char* tag) {
    return std::string("mspcfg.mutex.") + tag + "." + std::to_string(::getpid());
}

key_t KeyOf(const std::string& name) {
    unsigned int sum = 0;
    for (unsigned char c : name) sum += c;
    return static_cast<key_t>(sum * 99u);
}

int Value(int id) {
    return ::semctl(id, 0, GETVAL);
}

bool SetExists(int id) {
    struct semid_ds ds;
    return ::semctl(id, 0, IPC_STAT, &ds) == 0;
}

key_t KeyOfSet(int id) {
    struct semid_ds ds;
    if (::semctl(id, 0, IPC_STAT, &ds) != 0) return -1;
    return ds.sem_perm.__key;
}

// Removes whatever set a key has, so that a test starts from "nobody has created it".
void RemoveKey(key_t key) {
    int id = ::semget(key, 1, 0);
    if (id >= 0) ::semctl(id, 0, IPC_RMID);
}

// A child's Mutex is made on the heap and never destroyed: its destructor would remove the parent's set.
Mutex* ChildMutex(const std::string& name) {
    return new Mutex(name.c_str());
}

using msptest::Pipe;

TEST(Mutex, KeyIsTheByteSumTimes99) {
    const std::string names[] = {TestName("key"), "\xff\xfe\x80mspcfg.high", "Zq"};
    for (const std::string& name : names) {
        RemoveKey(KeyOf(name));
        Mutex m(name.c_str());
        ASSERT_GT(m.getid(), 0) << name;
        EXPECT_EQ(KeyOf(name), KeyOfSet(m.getid())) << name;
    }
    // Bytes count from 0 to 255, not as signed chars.
    EXPECT_EQ(static_cast<key_t>((0xff + 0xfe + 0x80) * 99), KeyOf("\xff\xfe\x80"));
}

TEST(Mutex, FreshSetStartsFreeAndUnlockNeverRaisesAboveOne) {
    std::string name = TestName("fresh");
    RemoveKey(KeyOf(name));
    Mutex m(name.c_str());
    ASSERT_GT(m.getid(), 0);
    EXPECT_EQ(1, Value(m.getid()));
    m.lock();
    EXPECT_EQ(0, Value(m.getid()));
    m.unlock();
    EXPECT_EQ(1, Value(m.getid()));
    m.unlock();
    m.unlock();
    EXPECT_EQ(1, Value(m.getid()));
    m.lock();
    EXPECT_EQ(0, Value(m.getid()));
    m.unlock();
}

TEST(Mutex, UnnamedAndEmptyNamedLocksArePrivateAndFree) {
    Mutex a, b;
    Mutex c(""), d(nullptr);
    for (Mutex* m : {&a, &b, &c, &d}) {
        ASSERT_GT(m->getid(), 0);
        EXPECT_EQ(1, Value(m->getid()));
        m->lock();  // would block for ever if the set had been left at 0
        EXPECT_EQ(0, Value(m->getid()));
        m->unlock();
    }
    EXPECT_NE(a.getid(), b.getid());
    EXPECT_NE(c.getid(), d.getid());
    EXPECT_NE(a.getid(), c.getid());
}

TEST(Mutex, KilledHolderDoesNotBlockOthers) {
    std::string name = TestName("killed");
    RemoveKey(KeyOf(name));
    Mutex m(name.c_str());
    ASSERT_GT(m.getid(), 0);
    Pipe holding;
    pid_t holder = msptest::StartChild([&] {
        ChildMutex(name)->lock();
        holding.Send();
        for (;;) ::pause();
        return 0;
    });
    ASSERT_TRUE(holding.Wait(kChildMs));
    EXPECT_EQ(0, Value(m.getid()));
    ::kill(holder, SIGKILL);
    EXPECT_EQ(msptest::kChildSignalled, msptest::WaitChild(holder, kChildMs));
    EXPECT_EQ(1, Value(m.getid()));
    EXPECT_EQ(0, msptest::RunChild(
                     [&] {
                         Mutex* other = ChildMutex(name);
                         other->lock();
                         other->unlock();
                         return 0;
                     },
                     kChildMs));
}

// A signal that interrupts a waiting lock must not hand the caller a lock it does not hold.
void IgnoreSignal(int) {}

TEST(Mutex, SignalDoesNotBreakAWaitingLock) {
    std::string name = TestName("eintr");
    RemoveKey(KeyOf(name));
    Mutex m(name.c_str());
    ASSERT_GT(m.getid(), 0);
    m.lock();
    Pipe ready, locked;
    pid_t child = msptest::StartChild([&] {
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
        ::kill(child, SIGUSR1);
    }
    EXPECT_FALSE(locked.Wait(300)) << "a signal let the waiting process through";
    m.unlock();
    EXPECT_TRUE(locked.Wait(kChildMs));
    EXPECT_EQ(0, msptest::WaitChild(child, kChildMs));
}

TEST(Mutex, DestructorRemovesTheSetForEveryProcess) {
    std::string name = TestName("remove");
    RemoveKey(KeyOf(name));
    auto owner = std::make_unique<Mutex>(name.c_str());
    const int id = owner->getid();
    ASSERT_GT(id, 0);
    owner->lock();
    Pipe waiting, returned;
    pid_t child = msptest::StartChild([&] {
        Mutex* other = ChildMutex(name);
        waiting.Send();
        other->lock();  // returns when the set goes away
        returned.Send();
        other->lock();  // the set is gone: returns at once, without exclusion
        other->unlock();
        return other->getid() == id ? 0 : 1;
    });
    ASSERT_TRUE(waiting.Wait(kChildMs));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    owner.reset();
    EXPECT_FALSE(SetExists(id));
    EXPECT_TRUE(returned.Wait(kChildMs));
    EXPECT_EQ(0, msptest::WaitChild(child, kChildMs));

    // A later object finds no set and makes a fresh one, free.
    Mutex fresh(name.c_str());
    ASSERT_GT(fresh.getid(), 0);
    EXPECT_NE(id, fresh.getid());
    EXPECT_EQ(1, Value(fresh.getid()));
}

TEST(Mutex, InertObjectNeitherBlocksNorTouchesTheSet) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to run a child as another user";
    std::string name = TestName("inert");
    const key_t key = KeyOf(name);
    RemoveKey(key);
    // A set that only its owner may use: another user can neither attach nor create it.
    const int id = ::semget(key, 1, IPC_CREAT | 0600);
    ASSERT_GT(id, 0);
    ASSERT_EQ(0, ::semctl(id, 0, SETVAL, 0));
    int rc = msptest::RunChild(
        [&] {
            if (::setgid(65534) != 0 || ::setuid(65534) != 0) return 10;
            {
                Mutex m(name.c_str());
                if (m.getid() > 0) return 1;
                m.lock();  // held set, but the object is inert: returns at once
                m.unlock();
            }
            return 0;
        },
        kChildMs);
    EXPECT_EQ(0, rc);
    EXPECT_TRUE(SetExists(id));  // the inert destructor left it alone
    EXPECT_EQ(0, Value(id));
    ::semctl(id, 0, IPC_RMID);
}

// Processes that find no set at the same moment must agree on one lock, and no one's value reset may free a
// lock another already holds: the counter is read and written back under the lock.
TEST(Mutex, ProcessesStartingTogetherExcludeEachOther) {
    msptest::TempDir dir;
    const std::string counter = dir.file("counter");
    constexpr int kChildren = 6, kRounds = 40;
    for (int attempt = 0; attempt < 3; ++attempt) {
        std::string name = TestName("race") + "." + std::to_string(attempt);
        RemoveKey(KeyOf(name));
        msptest::WriteFile(counter, "0");
        Pipe go;
        std::vector<pid_t> children;
        for (int c = 0; c < kChildren; ++c) {
            children.push_back(msptest::StartChild([&] {
                if (!go.Wait(kChildMs)) return 2;
                Mutex* m = ChildMutex(name);
                if (m->getid() <= 0) return 3;
                for (int r = 0; r < kRounds; ++r) {
                    m->lock();
                    int n = std::stoi(msptest::ReadFile(counter));
                    std::this_thread::sleep_for(std::chrono::microseconds(200));
                    msptest::WriteFile(counter, std::to_string(n + 1));
                    m->unlock();
                }
                return 0;
            }));
        }
        for (int c = 0; c < kChildren; ++c) go.Send();
        for (pid_t pid : children) EXPECT_EQ(0, msptest::WaitChild(pid, 120000));
        EXPECT_EQ(std::to_string(kChildren * kRounds), msptest::ReadFile(counter));
        RemoveKey(KeyOf(name));
    }
}

}  // namespace
