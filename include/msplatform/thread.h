// Worker threads for the server processes.
//
// A derived class supplies `run`; the base class makes the thread in its constructor, can hold it back until
// `resume`, tells when the body has ended and, if asked, deletes its own object afterwards.
//
// Rules for owners and derived classes:
// - With `suspended` 0 the thread can reach `run` before the derived constructors are done; a class that
//   needs its whole object first passes a nonzero `suspended` and calls `resume` after construction.
// - An owner that deletes the object first calls `wait` until `isFinished` gives 1: the derived members are
//   gone by the time ~Thread waits for the body.
// - A self-deleting object must not be touched once its body may have ended.
// - A held thread must be resumed (or cancelled) before its object is destroyed.
// - The body must neither `wait` on nor delete its own object.
// If the thread cannot be made, the object counts as finished at once (`lastError` holds the cause), so that
// `wait` and the destructor return; a self-deleting object is then left for its owner to delete.
// Cancellation: a thread cancelled while held (once its object is complete, as for `resume`) finishes
// without its body, and a self-deleting object deletes itself; a caller cancelled inside `wait` leaves it as
// if woken.
#pragma once

#include <pthread.h>
#include <sched.h>

#include "msplatform/export.h"

class MSP_EXPORT Thread {
public:
    // Accepted and ignored: every thread runs under the normal time-sharing policy at priority 0.
    enum Priority { Low, Normal, High };

    // Starts the thread, held before `run` while `suspended` is nonzero. `reserved` is not used.
    Thread(int suspended, int selfDeleting, int reserved);
    // Waits for the end of the body (and for every caller of `wait` to leave), then releases the thread.
    virtual ~Thread();

    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    // The entry handed to pthread_create; `object` is the Thread.
    static void* ThreadSpawn(void* object);

    // Lets a held thread go on; does nothing on one that is not held.
    void resume();
    // 1 once the body has ended, else 0.
    int isFinished();
    // Puts the thread under SCHED_OTHER at priority 0, whatever `priority` says; nothing once finished.
    void setPriority(Thread::Priority priority);
    // Blocks once, until the thread has finished or has been resumed: check `isFinished` after it.
    // Not to be called by the thread of this object.
    void wait();
    // Sleeps the calling thread (whichever object it is called on); the nanosleep result. A signal ends it
    // early.
    int sleep(long milliseconds);

protected:
    // The thread's body. An exception that leaves it is dropped.
    virtual void run() = 0;

    pthread_t threadId;              // The thread; zero if it could not be made.
    int finished;                    // 0 until the body has ended, then 1. Guarded by `mutex`.
    int selfDeleting;                // Nonzero: the thread deletes this object after the body.
    int suspended;                   // Nonzero: the thread is held before the body. Guarded by `mutex`.
    int waiterCount;                 // Callers inside `wait` now. Guarded by `mutex`.
    int lastError;                   // Result of the last pthread_create or pthread_setschedparam.
    pthread_mutex_t mutex;           // Guards `finished`, `suspended` and `waiterCount`.
    pthread_cond_t stateCond;        // Broadcast when `suspended` is cleared and when `finished` is set.
    pthread_cond_t waitersGoneCond;  // What the destructor waits on.
    struct sched_param schedParam;   // Argument of pthread_setschedparam.
};
