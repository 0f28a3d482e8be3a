// Opening a whole file for reading, for the services that load one (the string helpers' cpyfilebuf, the
// language reader; the configuration store's reader is the same with a regular-file test on top).
#pragma once

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

// fopen64(path, "rb") without its wait for a writer: opening a FIFO that nobody writes would block for ever,
// under a service's lock if one is held. Reads block as usual again once the file is open; a FIFO then has
// no size. Null if the file can't be opened.
inline FILE* OpenForReading(const char* path) {
    const int fd = ::open(path, O_RDONLY | O_LARGEFILE | O_NONBLOCK);
    if (fd < 0) return nullptr;
    const int flags = ::fcntl(fd, F_GETFL);
    FILE* file =
        flags != -1 && ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != -1 ? ::fdopen(fd, "rb") : nullptr;
    if (file == nullptr) ::close(fd);
    return file;
}
