// Mutex: the lock that the server processes of one machine share.
//
// It is one System V semaphore, not a thread mutex: every process (and every thread) that builds a Mutex from
// the same name competes for the same semaphore. The key of a name is the sum of its bytes times 99, so names
// with the same byte sum share one lock. The lock is not recursive and has no owner.
//
// Failures are silent: an object whose semaphore could not be made has an id of 0 or less and is inert, and
// its lock returns at once. The destructor removes the semaphore for every process, not just for this object.
//
// A named lock outlives its semaphore: when another process has removed it, lock attaches again by the name
// (making the semaphore free if none exists) and waits there, so every object of the name, old or new, in
// any process, excludes the others again. A semaphore that was made but never freed, because its maker died
// in between, is removed and made again by the processes waiting on it after a short grace.
#pragma once

#include "msplatform/export.h"

class MSP_EXPORT Mutex {
public:
    // A private semaphore that no other process can find; it starts free.
    Mutex();
    // Attaches to the semaphore of `name`, or creates it free.
    explicit Mutex(const char* name);
    // Removes the semaphore from the system when the id is above 0, after taking it, so that nobody is inside
    // when its waiters move on. A holder in another process is waited for at most half a second and then
    // keeps the semaphore, which stays; one that this process still holds then is removed all the same.
    ~Mutex();

    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    // Blocks until the semaphore is free and takes it; does nothing on an inert object. A named object whose
    // semaphore was removed attaches again by its name within the same call.
    void lock();
    // Gives the semaphore back; the value never rises above free. Harmless on a semaphore that is gone.
    void unlock();
    // The semaphore set's id; 0 or less means inert. It changes when the object attaches again.
    int getid();

private:
    int id;  // semaphore set as semget gave it, read and moved on atomically; <= 0: no set
};
