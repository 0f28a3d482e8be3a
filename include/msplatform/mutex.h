// Mutex: the lock that the server processes of one machine share.
//
// It is one System V semaphore, not a thread mutex: every process (and every thread) that builds a Mutex from
// the same name competes for the same semaphore. The key of a name is the sum of its bytes times 99, so names
// with the same byte sum share one lock. The lock is not recursive and has no owner.
//
// Failures are silent: an object whose semaphore could not be made has an id of 0 or less and is inert, and
// its lock returns at once. The destructor removes the semaphore for every process, not just for this object.
#pragma once

#include "msplatform/export.h"

class MSP_EXPORT Mutex {
public:
    // A private semaphore that no other process can find; it starts free.
    Mutex();
    // Attaches to the semaphore of `name`, or creates it free.
    explicit Mutex(const char* name);
    // Removes the semaphore from the system when the id is above 0.
    ~Mutex();

    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    // Blocks until the semaphore is free and takes it; does nothing on an inert object.
    void lock();
    // Gives the semaphore back; the value never rises above free.
    void unlock();
    // The semaphore set's id; 0 or less means inert.
    int getid();

private:
    int id;  // semaphore set as semget gave it; <= 0: no set
};
