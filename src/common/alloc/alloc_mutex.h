// The allocators' mutexes, taken and given back around every operation. While the process has one
// thread, there is nobody to wait for and nothing to order: the mutex is then marked as held and as
// free without the two calls, which would cost as much as the allocation itself. To anybody who
// looks at it, a signal handler's try-lock say, it is held all the same.

#ifndef ALLOC_MUTEX_H
#define ALLOC_MUTEX_H

#ifdef __cplusplus

#include <pthread.h>
#include <sys/single_threaded.h>

// What alloc_mutex_unlock needs to know of the lock: a thread may have been started in between.
enum class mutex_hold_t : bool { kLocked, kMarked };

[[nodiscard]] inline mutex_hold_t alloc_mutex_lock(pthread_mutex_t *mutex) {
    int *const held = &mutex->__data.__lock;
    if (__libc_single_threaded && __atomic_load_n(held, __ATOMIC_RELAXED) == 0) {
        __atomic_store_n(held, 1, __ATOMIC_RELAXED);
        __atomic_signal_fence(__ATOMIC_SEQ_CST);
        return mutex_hold_t::kMarked;
    }
    pthread_mutex_lock(mutex);
    return mutex_hold_t::kLocked;
}

inline void alloc_mutex_unlock(pthread_mutex_t *mutex, mutex_hold_t hold) {
    if (hold == mutex_hold_t::kMarked) {
        __atomic_signal_fence(__ATOMIC_SEQ_CST);
        __atomic_store_n(&mutex->__data.__lock, 0, __ATOMIC_RELAXED);
    } else {
        pthread_mutex_unlock(mutex);
    }
}

#endif

#endif
