#include "msplatform/thread.h"

#include <errno.h>

#include <atomic>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "os/osTestSupport.h"

namespace {

using msptest::WaitUntil;
using msptest::Within;

std::atomic<int> deleted{0};

struct Probe {  // what a test thread shares with its test; it outlives the object
    std::function<void()> end = [] {};
    std::atomic<bool> released{false};
    std::atomic<int> runs{0};
};

struct Counter {  // destroyed after Thread: counts the objects whose ~Thread has returned
    ~Counter() { ++deleted; }
};

// Held at the start; its body counts its run, waits until the probe releases it, then ends as the probe says.
struct TestThread : Counter, Thread {
    explicit TestThread(Probe* probe, int selfDeleting = 0) : Thread(1, selfDeleting, 0), probe_(probe) {}
    int Waiters() {
        pthread_mutex_lock(&mutex);
        const int count = waiterCount;
        return pthread_mutex_unlock(&mutex), count;
    }
    pthread_t Id() const { return threadId; }
    int LastError() const { return lastError; }
    void run() override {
        Probe* probe = probe_;  // the derived members may be gone once the body waits
        ++probe->runs;
        WaitUntil([probe] { return probe->released.load(); });
        probe->end();
    }
    Probe* probe_;
};

bool Waiting(TestThread* thread) {
    return WaitUntil([thread] { return thread->Waiters() == 1; });
}

// Resumes, waits until finished, then deletes it (its body must begin before the derived part goes).
void Finish(TestThread* thread) {
    Within("resume, wait, then delete", [thread] {
        thread->resume();
        while (!thread->isFinished()) thread->wait();
        delete thread;
    });
}

// A held thread starts at resume, which also lets a caller of wait go; deleting waits for the body; however
// the body ends, the thread finishes and lets its waiters go, and a self-deleting object goes even with a
// caller still inside wait.
TEST(Thread, HeldResumedEndedAndDeleted) {
    const std::function<void()> ends[] = {[] {}, [] { throw std::runtime_error("x"); },
                                          [] { pthread_exit(nullptr); }};
    for (int selfDeleting : {0, 1}) {
        for (const auto& end : ends) {
            SCOPED_TRACE(std::to_string(&end - ends) + (selfDeleting ? " self-deleting" : ""));
            Probe probe{end};
            const int before = deleted;
            TestThread* thread = new TestThread(&probe, selfDeleting);
            std::thread waiter([&] { thread->wait(); });
            ASSERT_TRUE(Waiting(thread));
            const bool watch = &end == ends;  // "not yet" is watched for once per mode
            if (watch) std::this_thread::sleep_for(msptest::kQuiet);
            EXPECT_EQ(0, probe.runs);
            thread->resume();
            Within("the waiter, released by resume", [&] { waiter.join(); });
            ASSERT_TRUE(WaitUntil([&] { return probe.runs == 1; }));
            waiter = std::thread([&] { thread->wait(); });
            ASSERT_TRUE(Waiting(thread));
            if (!selfDeleting) {
                std::thread owner([&] { delete thread; });
                if (watch) std::this_thread::sleep_for(msptest::kQuiet);
                EXPECT_EQ(before, deleted) << "deleted before the body ended";
                probe.released = true;
                Within("the owner and the waiter", [&] { owner.join(), waiter.join(); });
            } else {
                probe.released = true;
                Within("the waiter", [&] { waiter.join(); });
                EXPECT_TRUE(WaitUntil([&] { return deleted == before + 1; }));
            }
            EXPECT_EQ(1, probe.runs);
        }
    }
}

// Cancelled while held, a thread finishes without its body; a caller cancelled inside wait leaves as if
// woken; a thread that could not be made counts as finished. Nothing is left blocked. And sleep splits its
// milliseconds into seconds and nanoseconds.
TEST(Thread, CancelledNeverMadeAndSleep) {
    Probe probe;
    TestThread* thread = new TestThread(&probe);
    thread->Waiters();  // orders the construction before the cancellation for the sanitizer
    ASSERT_EQ(0, pthread_cancel(thread->Id()));
    ASSERT_TRUE(WaitUntil([thread] { return thread->isFinished() == 1; }));
    Within("resume and delete a cancelled thread", [thread] { thread->resume(), delete thread; });
    EXPECT_EQ(0, probe.runs);

    thread = new TestThread(&probe);
    pthread_t waiter;
    auto waitOn = [](void* t) { return static_cast<TestThread*>(t)->wait(), (void*)0; };
    ASSERT_EQ(0, pthread_create(&waiter, nullptr, waitOn, thread));
    ASSERT_TRUE(Waiting(thread));
    ASSERT_EQ(0, pthread_cancel(waiter));
    Within("join the cancelled waiter", [waiter] { pthread_join(waiter, nullptr); });
    EXPECT_EQ(0, thread->Waiters());
    probe.released = true;
    Finish(thread);

    // Deleting gives a thread's resources back: the stacks of ended threads don't pile up.
    auto maps = [] { return msptest::ReadFile("/proc/self/maps").size(); };
    const size_t mapped = maps();
    for (int i = 0; i < 80; ++i) Finish(new TestThread(&probe));
    EXPECT_LT(maps(), mapped + 3000) << "the maps grew from " << mapped;

    SystemCallsGuard guard;
    osSystemCalls.pthreadCreate = [](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) {
        return EAGAIN;
    };
    thread = new TestThread(&probe, 1);  // left to its owner, self-deleting or not
    EXPECT_EQ(EAGAIN, thread->LastError());
    Within("wait and delete after a failed create", [thread] { thread->wait(), delete thread; });
    static struct timespec asked;
    osSystemCalls.nanoSleep = [](const struct timespec* request, struct timespec*) {
        return asked = *request, 0;
    };
    EXPECT_EQ(0, TestThread(&probe).sleep(1500));
    EXPECT_TRUE(asked.tv_sec == 1 && asked.tv_nsec == 500000000) << asked.tv_sec << " " << asked.tv_nsec;
}

}  // namespace
