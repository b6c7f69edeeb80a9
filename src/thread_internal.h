// SPDX-License-Identifier: MIT
// How the library's threads handle cancellation.
//
// The exit call of a service cancels its thread. The cancel must never take effect inside the
// logger, the allocator, stdio, libevent or a lock, nor at an arbitrary instruction: on ARM a stack
// can be unwound only from a call. So a thread disables cancellation in its first step, and enables
// it only at the few places where a pending cancel takes effect inside a call of the C library.
#pragma once

#include <cerrno>
#include <execinfo.h>
#include <pthread.h>

// If a child is forked while another thread is inside localtime_r(), random() or rand(), the C
// library's lock stays held in the child for ever. So the library calls these functions under this
// lock, for which a fork waits; no other lock is taken under it.
extern pthread_mutex_t gThreadLibcLk;

// The first step of every thread. Enables cancellation, disables it, and makes its type
// asynchronous. The type comes last, so that no cancel can take effect between these calls. The
// name, of at most 15 characters, is for `top -H`, `ps -T` and debuggers.
__attribute__((noinline)) inline void thread_begin(const char *aicpcNme)
{
    (void)pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr); // these fail on bad values only
    (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    (void)pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
    (void)pthread_setname_np(pthread_self(), aicpcNme);
}

// glibc loads the unwinder when a thread is first cancelled or exits, and aborts the process if
// that fails, for example because no descriptor is free. So the library loads it before it creates
// a thread. Returns 0, or the error number that the start reports.
__attribute__((noinline)) inline int thread_load_unwinder()
{
    void *pFrame = nullptr;
    return backtrace(&pFrame, 1) > 0 ? 0 : ELIBACC;
}

// Disables cancellation in a critical section, on any thread. Pass the result to
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
