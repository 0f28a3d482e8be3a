#include "msplatform/mutex.h"

#include <errno.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/types.h>

namespace {

constexpr int kMode = 0660;
constexpr int kAttachFlags = IPC_EXCL | kMode;  // without IPC_CREAT: finds an existing set, never makes one
constexpr int kCreateFlags = IPC_CREAT | kMode;

// A set can vanish between a failed create and the next attach (another process removed it); a few rounds
// settle that without risking a loop.
constexpr int kCreateRounds = 3;

key_t KeyOf(const char* name) {
    unsigned int sum = 0;
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(name); *p; ++p) sum += *p;
    return static_cast<key_t>(sum * 99u);
}

int MakePrivate() {
    int id = ::semget(IPC_PRIVATE, 1, kCreateFlags);
    ::semctl(id, 0, SETVAL, 1);
    return id;
}

}  // namespace

Mutex::Mutex() : id(MakePrivate()) {}

Mutex::Mutex(const char* name) : id(-1) {
    // An empty name sums to IPC_PRIVATE, whose "attach" would make a fresh set nobody frees: the first lock
    // would block for ever. Such a name gets a private lock that starts free instead.
    if (!name || !*name) {
        id = MakePrivate();
        return;
    }
    const key_t key = KeyOf(name);
    for (int round = 0; round < kCreateRounds; ++round) {
        // Attaching leaves the value alone: a process that attaches to a held lock finds it held.
        id = ::semget(key, 1, kAttachFlags);
        if (id > 0) return;
        // IPC_EXCL on the create makes exactly one of two racing processes the creator, and only the creator
        // sets the value. Otherwise the loser's SETVAL could free a lock the winner already holds.
        id = ::semget(key, 1, kCreateFlags | IPC_EXCL);
        if (id > 0) {
            ::semctl(id, 0, SETVAL, 1);
            return;
        }
        if (id == 0) {
            // Id 0 counts as failure everywhere; spend it and make another.
            ::semctl(id, 0, IPC_RMID);
            continue;
        }
        if (errno != EEXIST) break;
    }
    id = -1;
}

Mutex::~Mutex() {
    if (id > 0) ::semctl(id, 0, IPC_RMID);
}

void Mutex::lock() {
    if (id <= 0) return;
    struct sembuf take = {0, -1, SEM_UNDO};
    // A signal must not let the caller go on without the lock.
    while (::semop(id, &take, 1) != 0 && errno == EINTR) {
    }
}

void Mutex::unlock() {
    // Both operations run as one atomic step: the wait-for-zero fails at once when the semaphore is free, and
    // the release then does not happen either, so the value never rises above 1.
    struct sembuf release[2] = {{0, 0, IPC_NOWAIT}, {0, 1, SEM_UNDO}};
    ::semop(id, release, 2);
}

int Mutex::getid() {
    return id;
}
