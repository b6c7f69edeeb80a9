// SPDX-License-Identifier: MIT
// How a thread takes a reader-writer lock without harm to threads of other real-time priority.
//
// glibc's own wait spins while another thread is between two steps of taking or releasing the lock.
// A thread of lower priority on the same processor then never gets to its second step. So the lock
// is only tried here. Yielding suffices while another processor has the lock for a moment; sleeping
// gives a thread of lower priority its turn.
#pragma once

#include <pthread.h>

// Repeats the try until it gives 0. No cancellation point.
void rwlock_take(int (*aicpTry)(pthread_rwlock_t *), pthread_rwlock_t *aiopLk);
