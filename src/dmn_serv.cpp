// SPDX-License-Identifier: MIT
#include <common/dmn_serv.h>
#include <common/self_log.h>
#include <common/xfuncs.h>

#include "config_internal.h"
#include "rwlock_internal.h"
#include "service_internal.h"
#include "thread_internal.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <event2/event.h>
#include <poll.h>
#include <unistd.h>

static constexpr eLogLevl gicDbLev = LOG_LEV_ERROR;
static constexpr int gicBacklog = 40;
static constexpr int gicAcceptPauseMs = 20;

// Written by init and exit, on the host's thread.
static pthread_t giDmnServPthdId;
static tService giServ = {-1, nullptr, false};

// Used by the server thread, and after the join by the exit call.
static event_base *gipPthdEtBse;
static int giServTcpFd = -1;
static event *gipTcpServEt;
static int giLoneFd = -1; // connection of a client that is not yet, or no longer, in the registry

// The registry, oldest connection first. Senders may call at any time, so its lock lives as long as
// the library. A steady stream of senders must not delay a new client or a stop, so a new sender
// backs off while a writer waits.
static list_head giContCltHd = LIST_HEAD_INIT(giContCltHd);
static pthread_rwlock_t giContCltLk = PTHREAD_RWLOCK_INITIALIZER;
static bool gibContCltWait; // set under the lock on descriptors, so by one writer at a time

static int _try_send(pthread_rwlock_t *aiopLk)
{
    return __atomic_load_n(&gibContCltWait, __ATOMIC_RELAXED) ? EBUSY
                                                              : pthread_rwlock_tryrdlock(aiopLk);
}

static int _registry_lock()
{
    const int was = service_lock();
    __atomic_store_n(&gibContCltWait, true, __ATOMIC_RELAXED);
    rwlock_take(pthread_rwlock_trywrlock, &giContCltLk);
    __atomic_store_n(&gibContCltWait, false, __ATOMIC_RELAXED);
    return was;
}

static void _registry_unlock(int aicWas)
{
    (void)pthread_rwlock_unlock(&giContCltLk);
    service_unlock(aicWas);
}

// --- clients, on the server thread ------------------------------------------------------------

static void _rx_client_msg_cb(int aiFd, short, void *aipArg)
{
    char buf[256] = {};
    if (aipArg == nullptr) { // GCOVR_EXCL_START: libevent passes the argument of event_new()
        LOG_MSG(LOG_LEV_ERROR, "aipArg err!!!!\n");
        return;
    } // GCOVR_EXCL_STOP
    const ssize_t got = read(aiFd, buf, sizeof buf - 1);
    if (got > 0)
        return; // the channel is one-way
    if (got == -1)
        LOG_MSG(LOG_LEV_ERROR, "read() err, msg:%s!!!!\n", strerror(errno));
    else
        LOG_MSG(LOG_LEV_OFF, "Remote close------\n");

    // The client leaves the registry before its descriptor closes, so that no sender writes to a
    // reused descriptor.
    tClitNetCon *pClit = static_cast<tClitNetCon *>(aipArg);
    const int was = _registry_lock();
    list_del_init(&pClit->hnode);
    giLoneFd = pClit->fd;
    _registry_unlock(was);
    service_free_event(&pClit->pClitEt);
    service_close(&giLoneFd);
    free(pClit);
}

static void _server_set_nonblock(const int aicFd)
{
    if (aicFd < 1) {
        LOG_MSG(LOG_LEV_ERROR, "aicFd=%d err!!!!\n", aicFd);
        return;
    }
    // An option that cannot be set does not matter: the client is served without it.
    const int on = 1;
    const linger noLinger = {0, 0};
    (void)setsockopt(aicFd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    (void)setsockopt(aicFd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    (void)setsockopt(aicFd, SOL_SOCKET, SO_LINGER, &noLinger, sizeof noLinger);
    service_set_nonblock(aicFd);
}

static void _init_client_conn(const int aicAcptFd, event_base *const aipcEtBse)
{
    tClitNetCon *pClit = static_cast<tClitNetCon *>(xzMalloc(sizeof(tClitNetCon)));
    if (pClit == nullptr) {
        LOG_MSG(LOG_LEV_ERROR, "xzMalloc() err!!!!\n");
        return;
    }
    pClit->fd = aicAcptFd;
    _server_set_nonblock(pClit->fd);
    if (pClit->fd == 0)
        service_set_nonblock(pClit->fd); // the call above refuses 0; a broadcast must not wait
    pClit->pClitEt =
        event_new(aipcEtBse, pClit->fd, EV_READ | EV_PERSIST, _rx_client_msg_cb, pClit);
    if (pClit->pClitEt == nullptr) {
        LOG_MSG(LOG_LEV_ERROR, "event_new() err!!!!\n");
        free(pClit);
        return;
    }
    (void)event_add(pClit->pClitEt, nullptr); // if this fails, the client is served until the stop
    const int was = _registry_lock();
    list_add_tail(&pClit->hnode, &giContCltHd);
    giLoneFd = -1;
    _registry_unlock(was);
}

static void _server_tcp_accept_client_cb(int aiFd, short, void *aipArg)
{
    if (aipArg == nullptr) { // GCOVR_EXCL_START: libevent passes the argument of event_new()
        LOG_MSG(LOG_LEV_ERROR, "aipArg err!!!!\n");
        return;
    } // GCOVR_EXCL_STOP
    sockaddr_un peer;
    socklen_t peerLen = sizeof peer;
    const int was = service_lock();
    giLoneFd = service_own(accept(aiFd, reinterpret_cast<sockaddr *>(&peer), &peerLen));
    service_unlock(was);
    if (giLoneFd == -1) {
        LOG_MSG(LOG_LEV_ERROR, "accept() err, msg=%s!!!!!!\n", strerror(errno));
        // Without a free descriptor the client stays in the queue, and the loop would call this
        // function again at once. A signal may shorten the pause.
        (void)poll(nullptr, 0, gicAcceptPauseMs);
        return;
    }
    _init_client_conn(giLoneFd, static_cast<event_base *>(aipArg));
    service_close(&giLoneFd); // does nothing if the registry has it
}

// --- start and stop ---------------------------------------------------------------------------

// Frees every event before the base. A descriptor of 0 is treated like any other.
static void _dmn_server_release()
{
    service_free_event(&gipTcpServEt);
    service_close(&giServTcpFd);
    const int was = _registry_lock();
    list_head *pNode = nullptr;
    list_head *pAhead = nullptr;
    list_for_each_safe(pNode, pAhead, &giContCltHd)
    {
        tClitNetCon *pClit = reinterpret_cast<tClitNetCon *>(pNode);
        list_del_init(&pClit->hnode);
        // The event is freed before the descriptor, whose number another thread may get at once.
        service_free_event(&pClit->pClitEt);
        (void)close(pClit->fd);
        free(pClit);
    }
    _registry_unlock(was);
    service_free_base(&gipPthdEtBse);
}

// The records leak: they are few, and a child is usually short-lived. A sender may have held the
// lock at the fork, so the lock is initialised again.
static void _dmn_server_forget()
{
    service_forget(&giServ, &giDmnServPthdId, &gipPthdEtBse);
    service_drop(&giServTcpFd);
    service_drop(&giLoneFd);
    gipTcpServEt = nullptr;
    list_head *pNode = nullptr;
    list_head *pAhead = nullptr;
    list_for_each_safe(pNode, pAhead, &giContCltHd)
    {
        (void)close(reinterpret_cast<tClitNetCon *>(pNode)->fd); // the parent keeps its own
    }
    giContCltHd = LIST_HEAD_INIT(giContCltHd);
    giContCltLk = PTHREAD_RWLOCK_INITIALIZER;
}

__attribute__((constructor)) static void _dmn_server_meet_forks()
{
    (void)pthread_atfork(nullptr, nullptr, _dmn_server_forget); // fails without memory at the start
}

static void *_dmn_server_func_pth(void *aipArg)
{
    thread_begin("kelvara_serv");
    const char *pErr = nullptr;
    if (aipArg == nullptr)
        pErr = "aipArg err!!!!\n";
    else if ((gipPthdEtBse = service_base(&giServ)) == nullptr)
        pErr = "event_base_new() err!!!!\n";
    else if (_dmn_server_init(gipPthdEtBse, static_cast<tDmnServCfg *>(aipArg)) != 0)
        pErr = "_dmn_server_init() err!!!!\n";
    else if (!service_dispatch(&giServ, gipPthdEtBse))
        pErr = "event_new() err!!!!\n";
    if (pErr != nullptr)
        LOG_MSG(LOG_LEV_ERROR, "%s", pErr);
    // A thread that ends by itself releases what it made; the host still joins it through the exit
    // call.
    if (!giServ.bStop)
        _dmn_server_release();
    service_end(&giServ, "_dmn_server_func_pth() exit");
}

// --- exported ---------------------------------------------------------------------------------

int load_dmn_serv_cfg(tDmnServCfg *const aopcDmnCfg, const char *const aicpcCfgNme,
                      const config_t *const aicpcCfg)
{
    const config_setting_t *pGroup = config_lookup(aicpcCfg, aicpcCfgNme);
    if (pGroup == nullptr) {
        LOG_MSG(LOG_LEV_ERROR, "config_lookup(\"%s\") err!!!!\n", aicpcCfgNme);
        return -ERR_LIBCFG_CFG_LOOKUP_DMN;
    }
    cfg_load_string(pGroup, "dmNme", aopcDmnCfg->dmNme);
    return SUCCESS_DMN;
}

int _dmn_server_init(event_base *aipEtBse, tDmnServCfg *aipcDmnServCfg)
{
    if (service_socket(&giServTcpFd) == -1) {
        LOG_MSG(LOG_LEV_ERROR, "socket() err, msg=%s!!!!!!\n", strerror(errno));
        return -ERR_SOCKET_OPEN_DMN;
    }
    sockaddr_un addr;
    const socklen_t addrLen = service_address(&addr, aipcDmnServCfg->dmNme);
    if (addrLen != 0)
        (void)unlink(aipcDmnServCfg->dmNme); // usually there is no file; bind() reports failures
    if (addrLen == 0 || bind(giServTcpFd, reinterpret_cast<sockaddr *>(&addr), addrLen) == -1) {
        LOG_MSG(LOG_LEV_ERROR, "bind() err, msg=%s!!!!!!\n", strerror(errno));
        return -ERR_SOCKET_BIND_DMN;
    }
    if (listen(giServTcpFd, gicBacklog) == -1) {
        LOG_MSG(LOG_LEV_ERROR, "listen() err, msg=%s!!!!!!\n", strerror(errno));
        return -ERR_SOCKET_LISTEN_DMN;
    }
    (void)signal(SIGPIPE, SIG_IGN); // fails on a bad signal number only
    gipTcpServEt = event_new(aipEtBse, giServTcpFd, EV_READ | EV_PERSIST,
                             _server_tcp_accept_client_cb, aipEtBse);
    if (gipTcpServEt == nullptr) {
        LOG_MSG(LOG_LEV_ERROR, "event_new() err!!!!\n");
        return -ERR_EVENT_NEW_DMN;
    }
    (void)event_add(gipTcpServEt, nullptr); // if this fails, no client can connect
    return SUCCESS_DMN;
}

int dmn_server_init(tDmnServCfg *const aipcDmnServCfg)
{
    const int err = service_start(&giServ, &giDmnServPthdId, _dmn_server_func_pth, aipcDmnServCfg);
    if (err == 0)
        return SUCCESS_DMN;
    LOG_MSG(LOG_LEV_ERROR, "pthread_create() err, msg:%s\n", strerror(err));
    (void)dmn_server_exit(); // always 0
    return -ERR_PTHREAD_CREATE_DMN;
}

int dmn_serv_tx_clit_msg(char *const aipcMsg, const int aicMsgLen)
{
    if (aicMsgLen < 0)
        return 0;
    // A sender that is cancelled in a write must not leave the lock held.
    const int was = thread_defer_cancel();
    rwlock_take(_try_send, &giContCltLk);
    list_head *pNode = nullptr;
    list_head *pAhead = nullptr;
    list_for_each_safe(pNode, pAhead, &giContCltHd)
    {
        // A client loses what it cannot take now. The read callback handles a client that has left.
        (void)!write(reinterpret_cast<tClitNetCon *>(pNode)->fd, aipcMsg,
                     static_cast<size_t>(aicMsgLen));
    }
    (void)pthread_rwlock_unlock(&giContCltLk);
    thread_restore_cancel(was);
    return 0;
}

int dmn_server_exit(void)
{
    const int was = thread_defer_cancel(); // no cancel may interrupt a stop
    if (giDmnServPthdId != 0) {
        LOG_MSG(LOG_LEV_OFF, "Wait _dmn_server_func_pth() pthread stop------\n");
        service_stop(&giServ, giDmnServPthdId);
        LOG_MSG(LOG_LEV_OFF, "_dmn_server_func_pth() pthread already stop------\n");
        giDmnServPthdId = 0;
    }
    _dmn_server_release();
    thread_restore_cancel(was);
    return 0;
}
