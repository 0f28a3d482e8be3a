#include "msplatform/mutex.h"

#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <chrono>
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
        other->lock();  // no set: returns at once
        return other->getid() == id ? 0 : 1;
    });
    ASSERT_TRUE(waiting.Wait(kChildMs));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    owner.reset();
    EXPECT_EQ(-1, KeyOfSet(id));
    EXPECT_TRUE(returned.Wait(kChildMs));
    EXPECT_EQ(0, msptest::WaitChild(child, kChildMs));
    Mutex fresh(name.c_str());
    EXPECT_NE(id, fresh.getid());
    EXPECT_EQ(1, Value(fresh.getid()));
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
