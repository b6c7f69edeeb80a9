/* SPDX-License-Identifier: MIT */
/**
 * @file
 * self_dog: the watchdog feeding client of a daemon.
 *
 * Connects to the supervising watchdog daemon's Unix-domain stream socket and sends a heartbeat
 * that names this daemon, once a period, from a thread and an event loop of its own. The smallest
 * use:
 *
 *     static tFeddogCfg cfg = {1, 0, "gnssd", "/run/watchdog.sock"};   // must outlive the client
 *     self_feddog_init(&cfg);
 *     ...
 *     self_feddog_exit();
 *
 * The first heartbeat leaves one period after the connection. A late one shifts all that follow.
 *
 * Threads: init and exit belong to one host thread; there is one client a process. The record is
 * read by the client thread at every heartbeat: leave it unchanged until exit has returned.
 *
 * What blocks: nothing but self_feddog_exit(), which waits for the client thread. That thread
 * inherits scheduling policy and priority of the one that calls self_feddog_init().
 *
 * What is lost: connecting is tried once, with no retry. When the watchdog closes its end that is
 * logged once, and the heartbeats that follow reach nobody: start the client again. Heartbeats
 * never raise SIGPIPE: the signal is blocked, and stays so, for the thread that runs
 * _feed_dog_init(), normally the client's own.
 *
 * A child made by fork() has no client, and its parent keeps its own. It may call every function:
 * self_feddog_exit() finds nothing to stop, self_feddog_init() connects anew. What else holds there
 * is said in common/dmn_serv.h, and also how many descriptors a start needs.
 *
 * The library leaves linking libevent to the host (event_core is enough).
 *
 * A heartbeat tells that the process lives and that its client thread gets time, not that the work
 * gets on. To supervise the work itself, call _feed_dog_init() on the event loop that does it.
 *
 * Every program that links the library defines gLogLevl: see common/self_log.h.
 *
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
 * operation returns 0 or the negated member. The client itself returns only the members that carry
 * a remark. */
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
    ERR_SOCKET_CONNECT_DOG, /**< nobody listens, or the path is too long */
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

/** The heartbeat as it stands on the wire: 5 + nameLen bytes, sent with one write. C++ has no word
 * for the open array at the end, g++ and clang++ know it all the same. */
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
 * that is missing or of another type leaves its field as it was. Keeps no reference.
 * @return 0, or -15 (ERR_LIBCFG_CFG_LOOKUP_DOG), logged, when there is no such group */
int load_feeddog_cfg(tFeddogCfg *const aopcFedDog, const char *const aicpcDogCfgNme,
                     const struct config_t *const aicpcCfg);

/** Starts the client thread and returns at once. The thread then connects; what fails there shows
 * in the log only, and the thread ends by itself. Either way self_feddog_exit() is the end of it
 * and comes before the next init: without it each try would leave a thread's stack behind, 8 MB of
 * addresses, and a descriptor.
 * @return 0, or -11 (ERR_PTHREAD_CREATE_DOG), logged */
int self_feddog_init(tFeddogCfg *const aipcFeddogCfg);

/** Connects to the watchdog and arms the read event and the heartbeat timer on aipEtBse. The client
 * thread calls it; a host may, on an event base of its own that the same thread dispatches, and
 * ends it with self_feddog_exit() while the base exists, in a callback of this base or while
 * nobody dispatches it; the base stays the host's. What was made before a failure stays until
 * self_feddog_exit().
 * @return 0, -4096 (no socket), -4098 (connect; also an empty path, reported as EINVAL, and one of
 * more than 107 characters, ENAMETOOLONG) or -13 (an event), each logged */
int _feed_dog_init(struct event_base *aipEtBse, tFeddogCfg *aipcFeddogCfg);

/** Stops the client and releases all it made: the watchdog reads end-of-stream. May be called
 * again, without a start, and after the client thread ended by itself.
 * @return always 0 */
int self_feddog_exit(void);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
