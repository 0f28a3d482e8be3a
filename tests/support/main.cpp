#include <sys/ipc.h>
#include <sys/sem.h>

#include <gtest/gtest.h>

namespace {

// On a fresh system the first semaphore set gets the id 0, which the lock treats as inert. Making and
// removing one set moves the kernel's sequence on, so that no set made later can get that id. It runs
// before the library's own static objects, which make their semaphores at load.
struct SpendSemaphoreIdZero {
    SpendSemaphoreIdZero() {
        int id = ::semget(IPC_PRIVATE, 1, IPC_CREAT | 0600);
        if (id >= 0) ::semctl(id, 0, IPC_RMID);
    }
};
__attribute__((init_priority(101))) SpendSemaphoreIdZero spendSemaphoreIdZero;

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
