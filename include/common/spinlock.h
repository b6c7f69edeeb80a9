/* SPDX-License-Identifier: MIT */
/**
 * @file
 * spinlock: mutual exclusion in one word, for critical sections of a few instructions.
 *
 * Taking a free lock is one atomic exchange and no system call. A waiter first retries at once,
 * then yields the processor, and after 33 failed attempts alternates between sleeping for a
 * microsecond and yielding. The smallest use:
 *
 *     #include <common/spinlock.h>
 *     static spinlock_t giCntLk;                        // zero is a free lock
 *     ...
 *     spinlock_lock(&giCntLk);
 *     giCnt++;
 *     spinlock_unlock(&giCntLk);
 *
 * Threads: any number of them contend for a lock; what one wrote while holding it is seen by the
 * next holder. Taking and releasing are full memory barriers, too. There is no owner (any thread
 * may release), no recursion (a second spinlock_lock() by the holder never returns) and no
 * fairness. A holder that is descheduled, cancelled or killed leaves the others waiting; where that
 * matters, or where the section may block, use a mutex.
 *
 * The record belongs to the caller; nothing is allocated, nothing has to be released, nothing can
 * fail. It may lie in memory shared between processes. The pointers must not be null.
 *
 * In a strictly ISO compilation (-std=c11) include this header first, or define _POSIX_C_SOURCE as
 * 199309L or more, so that the C library declares nanosleep().
 *
 * Not between threads of different real-time priority: there is no priority inheritance, and a
 * waiter that sleeps for a microsecond only may keep a holder of lower priority from the processor,
 * so both hang. Take a mutex with priority inheritance there.
 *
 * Every program that links the library defines gLogLevl: see common/self_log.h.
 *
 * A complete program, and what it prints:
 * @include spinlock.cpp
 * @verbinclude spinlock.out
 */
#ifndef KELVARA_COMMON_SPINLOCK_H
#define KELVARA_COMMON_SPINLOCK_H

#if defined __STRICT_ANSI__ && !defined _GNU_SOURCE && !defined _POSIX_C_SOURCE
#define _POSIX_C_SOURCE 200809L
#endif
#include <sched.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/** A lock. All zero it is free. */
typedef struct spinlock_t {
    int v_; /**< 0 free, 1 held; leave it to the functions below */
} spinlock_t;

/** Makes the lock free. Call it before another thread knows the lock. */
void spinlock_init(spinlock_t *spin);

/** Takes the lock if it is free. Never waits. Acquires: nothing after the call is done before the
 * lock is held.
 * @return 1 when this call took it, 0 when it was held */
int spinlock_try_lock(spinlock_t *spin);

/** Returns holding the lock; waits as long as that takes, backing off by yield_k(). Acquires like
 * spinlock_try_lock(). Signals do not end the wait. */
void spinlock_lock(spinlock_t *spin);

/** Makes the lock free, whoever held it; a free lock stays free. Releases: all that was done before
 * the call is seen by the next holder, and before the caller loads anything else. */
void spinlock_unlock(spinlock_t *spin);

/** The back-off of spinlock_lock() alone, for wait loops of the host's own: call it after the
 * attempt number k (from 0) failed. Below 4 it returns at once, below 32 it yields the processor;
 * from then on it sleeps for 1000 ns when k is even and yields when it is odd. An interrupted
 * sleep just ends early. Keeps no state. Leaves errno to chance. */
static inline void yield_k(unsigned k)
{
    const struct timespec nap = {0, 1000};

    if (k < 4)
        return;
    if (k < 32 || (k & 1u) != 0)
        (void)sched_yield();
    else
        (void)nanosleep(&nap, NULL);
}

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
