// Helpers of the os tests: a gate threads wait at, a watchdog for calls that could block for good, and a
// guard that restores the library's system-call table.
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

// Generous: a loaded two-core machine, or emulation.
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
    template <class Duration>
    bool WaitOpen(Duration limit) {
        std::unique_lock<std::mutex> lock(mutex_);
        return cond_.wait_for(lock, limit, [this] { return open_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable cond_;
    bool open_ = false;
};

// Runs `body` on a thread of its own; still blocked after kLongWait, it aborts the binary instead of hanging.
inline void Within(const char* what, const std::function<void()>& body) {
    Gate done;
    std::thread runner([&] {
        body();
        done.Open();
    });
    if (!done.WaitOpen(kLongWait)) {
        std::fprintf(stderr, "%s: still blocked\n", what);
        std::abort();
    }
    runner.join();
}

// Polls `condition` for at most kLongWait.
inline bool WaitUntil(const std::function<bool()>& condition) {
    auto limit = std::chrono::steady_clock::now() + kLongWait;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > limit) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

struct SystemCallsGuard {
    OsSystemCalls saved = osSystemCalls;
    ~SystemCallsGuard() { osSystemCalls = saved; }
};

}  // namespace ostest
