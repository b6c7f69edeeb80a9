/* SPDX-License-Identifier: MIT */
/**
 * @file
 * self_dog: the watchdog client of a daemon.
 *
 * Connects to the Unix-domain stream socket of the supervising watchdog daemon and sends a
 * heartbeat with this daemon's name once a period, from a thread and an event loop of its own. The
 * smallest use:
 *
 *     static tFeddogCfg cfg = {1, 0, "gnssd", "/run/watchdog.sock"};   // must outlive the client
 *     self_feddog_init(&cfg);
 *     ...
 *     self_feddog_exit();
 *
 * The first heartbeat is sent one period after the connection. A late heartbeat delays all that
 * follow.
 *
 * @par What a heartbeat proves
 * A heartbeat proves that the process lives and that its client thread gets processor time, not
 * that the daemon's work progresses. To supervise the work itself, call _feed_dog_init() on the
 * event loop that does it.
 *
 * @par Threads
 * Init and exit belong to one host thread; there is one client in a process. The client thread
 * reads the record at every heartbeat: do not change it until exit has returned. The client thread
 * inherits scheduling policy and priority of the thread that calls self_feddog_init(). Only
 * self_feddog_exit() blocks: it waits for the client thread.
 *
 * @par Lost heartbeats
 * The client tries to connect once, without a retry. When the watchdog closes the connection, the
 * client logs it once, and later heartbeats are lost: start the client again. Heartbeats never
 * raise SIGPIPE: the thread that calls _feed_dog_init(), normally the client's own, blocks this
 * signal permanently.
 *
 * @par Fork
 * A child made by fork() has no client; the parent keeps its own. The child may call every
 * function: self_feddog_exit() finds nothing to stop, self_feddog_init() connects again. The other
 * rules for a child, and the number of descriptors that a start needs, are in common/dmn_serv.h.
 *
 * @par Linking
 * The host links libevent itself (event_core is enough). Every program that links the library
 * defines gLogLevl: see common/self_log.h.
 *
 * @par Example
 * A complete program, and what it prints:
 * @include self_dog.cpp
 * @verbinclude self_dog.out
 */
#ifndef KELVARA_COMMON_SELF_DOG_H
#define KELVARA_COMMON_SELF_DOG_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

struct config_t;   /* libconfig's parsed configuration */
struct event_base; /* libevent's event loop */

/** Result codes, the same members and values as those of the server (common/dmn_serv.h); an
 * operation returns 0 or the negated member. The client itself returns only the members that have a
 * comment. */
typedef enum _eFeddogErrVal_ {
    SUCCESS_DOG = 0, /**< done */
    ERR_TMP_DOG,
    ERR_MALLOC_DOG,
    ERR_CALLOC_DOG,
    ERR_NEW_MEM_DOG,
    ERR_CREATE_PIPE_DOG,
    ERR_FOPEN_DOG,
    ERR_FREAD_DOG,
    ERR_OPEN_TTY_DOG,
    ERR_GET_RLIMIT_DOG,
    ERR_SET_RLIMIT_DOG,
    ERR_PTHREAD_CREATE_DOG, /**< the client thread could not be started */
    ERR_EVENT_NEW_BASE_DOG,
    ERR_EVENT_NEW_DOG, /**< the read event or the timer could not be made */
    ERR_LIBCFG_READ_FILE_DOG,
    ERR_LIBCFG_CFG_LOOKUP_DOG, /**< the configuration group is missing */
    ERR_LIBCFG_SETTING_LOOKUP_DOG,
    ERR_CFG_SETTING_GET_MEMBER_DOG,
    ERR_LIBCFG_SETTING_GET_ELEM_DOG,
    ERR_CFG_SETING_LEN_DOG,
    ERR_SOCKET_OPEN_DOG = 4096, /**< no socket */
    ERR_SOCKET_LISTEN_DOG,
    ERR_SOCKET_CONNECT_DOG, /**< no listening socket at the path, or a bad path */
    ERR_SOCKET_IOCTL_DOG,
    ERR_SOCKET_BIND_DOG,
    ERR_SOCKET_READ_DOG,
    ERR_SOCKET_WRITE_DOG,
    ERR_RTNL_OPEN_DOG,
    IW_GET_INTER_DATA_DOG,
    ERR_PARAM_CNT_DOG,
    ERR_PARAM_LEN_DOG,
    ERR_PARAM_CONTENT_DOG,
    ERR_LOG_INIT_DOG,
    ERR_VER_SWITCH_DOG,
    ERR_HELP_SWITCH_DOG,
    ERR_SET_LOG_LEV_DOG,
    ERR_MAX_DOG,
} eFeddogErrVal;

/** The heartbeat as sent on the wire: 5 + nameLen bytes, in one write. Standard C++ has no flexible
 * array members; g++ and clang++ accept them as an extension. */
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"
typedef struct _tWthdogFed_ {
    int status;      /**< always 0; host byte order (little-endian on the target) */
    uint8_t nameLen; /**< number of name bytes that follow */
    char name[];     /**< the daemon's name, no terminator */
} __attribute__((packed)) tWthdogFed;
#pragma GCC diagnostic pop

/** The client's configuration. The host owns the record; nothing copies it. */
typedef struct _tFeddogCfg_ {
    uint32_t feddogSec;        /**< heartbeat period: whole seconds, */
    uint32_t feddogUSec;       /**< and microseconds; a period of 0 takes a whole core */
    char feddogNme[64];        /**< this daemon's name, zero-terminated */
    char txFeddogHtDmNme[256]; /**< path of the watchdog's socket, 1 to 107 characters */
} tFeddogCfg;

/** Fills aopcFedDog from the libconfig group at path aicpcDogCfgNme: integers "feddogSec" and
 * "feddogUSec", strings "feddogNme" (62 characters kept) and "txFeddogHtDmNme" (254 kept). A key
 * that is missing or of another type leaves its field unchanged. Keeps no reference.
 * @return 0, or -15 (ERR_LIBCFG_CFG_LOOKUP_DOG), logged, when there is no such group */
int load_feeddog_cfg(tFeddogCfg *const aopcFedDog, const char *const aicpcDogCfgNme,
                     const struct config_t *const aicpcCfg);

/** Starts the client thread and returns at once. The thread then connects. If that fails, the
 * thread logs the failure and ends. In every case call self_feddog_exit() before the next init;
 * otherwise each attempt leaks a descriptor and the thread's stack, 8 MB of address space.
 * @return 0, or -11 (ERR_PTHREAD_CREATE_DOG), logged */
int self_feddog_init(tFeddogCfg *const aipcFeddogCfg);

/** Connects to the watchdog and adds the read event and the heartbeat timer to aipEtBse. The client
 * thread calls it. A host may call it instead of self_feddog_init(), with an event base that the
 * host owns and that the same thread dispatches. The host then calls self_feddog_exit() while the
 * base exists, in a callback of this base or while no thread dispatches it. After a failure the
 * parts already made remain until self_feddog_exit().
 * @return 0, -4096 (no socket), -4098 (connect; also an empty path, reported as EINVAL, and one of
 * more than 107 characters, ENAMETOOLONG) or -13 (an event), each logged */
int _feed_dog_init(struct event_base *aipEtBse, tFeddogCfg *aipcFeddogCfg);

/** Stops the client and releases everything it made: the watchdog reads end-of-stream. Idempotent:
 * it may be called again, without a start, and after the client thread ended by itself.
 * @return always 0 */
int self_feddog_exit(void);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
