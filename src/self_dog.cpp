// SPDX-License-Identifier: MIT
// Here timeval is as wide as in libevent, whatever its width in the rest of the library.
#include <event2/event-config.h>
#if EVENT__SIZEOF_TIME_T == 4
#undef _TIME_BITS
#undef _FILE_OFFSET_BITS
#endif

#include <common/self_dog.h>
#include <common/self_log.h>

#include "config_internal.h"
#include "service_internal.h"
#include "thread_internal.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <event2/event.h>
#include <sys/time.h>
#include <unistd.h>

static_assert(sizeof(time_t) == EVENT__SIZEOF_TIME_T);

static constexpr eLogLevl gicDbLev = LOG_LEV_ERROR;

// Written by init and exit, on the host's thread.
static pthread_t giFeddogPthdId;
static tService giServ = {-1, nullptr, false};

// Used by the client thread, and after the join by the exit call.
static event_base *gipFedDogEtBse;
static int giFeddogFd = -1;
static event *gipRxFeddogEt;
static event *gipTxFeddogHtEt;

// The configured period in a form that libevent accepts: less than a million microseconds, and so
// few seconds that now plus the period fits in a time_t of 32 bits.
static timeval _heartbeat_period(const tFeddogCfg *aicpcCfg)
{
    constexpr uint32_t secMax = 0x3fffffff;
    constexpr uint32_t usecInSec = 1000000;
    const uint32_t sec = aicpcCfg->feddogSec < secMax ? aicpcCfg->feddogSec : secMax;
    timeval period = {};
    period.tv_sec = static_cast<time_t>(sec + aicpcCfg->feddogUSec / usecInSec);
    period.tv_usec = static_cast<suseconds_t>(aicpcCfg->feddogUSec % usecInSec);
    return period;
}

// --- callbacks, on the client thread ----------------------------------------------------------

static void _tx_feeddog_ht_timer_cb(int, short, void *aipArg)
{
    char buf[128] = {};
    if (aipArg == nullptr) { // GCOVR_EXCL_START: libevent passes the argument of event_new()
        LOG_MSG(LOG_LEV_ERROR, "aipArg err!!!!\n");
        return;
    } // GCOVR_EXCL_STOP
    const tFeddogCfg *pCfg = static_cast<const tFeddogCfg *>(aipArg);
    tWthdogFed *pFed = reinterpret_cast<tWthdogFed *>(buf);
    pFed->nameLen = static_cast<uint8_t>(strnlen(pCfg->feddogNme, sizeof pCfg->feddogNme - 1));
    memcpy(pFed->name, pCfg->feddogNme, pFed->nameLen);
    // A watchdog that has gone, or whose socket is full, misses this heartbeat.
    (void)!write(giFeddogFd, buf, sizeof(tWthdogFed) + pFed->nameLen);
    const timeval period = _heartbeat_period(pCfg);
    (void)event_add(gipTxFeddogHtEt, &period); // fails without memory: then heartbeats stop
}

static void _rx_feeddog_data_cb(int aiFd, short, void *)
{
    char buf[128] = {};
    const ssize_t got = read(aiFd, buf, sizeof buf - 1);
    if (got > 0)
        return; // the protocol defines no data from the watchdog
    if (got == -1)
        LOG_MSG(LOG_LEV_ERROR, "read() err, msg:%s!!!!\n", strerror(errno));
    else
        LOG_MSG(LOG_LEV_OFF, "Server close------\n");
    service_free_event(&gipRxFeddogEt);
    service_close(&giFeddogFd);
}

// --- start and stop ---------------------------------------------------------------------------

static int _unix_socket_connect(const char *const aicpServName)
{
    if (service_socket(&giFeddogFd) == -1) {
        LOG_MSG(LOG_LEV_ERROR, "socket() err, msg:%s!!!!\n", strerror(errno));
        return -ERR_SOCKET_OPEN_DOG;
    }
    service_set_nonblock(giFeddogFd);
    sockaddr_un addr;
    const socklen_t addrLen = service_address(&addr, aicpServName);
    if (addrLen == 0 || connect(giFeddogFd, reinterpret_cast<sockaddr *>(&addr), addrLen) == -1) {
        LOG_MSG(LOG_LEV_ERROR, "connect() err, msg:%s!!!!!!", strerror(errno));
        return -ERR_SOCKET_CONNECT_DOG;
    }
    return SUCCESS_DOG;
}

static void _feddog_release()
{
    service_free_event(&gipTxFeddogHtEt);
    service_free_event(&gipRxFeddogEt);
    service_free_base(&gipFedDogEtBse);
    service_close(&giFeddogFd);
}

// The records leak: they are few, and a child is usually short-lived.
static void _feddog_forget()
{
    service_forget(&giServ, &giFeddogPthdId, &gipFedDogEtBse);
    service_drop(&giFeddogFd);
    gipTxFeddogHtEt = gipRxFeddogEt = nullptr;
}

__attribute__((constructor)) static void _feddog_meet_forks()
{
    (void)pthread_atfork(nullptr, nullptr, _feddog_forget); // fails without memory at the start
}

static void *_feddog_func_pth(void *aipArg)
{
    thread_begin("kelvara_dog");
    const char *pErr = nullptr;
    if (aipArg == nullptr)
        pErr = "aipArg err!!!!\n";
    else if ((gipFedDogEtBse = service_base(&giServ)) == nullptr)
        pErr = "event_base_new() err!!!!\n";
    else if (_feed_dog_init(gipFedDogEtBse, static_cast<tFeddogCfg *>(aipArg)) != 0)
        pErr = "_feed_dog_init() err!!!!\n";
    else if (!service_dispatch(&giServ, gipFedDogEtBse))
        pErr = "event_new() err!!!!\n";
    if (pErr != nullptr)
        LOG_MSG(LOG_LEV_ERROR, "%s", pErr);
    // A thread that ends by itself releases what it made; the host still joins it through the exit
    // call.
    if (!giServ.bStop)
        _feddog_release();
    service_end(&giServ, "_feddog_func_pth() exit");
}

// --- exported ---------------------------------------------------------------------------------

int load_feeddog_cfg(tFeddogCfg *const aopcFedDog, const char *const aicpcDogCfgNme,
                     const config_t *const aicpcCfg)
{
    const config_setting_t *pGroup = config_lookup(aicpcCfg, aicpcDogCfgNme);
    if (pGroup == nullptr) {
        LOG_MSG(LOG_LEV_ERROR, "config_lookup(\"%s\") err!!!!\n", aicpcDogCfgNme);
        return -ERR_LIBCFG_CFG_LOOKUP_DOG;
    }
    cfg_load_int(pGroup, "feddogSec", &aopcFedDog->feddogSec);
    cfg_load_int(pGroup, "feddogUSec", &aopcFedDog->feddogUSec);
    cfg_load_string(pGroup, "feddogNme", aopcFedDog->feddogNme);
    cfg_load_string(pGroup, "txFeddogHtDmNme", aopcFedDog->txFeddogHtDmNme);
    return SUCCESS_DOG;
}

int _feed_dog_init(event_base *aipEtBse, tFeddogCfg *aipcFeddogCfg)
{
    // A heartbeat to a watchdog that has just gone must fail without ending the process. A failed
    // write sends SIGPIPE to the writing thread, which is this one.
    sigset_t sigPipe;
    sigemptyset(&sigPipe);
    sigaddset(&sigPipe, SIGPIPE);
    (void)pthread_sigmask(SIG_BLOCK, &sigPipe, nullptr); // fails on bad arguments only

    const int ret = _unix_socket_connect(aipcFeddogCfg->txFeddogHtDmNme);
    if (ret != SUCCESS_DOG) {
        LOG_MSG(LOG_LEV_ERROR, "_unix_socket_connect() err!!!!\n");
        return ret;
    }
    gipRxFeddogEt =
        event_new(aipEtBse, giFeddogFd, EV_READ | EV_PERSIST, _rx_feeddog_data_cb, nullptr);
    if (gipRxFeddogEt == nullptr) {
        LOG_MSG(LOG_LEV_ERROR, "event_new() err!!!!\n");
        return -ERR_EVENT_NEW_DOG;
    }
    (void)event_add(gipRxFeddogEt, nullptr); // if this fails, the watchdog's end is not noticed
    gipTxFeddogHtEt = event_new(aipEtBse, -1, 0, _tx_feeddog_ht_timer_cb, aipcFeddogCfg);
    if (gipTxFeddogHtEt == nullptr) {
        LOG_MSG(LOG_LEV_ERROR, "evtimer_new() err!!!!\n");
        return -ERR_EVENT_NEW_DOG;
    }
    const timeval period = _heartbeat_period(aipcFeddogCfg);
    (void)event_add(gipTxFeddogHtEt, &period); // fails without memory: then no heartbeat is sent
    return SUCCESS_DOG;
}

int self_feddog_init(tFeddogCfg *const aipcFeddogCfg)
{
    const int err = service_start(&giServ, &giFeddogPthdId, _feddog_func_pth, aipcFeddogCfg);
    if (err == 0)
        return SUCCESS_DOG;
    LOG_MSG(LOG_LEV_ERROR, "pthread_create() err, msg:%s\n", strerror(err));
    (void)self_feddog_exit(); // always 0
    return -ERR_PTHREAD_CREATE_DOG;
}

int self_feddog_exit(void)
{
    const int was = thread_defer_cancel(); // no cancel may interrupt a stop
    if (giFeddogPthdId != 0) {
        LOG_MSG(LOG_LEV_OFF, "Wait _feddog_func_pth() pthread stop------\n");
        service_stop(&giServ, giFeddogPthdId);
        LOG_MSG(LOG_LEV_OFF, "_feddog_func_pth() pthread already stop------\n");
        giFeddogPthdId = 0;
    }
    _feddog_release();
    thread_restore_cancel(was);
    return 0;
}
