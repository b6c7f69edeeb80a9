// SPDX-License-Identifier: MIT
// Shared by the two event-loop services: start and stop of their threads, and their sockets.
//
// The thread of a service disables cancellation. The exit call first cancels it, so that a cancel
// is pending, and then wakes its loop through an eventfd. The loop ends in libevent's own way, so
// no lock of libevent stays held, and the cancel takes effect in service_end(), where the thread
// holds no lock. The eventfd exists before the thread, so the exit may be called at any moment.
//
// A child made by fork() does not have the threads and must not use their state. It forgets their
// event bases, events and records: deleting an event would remove it from the epoll set that the
// child shares with its parent. It closes their descriptors. So that it knows them all, each
// descriptor is made, stored and closed under the lock below, for which a fork waits. No line is
// logged under that lock.
#pragma once

#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>

struct event;
struct event_base;

struct tService {
    int WakeFd;         // eventfd; -1 while there is no thread
    event_base *pEtBse; // the base that service_dispatch() runs
    bool bStop;         // the exit call has woken the loop; used by the service thread only
};

// Starts the thread and stores its identifier, which stays 0 on failure. Returns 0 or an error
// number. Call it and service_stop() on the thread of init and exit.
int service_start(tService *aopServ, pthread_t *aopPthdId, void *(*aiEntry)(void *), void *aipArg);

// Cancels, wakes and joins the thread.
void service_stop(tService *aiopServ, pthread_t aiPthdId);

// On the thread: makes a base, or returns null. libevent ends the process if it lacks the
// descriptors that a base needs, so the function first checks that they are free.
event_base *service_base(const tService *aipcServ);

// On the thread: runs the base until the loop fails or the exit call wakes it. Returns false, with
// nothing run, when the wake-up could not be set up.
bool service_dispatch(tService *aiopServ, event_base *aipEtBse);

// On the thread, last: a pending cancel takes effect here; otherwise the thread ends with the exit
// text.
[[noreturn]] void service_end(const tService *aipcServ, const char *aicpcText);

// Takes the lock on descriptors, with cancellation disabled. Pass the result to service_unlock().
__attribute__((noinline)) int service_lock(); // size matters more than speed here
__attribute__((noinline)) void service_unlock(int aicWas);

// For a forked child, which has one thread and needs no lock: service_drop() closes a descriptor,
// service_forget() closes the eventfd and forgets thread and base.
void service_drop(int *aiopFd);
void service_forget(tService *aiopServ, pthread_t *aiopPthdId, event_base **aiopEtBse);

// Call it under the lock, right after the call that returned the descriptor (or -1, with errno):
// makes the descriptor close-on-exec and returns it.
int service_own(int aicFd);

// Makes a local stream socket that refuses passed descriptors; returns -1 with errno on failure.
int service_socket(int *aopFd);

// Fills the address and returns its length. Returns 0 with errno ENAMETOOLONG if the path does not
// fit, and EINVAL if it is empty: the kernel would choose a name that no client knows and no folder
// protects.
socklen_t service_address(sockaddr_un *aopAddr, const char *aicpcPath);

// Adds O_NONBLOCK to the descriptor's flags; cannot fail on a socket of the library.
void service_set_nonblock(int aicFd);

// After the loop has ended: release the object, if there is one, and reset the variable. A
// descriptor of 0 is treated like any other.
void service_free_event(event **aiopEt);
void service_free_base(event_base **aiopEtBse);
void service_close(int *aiopFd);
