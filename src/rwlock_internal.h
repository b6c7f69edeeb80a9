// SPDX-License-Identifier: MIT
// Takes a reader-writer lock safely between threads of different real-time priority.
//
// glibc's own wait spins while another thread is between two steps of taking or releasing the lock.
// A thread of lower priority on the same processor then never reaches its second step. So the
// library only tries the lock. Yielding is enough while a thread on another processor holds the
// lock for a moment; sleeping lets a thread of lower priority run.
#pragma once

#include <pthread.h>

// Repeats the try until it returns 0. Not a cancellation point. Out of line: the uncontended path
// must not save the registers that waiting needs.
void rwlock_wait(int (*aicpTry)(pthread_rwlock_t *), pthread_rwlock_t *aiopLk);

static inline void rwlock_take(int (*aicpTry)(pthread_rwlock_t *), pthread_rwlock_t *aiopLk)
{
    if (aicpTry(aiopLk) != 0)
        rwlock_wait(aicpTry, aiopLk);
}
