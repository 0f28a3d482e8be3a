#include "msplatform/thread.h"

#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <stdlib.h>

#include <atomic>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "os/osTestSupport.h"

namespace {

using ostest::Gate;
using ostest::kLongWait;
using ostest::kQuiet;
using ostest::Within;

// What a test thread shares with its test; it outlives the thread object.
struct Probe {
    std::function<void()> end = [] {};  // how the body ends
    Gate entered, release;
    std::atomic<int> runs{0};
    int randomValue = 0;
};

std::atomic<int> deletedObjects{0};

// Destroyed after Thread: counts objects whose ~Thread has returned.
struct DestructionCounter {
    ~DestructionCounter() { ++deletedObjects; }
};

class TestThread : public DestructionCounter, public Thread {
public:
    TestThread(Probe* probe, int selfDeleting = 0) : Thread(1, selfDeleting, 0), probe_(probe) {}
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
        probe->end();
    }

private:
    Probe* probe_;
};

// Neither a finished thread nor one that was never made gets a scheduling call.
int NoSchedCall(pthread_t, int, const struct sched_param*) {
    ADD_FAILURE() << "pthread_setschedparam called";
    return 0;
}

void WaitForWaiters(TestThread* thread, int count) {
    ASSERT_TRUE(ostest::WaitUntil([&] { return thread->Waiters() == count; }));
}

void FinishAndDelete(Probe& probe, TestThread* thread) {
    probe.release.Open();
    Within("wait, then delete", [thread] {
        while (!thread->isFinished()) thread->wait();
        delete thread;
    });
}

TEST(Thread, HeldThreadStartsAtResumeReleasingItsWaiterAndDeleteWaitsForTheBody) {
    Probe probe;
    TestThread* thread = new TestThread(&probe);
    std::atomic<int> finishedAfterWait{-1};
    std::thread waiter([&] {
        thread->wait();
        finishedAfterWait = thread->isFinished();
    });
    WaitForWaiters(thread, 1);
    EXPECT_FALSE(probe.entered.WaitOpen(kQuiet));
    thread->resume();
    EXPECT_TRUE(probe.entered.WaitOpen(kLongWait));
    Within("join the waiter", [&] { waiter.join(); });
    EXPECT_EQ(0, finishedAfterWait) << "the body is still at its gate";
    thread->resume();  // not held any more: nothing happens
    Gate deleted;
    std::thread owner([&] {
        delete thread;
        deleted.Open();
    });
    EXPECT_FALSE(deleted.WaitOpen(kQuiet));
    probe.release.Open();
    EXPECT_TRUE(deleted.WaitOpen(kLongWait));
    owner.join();
    EXPECT_EQ(1, probe.runs);
}

TEST(Thread, EveryEndOfTheBodyFinishesReleasesWaitersAndDeletesASelfDeletingObject) {
    const std::function<void()> ends[] = {[] {}, [] { throw 42; }, [] { throw std::runtime_error("failed"); },
                                          [] { throw "failed"; }, [] { pthread_exit(nullptr); }};
    for (int selfDeleting : {0, 1}) {
        for (const auto& end : ends) {
            SCOPED_TRACE(std::to_string(&end - ends) + (selfDeleting ? " self-deleting" : ""));
            Probe probe;
            probe.end = end;
            const int before = deletedObjects;
            TestThread* thread = new TestThread(&probe, selfDeleting);
            thread->resume();
            ASSERT_TRUE(probe.entered.WaitOpen(kLongWait));
            // The waiter is inside wait when the body ends: a self-deleting object must outlive its way out.
            std::thread waiter([&] {
                do thread->wait();
                while (!selfDeleting && !thread->isFinished());
            });
            WaitForWaiters(thread, 1);
            probe.release.Open();
            Within("join the waiter", [&] { waiter.join(); });
            if (selfDeleting) {
                EXPECT_TRUE(ostest::WaitUntil([&] { return deletedObjects == before + 1; }));
                continue;
            }
            Within("wait on a finished thread", [thread] { thread->wait(); });
            EXPECT_EQ(0, thread->Waiters());
            FinishAndDelete(probe, thread);
        }
    }
}

// Cancellation leaves nothing held: a thread cancelled while held finishes without its body, and a caller
// cancelled inside wait leaves as if woken.
TEST(Thread, CancelledWhileHeldOrInsideWaitLeavesNothingBlocked) {
    for (int selfDeleting : {0, 1}) {
        Probe probe;
        const int before = deletedObjects;
        TestThread* thread = new TestThread(&probe, selfDeleting);
        const pthread_t id = thread->Id();
        // As for resume, the owner is done with the object before the thread may go on: taking its mutex
        // orders both for the sanitizer, which sees no order in the cancellation itself.
        thread->Waiters();
        ASSERT_EQ(0, pthread_cancel(id));
        if (selfDeleting) {
            EXPECT_TRUE(ostest::WaitUntil([&] { return deletedObjects == before + 1; }));
            continue;
        }
        ASSERT_TRUE(ostest::WaitUntil([thread] { return thread->isFinished() == 1; }));
        Within("resume and delete a cancelled thread", [thread] {
            thread->resume();
            delete thread;
        });
        EXPECT_EQ(0, probe.runs);
    }

    Probe probe;
    TestThread* thread = new TestThread(&probe);
    auto waitOn = [](void* object) -> void* {
        static_cast<TestThread*>(object)->wait();
        return nullptr;
    };
    pthread_t waiter;
    ASSERT_EQ(0, pthread_create(&waiter, nullptr, waitOn, thread));
    WaitForWaiters(thread, 1);
    ASSERT_EQ(0, pthread_cancel(waiter));
    Within("join the cancelled waiter", [waiter] { pthread_join(waiter, nullptr); });
    Within("count the waiters", [thread] { EXPECT_EQ(0, thread->Waiters()); });
    thread->resume();
    FinishAndDelete(probe, thread);
}

TEST(Thread, SetPriorityAlwaysGivesNormalPolicyAtZero) {
    Probe probe;
    TestThread* thread = new TestThread(&probe);
    thread->resume();
    ASSERT_TRUE(probe.entered.WaitOpen(kLongWait));
    struct sched_param param = {};
    pthread_setschedparam(thread->Id(), SCHED_BATCH, &param);
    thread->setPriority(Thread::High);
    EXPECT_EQ(0, thread->LastError());
    int policy = -1;
    param.sched_priority = -1;
    ASSERT_EQ(0, pthread_getschedparam(thread->Id(), &policy, &param));
    EXPECT_EQ(SCHED_OTHER, policy);
    EXPECT_EQ(0, param.sched_priority);
    probe.release.Open();
    Within("wait", [thread] {
        while (!thread->isFinished()) thread->wait();
    });
    ostest::SystemCallsGuard guard;
    osSystemCalls.pthreadSetSchedParam = NoSchedCall;
    thread->setPriority(Thread::Low);
    FinishAndDelete(probe, thread);
}

TEST(Thread, StartsRandomSequenceAtSeedZeroAndSleepSplitsMilliseconds) {
    srand(0);
    const int first = rand();
    srand(12345);
    Probe probe;
    TestThread* thread = new TestThread(&probe);
    thread->resume();
    probe.release.Open();
    ASSERT_TRUE(probe.entered.WaitOpen(kLongWait));
    {
        ostest::SystemCallsGuard guard;
        static struct timespec asked;
        osSystemCalls.nanoSleep = [](const struct timespec* request, struct timespec*) {
            asked = *request;
            errno = EINTR;
            return -1;
        };
        const long cases[][3] = {{1500, 1, 500000000}, {999, 0, 999000000}, {0, 0, 0}, {60000, 60, 0}};
        for (const auto& c : cases) {
            EXPECT_EQ(-1, thread->sleep(c[0])) << "the result is passed on";
            EXPECT_EQ(c[1], static_cast<long>(asked.tv_sec)) << c[0];
            EXPECT_EQ(c[2], asked.tv_nsec) << c[0];
        }
    }
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, thread->sleep(60));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(60));
    FinishAndDelete(probe, thread);
    EXPECT_EQ(first, probe.randomValue);
}

TEST(Thread, FailedCreationCountsAsFinished) {
    ostest::SystemCallsGuard guard;
    osSystemCalls.pthreadCreate = [](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) {
        return EAGAIN;
    };
    osSystemCalls.pthreadSetSchedParam = NoSchedCall;
    for (int selfDeleting : {0, 1}) {
        Probe probe;
        TestThread* thread = new TestThread(&probe, selfDeleting);
        EXPECT_EQ(EAGAIN, thread->LastError());
        EXPECT_EQ(1, thread->isFinished());
        EXPECT_TRUE(pthread_equal(pthread_t(), thread->Id()));
        thread->resume();
        thread->setPriority(Thread::Normal);
        // No thread will delete even a self-deleting object: its owner does.
        Within("wait and delete after a failed create", [thread] {
            thread->wait();
            delete thread;
        });
        EXPECT_EQ(0, probe.runs);
    }
}

}  // namespace
