#include "support/support.h"

#include <dirent.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <future>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

namespace msptest {

TempDir::TempDir() : path_(std::filesystem::temp_directory_path() / "msplatform-test-XXXXXX") {
    if (!::mkdtemp(path_.data())) throw std::runtime_error("mkdtemp failed");
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

pid_t StartChild(const std::function<int()>& body) {
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid != 0) return pid;
    int rc = 111;
    try {
        rc = body();
    } catch (...) {
    }
    std::fflush(nullptr);
    ::_exit(rc);
}

int WaitChild(pid_t pid, int timeoutMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    int status = 0;
    pid_t found = 0;
    while (pid > 0 && (found = ::waitpid(pid, &status, WNOHANG)) == 0) {
        if (std::chrono::steady_clock::now() >= deadline) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &status, 0);
            return kChildTimedOut;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return found == pid && WIFEXITED(status) ? WEXITSTATUS(status) : kChildSignalled;
}

std::string ReadFile(const std::string& path) {
    return std::string(std::istreambuf_iterator<char>(std::ifstream(path, std::ios::binary).rdbuf()), {});
}

void WriteFile(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::vector<std::string> ListDir(const std::string& dir) {
    std::vector<std::string> names;
    DIR* stream = ::opendir(dir.c_str());
    for (struct stat64 status; const dirent64* e = stream ? ::readdir64(stream) : nullptr;) {
        const std::string name = e->d_name;
        if (name == "." || name == ".." || ::stat64((dir + "/" + name).c_str(), &status) != 0) continue;
        names.push_back(S_ISDIR(status.st_mode) ? name + "/" : name);
    }
    if (stream) ::closedir(stream);
    std::sort(names.begin(), names.end());
    return names;
}

CaptureFd::CaptureFd(int fd) : fd_(fd), file_(::memfd_create("capture", 0)) {
    if (file_ < 0) throw std::runtime_error("memfd_create failed");
    std::fflush(nullptr);
    saved_ = ::dup(fd_);
    ::dup2(file_, fd_);
}

CaptureFd::~CaptureFd() {
    Finish();
    ::close(file_);
}

std::string CaptureFd::Finish() {
    if (saved_ < 0) return {};
    std::fflush(nullptr);
    ::dup2(saved_, fd_);
    ::close(saved_);
    saved_ = -1;
    return ReadFile("/proc/self/fd/" + std::to_string(file_));
}

GuardedBytes::GuardedBytes(size_t size, unsigned char fill) : size_(size) {
    const size_t page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    span_ = ((size + page - 1) / page + 1) * page;
    void* map = ::mmap(nullptr, span_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (map == MAP_FAILED) std::abort();
    base_ = static_cast<char*>(map);
    if (::mprotect(base_ + span_ - page, page, PROT_NONE) != 0) std::abort();
    std::memset(base_, fill, span_ - page);
    data_ = base_ + span_ - page - size;
}

GuardedBytes GuardedBytes::String(const std::string& text) {
    GuardedBytes bytes(text.size() + 1);
    std::memcpy(bytes.data(), text.c_str(), text.size() + 1);
    return bytes;
}

GuardedBytes::GuardedBytes(GuardedBytes&& other) noexcept
    : span_(other.span_), size_(other.size_), base_(other.base_), data_(other.data_) {
    other.base_ = nullptr;
}

GuardedBytes::~GuardedBytes() {
    if (base_ != nullptr) ::munmap(base_, span_);
}

constexpr size_t kChunk = 1 << 20;
constexpr size_t kSlack = 1 << 16;  // a multiple of any page size

RepeatedText::RepeatedText(char byte, size_t megabytes) : size_(megabytes * kChunk + kSlack) {
    const int fd = ::memfd_create("repeated", 0);
    if (fd < 0) return;
    const std::string chunk(kChunk, byte);
    const bool filled = ::write(fd, chunk.data(), kChunk) == static_cast<ssize_t>(kChunk);
    void* area = filled ? ::mmap(nullptr, size_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) : MAP_FAILED;
    if (area != MAP_FAILED) {
        base_ = static_cast<char*>(area);
        bool mapped = true;
        for (size_t i = 0; i < megabytes && mapped; ++i)
            mapped =
                ::mmap(base_ + i * kChunk, kChunk, PROT_READ, MAP_SHARED | MAP_FIXED, fd, 0) != MAP_FAILED;
        // The slack behind is fresh anonymous memory, all zeros: the terminator.
        if (mapped && ::mprotect(base_ + megabytes * kChunk, kSlack, PROT_READ) == 0) text_ = base_;
    }
    ::close(fd);
}

RepeatedText::~RepeatedText() {
    if (base_) ::munmap(base_, size_);
}

Pipe::Pipe() {
    if (::pipe(fd_) != 0) throw std::runtime_error("pipe failed");
}

Pipe::~Pipe() {
    for (int fd : fd_) ::close(fd);
}

void Pipe::Send() {
    if (::write(fd_[1], "x", 1) != 1) std::abort();
}

bool Pipe::Wait(int timeoutMs) {
    struct pollfd p = {fd_[0], POLLIN, 0};
    char c;
    return ::poll(&p, 1, timeoutMs) == 1 && ::read(fd_[0], &c, 1) == 1;
}

std::string LockName(const std::string& stem) {
    std::string name = stem + "." + std::to_string(::getpid());
    while (::semget(LockKey(name), 0, 0) != -1 || errno == EACCES) name += '.';
    return name;
}

void Within(const char* what, const std::function<void()>& body) {
    std::future<void> done = std::async(std::launch::async, body);
    if (done.wait_for(kLongWait) == std::future_status::timeout) {
        std::fprintf(stderr, "%s: still blocked\n", what);
        std::abort();
    }
}

bool WaitUntil(const std::function<bool()>& condition) {
    const auto limit = std::chrono::steady_clock::now() + kLongWait;
    for (; !condition(); std::this_thread::sleep_for(std::chrono::milliseconds(1)))
        if (std::chrono::steady_clock::now() > limit) return false;
    return true;
}

}  // namespace msptest

// On a fresh system the first semaphore set gets the id 0, which the lock treats as inert. Making and
// removing one set moves the kernel's sequence on, so that no set made later can get that id. It runs
// before the library's own static objects, which make their semaphores at load.
struct SpendSemaphoreIdZero {
    SpendSemaphoreIdZero() { ::semctl(::semget(IPC_PRIVATE, 1, IPC_CREAT | 0600), 0, IPC_RMID); }
};
__attribute__((init_priority(101))) static SpendSemaphoreIdZero spendSemaphoreIdZero;

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
