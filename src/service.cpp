// SPDX-License-Identifier: MIT
#include "service_internal.h"

#include "console_internal.h"
#include "thread_internal.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <event2/event.h>
#include <fcntl.h>
#include <sys/eventfd.h>
#include <unistd.h>

#ifndef SO_PASSRIGHTS
#define SO_PASSRIGHTS 83 // since Linux 6.16; older kernels refuse it
#endif

static pthread_mutex_t giServFdLk = PTHREAD_MUTEX_INITIALIZER;

static void _service_before_fork()
{
    (void)pthread_mutex_lock(&giServFdLk);
}

static void _service_after_fork()
{
    (void)pthread_mutex_unlock(&giServFdLk);
}

__attribute__((constructor)) static void _service_meet_forks()
{
    // Fails without memory at the start of the program.
    (void)pthread_atfork(_service_before_fork, _service_after_fork, _service_after_fork);
}

static void _service_wake_cb(int, short, void *aipArg)
{
    tService *pServ = static_cast<tService *>(aipArg);
    pServ->bStop = true;
    (void)event_base_loopbreak(pServ->pEtBse); // fails on a null base only
}

int service_start(tService *aopServ, pthread_t *aopPthdId, void *(*aiEntry)(void *), void *aipArg)
{
    int err = thread_load_unwinder();
    if (err != 0)
        return err;
    const int was = service_lock();
    // Non-blocking, because libevent's debug mode requires it of every event's descriptor.
    *aopServ = {console_leave(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), nullptr, false};
    service_unlock(was);
    if (aopServ->WakeFd == -1)
        return errno;
    // pthread_create() may write any value to its result when it fails, so use a local variable.
    pthread_t id = 0;
    err = pthread_create(&id, nullptr, aiEntry, aipArg);
    if (err == 0)
        *aopPthdId = id;
    else
        service_close(&aopServ->WakeFd);
    return err;
}

void service_stop(tService *aiopServ, pthread_t aiPthdId)
{
    (void)pthread_cancel(aiPthdId);           // harmless if the thread has ended
    (void)eventfd_write(aiopServ->WakeFd, 1); // the counter has room for every stop
    (void)pthread_join(aiPthdId, nullptr);
    service_close(&aiopServ->WakeFd);
}

event_base *service_base(const tService *aipcServ)
{
    int fds[3]; // for epoll and both ends of the signal pipe
    const int was = service_lock();
    for (int &fd : fds)
        fd = fcntl(aipcServ->WakeFd, F_DUPFD_CLOEXEC, 0);
    const bool bEnough = fds[2] != -1;
    for (int &fd : fds)
        service_drop(&fd);
    service_unlock(was);
    return bEnough ? event_base_new() : nullptr;
}

bool service_dispatch(tService *aiopServ, event_base *aipEtBse)
{
    aiopServ->pEtBse = aipEtBse;
    event *pWakeEt = event_new(aipEtBse, aiopServ->WakeFd, EV_READ, _service_wake_cb, aiopServ);
    if (pWakeEt == nullptr)
        return false;
    bool bArmed = event_add(pWakeEt, nullptr) == 0;
    if (bArmed)
        (void)event_base_dispatch(aipEtBse); // the service ends, whatever the result
    event_free(pWakeEt);
    return bArmed;
}

void service_end(const tService *aipcServ, const char *aicpcText)
{
    if (aipcServ->bStop)
        (void)pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr); // a cancel takes effect here
    pthread_exit(const_cast<char *>(aicpcText));
}

int service_lock()
{
    const int was = thread_defer_cancel();
    (void)pthread_mutex_lock(&giServFdLk);
    return was;
}

void service_unlock(int aicWas)
{
    (void)pthread_mutex_unlock(&giServFdLk);
    thread_restore_cancel(aicWas);
}

void service_drop(int *aiopFd)
{
    if (*aiopFd == -1)
        return;
    (void)close(*aiopFd); // a local socket or an eventfd has nothing left to report
    *aiopFd = -1;
}

void service_forget(tService *aiopServ, pthread_t *aiopPthdId, event_base **aiopEtBse)
{
    service_drop(&aiopServ->WakeFd);
    *aiopServ = {-1, nullptr, false};
    *aiopPthdId = 0;
    *aiopEtBse = nullptr;
}

int service_own(int aicFd)
{
    if (aicFd != -1)
        (void)fcntl(aicFd, F_SETFD, FD_CLOEXEC); // fails on a bad descriptor only
    return aicFd;
}

int service_socket(int *aopFd)
{
    const int was = service_lock();
    *aopFd = service_own(socket(AF_UNIX, SOCK_STREAM, 0));
    service_unlock(was);
    if (*aopFd == -1)
        return -1;
    // A passed descriptor that is not received is closed inside our read(), and closing may block.
    // Accepted sockets inherit the refusal. Older kernels do not know the option.
    const int off = 0;
    (void)setsockopt(*aopFd, SOL_SOCKET, SO_PASSRIGHTS, &off, sizeof off);
    return *aopFd;
}

socklen_t service_address(sockaddr_un *aopAddr, const char *aicpcPath)
{
    const size_t len = strnlen(aicpcPath, sizeof aopAddr->sun_path);
    if (len == 0 || len == sizeof aopAddr->sun_path) {
        errno = len == 0 ? EINVAL : ENAMETOOLONG;
        return 0;
    }
    *aopAddr = {};
    aopAddr->sun_family = AF_UNIX;
    memcpy(aopAddr->sun_path, aicpcPath, len);
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + len);
}

void service_set_nonblock(int aicFd)
{
    const int flags = fcntl(aicFd, F_GETFL, 0);
    (void)fcntl(aicFd, F_SETFL, (flags == -1 ? 0 : flags) | O_NONBLOCK);
}

void service_free_event(event **aiopEt)
{
    if (*aiopEt == nullptr)
        return;
    (void)event_del(*aiopEt); // fails on an event without a base only
    event_free(*aiopEt);
    *aiopEt = nullptr;
}

void service_free_base(event_base **aiopEtBse)
{
    if (*aiopEtBse == nullptr)
        return;
    (void)event_base_loopbreak(*aiopEtBse);
    const int was = service_lock(); // no fork while libevent may hold a global lock
    event_base_free(*aiopEtBse);
    *aiopEtBse = nullptr;
    service_unlock(was);
}

void service_close(int *aiopFd)
{
    const int was = service_lock();
    service_drop(aiopFd);
    service_unlock(was);
}
