#include "msplatform/thread.h"

#include <cxxabi.h>
#include <stdlib.h>

#include "os/internal.h"

Thread::Thread(int suspended, int selfDeleting, int /*reserved*/)
    : threadId(),
      finished(0),
      selfDeleting(selfDeleting),
      suspended(0),
      waiterCount(0),
      lastError(0),
      schedParam() {
    ::pthread_mutex_init(&mutex, nullptr);
    ::pthread_cond_init(&stateCond, nullptr);
    ::pthread_cond_init(&waitersGoneCond, nullptr);
    this->suspended = suspended;
    lastError = osSystemCalls.pthreadCreate(&threadId, nullptr, ThreadSpawn, this);
    if (lastError != 0) {
        // No thread will ever set `finished`: without this, wait and the destructor would block for good.
        threadId = pthread_t();
        StoreFlag(&finished, 1);
    }
}

Thread::~Thread() {
    ::pthread_mutex_lock(&mutex);
    while (LoadFlag(&finished) == 0 || waiterCount != 0) ::pthread_cond_wait(&waitersGoneCond, &mutex);
    ::pthread_mutex_unlock(&mutex);
    ::pthread_cond_destroy(&stateCond);
    ::pthread_cond_destroy(&waitersGoneCond);
    ::pthread_mutex_destroy(&mutex);
    // Never joined: the detach gives the thread's resources back. A thread that was never made has none.
    if (threadId != pthread_t()) ::pthread_detach(threadId);
}

// The forced unwinding of pthread_exit is caught by a reference that the runtime binds to no object; the
// null check of the sanitizer would take that for a fault.
__attribute__((no_sanitize("null"))) void* Thread::ThreadSpawn(void* object) {
    Thread* self = static_cast<Thread*>(object);
    // Once `finished` is set an owner may delete the object at any moment: only a self-deleting thread may
    // touch it after that.
    auto finish = [self] {
        int deleteSelf = self->selfDeleting;
        ::pthread_mutex_lock(&self->mutex);
        StoreFlag(&self->finished, 1);
        ::pthread_cond_broadcast(&self->stateCond);
        ::pthread_cond_signal(&self->waitersGoneCond);
        ::pthread_mutex_unlock(&self->mutex);
        if (deleteSelf != 0) delete self;
    };
    ::pthread_mutex_lock(&self->mutex);
    try {
        while (self->suspended != 0) ::pthread_cond_wait(&self->stateCond, &self->mutex);
    } catch (...) {
        // Cancelled while held: the wait comes back with the mutex taken. The body never runs, but the
        // object finishes, or resume, wait and the destructor would block for good.
        ::pthread_mutex_unlock(&self->mutex);
        finish();
        throw;
    }
    ::pthread_mutex_unlock(&self->mutex);

    ::srand(0);
    void* result = reinterpret_cast<void*>(1);
    try {
        self->run();
    } catch (abi::__forced_unwind&) {
        // pthread_exit inside the body unwinds through here: the object finishes, and the unwinding goes on.
        finish();
        throw;
    } catch (...) {
        result = nullptr;
    }
    finish();
    return result;
}

void Thread::resume() {
    ::pthread_mutex_lock(&mutex);
    if (suspended != 0) {
        suspended = 0;
        ::pthread_cond_broadcast(&stateCond);
    }
    ::pthread_mutex_unlock(&mutex);
}

int Thread::isFinished() {
    return LoadFlag(&finished);
}

void Thread::setPriority(Thread::Priority /*priority*/) {
    if (LoadFlag(&finished) != 0) return;
    schedParam.sched_priority = 0;
    lastError = osSystemCalls.pthreadSetSchedParam(threadId, SCHED_OTHER, &schedParam);
}

void Thread::wait() {
    ::pthread_mutex_lock(&mutex);
    if (LoadFlag(&finished) == 0) {
        auto leave = [this] {
            if (--waiterCount == 0) ::pthread_cond_signal(&waitersGoneCond);
        };
        // One wait only, not a loop: `resume` wakes it as well, and the caller asks isFinished afterwards.
        ++waiterCount;
        try {
            ::pthread_cond_wait(&stateCond, &mutex);
        } catch (...) {
            // The caller was cancelled: the wait comes back with the mutex taken. It leaves as if woken, or
            // the destructor would wait for it for good.
            leave();
            ::pthread_mutex_unlock(&mutex);
            throw;
        }
        leave();
    }
    ::pthread_mutex_unlock(&mutex);
}

int Thread::sleep(long milliseconds) {
    struct timespec request;
    request.tv_sec = milliseconds / 1000;
    request.tv_nsec = (milliseconds % 1000) * 1000000;
    // Not resumed after a signal: the rest of the sleep is given up.
    return osSystemCalls.nanoSleep(&request, nullptr);
}
