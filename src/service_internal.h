// SPDX-License-Identifier: MIT
// What the two event-loop services share: starting and stopping their thread, and their sockets.
//
// A service's exit call first leaves its cancel pending on the thread, which holds cancellation
// off, and then wakes the loop through an eventfd of ours. The loop ends in libevent's own way, no
// lock of it stays held, and the cancel takes effect in service_end(), where the thread holds
// nothing. The eventfd exists before the thread does, so a stop may come at any moment.
//
// A child made by fork() has neither the threads nor a use for what they had. It forgets their
// event bases, events and records: to delete an event would take it out of the epoll set that the
// child shares with its parent. Their descriptors it closes. So that it knows them all, each is
// got, given away and closed under the lock below, for which a fork waits. No line is logged under
// it.
#pragma once

#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>

struct event;
struct event_base;

struct tService {
    int WakeFd;         // eventfd; -1 while there is no thread
    event_base *pEtBse; // the base that service_dispatch() runs
    bool bStop;         // the exit call has woken the loop; only the service thread looks
};

// Starts the thread and stores its identifier, which stays 0 on failure. Returns 0 or an error
// number. Called by the exit call's thread, as is service_stop().
int service_start(tService *aopServ, pthread_t *aopPthdId, void *(*aiEntry)(void *), void *aipArg);

// Cancels, wakes and joins the thread.
void service_stop(tService *aiopServ, pthread_t aiPthdId);

// On the thread: makes a base, or gives null. libevent would end the process for want of the
// descriptors that a base needs, so it is asked only while that many are free.
event_base *service_base(const tService *aipcServ);

// On the thread: runs the base until the loop fails or the exit call wakes it. False when the
// wake-up could not be set up, and nothing was run.
bool service_dispatch(tService *aiopServ, event_base *aipEtBse);

// On the thread, last: takes the pending cancel, or ends by itself with the exit text.
[[noreturn]] void service_end(const tService *aipcServ, const char *aicpcText);

// Takes the lock on descriptors, with cancellation held off; what it gives goes to
// service_unlock().
__attribute__((noinline)) int service_lock(); // small code matters more than a call
__attribute__((noinline)) void service_unlock(int aicWas);

// In a forked child, where nobody needs the lock: closes a descriptor; closes the wake-up and
// forgets thread and base.
void service_drop(int *aiopFd);
void service_forget(tService *aiopServ, pthread_t *aiopPthdId, event_base **aiopEtBse);

// Under the lock, right after the call that gave the descriptor (or -1, with errno): makes it
// close-on-exec, and returns it.
int service_own(int aicFd);

// Makes a local stream socket that takes no descriptors from its peers; -1 with errno on failure.
int service_socket(int *aopFd);

// Fills the address and gives its length; 0 with errno ENAMETOOLONG when the path does not fit, and
// EINVAL when it is empty: the kernel would choose a name that nobody knows and no folder protects.
socklen_t service_address(sockaddr_un *aopAddr, const char *aicpcPath);

// Adds O_NONBLOCK to the descriptor's flags; on a socket of ours that cannot fail.
void service_set_nonblock(int aicFd);

// Give back what there is, once the loop has ended, and reset it. A descriptor of 0 is one like
// any other.
void service_free_event(event **aiopEt);
void service_free_base(event_base **aiopEtBse);
void service_close(int *aiopFd);
