#include "msplatform/thread.h"

#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <stdlib.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "os/osTestSupport.h"

namespace {

using ostest::Gate;
using ostest::kLongWait;
using ostest::kQuiet;
using ostest::Within;

enum class Body { Return, ThrowInt, ThrowException, ThrowText, ExitThread };

// What a test thread shares with its test; it outlives the thread object.
struct Probe {
    Body body = Body::Return;
    Gate entered;  // the body has begun
    Gate release;  // the body may end
    std::atomic<int> runs{0};
    int randomValue = 0;
};

std::atomic<int> deletedObjects{0};

// A base destroyed after Thread: it counts objects whose ~Thread has returned.
struct DestructionCounter {
    ~DestructionCounter() { ++deletedObjects; }
};

class TestThread : public DestructionCounter, public Thread {
public:
    TestThread(Probe* probe, int suspended, int selfDeleting)
        : Thread(suspended, selfDeleting, 0), probe_(probe) {}

    int Waiters() {
        pthread_mutex_lock(&mutex);
        int count = waiterCount;
        pthread_mutex_unlock(&mutex);
        return count;
    }
    int LastError() const { return lastError; }
    pthread_t Id() const { return threadId; }

protected:
    void run() override {
        Probe* probe = probe_;  // the derived members may be gone once the body waits at the gate
        ++probe->runs;
        probe->randomValue = rand();
        probe->entered.Open();
        probe->release.WaitOpen(kLongWait);
        switch (probe->body) {
            case Body::Return:
                return;
            case Body::ThrowInt:
                throw 42;
            case Body::ThrowException:
                throw std::runtime_error("body failed");
            case Body::ThrowText:
                throw "body failed";
            case Body::ExitThread:
                pthread_exit(nullptr);
        }
    }

private:
    Probe* probe_;
};

// Blocks until the thread has finished, as an owner does before deleting it.
void WaitFinished(TestThread* thread) {
    Within("wait for the end", [thread] {
        while (!thread->isFinished()) thread->wait();
    });
}

void WaitForWaiters(TestThread* thread, int count) {
    auto limit = std::chrono::steady_clock::now() + kLongWait;
    while (thread->Waiters() != count && std::chrono::steady_clock::now() < limit) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ASSERT_EQ(count, thread->Waiters());
}

TEST(Thread, HeldThreadStartsOnlyAtResume) {
    Probe probe;
    TestThread* thread = new TestThread(&probe, 1, 0);
    EXPECT_FALSE(probe.entered.WaitOpen(kQuiet));
    EXPECT_EQ(0, probe.runs);
    thread->resume();
    EXPECT_TRUE(probe.entered.WaitOpen(kLongWait));
    thread->resume();  // not held any more: nothing happens
    EXPECT_EQ(0, thread->isFinished());
    probe.release.Open();
    WaitFinished(thread);
    EXPECT_EQ(1, probe.runs);
    // A wait on a finished thread does not block.
    Within("wait on a finished thread", [thread] { thread->wait(); });
    EXPECT_EQ(0, thread->Waiters());
    Within("delete", [thread] { delete thread; });
}

TEST(Thread, WaitOnHeldThreadReturnsAtResume) {
    Probe probe;
    TestThread* thread = new TestThread(&probe, 1, 0);
    std::atomic<int> finishedAfterWait{-1};
    std::thread waiter([&] {
        thread->wait();
        finishedAfterWait = thread->isFinished();
    });
    WaitForWaiters(thread, 1);
    thread->resume();
    Within("join the waiter", [&] { waiter.join(); });
    EXPECT_EQ(0, finishedAfterWait) << "the body is still at its gate";
    probe.release.Open();
    WaitFinished(thread);
    Within("delete", [thread] { delete thread; });
}

TEST(Thread, BodyThatEndsAbnormallyStillFinishesAndReleasesWaiters) {
    for (Body body : {Body::ThrowInt, Body::ThrowException, Body::ThrowText, Body::ExitThread}) {
        SCOPED_TRACE(static_cast<int>(body));
        Probe probe;
        probe.body = body;
        TestThread* thread = new TestThread(&probe, 1, 0);
        std::thread waiter([&] {
            while (!thread->isFinished()) thread->wait();
        });
        WaitForWaiters(thread, 1);
        thread->resume();
        probe.release.Open();
        Within("join the waiter", [&] { waiter.join(); });
        EXPECT_EQ(1, thread->isFinished());
        Within("delete", [thread] { delete thread; });
    }
}

TEST(Thread, DeleteWaitsForTheBody) {
    Probe probe;
    TestThread* thread = new TestThread(&probe, 1, 0);
    thread->resume();
    ASSERT_TRUE(probe.entered.WaitOpen(kLongWait));
    Gate deleted;
    std::thread owner([&] {
        delete thread;
        deleted.Open();
    });
    EXPECT_FALSE(deleted.WaitOpen(kQuiet));
    probe.release.Open();
    EXPECT_TRUE(deleted.WaitOpen(kLongWait));
    owner.join();
}

TEST(Thread, SelfDeletingThreadGoesOnceTheWaiterHasLeft) {
    Probe probe;
    int before = deletedObjects;
    TestThread* thread = new TestThread(&probe, 1, 1);
    thread->resume();
    ASSERT_TRUE(probe.entered.WaitOpen(kLongWait));
    // The caller is inside wait when the body ends; the object must outlive its way out (ASan would see it).
    std::thread waiter([&] { thread->wait(); });
    WaitForWaiters(thread, 1);
    probe.release.Open();
    Within("join the waiter", [&] { waiter.join(); });
    Within("self-deletion", [&] {
        while (deletedObjects == before) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    });
    EXPECT_EQ(before + 1, deletedObjects);
}

TEST(Thread, SetPriorityAlwaysGivesNormalPolicyAtZero) {
    Probe probe;
    TestThread* thread = new TestThread(&probe, 1, 0);
    thread->resume();
    ASSERT_TRUE(probe.entered.WaitOpen(kLongWait));

    struct sched_param param = {};
    bool moved = pthread_setschedparam(thread->Id(), SCHED_BATCH, &param) == 0;
    thread->setPriority(Thread::High);
    EXPECT_EQ(0, thread->LastError());
    int policy = -1;
    ASSERT_EQ(0, pthread_getschedparam(thread->Id(), &policy, &param));
    EXPECT_EQ(SCHED_OTHER, policy) << (moved ? "moved back from SCHED_BATCH" : "SCHED_BATCH refused here");
    EXPECT_EQ(0, param.sched_priority);

    probe.release.Open();
    WaitFinished(thread);
    {
        ostest::SystemCallsGuard guard;
        static std::atomic<int> calls;
        calls = 0;
        osSystemCalls.pthreadSetSchedParam = [](pthread_t, int, const struct sched_param*) {
            ++calls;
            return 0;
        };
        thread->setPriority(Thread::Low);
        EXPECT_EQ(0, calls) << "no system call on a finished thread";
    }
    Within("delete", [thread] { delete thread; });
}

// Also: each thread starts the random sequence from seed 0.
TEST(Thread, SleepSplitsMillisecondsIntoSecondsAndNanoseconds) {
    srand(0);
    const int first = rand();
    srand(12345);
    Probe probe;
    probe.release.Open();
    TestThread* thread = new TestThread(&probe, 1, 0);
    thread->resume();
    WaitFinished(thread);
    EXPECT_EQ(first, probe.randomValue);
    {
        ostest::SystemCallsGuard guard;
        static struct timespec asked;
        osSystemCalls.nanoSleep = [](const struct timespec* request, struct timespec*) {
            asked = *request;
            errno = EINTR;
            return -1;
        };
        struct Case {
            long milliseconds;
            time_t seconds;
            long nanoseconds;
        };
        for (const Case& c :
             {Case{1500, 1, 500000000}, Case{999, 0, 999000000}, Case{0, 0, 0}, Case{60000, 60, 0}}) {
            EXPECT_EQ(-1, thread->sleep(c.milliseconds)) << "the result is passed on";
            EXPECT_EQ(c.seconds, asked.tv_sec) << c.milliseconds;
            EXPECT_EQ(c.nanoseconds, asked.tv_nsec) << c.milliseconds;
        }
    }
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, thread->sleep(60));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(60));
    Within("delete", [thread] { delete thread; });
}

TEST(Thread, FailedCreationCountsAsFinished) {
    ostest::SystemCallsGuard guard;
    osSystemCalls.pthreadCreate = [](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) {
        return EAGAIN;
    };
    static std::atomic<int> schedCalls;
    schedCalls = 0;
    osSystemCalls.pthreadSetSchedParam = [](pthread_t, int, const struct sched_param*) {
        ++schedCalls;
        return 0;
    };
    for (int selfDeleting : {0, 1}) {
        Probe probe;
        TestThread* thread = new TestThread(&probe, 1, selfDeleting);
        EXPECT_EQ(EAGAIN, thread->LastError());
        EXPECT_EQ(1, thread->isFinished());
        EXPECT_TRUE(pthread_equal(pthread_t(), thread->Id()));
        thread->resume();
        thread->setPriority(Thread::Normal);
        Within("wait after a failed create", [thread] { thread->wait(); });
        // No thread will delete even a self-deleting object: its owner does.
        Within("delete after a failed create", [thread] { delete thread; });
        EXPECT_EQ(0, probe.runs);
    }
    EXPECT_EQ(0, schedCalls);
}

}  // namespace
