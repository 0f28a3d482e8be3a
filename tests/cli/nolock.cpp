// Preloaded into msplat by a test: no lock object can be allocated, so the library works without its locks
// and prints "cfg initialize failed to get mutex" on stdout, unbuffered so the line reaches the descriptor
// though msplat never flushes the stream. Each failure adds a byte to the file MSPLAT_NOLOCK_TRACE names.
#include <dlfcn.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <new>

#include "msplatform/mutex.h"

void* operator new(std::size_t size, const std::nothrow_t& tag) noexcept {
    using New = void* (*)(std::size_t, const std::nothrow_t&) noexcept;
    static New next = reinterpret_cast<New>(
        dlsym(RTLD_NEXT, sizeof(std::size_t) == 8 ? "_ZnwmRKSt9nothrow_t" : "_ZnwjRKSt9nothrow_t"));
    if (size != sizeof(Mutex) && next) return next(size, tag);
    const int fd = open(getenv("MSPLAT_NOLOCK_TRACE"), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (fd >= 0) (void)!write(fd, "x", 1), close(fd);
    return nullptr;
}

__attribute__((constructor)) static void Unbuffered() {
    setvbuf(stdout, nullptr, _IONBF, 0);
}
