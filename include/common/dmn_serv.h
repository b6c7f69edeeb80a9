/* SPDX-License-Identifier: MIT */
/**
 * @file
 * dmn_serv: the local server of a daemon.
 *
 * A Unix-domain stream socket, served by a thread and an event loop of its own. Every local process
 * that connects receives, from then on, each byte message that the daemon broadcasts. The channel
 * is one-way: the server reads and discards what a client sends. The smallest use:
 *
 *     static tDmnServCfg cfg = {"/run/gnssd.sock"};     // must outlive the server
 *     dmn_server_init(&cfg);
 *     dmn_serv_tx_clit_msg(msg, len);                   // from any thread, any number of times
 *     dmn_server_exit();
 *
 * @par Messages
 * The server sends the caller's bytes unchanged and adds no length, terminator or framing. A stream
 * socket does not preserve message boundaries, so use a format that marks them. Messages of
 * concurrent senders do not mix up to 32 KiB; longer ones may.
 *
 * @par Threads
 * Any number of threads may call dmn_serv_tx_clit_msg() at any time, also before the start, during
 * it, and after the stop. Do not call it in a signal handler, because it takes a lock. Init and
 * exit belong to one host thread. There is one server in a process. The server thread inherits
 * scheduling policy and priority of the thread that calls dmn_server_init(). Call that from a
 * thread of normal priority: a client that sends without pause keeps the server thread busy, and at
 * a real-time priority also the processor.
 *
 * @par Blocking
 * A broadcast never waits for a client. A broadcast that starts while the server adds a client to
 * its list, or removes one, waits for that change, and the change waits for the broadcasts in
 * progress. A waiter yields the processor a few times and then sleeps for 50 us at a time. So
 * senders and server may have different real-time priorities, but there is no priority inheritance:
 * while a thread that holds the lock is descheduled, the others wait. dmn_server_exit() waits for
 * the server thread and for broadcasts in progress.
 *
 * @par Lost messages
 * A client that does not read loses what its socket buffer cannot take, possibly a part of a
 * message. Neither side is told, and other clients are not affected. A client receives broadcasts
 * from the moment the server has added it to its list, shortly after its connect().
 *
 * @par Descriptors
 * When the process has no free descriptor for another client, the server logs each failed accept()
 * and pauses for 20 ms; on a host's own base this delays the host's loop. New clients wait in the
 * queue during that time. Raise the limit first (system_set_rlimit() in common/xfuncs.h). libevent
 * ends the process when it finds no descriptor for its signal pipe. The server thread first checks
 * that the three descriptors of an event base are free, but another thread may take them at that
 * moment: keep ten free. The server's descriptors are close-on-exec; only a program that is started
 * between a descriptor's creation and the next system call inherits it. Keep descriptors 0 to 2
 * open, so that no client gets the console's number.
 *
 * @par Log lines
 * A client that is killed is logged like one that closes: "Remote close------" if it had read
 * everything, otherwise a read error. "Remote close------" is logged at every threshold, so a
 * client that connects and closes in a loop pushes everything else out of the log files.
 *
 * @par Fork
 * A child made by fork() has no server, no clients, and none of their sockets; the parent keeps
 * them all. The child may call every function: a broadcast reaches no client, dmn_server_exit()
 * finds nothing to stop, and dmn_server_init() starts a server of the child's own. That server
 * needs its own path, or it replaces the parent's socket. The child forgets the event loops that it
 * inherited. It keeps a little memory and libevent's own descriptors; these are close-on-exec.
 * Do not use or reinitialise in the child a host's base that contains events of the library. Do not
 * fork in a signal handler.
 *
 * @par Signals and the socket file
 * The whole process ignores SIGPIPE from the moment the server first listens. Do not restore it: a
 * broadcast to a client that has just left would end the process. The socket file remains after the
 * exit. A start replaces any file at its path, even a regular one.
 *
 * @par Access
 * Every process that may write to the socket file may connect: protect the file by the permissions
 * of its folder. Before Linux 6.16 a client can also block the server thread, and with it
 * dmn_server_exit(), for any time: it passes a socket of its own that lingers on close (SCM_RIGHTS,
 * SO_LINGER). On later kernels the server refuses passed descriptors.
 *
 * @par Linking
 * The host links libevent itself (event_core is enough). A server cannot run under
 * event_enable_debug_mode(), which aborts the process because the listening socket blocks. Every
 * program that links the library defines gLogLevl: see common/self_log.h.
 *
 * @par Example
 * A complete program, and what it prints:
 * @include dmn_serv.c
 * @verbinclude dmn_serv.out
 */
#ifndef KELVARA_COMMON_DMN_SERV_H
#define KELVARA_COMMON_DMN_SERV_H

#include <common/self_list.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

struct config_t;   /* libconfig's parsed configuration */
struct event;      /* libevent's event */
struct event_base; /* libevent's event loop */

/** Result codes that the library's services and the host daemons share; an operation returns 0 or
 * the negated member. The server itself returns only the members that have a comment. */
typedef enum _eDmnServErrVal_ {
    SUCCESS_DMN = 0, /**< done */
    ERR_TMP_DMN,
    ERR_MALLOC_DMN,
    ERR_CALLOC_DMN,
    ERR_NEW_MEM_DMN,
    ERR_CREATE_PIPE_DMN,
    ERR_FOPEN_DMN,
    ERR_FREAD_DMN,
    ERR_OPEN_TTY_DMN,
    ERR_GET_RLIMIT_DMN,
    ERR_SET_RLIMIT_DMN,
    ERR_PTHREAD_CREATE_DMN, /**< the server thread could not be started */
    ERR_EVENT_NEW_BASE_DMN,
    ERR_EVENT_NEW_DMN, /**< the accept event could not be made */
    ERR_LIBCFG_READ_FILE_DMN,
    ERR_LIBCFG_CFG_LOOKUP_DMN, /**< the configuration group is missing */
    ERR_LIBCFG_SETTING_LOOKUP_DMN,
    ERR_CFG_SETTING_GET_MEMBER_DMN,
    ERR_LIBCFG_SETTING_GET_ELEM_DMN,
    ERR_CFG_SETING_LEN_DMN,
    ERR_SOCKET_OPEN_DMN = 4096, /**< no socket */
    ERR_SOCKET_LISTEN_DMN,      /**< the socket does not listen */
    ERR_SOCKET_CONNECT_DMN,
    ERR_SOCKET_IOCTL_DMN,
    ERR_SOCKET_BIND_DMN, /**< the path cannot be bound, is empty or too long */
    ERR_SOCKET_READ_DMN,
    ERR_SOCKET_WRITE_DMN,
    ERR_RTNL_OPEN_DMN,
    IW_GET_INTER_DATA_DMN,
    ERR_PARAM_CNT_DMN,
    ERR_PARAM_LEN_DMN,
    ERR_PARAM_CONTENT_DMN,
    ERR_LOG_INIT_DMN,
    ERR_VER_SWITCH_DMN,
    ERR_HELP_SWITCH_DMN,
    ERR_SET_LOG_LEV_DMN,
    ERR_MAX_DMN,
} eDmnServErrVal;

/** The server's configuration. The host owns the record and keeps it valid and unchanged while the
 * server runs. */
typedef struct _tDmnServCfg_ {
    char dmNme[256]; /**< path of the socket, zero-terminated; 1 to 107 characters can be bound */
} tDmnServCfg;

/** The server's record of one connected client; not for use by hosts. */
typedef struct _tClitNetCon_ {
    list_head hnode;       /**< link in the registry; first, so that its address is the record's */
    int fd;                /**< the accepted connection */
    struct event *pClitEt; /**< persistent read event on fd; null once deleted */
} tClitNetCon;

/** Copies the string "dmNme" of the libconfig group at path aicpcCfgNme into aopcDmnCfg, at most
 * 254 characters. If the key is missing or not a string, the record is unchanged. Keeps no
 * reference.
 * @return 0, or -15 (ERR_LIBCFG_CFG_LOOKUP_DMN), logged, when there is no such group */
int load_dmn_serv_cfg(tDmnServCfg *const aopcDmnCfg, const char *const aicpcCfgNme,
                      const struct config_t *const aicpcCfg);

/** Starts the server thread and returns at once. The thread then makes the socket. If that fails,
 * the thread logs the failure and ends. In every case call dmn_server_exit() before the next init;
 * otherwise each attempt leaks a descriptor and the thread's stack, 8 MB of address space.
 * @return 0, or -11 (ERR_PTHREAD_CREATE_DMN), logged */
int dmn_server_init(tDmnServCfg *const aipcDmnServCfg);

/** Makes the listening socket at aipcDmnServCfg->dmNme, replacing any file there, and adds its
 * accept event to aipEtBse. The server thread calls it. A host may call it instead of
 * dmn_server_init(), with an event base that the host owns and dispatches. It then calls
 * dmn_server_exit() while the base exists and no thread dispatches it. After a failure the parts
 * already made remain until dmn_server_exit().
 * @return 0, -4096 (no socket), -4100 (bind; also an empty path, reported as EINVAL, and one of
 * more than 107 characters, ENAMETOOLONG), -4097 (listen) or -13 (no event), each logged */
int _dmn_server_init(struct event_base *aipEtBse, tDmnServCfg *aipcDmnServCfg);

/** Sends the aicMsgLen bytes at aipcMsg to every connected client, oldest connection first, with
 * one non-blocking write each. A negative length sends nothing.
 * @return always 0, also when a client lost a part of the message */
int dmn_serv_tx_clit_msg(char *const aipcMsg, const int aicMsgLen);

/** Stops the server and releases everything it made: clients read end-of-stream. Idempotent: it may
 * be called again, without a start, and after the server thread ended by itself. Never call it from
 * one of the server's own callbacks.
 * @return always 0 */
int dmn_server_exit(void);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
