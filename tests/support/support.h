// Helpers shared by the test binaries: temporary files, children, captures, guarded bytes, locks, threads.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace msptest {

// The helpers below own something that a copy would release twice.
struct NoCopy {
    NoCopy() = default;
    NoCopy(const NoCopy&) = delete;
    NoCopy& operator=(const NoCopy&) = delete;
};

// A fresh directory under $TMPDIR (or /tmp), removed with everything in it at the end of the scope.
class TempDir : NoCopy {
public:
    TempDir();
    ~TempDir();

    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// Changes the working directory for the scope and restores the previous one.
class ScopedChdir : NoCopy {
public:
    explicit ScopedChdir(const std::string& dir) { std::filesystem::current_path(dir); }
    ~ScopedChdir() { std::filesystem::current_path(previous_); }

private:
    const std::filesystem::path previous_ = std::filesystem::current_path();
};

// Forks a child that runs `body` and ends with _exit(body()): a child must never run the static destructors,
// which would remove the shared semaphores for the parent too. Returns the child's pid.
pid_t StartChild(const std::function<int()>& body);

// Waits for a child at most `timeoutMs`. Returns its exit status; kChildTimedOut after killing a child that
// outlived the time-out; kChildSignalled when a signal ended it.
constexpr int kChildTimedOut = -1000, kChildSignalled = -1001;
int WaitChild(pid_t pid, int timeoutMs);

inline int RunChild(const std::function<int()>& body, int timeoutMs) {
    return WaitChild(StartChild(body), timeoutMs);
}

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& bytes);
// The entries of `dir`, sorted, a directory's name with a '/' behind; none if it can't be read. readdir64:
// on a 32-bit target the plain call fails on large directory offsets.
std::vector<std::string> ListDir(const std::string& dir);

// Redirects a file descriptor (1 or 2) into a temporary file until Finish, which returns what was written.
class CaptureFd : NoCopy {
public:
    explicit CaptureFd(int fd);
    ~CaptureFd();

    std::string Finish();

private:
    int fd_;
    int file_;
    int saved_ = -1;
};

// `size` bytes that end right before a page without access (filled with `fill`): a read or write one byte
// beyond them faults, natively and under emulation, with or without the sanitizers.
class GuardedBytes : NoCopy {
public:
    explicit GuardedBytes(size_t size, unsigned char fill = 0);
    // A zero-terminated copy of `text` whose terminator is the last accessible byte.
    static GuardedBytes String(const std::string& text);
    GuardedBytes(GuardedBytes&& other) noexcept;
    ~GuardedBytes();

    char* data() { return data_; }
    size_t size() const { return size_; }

private:
    size_t span_ = 0;
    size_t size_ = 0;
    char* base_ = nullptr;
    char* data_ = nullptr;
};

// `megabytes` MiB of one byte, then the terminator, costing one MiB of memory (one MiB of a memory file
// mapped again and again). text() is null if the system refuses.
class RepeatedText : NoCopy {
public:
    RepeatedText(char byte, size_t megabytes);
    ~RepeatedText();
    const char* text() const { return text_; }

private:
    size_t size_;
    char* base_ = nullptr;
    const char* text_ = nullptr;
};

// One-byte signals between processes (made before the fork), with a time-out on the reading side.
class Pipe : NoCopy {
public:
    Pipe();
    ~Pipe();

    void Send();
    // True once a byte came; false after `timeoutMs` without one.
    bool Wait(int timeoutMs);

private:
    int fd_[2] = {-1, -1};
};

// The key of a lock name: the sum of its bytes (each 0 to 255) times 99.
inline key_t LockKey(const std::string& name) {
    unsigned sum = 0;
    for (unsigned char c : name) sum += c;
    return key_t(sum * 99u);
}
// A lock name of the test's own: `stem` and the pid, with dots behind until no semaphore set has its key, so
// that runs side by side, and the services' four locks, stay apart.
std::string LockName(const std::string& stem);

// Generous limits for a loaded two-core machine or emulation; kQuiet is how long "not yet" is watched for.
constexpr std::chrono::seconds kLongWait(30);
constexpr std::chrono::milliseconds kQuiet(250);

// Runs `body` on a thread of its own; still blocked after kLongWait, it aborts the binary instead of hanging.
void Within(const char* what, const std::function<void()>& body);

// Polls `condition` for at most kLongWait.
bool WaitUntil(const std::function<bool()>& condition);

}  // namespace msptest
