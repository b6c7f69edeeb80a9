/* SPDX-License-Identifier: MIT */
/**
 * @file
 * self_fifo: a bounded first-in first-out ring of fixed-size elements between threads.
 *
 * Elements are copied in and out by value. The capacity is fixed when the ring is made. A full ring
 * refuses the next element and never overwrites; an empty ring refuses to read and never waits. The
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
 * @par Threads
 * Any number of producers, consumers and callers of the queries may run at the same time. Each ring
 * has its own reader-writer lock. Adding, reading and clearing hold it for writing while they test,
 * copy and count one element; the queries hold it for reading. fifo_init() must return before other
 * threads use the ring. Not for signal handlers, and not for use between processes.
 *
 * @par Blocking
 * A call waits for the calls of other threads in progress, each of which lasts as long as the copy
 * of one element. No call waits for an element or for room. A call tries the lock, yields the
 * processor between the first 16 tries and sleeps for 50 us between the later ones. So threads of
 * different real-time priority may share a ring, even on one processor. But the lock has no
 * priority inheritance: while a thread that holds it is descheduled, the others wait. Elements are
 * copied under the lock, so keep them small, or pass pointers.
 *
 * @par Polling
 * Threads that call a query repeatedly without a pause delay every add and get (with eight such
 * threads one add took seconds). A polling loop must call sched_yield() or sleep between two
 * queries. It is better to try the add or the get itself.
 *
 * @par Memory
 * Record and slots belong to the caller; nothing is allocated. There is no destroy operation: stop
 * all use before you release the memory. On Linux the lock inside needs no release. No function
 * checks its pointers for null.
 *
 * @par Compiling and linking
 * With strict ISO options (-std=c11) include this header first, or define _POSIX_C_SOURCE as
 * 200112L or more, so that the C library declares pthread_rwlock_t. Every program that links the
 * library defines gLogLevl: see common/self_log.h.
 *
 * @par Example
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

/** Set up by fifo_init() and then changed only by the functions below; a host that reads the fields
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

/** Makes an empty ring of aicDepth elements of aicElemBytes bytes over the storage at aipBuff. The
 * storage needs no alignment, holds aicDepth * aicElemBytes bytes (keep that below 4 GiB), and must
 * stay in place while the ring is used. The slots are not cleared. A ring of depth 0 is both empty
 * and full. */
void fifo_init(tFifo *aipcFifo, void *aipBuff, uint32_t aicElemBytes, uint32_t aicDepth);

/** Whether no element is stored. If other threads use the ring, the answer of this and the next two
 * functions may be out of date on return.
 * @return 1 if no element is stored, otherwise 0 */
int fifo_is_empty(tFifo *aipcFifo);

/** Whether the ring is full.
 * @return 1 if as many elements are stored as fit, otherwise 0 */
int fifo_is_full(tFifo *aipcFifo);

/** Counts the stored elements.
 * @return the number of elements stored */
uint32_t fifo_get_data_count(tFifo *aipcFifo);

/** Copies the element at aipVal to the end of the ring.
 * @return 1, or 0 with nothing changed when the ring is full */
int fifo_add_one(tFifo *aipcFifo, void *aipVal);

/** Adds up to aicElemCntToAdd elements from the array at aipVals. Stops at the first one that is
 * refused; the rest of aipVals is not read. The lock is taken once for each element, so elements of
 * other threads may come in between. A count of 0 does nothing at all.
 * @return how many were added */
uint32_t fifo_add(tFifo *aipcFifo, void *aipVals, uint32_t aicElemCntToAdd);

/** Moves the oldest element to aopVal, which has room for one.
 * @return 1, or 0 with aopVal unchanged when the ring is empty */
int fifo_get_one(tFifo *aipcFifo, void *aopVal);

/** Moves up to aicElemCntToRead elements to the array at aopVals, oldest first. The lock is taken
 * once for each element, so with several consumers the elements need not be consecutive ones. A
 * count of 0 does nothing at all.
 * @return how many were moved; the rest of aopVals is unchanged */
uint32_t fifo_get(tFifo *aipcFifo, void *aopVals, uint32_t aicElemCntToRead);

/** Drops all elements; the next one goes to slot 0. The slots are not cleared. */
void fifo_clear(tFifo *aipcFifo);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
