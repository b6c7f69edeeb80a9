/* SPDX-License-Identifier: MIT */
/**
 * @file
 * self_fifo: a bounded first-in first-out ring of fixed-size elements between threads.
 *
 * Elements are copied in and out by value. The capacity is fixed when the ring is made; a full ring
 * refuses the next element and never overwrites, an empty one refuses to read and never waits. The
 * smallest use:
 *
 *     #include <common/self_fifo.h>
 *     static tSample giSlots[64];
 *     static tFifo giFifo;
 *     ...
 *     fifo_init(&giFifo, giSlots, sizeof giSlots[0], 64);
 *     ...
 *     if (!fifo_add_one(&giFifo, &sample))              // producer
 *         dropped++;
 *     while (fifo_get_one(&giFifo, &sample))            // consumer
 *         use(&sample);
 *
 * Threads: any number of producers, consumers and callers of the queries at the same time. Each
 * ring has a reader-writer lock of its own; adding, reading and clearing hold it for writing, over
 * test, copy and count of one element, the queries hold it for reading. Only fifo_init() must be
 * over before other threads know the ring. Not for signal handlers.
 *
 * What blocks: a call waits for the calls of other threads in progress, each of them one element's
 * copy long; none waits for an element or for room. It tries the lock, yields the processor between
 * the first 16 tries and sleeps for 50 us between the later ones. So threads of different real-time
 * priority may share a ring, on one processor too; but the lock has no priority inheritance: while
 * a thread that holds it is kept from the processor, the others wait. Beware of polling: threads
 * that ask a query again and again without a pause hold up every add and get (with eight of them
 * one add took seconds). A loop that waits calls sched_yield() or sleeps between two questions;
 * better still, it tries the add or the get itself.
 *
 * Owner: record and slots are the caller's, and nothing is allocated. There is no destroy
 * operation: stop all use before the memory goes. On Linux the lock inside holds nothing that
 * would have to be given back.
 *
 * No function checks its pointers for null. In a strictly ISO compilation (-std=c11) include this
 * header first, or define _POSIX_C_SOURCE as 200112L or more, so that the C library declares
 * pthread_rwlock_t.
 *
 * Elements are copied under the lock, so keep them small, or pass pointers. A ring is not for use
 * between processes.
 *
 * Every program that links the library defines gLogLevl: see common/self_log.h.
 *
 * A complete program, and what it prints:
 * @include self_fifo.cpp
 * @verbinclude self_fifo.out
 */
#ifndef KELVARA_COMMON_SELF_FIFO_H
#define KELVARA_COMMON_SELF_FIFO_H

#if defined __STRICT_ANSI__ && !defined _GNU_SOURCE && !defined _POSIX_C_SOURCE
#define _POSIX_C_SOURCE 200809L
#endif
#include <pthread.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/** Set up by fifo_init() and then left to the functions below; a host that looks at the fields
 * itself must hold fifoRwLk. Head equals Tail in an empty ring and in a full one. */
typedef struct _tFifo_ {
    uint32_t Depth;            /**< capacity in elements */
    volatile uint32_t Head;    /**< slot of the oldest element, the next to be read */
    volatile uint32_t Tail;    /**< slot that is written next */
    volatile uint32_t Counter; /**< elements stored, 0 to Depth */
    uint32_t ElementBytes;     /**< size of an element */
    void *Buff;                /**< the slots: Depth times ElementBytes bytes */
    pthread_rwlock_t fifoRwLk; /**< guards Head, Tail, Counter and the slots */
} tFifo;

/** Makes an empty ring of aicDepth elements of aicElemBytes bytes over the storage at aipBuff,
 * which needs no alignment, holds aicDepth * aicElemBytes bytes (keep that below 4 GiB) and stays
 * in place as long as the ring is used. The slots are not cleared. A depth of 0 gives a ring that
 * is empty and full at once. */
void fifo_init(tFifo *aipcFifo, void *aipBuff, uint32_t aicElemBytes, uint32_t aicDepth);

/** Whether no element is stored. With other threads at work the answer of this and of the next two
 * may be out of date on return.
 * @return 1 if no element is stored, otherwise 0 */
int fifo_is_empty(tFifo *aipcFifo);

/** Whether as many elements are stored as fit.
 * @return 1 if as many elements are stored as fit, otherwise 0 */
int fifo_is_full(tFifo *aipcFifo);

/** Counts the stored elements.
 * @return the number of elements stored */
uint32_t fifo_get_data_count(tFifo *aipcFifo);

/** Copies the element at aipVal to the end.
 * @return 1, or 0 when the ring is full; nothing is changed then */
int fifo_add_one(tFifo *aipcFifo, void *aipVal);

/** Adds up to aicElemCntToAdd elements, which stand one after another at aipVals. Stops at the
 * first one that is refused; the rest of aipVals is not read. The lock is taken once an element,
 * so elements of other threads may come in between. A count of 0 does nothing at all.
 * @return how many were added */
uint32_t fifo_add(tFifo *aipcFifo, void *aipVals, uint32_t aicElemCntToAdd);

/** Moves the oldest element to aopVal, which has room for one.
 * @return 1, or 0 when the ring is empty; aopVal is left alone then */
int fifo_get_one(tFifo *aipcFifo, void *aopVal);

/** Moves up to aicElemCntToRead elements to aopVals, oldest first, one after another. The lock is
 * taken once an element, so with several consumers the elements need not be neighbours. A count of
 * 0 does nothing at all.
 * @return how many there were; the room behind them is left alone */
uint32_t fifo_get(tFifo *aipcFifo, void *aopVals, uint32_t aicElemCntToRead);

/** Drops all elements; the next one goes to slot 0. The slots are not cleared. */
void fifo_clear(tFifo *aipcFifo);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
