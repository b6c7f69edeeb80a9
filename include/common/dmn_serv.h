/* SPDX-License-Identifier: MIT */
/**
 * @file
 * dmn_serv: the local server of a daemon.
 *
 * A Unix-domain stream socket on a thread and an event loop of its own. Every local process that
 * connects receives, from then on, each byte message that the daemon broadcasts. The channel runs
 * one way: what a client sends is read and thrown away. The smallest use:
 *
 *     static tDmnServCfg cfg = {"/run/gnssd.sock"};     // must outlive the server
 *     dmn_server_init(&cfg);
 *     dmn_serv_tx_clit_msg(msg, len);                   // from any thread, as often as you like
 *     dmn_server_exit();
 *
 * Messages are the caller's bytes and nothing else: no length, no terminator, no framing. On a
 * stream socket a client sees no borders between them, so use a format that can be cut again. Those
 * of several senders stay apart up to 32 KiB; longer ones may mix.
 *
 * Threads: dmn_serv_tx_clit_msg() may be called by any number of threads at any time, also before
 * the start, during it, and after the stop; not in a signal handler, because it takes a lock. Init
 * and exit belong to one host thread. There is one server a process.
 *
 * What blocks: no broadcast ever waits for a client. One that starts while the server puts a client
 * into its list, or takes one out, waits for that, and so for the broadcasts in progress: it yields
 * the processor a few times and then sleeps, 50 us each time. So senders and server may have any
 * real-time priorities, but there is no priority inheritance: while the server or a sender is kept
 * from the processor there, the others wait. dmn_server_exit() waits for the server thread and for
 * broadcasts in progress. The server thread inherits scheduling policy and priority of the thread
 * that calls dmn_server_init(): start it from a normal thread, because a client that sends without
 * pause keeps the server thread busy, and at a real-time priority the processor with it.
 *
 * What is lost: a client that does not read loses what its socket buffer cannot take, possibly a
 * part of a message, without notice to anybody; the other clients are not touched by it.
 *
 * When the process has no descriptor left for another client, each try to admit it is logged, and
 * followed by a pause of 20 ms, on a host's own base too, whose loop it delays. Meanwhile clients
 * wait in the queue. Raise the limit first (system_set_rlimit() in common/xfuncs.h).
 *
 * A client that is killed shows like one that closes: as "Remote close------" when it had read
 * everything, and as a read error otherwise. The first is logged at every threshold: a client that
 * connects and closes in a loop pushes everything else out of the log files.
 *
 * A child made by fork() has no server, no clients, and none of their sockets; its parent keeps
 * them all. It may call every function: a broadcast reaches nobody, dmn_server_exit() finds nothing
 * to stop, and dmn_server_init() starts a server of its own, at a path of its own, or it would
 * replace its parent's. What it inherits of event loops is forgotten: a little memory, and
 * libevent's own descriptors, which are close-on-exec. A host's base with our events on it is not
 * to be used there, nor reinitialised. Do not fork in a signal handler. Keep descriptors 0 to 2
 * open, so that no client gets the console's number.
 *
 * The whole process ignores SIGPIPE from the moment the server first listens. Do not set it back: a
 * broadcast to a client that has just left would end the process. The socket file stays behind at
 * exit; a start replaces whatever stands at its path, a regular file too. The server's descriptors
 * are close-on-exec; only a program that is started between a descriptor's creation and the next
 * system call inherits it.
 *
 * The library leaves linking libevent to the host (event_core is enough). A server cannot run under
 * event_enable_debug_mode(), which aborts the process because the listening socket blocks.
 *
 * libevent ends the process when it finds no descriptor for its signal pipe. The server thread
 * makes sure of the three descriptors that an event base needs, but another thread may take them at
 * that moment: keep ten free.
 *
 * A client gets what is broadcast after the server has put it into its list, shortly after its
 * connect(). Whoever may write to the socket file may connect: protect it by its folder. Before
 * Linux 6.16 a client can also block the server thread, and with it dmn_server_exit(), as long as
 * it likes: it passes a socket of its own that lingers on close (SCM_RIGHTS, SO_LINGER). Later
 * kernels let the server refuse passed descriptors.
 *
 * Every program that links the library defines gLogLevl: see common/self_log.h.
 *
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
 * the negated member. The server itself returns only the members that carry a remark. */
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

/** One connected client, as the server keeps it; hosts have no use for it. */
typedef struct _tClitNetCon_ {
    list_head hnode;       /**< link in the registry; first, so that its address is the record's */
    int fd;                /**< the accepted connection */
    struct event *pClitEt; /**< persistent read event on fd; null once deleted */
} tClitNetCon;

/** Copies the string "dmNme" of the libconfig group at path aicpcCfgNme into aopcDmnCfg, at most
 * 254 characters. A missing key, or one that is no string, leaves the record as it was. Keeps no
 * reference.
 * @return 0, or -15 (ERR_LIBCFG_CFG_LOOKUP_DMN), logged, when there is no such group */
int load_dmn_serv_cfg(tDmnServCfg *const aopcDmnCfg, const char *const aicpcCfgNme,
                      const struct config_t *const aicpcCfg);

/** Starts the server thread and returns at once. The thread then makes the socket; what fails there
 * shows in the log only, and the thread ends by itself. Either way dmn_server_exit() is the end of
 * it and comes before the next init: without it each try would leave a thread's stack behind, 8 MB
 * of addresses, and a descriptor.
 * @return 0, or -11 (ERR_PTHREAD_CREATE_DMN), logged */
int dmn_server_init(tDmnServCfg *const aipcDmnServCfg);

/** Makes the listening socket at aipcDmnServCfg->dmNme, replacing what stands there, and arms its
 * accept event on aipEtBse. The server thread calls it; a host may, on an event base of its own
 * that it dispatches itself, instead of dmn_server_init(), and ends it with dmn_server_exit()
 * while the base exists and nobody dispatches it; the base stays the host's. What was made before
 * a failure stays until dmn_server_exit().
 * @return 0, -4096 (no socket), -4100 (bind; also an empty path, reported as EINVAL, and one of
 * more than 107 characters, ENAMETOOLONG), -4097 (listen) or -13 (no event), each logged */
int _dmn_server_init(struct event_base *aipEtBse, tDmnServCfg *aipcDmnServCfg);

/** Sends the aicMsgLen bytes at aipcMsg to every connected client, oldest connection first, with
 * one write each that never waits. A negative length sends nothing.
 * @return always 0; what a client could not take is lost to it */
int dmn_serv_tx_clit_msg(char *const aipcMsg, const int aicMsgLen);

/** Stops the server and releases all it made: clients read end-of-stream. May be called again,
 * without a start, and after the server thread ended by itself. Never from one of the server's own
 * callbacks.
 * @return always 0 */
int dmn_server_exit(void);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
