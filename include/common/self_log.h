/* SPDX-License-Identifier: MIT */
/**
 * @file
 * self_log: the log service of a daemon.
 *
 * One line a call, with level, time of day, source file and line, on the console, in a file that
 * is replaced after a number of writes, or both. The smallest use, in C or C++:
 *
 *     #include <common/self_log.h>
 *     eLogLevl gLogLevl = LOG_LEV_WARN;                 // one definition a program
 *     static const eLogLevl gicDbLev = LOG_LEV_LOUD;    // one a source file
 *     ...
 *     LOG_MSG(LOG_LEV_ERROR, "open(%s) err, msg:%s!!!!\n", path, strerror(errno));
 *
 * Until log_system_init() every line goes to standard output; afterwards where the installed
 * tLogCfg says.
 *
 * Threads: log_msg(), logger() and LOG_MSG may be used by any number of threads. They are no
 * cancellation points: a cancel takes effect at the thread's next one, and the line is not lost.
 * Threads whose cancel type is asynchronous must not log: a cancel inside a call leaves a lock
 * held. log_system_init() comes before other threads log, log_system_exit() after they have
 * stopped. Threads that still go on lose their lines from then on, and the exit ends. It waits for
 * callers that wait for room in the pipe, but gives up when none of them finishes for half a
 * second, as when a signal handler interrupts one and exits: then two descriptors, the pipe's, stay
 * open. The writer thread inherits the scheduling policy of the thread that calls
 * log_system_init().
 *
 * What blocks: in direct mode the caller does the console and file output itself. With the writer
 * thread a caller makes one write() into a pipe, and waits only when that pipe (64 KiB, as a rule)
 * is full. A console that nobody reads blocks whoever writes to it, log_system_exit() too.
 *
 * What is lost: a crash loses the write in progress, with the writer thread also the contents of
 * the pipe, and where standard output is a pipe or a file the contents of stdio's buffer: some KiB
 * of console lines, unless the host starts with setvbuf(stdout, NULL, _IOLBF, 0). log_system_exit()
 * delivers everything that the pipe took before it; a line is lost when a signal interrupts its
 * caller's wait for a full pipe. A full disk loses lines without notice, and each later line is
 * tried again; the first one written may join one that was cut. A file that reaches RLIMIT_FSIZE
 * ends the process by SIGXFSZ, unless the host ignores that signal: then it is as a full disk.
 *
 * Files: each process needs a path of its own. Two daemons with the same one, the default for
 * instance, empty and overwrite each other's files. At a rotation the next file takes the
 * descriptor of the last one; if another thread is faster and no other is free, file output ends
 * until the next start: keep some free. With the writer thread a rotation may cut a line in two,
 * one part in each file. The names of LOG_FILE_TIME are made of the clock and random(): unless the
 * host calls srandom(), each process begins with the same number, and one restarted within the
 * second empties the file it left. Without a clock battery each boot begins at the same second,
 * too: call srandom() with a number from getrandom(), or collect the files before the start. On 32
 * bits too a file may grow beyond 2 GiB and the year beyond 2038, whatever the host is compiled
 * with.
 *
 * A child made by fork() may log, whatever other threads did at that moment: in direct mode into
 * the file that it shares with the owner, the process that called log_system_init(), and with the
 * writer thread through the owner's; such lines are lost once that has stopped. One rule holds for
 * files: descendants append, the owner rotates. Each counts its own writes, so the file may get
 * more than logSaveMaxCnt of them. A descendant rotates only after the owner has ended and its
 * parent has waited for it, which kill(owner, 0) tells. That cannot tell the owner from another
 * process that has got its number: the descendant then appends for ever. Nor does it see an owner
 * in another PID namespace: the descendant then rotates while the owner writes. log_system_exit()
 * lets go of what was inherited without harm to the owner; after it log_system_init() starts a
 * service of the child's own, with a path of its own. Two descendants that outlive the owner need
 * that, too, or each empties the other's files.
 *
 * fork() waits for a write into the file that is in progress, and is not for signal handlers. Two
 * traps of the C library stay: parent and child both print what stdout's buffer holds (fflush() it
 * before), and a thread of the host's that is inside localtime_r(), random() or their like at a
 * fork stops the child at its first line. Commands inherit neither pipe nor file.
 *
 * errno is left as it was by log_msg() and LOG_MSG. The console's descriptors 0 to 2 stay the
 * host's, open or not.
 *
 * Two gates stand before a line. gicDbLev is a constant of the source file: what lies above it
 * leaves no code. gLogLevl is the threshold of the running program. So leave LOG_LEV_INFO and
 * LOG_LEV_LOUD calls in the code, and raise the threshold when something is to be looked into.
 * Every program that links the library defines gLogLevl, also one that never logs.
 *
 * The time in a line is local time, without a date. The part behind the seconds counts
 * microseconds, padded with zeros to eight digits: "09.00470942" is 9.470942 s. A tzset() of the
 * host's is noticed in the next second, a change of the zone file at the next start. Text is
 * written as it is: take line breaks and terminal escapes out of what comes from outside before it
 * is logged.
 *
 * A complete program, and what it prints:
 * @include self_log.c
 * @verbinclude self_log.out
 */
#ifndef KELVARA_COMMON_SELF_LOG_H
#define KELVARA_COMMON_SELF_LOG_H

#include <stdint.h>
#include <sys/types.h>

/* 32 bits whatever the compiler would choose; C has no word for it, but needs no more here. */
#ifdef __cplusplus
#define KELVARA_ENUM32 : uint32_t
extern "C" {
#else
#define KELVARA_ENUM32
#endif

#pragma GCC visibility push(default)

struct config_t; /* libconfig's parsed configuration */

/** The level scale: a lower number is more important. LOG_LEV_OFF is no silence: a line of that
 * level passes every threshold and is always printed. */
typedef enum _eLogLevl_ KELVARA_ENUM32 {
    LOG_LEV_OFF = 0,   /**< tag "OFF" */
    LOG_LEV_ERROR = 1, /**< tag "ERR" */
    LOG_LEV_RUN = 2,   /**< tag "RUN" */
    LOG_LEV_WARN = 3,  /**< tag "WAN" */
    LOG_LEV_TRACE = 4, /**< tag "TAE": marks the entry of a function */
    LOG_LEV_INFO = 5,  /**< tag "IFO" */
    LOG_LEV_LOUD = 6,  /**< tag "LUD" */
    LOG_LEV_MAX = 7,   /**< as a threshold: everything; no level of a line */
} eLogLevl;

/** Who writes the lines. */
typedef enum _eLogRunMod_ KELVARA_ENUM32 {
    LOG_RUN_MAIN_PROGRESS = 0, /**< the calling thread; also any value beyond the next */
    LOG_RUN_NEW_PTHREAD = 1,   /**< a writer thread, fed through a pipe */
    LOG_RUN_MAX = 2,
} eLogRunMod;

/** How log files are named. */
typedef enum _eLogFileMod_ KELVARA_ENUM32 {
    LOG_FILE_TWO = 0,  /**< PATH-00.log and PATH-01.log in turn */
    LOG_FILE_TIME = 1, /**< PATH-YYYY-MM-DD-hh-mm-ss-RRRRRR.log, never deleted */
    LOG_FILE_MAX = 2,
} eLogFileMod;

/** Whether an output is used. */
typedef enum _eLogSwitch_ KELVARA_ENUM32 {
    LOG_SWITCH_OFF = 0, /**< also any value beyond the next */
    LOG_SWITCH_ON = 1,
    LOG_SWITCH_MAX = 2,
} eLogSwitch;

/** Result codes of the log service; functions return 0 or the negated code. */
typedef enum _eLogErrNum_ {
    LOG_SUCCESS = 0,
    ERR_LOG_TMP = 1,               /**< never returned */
    ERR_LOG_PTHREAD_CREATE = 2,    /**< the writer thread could not be started */
    ERR_LOG_PIPE_CREATE = 3,       /**< the pipe could not be made */
    ERR_LOG_FOPEN = 4,             /**< the first log file could not be opened */
    ERR_LOG_LIBCFG_CFG_LOOKUP = 5, /**< the configuration group is missing */
    ERR_LOG_PARM_CONT = 0xA000,    /**< no record given, or a bad fileMod */
    ERR_LOG_MAX = ERR_LOG_PARM_CONT + 1,
} eLogErrNum;

/** The configuration of the log service. All zero is a sound start for load_log_cfg(). */
typedef struct _tLogCfg_ {
    eLogRunMod logRunMd;     /**< who writes the lines */
    eLogFileMod fileMod;     /**< naming; looked at only with file output on */
    uint32_t logSaveMaxCnt;  /**< writes into a file before the next one is begun; 0 means 10000 */
    eLogSwitch stdoutLogSwt; /**< console output */
    eLogSwitch fileLogSwt;   /**< file output */
    char saveLogPath[256];   /**< base path of the files; empty means "/opt/v2x/log/v2xLog" */
} tLogCfg;

/** The run-time threshold, defined by the host program with the start value of its choice. Read at
 * every call site and written by set_global_log_level() as one atomic word. */
extern eLogLevl gLogLevl;

/** Logs a line when aicLev is at most the source file's ceiling gicDbLev (a constant: calls above
 * it leave no code) and at most gLogLevl. A suppressed call costs one load and one comparison, and
 * its arguments are not evaluated. The format is a printf format and brings its own line break. At
 * LOG_LEV_TRACE the line is the calling function's name and "() start", whatever the format.
 * The file name shown is the last component of the path that the compiler was given. */
#define LOG_MSG(aicLev, ...)                                                                       \
    do {                                                                                           \
        const eLogLevl kelvara_lev_ = (aicLev);                                                    \
        if (kelvara_lev_ <= gicDbLev &&                                                            \
            kelvara_lev_ <= __atomic_load_n(&gLogLevl, __ATOMIC_RELAXED))                          \
            log_msg(kelvara_lev_, __builtin_strrchr("/" __FILE__, '/') + 1, __func__, __LINE__,    \
                    __VA_ARGS__);                                                                  \
    } while (0)

/** Formats one line and delivers it; LOG_MSG is the usual way here. aipcFlNme: base name of the
 * source file; aipcFuncNme: the function's name; aicLnNum: the line; then a printf format and its
 * arguments. The finished line "[TAG:hh:mm:ss.uuuuuuuu file line] text" holds at most 1022
 * characters; what goes beyond is cut, its line break included. Of a format that cannot be expanded
 * there stays what was expanded before. A line needs up to 4 KiB of the caller's stack. It
 * allocates nothing, but for the C library's own needs: a look at the time zone at the first line,
 * the console's buffer, a field width beyond some hundred characters, the stream of a new file at a
 * rotation. LOG_LEV_OFF to LOG_LEV_LOUD; anything higher is shown as LOG_LEV_LOUD. */
void log_msg(const eLogLevl aicLogLvl, const char *aipcFlNme, const char *aipcFuncNme,
             const int aicLnNum, const char *format, ...) __attribute__((format(printf, 5, 6)));

/** Delivers the zero-terminated text as it is, along the way of a log line: no header, no line
 * break added, no threshold. level and pid are not used. With the writer thread keep a text within
 * PIPE_BUF bytes (4096), or lines of other threads may come in between. */
void logger(int level, pid_t pid, const char *aipcMsg);

/** Sets gLogLevl and says so on standard output. 0 to LOG_LEV_MAX are kept; any other value is
 * answered with a message and replaced by LOG_LEV_RUN. Takes effect at the next call of any
 * thread. */
void set_global_log_level(const eLogLevl aicLogLevl);

/** Fills aopcLogCfg from the libconfig group at path aicpcLogCfgNme: integers "logRunMd",
 * "fileMod", "logSaveMaxCnt", "stdoutLogSwt", "fileLogSwt" and string "saveLogPath" (254
 * characters kept). A key that is missing or of another type leaves its field as it was; no value
 * is checked here. Keeps no reference to its arguments.
 * @return 0, or -5 (ERR_LOG_LIBCFG_CFG_LOOKUP), logged, when there is no such group; the record is
 * then untouched */
int load_log_cfg(tLogCfg *const aopcLogCfg, const char *const aicpcLogCfgNme,
                 const struct config_t *const aicpcCfg);

/** Installs a copy of the configuration and starts what it asks for; reports each step on standard
 * output. Once a process, or again after log_system_exit(). After a failure what was done before
 * it stays, until log_system_exit() releases it. So does the configuration: if it asks for the
 * writer thread, no line goes anywhere then, not to the console either.
 * @return
 * - 0: done
 * - -40960 (ERR_LOG_PARM_CONT): null record (nothing installed), or a bad fileMod
 * - -4 (ERR_LOG_FOPEN): the first file cannot be opened
 * - -2 (ERR_LOG_PTHREAD_CREATE): no writer thread, or libgcc_s.so.1 cannot be loaded to end it
 * - -3 (ERR_LOG_PIPE_CREATE): no pipe, or its descriptor is too high for select() */
int log_system_init(const tLogCfg *aipcLogCfg);

/** Stops the writer thread, delivers the contents of the pipe, closes file and pipe. The
 * configuration stays installed: later lines reach the console in direct mode if it was switched
 * on, and nothing with the writer thread.
 * @return always 0; may be called again, or without an init */
int log_system_exit(void);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
