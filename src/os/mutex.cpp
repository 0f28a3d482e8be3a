#include "msplatform/mutex.h"

#include <errno.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <new>

namespace {

constexpr int kMode = 0660;
constexpr int kAttachFlags = IPC_EXCL | kMode;  // without IPC_CREAT: finds an existing set, never makes one
constexpr int kCreateFlags = IPC_CREAT | kMode;

// Between a failed attach and a failed create another process made the set and removed it again; each
// round needs such a pair from somebody else, so a few settle it without risking a loop.
constexpr int kCreateRounds = 16;

// A lock blocked on a set that was never freed wakes this often to see whether it still is.
constexpr long kWaitSliceMs = 100;
// A set seen at 0 without a single semop for this long belongs to a creator that died (or stalls) between
// making it and freeing it.
constexpr long long kNeverFreedGraceMs = 250;
// The destructor waits this long to take the set before removing it; exit never hangs on a held lock.
constexpr long kRemoveWaitMs = 500;

key_t KeyOf(const char* name) {
    unsigned int sum = 0;
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(name); *p; ++p) sum += *p;
    return static_cast<key_t>(sum * 99u);
}

long long NowMs() {
    struct timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

struct timespec Span(long ms) {
    struct timespec span = {static_cast<time_t>(ms / 1000), (ms % 1000) * 1000000};
    return span;
}

int LoadId(const int* field) {
    return __atomic_load_n(field, __ATOMIC_RELAXED);
}

// The key of every named object, to attach again once its set is gone: the exported layout holds the id
// alone. Slots are pushed and reused, never freed, so that readers need no lock (and a fork cannot catch
// one held).
struct KeySlot {
    const Mutex* owner;  // null: free for the next object
    key_t key;
    KeySlot* next;
};
KeySlot* keySlots = nullptr;

void RememberKey(const Mutex* owner, key_t key) {
    for (KeySlot* slot = __atomic_load_n(&keySlots, __ATOMIC_ACQUIRE); slot; slot = slot->next) {
        const Mutex* none = nullptr;
        if (__atomic_compare_exchange_n(&slot->owner, &none, owner, false, __ATOMIC_ACQ_REL,
                                        __ATOMIC_RELAXED)) {
            __atomic_store_n(&slot->key, key, __ATOMIC_RELEASE);
            return;
        }
    }
    // Without memory the object keeps its set but cannot follow it once it is removed.
    KeySlot* slot = new (std::nothrow) KeySlot{owner, key, nullptr};
    if (!slot) return;
    slot->next = __atomic_load_n(&keySlots, __ATOMIC_RELAXED);
    while (!__atomic_compare_exchange_n(&keySlots, &slot->next, slot, true, __ATOMIC_RELEASE,
                                        __ATOMIC_RELAXED)) {
    }
}

KeySlot* SlotOf(const Mutex* owner) {
    for (KeySlot* slot = __atomic_load_n(&keySlots, __ATOMIC_ACQUIRE); slot; slot = slot->next)
        if (__atomic_load_n(&slot->owner, __ATOMIC_ACQUIRE) == owner) return slot;
    return nullptr;
}

// Both operations run as one atomic step: the wait-for-zero fails at once when the semaphore is free, and the
// release then does not happen either, so the value never rises above 1. On a set that is gone it fails and
// does nothing.
void Release(int id) {
    struct sembuf release[2] = {{0, 0, IPC_NOWAIT}, {0, 1, SEM_UNDO}};
    ::semop(id, release, 2);
}

int MakePrivate() {
    int id = ::semget(IPC_PRIVATE, 1, kCreateFlags);
    ::semctl(id, 0, SETVAL, 1);
    return id;
}

// The set of `key`: the one that exists, found without touching its value, or a new one made free. -1 when
// none can be had: no access, no room, or a set with the id 0, which counts as none.
int AttachOrCreate(key_t key) {
    for (int round = 0; round < kCreateRounds; ++round) {
        int id = ::semget(key, 1, kAttachFlags);
        if (id > 0) return id;
        if (id == 0 || errno != ENOENT) return -1;
        // IPC_EXCL on the create makes exactly one of two racing processes the creator, and only the creator
        // sets the value. Otherwise the loser's SETVAL could free a lock the winner already holds.
        id = ::semget(key, 1, kCreateFlags | IPC_EXCL);
        if (id > 0) {
            // It fails only when a waiter removed the set as never freed while this process stalled here;
            // the next round finds the waiter's set.
            if (::semctl(id, 0, SETVAL, 1) == 0) return id;
        } else if (id == 0) {
            // Made by this very call with IPC_EXCL, so nobody else has it: id 0 counts as failure everywhere,
            // so spend it and make another.
            ::semctl(id, 0, IPC_RMID);
        } else if (errno != EEXIST) {
            return -1;
        }
    }
    return -1;
}

// A set at 0 on which no semop has ever succeeded (sem_otime still 0) has never had a holder: its creator
// has not made it free yet. The value is read before the time, so that a set freed and taken between the two
// reads shows a time and counts as used.
bool NeverFreed(int id) {
    struct semid_ds state;
    return ::semctl(id, 0, GETVAL) == 0 && ::semctl(id, 0, IPC_STAT, &state) == 0 && state.sem_otime == 0;
}

// Attaches `self` again by its name after `gone` failed as removed. All threads of the process end on one
// id: the field only moves on from the id that failed. -1 for an object without a name or without a set.
int Follow(const Mutex* self, int* field, int gone) {
    const KeySlot* slot = SlotOf(self);
    if (!slot) return -1;
    const int fresh = AttachOrCreate(__atomic_load_n(&slot->key, __ATOMIC_ACQUIRE));
    if (fresh <= 0) return -1;
    int expected = gone;
    if (__atomic_compare_exchange_n(field, &expected, fresh, false, __ATOMIC_RELAXED, __ATOMIC_RELAXED))
        return fresh;
    return expected;  // another thread followed first
}

// The contended path of lock: the take of `current` just failed with errno. A set that has had a holder is
// waited on without a time limit, keeping the waiter's place in the queue: its holder gives it back or dies
// (SEM_UNDO), or it is removed (EIDRM). Only a set that was never freed is watched in slices. Kept out of
// lock, whose uncontended path then saves no registers.
__attribute__((noinline, cold)) void WaitOrFollow(const Mutex* self, int* field, int current) {
    long long neverFreedSince = -1;  // when this waiter first saw `current` never freed
    for (;;) {
        short flags = SEM_UNDO;  // block
        switch (errno) {
            case EINTR:  // a signal must not let the caller go on without the lock
                break;
            case EAGAIN:  // held, or the slice ran out
                if (!NeverFreed(current)) {
                    neverFreedSince = -1;
                    break;
                }
                if (neverFreedSince < 0) neverFreedSince = NowMs();
                if (NowMs() - neverFreedSince < kNeverFreedGraceMs) break;
                // Removed by id: a second waiter's removal of the same set fails, and a creator that was only
                // stalled finds its SETVAL refused instead of freeing a set that somebody took meanwhile.
                ::semctl(current, 0, IPC_RMID);
                [[fallthrough]];
            case EIDRM:
            case EINVAL:
                current = Follow(self, field, current);
                if (current <= 0) return;
                neverFreedSince = -1;
                flags |= IPC_NOWAIT;  // the new set is looked at like the first one
                break;
            default:  // no access or no memory: the caller goes on without the lock, as on an inert object
                return;
        }
        struct sembuf take = {0, -1, flags};
        struct timespec slice = Span(kWaitSliceMs);
        if (::semtimedop(current, &take, 1, neverFreedSince < 0 ? nullptr : &slice) == 0) return;
    }
}

// Removes `id` while holding it, so that nobody is inside when its waiters move on to a new set. A holder in
// another process is waited for kRemoveWaitMs, then left with its set: exit never hangs, and a set in use is
// never pulled away.
void RemoveWhileHolding(int id) {
    struct sembuf take = {0, -1, SEM_UNDO};
    const long long deadline = NowMs() + kRemoveWaitMs;
    for (long long left = kRemoveWaitMs; left > 0; left = deadline - NowMs()) {
        struct timespec wait = Span(static_cast<long>(left));
        if (::semtimedop(id, &take, 1, &wait) == 0) {
            // Only the owner or the creator may remove a set: anybody else gives it back.
            if (::semctl(id, 0, IPC_RMID) != 0) Release(id);
            return;
        }
        if (errno != EINTR) break;
    }
    // Held all along by this very process (the last semop on it was ours and left it at 0): the holder is
    // the thread destroying the object, or one that uses it while it is destroyed.
    if (errno == EAGAIN && ::semctl(id, 0, GETVAL) == 0 && ::semctl(id, 0, GETPID) == ::getpid())
        ::semctl(id, 0, IPC_RMID);
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
    RememberKey(this, key);
    // Attaching leaves the value alone: a process that attaches to a held lock finds it held.
    id = AttachOrCreate(key);
}

Mutex::~Mutex() {
    const int current = LoadId(&id);
    if (current > 0) RemoveWhileHolding(current);
    if (KeySlot* slot = SlotOf(this)) __atomic_store_n(&slot->owner, nullptr, __ATOMIC_RELEASE);
}

void Mutex::lock() {
    const int current = LoadId(&id);
    if (current <= 0) return;
    // Uncontended, this one semop is all: a held set is only looked at once the take fails.
    struct sembuf take = {0, -1, SEM_UNDO | IPC_NOWAIT};
    if (::semop(current, &take, 1) == 0) return;
    WaitOrFollow(this, &id, current);
}

void Mutex::unlock() {
    Release(LoadId(&id));
}

int Mutex::getid() {
    return LoadId(&id);
}
