// SPDX-License-Identifier: MIT
// How the library's threads meet cancellation.
//
// A thread of ours is cancelled by its exit call. The cancel must never take effect inside the
// logger, the allocator, stdio, libevent or a lock, nor on just any instruction: on ARM a stack can
// be unwound from a call only. So cancellation is held off from a thread's first step on, and let
// in at the few places where a pending cancel takes effect inside a call of ours.
#pragma once

#include <cerrno>
#include <execinfo.h>
#include <pthread.h>

// The C library's locks in localtime_r(), random() and rand() stay locked for ever in a child that
// is forked while another thread holds them. So our calls of these take this lock, for which a fork
// waits; nothing else is taken under it.
extern pthread_mutex_t gThreadLibcLk;

// First step of every thread: asynchronous cancellation, enabled, and held off at once. The type
// comes last, when a cancel can no longer take effect between two calls. The name, of 15 characters
// at most, is for `top -H`, `ps -T` and debuggers.
__attribute__((noinline)) inline void thread_begin(const char *aicpcNme)
{
    (void)pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr); // these fail on bad values only
    (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    (void)pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
    (void)pthread_setname_np(pthread_self(), aicpcNme);
}

// glibc loads the unwinder when a thread is first cancelled or exits, and aborts the process when
// it cannot, for want of a descriptor, say. So it is loaded before a thread of ours is created.
// Gives 0 or, without it, the error number with which the start fails.
__attribute__((noinline)) inline int thread_load_unwinder()
{
    void *pFrame = nullptr;
    return backtrace(&pFrame, 1) > 0 ? 0 : ELIBACC;
}

// Keeps a cancel out of a section that holds a lock, on any thread; what it gives goes to
// thread_restore_cancel().
inline int thread_defer_cancel()
{
    int was = PTHREAD_CANCEL_ENABLE;
    (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &was);
    return was;
}

inline void thread_restore_cancel(int aiWas)
{
    (void)pthread_setcancelstate(aiWas, nullptr);
}
