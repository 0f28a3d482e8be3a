// The fuzz targets run beside the test suites of other people on the same machine, and the library's four
// locks are machine-wide semaphores with fixed keys. A fuzz target that took them would stall those tests,
// and one whose static logger or language reader removed its set at exit would break them. So every fuzz
// target links this semget in place of the C library's: a named set becomes a private one of this process,
// found again by its key within the process, and removed at exit. The library's lock logic runs unchanged on
// it.
#include <errno.h>
#include <stdlib.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

struct Entry {
    key_t key;
    int id;
};
constexpr int kMaxSets = 16;
Entry sets[kMaxSets];
int setCount = 0;
bool cleanupRegistered = false;

int RealSemget(key_t key, int count, int flags) {
    return static_cast<int>(::syscall(SYS_semget, key, count, flags));
}

bool Alive(int id) {
    return ::semctl(id, 0, GETVAL) >= 0;
}

void RemoveAll() {
    for (int i = 0; i < setCount; ++i) ::semctl(sets[i].id, 0, IPC_RMID);
    setCount = 0;
}

}  // namespace

extern "C" int semget(key_t key, int count, int flags) {
    if (key == IPC_PRIVATE) return RealSemget(key, count, flags);
    for (int i = 0; i < setCount; ++i) {
        if (sets[i].key != key) continue;
        if (Alive(sets[i].id)) {
            if ((flags & IPC_CREAT) && (flags & IPC_EXCL)) {
                errno = EEXIST;
                return -1;
            }
            return sets[i].id;
        }
        sets[i] = sets[--setCount];  // removed by its owner: the key is free again
        break;
    }
    if (!(flags & IPC_CREAT)) {
        errno = ENOENT;
        return -1;
    }
    if (setCount == kMaxSets) {
        errno = ENOSPC;
        return -1;
    }
    const int id = RealSemget(IPC_PRIVATE, count, (flags & 0777) | IPC_CREAT);
    if (id < 0) return id;
    sets[setCount++] = Entry{key, id};
    if (!cleanupRegistered) {
        cleanupRegistered = true;
        ::atexit(RemoveAll);
    }
    return id;
}
