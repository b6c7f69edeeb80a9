// SPDX-License-Identifier: MIT
// How a thread takes a reader-writer lock without harm to threads of other real-time priority.
//
// glibc's own wait spins while another thread is between two steps of taking or releasing the lock.
// A thread of lower priority on the same processor then never gets to its second step. So the lock
// is only tried here. Yielding suffices while another processor has the lock for a moment; sleeping
// gives a thread of lower priority its turn.
#pragma once

#include "thread_internal.h"

#include <ctime>
#include <pthread.h>
#include <sched.h>

// Out of line: the uncontended path must not save the registers that waiting needs.
template <int (*tTry)(pthread_rwlock_t *)>
__attribute__((noinline)) static void _rwlock_wait(pthread_rwlock_t *aiopLk)
{
    constexpr unsigned yields = 16;
    constexpr timespec nap{0, 50000};
    const int was = thread_defer_cancel(); // the sleep would let a cancel in
    for (unsigned tries = 0; tTry(aiopLk) != 0; tries++) {
        if (tries < yields)
            (void)sched_yield();
        else
            (void)clock_nanosleep(CLOCK_MONOTONIC, 0, &nap, nullptr); // a signal may end it early
    }
    thread_restore_cancel(was);
}

template <int (*tTry)(pthread_rwlock_t *)> static inline void rwlock_take(pthread_rwlock_t *aiopLk)
{
    if (tTry(aiopLk) != 0)
        _rwlock_wait<tTry>(aiopLk);
}
