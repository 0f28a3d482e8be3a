// Helpers of the os tests: a gate that threads wait at, a watchdog for calls that could block for good, and a
// guard that swaps entries of the library's system-call table for the length of a test.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <thread>

#include "os/internal.h"

namespace ostest {

// Generous bounds: the tests run on a loaded two-core machine and under emulation.
constexpr std::chrono::seconds kLongWait(30);
// How long "has not happened yet" is watched for.
constexpr std::chrono::milliseconds kQuiet(250);

class Gate {
public:
    void Open() {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        cond_.notify_all();
    }
    // True once open; false if it stayed shut for `limit`.
    template <class Duration>
    bool WaitOpen(Duration limit) {
        std::unique_lock<std::mutex> lock(mutex_);
        return cond_.wait_for(lock, limit, [this] { return open_; });
    }
    bool IsOpen() {
        std::lock_guard<std::mutex> lock(mutex_);
        return open_;
    }

private:
    std::mutex mutex_;
    std::condition_variable cond_;
    bool open_ = false;
};

// Runs `body` on a thread of its own. A body still blocked after kLongWait ends the test binary: a hang must
// fail the run, not stall it.
inline void Within(const char* what, const std::function<void()>& body) {
    Gate done;
    std::thread runner([&] {
        body();
        done.Open();
    });
    if (!done.WaitOpen(kLongWait)) {
        std::fprintf(stderr, "%s: still blocked after %lld s\n", what,
                     static_cast<long long>(kLongWait.count()));
        std::abort();
    }
    runner.join();
}

// Restores the system-call table at the end of the scope.
class SystemCallsGuard {
public:
    SystemCallsGuard() : saved_(osSystemCalls) {}
    ~SystemCallsGuard() { osSystemCalls = saved_; }
    SystemCallsGuard(const SystemCallsGuard&) = delete;
    SystemCallsGuard& operator=(const SystemCallsGuard&) = delete;

private:
    OsSystemCalls saved_;
};

}  // namespace ostest
