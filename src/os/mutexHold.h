// Holds a Mutex for a scope. A service whose lock could not be made (a null pointer) runs without one.
#pragma once

#include "msplatform/mutex.h"

class MutexHold {
public:
    explicit MutexHold(Mutex* mutex) : mutex_(mutex) {
        if (mutex_) mutex_->lock();
    }
    ~MutexHold() {
        if (mutex_) mutex_->unlock();
    }
    MutexHold(const MutexHold&) = delete;
    MutexHold& operator=(const MutexHold&) = delete;

private:
    Mutex* mutex_;
};
