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
 * @par Threads
 * Any number of threads may contend for a lock. The writes of one holder are visible to the next.
 * Taking and releasing are also full memory barriers. There is no owner (any thread may release),
 * no recursion (a second spinlock_lock() by the holder never returns) and no fairness. If the
 * holder is descheduled, cancelled or killed, the other threads wait; use a mutex if that matters
 * or if the critical section may block.
 *
 * @par Real-time priorities
 * Do not use a spinlock between threads of different real-time priority. There is no priority
 * inheritance, and a waiter that sleeps for only a microsecond may keep a holder of lower priority
 * off the processor, so both hang. Use a mutex with priority inheritance there.
 *
 * @par Memory
 * The record belongs to the caller. Nothing is allocated, nothing needs a release, and nothing can
 * fail. The record may lie in memory shared between processes. The pointers must not be null.
 *
 * @par Compiling and linking
 * With strict ISO options (-std=c11) include this header first, or define _POSIX_C_SOURCE as
 * 199309L or more, so that the C library declares nanosleep(). Every program that links the library
 * defines gLogLevl: see common/self_log.h.
 *
 * @par Example
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

/** A lock. An all-zero lock is free. */
typedef struct spinlock_t {
    int v_; /**< 0 free, 1 held; leave it to the functions below */
} spinlock_t;

/** Makes the lock free. Call it before another thread can use it. */
void spinlock_init(spinlock_t *spin);

/** Takes the lock if it is free. Never waits. Acquire semantics: nothing after the call is done
 * before the lock is held.
 * @return 1 when this call took it, 0 when it was held */
int spinlock_try_lock(spinlock_t *spin);

/** Waits as long as needed, backing off by yield_k(), and returns with the lock held. Acquire
 * semantics as spinlock_try_lock(). Signals do not end the wait. */
void spinlock_lock(spinlock_t *spin);

/** Makes the lock free, whichever thread held it; a free lock stays free. Release semantics:
 * everything done before the call is visible to the next holder, and takes effect before any later
 * load of the caller. */
void spinlock_unlock(spinlock_t *spin);

/** The back-off of spinlock_lock() alone, for wait loops of the host: call it after attempt number
 * k (from 0) failed. Below 4 it returns at once, below 32 it yields the processor; from then on it
 * sleeps for 1000 ns when k is even and yields when it is odd. An interrupted sleep ends early.
 * Keeps no state. May change errno. */
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
