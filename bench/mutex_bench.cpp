// Mutex: lock + unlock, uncontended, against flock on a file and a process-shared pthread mutex in shared
// memory. The Mutex is the unnamed one: a private set, so that no other process's semaphore is touched.
#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

#include "bench.h"
#include "msplatform/mutex.h"

namespace {

const char kOperation[] = "Mutex::lock+unlock";
const char kInput[] = "uncontended";

void RegisterAll() {
    mspb::Add(kOperation, kInput, "msplatform", [](benchmark::State& state) {
        Mutex mutex;
        if (mutex.getid() <= 0) {
            state.SkipWithError("no semaphore set");
            return;
        }
        for (auto _ : state) {
            mutex.lock();
            mutex.unlock();
        }
    });
    mspb::Add(kOperation, kInput, "flock", [](benchmark::State& state) {
        mspb::TempDir dir;
        const int fd = open(dir.file("lock").c_str(), O_RDWR | O_CREAT, 0600);
        if (fd < 0) mspb::Fail("cannot open the lock file");
        for (auto _ : state) {
            flock(fd, LOCK_EX);
            flock(fd, LOCK_UN);
        }
        close(fd);
    });
    mspb::Add(kOperation, kInput, "pthread_pshared", [](benchmark::State& state) {
        void* memory =
            mmap(nullptr, sizeof(pthread_mutex_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) mspb::Fail("mmap");
        pthread_mutex_t* mutex = static_cast<pthread_mutex_t*>(memory);
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
        pthread_mutex_init(mutex, &attributes);
        pthread_mutexattr_destroy(&attributes);
        for (auto _ : state) {
            pthread_mutex_lock(mutex);
            pthread_mutex_unlock(mutex);
        }
        pthread_mutex_destroy(mutex);
        munmap(memory, sizeof(pthread_mutex_t));
    });
}

mspb::Registrar registrar(RegisterAll);

}  // namespace
