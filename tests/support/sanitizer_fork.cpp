// fork beside threads that allocate, under the address sanitizer: its allocator has locks of its own, which a child
// would find as those threads held them, and wait for ever. They are held around the fork here, as newer sanitizers do
// by themselves. Without that sanitizer there is nothing to do: the C library's allocator is made for forks.
#include <pthread.h>

#if defined(__clang__) && __clang_major__ < 17
#if __has_feature(address_sanitizer)
namespace __lsan {
void LockThreadRegistry();
void LockAllocator();
void UnlockAllocator();
void UnlockThreadRegistry();
}  // namespace __lsan
namespace __sanitizer {
void StackDepotLockAll();
void StackDepotUnlockAll();
}  // namespace __sanitizer

namespace {

void lock_all()
{
    __lsan::LockThreadRegistry();
    __lsan::LockAllocator();
    __sanitizer::StackDepotLockAll();
}

void unlock_all()
{
    __sanitizer::StackDepotUnlockAll();
    __lsan::UnlockAllocator();
    __lsan::UnlockThreadRegistry();
}

void handle_fork() { (void)pthread_atfork(lock_all, unlock_all, unlock_all); }

// Before the constructors of any library: handlers that came first are the last before a fork, so what the others wait
// for may still allocate.
__attribute__((section(".preinit_array"), used)) void (*const at_start)() = handle_fork;

}  // namespace
#endif
#endif
