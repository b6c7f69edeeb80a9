/* SPDX-License-Identifier: MIT */
/**
 * @file
 * self_log: the log service of a daemon.
 *
 * Each call writes one line with level, time of day, source file and line number. Lines go to the
 * console, to a file that is replaced after a number of writes, or to both. The smallest use, in C
 * or C++:
 *
 *     #include <common/self_log.h>
 *     eLogLevl gLogLevl = LOG_LEV_WARN;                 // once in each program
 *     static const eLogLevl gicDbLev = LOG_LEV_LOUD;    // once in each source file
 *     ...
 *     LOG_MSG(LOG_LEV_ERROR, "open(%s) err, msg:%s!!!!\n", path, strerror(errno));
 *
 * Until log_system_init() every line goes to standard output; afterwards the installed tLogCfg
 * decides.
 *
 * @par Levels
 * A line passes two thresholds. gicDbLev is a constant of the source file: a call above it leaves
 * no code. gLogLevl is the threshold of the running program. So leave LOG_LEV_INFO and LOG_LEV_LOUD
 * calls in the code, and raise gLogLevl to investigate a problem. Every program that links the
 * library must define gLogLevl, even if it never logs.
 *
 * @par Time and text
 * The time in a line is local time without a date. The digits after the point count microseconds,
 * padded with zeros to eight digits: "09.00470942" is 9.470942 s. The library notices a tzset() of
 * the host in the next second, and a change of the zone file at the next start. Text is written
 * unchanged: remove line breaks and terminal escapes from untrusted input before you log it.
 *
 * @par Threads
 * Any number of threads may call log_msg(), logger() and LOG_MSG. These are not cancellation
 * points: a cancel takes effect at the thread's next one, and the line is not lost. A thread whose
 * cancel type is asynchronous must not log, because a cancel inside a call would leave a lock held.
 * errno is unchanged by log_msg() and LOG_MSG. The writer thread inherits the scheduling policy of
 * the thread that calls log_system_init().
 *
 * @par Start and stop
 * Call log_system_init() before other threads log, and log_system_exit() after they have stopped.
 * Threads may keep logging during the exit: it returns, and lines may be lost. The exit waits
 * for callers that wait for room in the pipe. It gives up when none of them finishes for half a
 * second, for example because the exit was called from a signal handler that interrupted such a
 * caller; the two descriptors of the pipe then stay open.
 *
 * @par Blocking
 * In direct mode the caller itself writes to the console and to the file. With the writer thread
 * the caller makes one write() into a pipe, and waits only while that pipe (usually 64 KiB) is
 * full. If the console is a pipe or terminal that is not read, every thread that writes to it
 * blocks, including log_system_exit().
 *
 * @par Lost lines
 * A crash loses the write in progress and, with the writer thread, the contents of the pipe. Where
 * standard output is a pipe or a file, a crash also loses the contents of stdio's buffer, which is
 * some KiB of console lines; setvbuf(stdout, NULL, _IOLBF, 0) at the start of the host prevents
 * this. log_system_exit() delivers everything that was written into the pipe before the call. A
 * line is lost when a signal interrupts its caller's wait for a full pipe. A full disk loses lines
 * without notice. Each later line is tried again, and the first one that succeeds may be joined to
 * a line that was cut. When a file reaches RLIMIT_FSIZE, SIGXFSZ ends the process; if the host
 * ignores that signal, the effect is that of a full disk.
 *
 * @par Files
 * Each process needs a path of its own. Two daemons with the same path, for instance the default,
 * empty and overwrite each other's files. A rotation closes one file and opens the next, which
 * normally gets the same descriptor. If another thread takes that descriptor first and none is
 * free, file output ends until the next start: keep some descriptors free. With the writer thread a
 * rotation may cut a line in two, with one part in each file. A file may grow beyond 2 GiB and the
 * year beyond 2038 on 32-bit systems too, whatever flags the host is compiled with.
 *
 * @par Names of LOG_FILE_TIME
 * These names contain the time and a number from random(). Unless the host calls srandom(), each
 * process begins with the same number, so a process that restarts within one second empties the
 * file it left. Without a clock battery each boot begins at the same second, too. Call srandom()
 * with a number from getrandom(), or collect the files before the start.
 *
 * @par Fork
 * A child made by fork() may log, whatever other threads did at that moment. In direct mode it
 * writes into the file that it shares with the owner, which is the process that called
 * log_system_init(). With the writer thread it writes into the owner's pipe, and its lines are lost
 * once the owner has stopped. log_system_exit() in the child releases what it inherited without
 * harm to the owner; a log_system_init() after it starts a service of the child's own, which needs
 * its own path.
 *
 * @par Fork and rotation
 * Descendants append; the owner rotates. Each process counts its own writes, so the file may get
 * more than logSaveMaxCnt of them. A descendant rotates only after the owner has ended and the
 * owner's parent has waited for it. The descendant tests this with kill(owner, 0), which has two
 * limits. If another process has got the owner's number, the descendant appends for ever. If the
 * owner is in another PID namespace, the descendant rotates while the owner still writes. If two
 * descendants outlive the owner, each empties the other's files, unless they start services of
 * their own.
 *
 * @par Calling fork() and exec
 * fork() waits for a write into the file that is in progress. Do not call it in a signal handler.
 * Two traps of the C library remain. Parent and child both print the contents of stdout's buffer:
 * call fflush() before the fork. If a thread of the host is inside localtime_r(), random() or a
 * similar function at the fork, the child hangs at its first line. Programs started by exec inherit
 * neither pipe nor file. The library never uses descriptors 0 to 2, even if the host has closed
 * them.
 *
 * @par Example
 * A complete program, and what it prints:
 * @include self_log.c
 * @verbinclude self_log.out
 */
#ifndef KELVARA_COMMON_SELF_LOG_H
#define KELVARA_COMMON_SELF_LOG_H

#include <stdint.h>
#include <sys/types.h>

/* Fixed to 32 bits. C11 has no syntax for this, but compilers use 32 bits for these values. */
#ifdef __cplusplus
#define KELVARA_ENUM32 : uint32_t
extern "C" {
#else
#define KELVARA_ENUM32
#endif

#pragma GCC visibility push(default)

struct config_t; /* libconfig's parsed configuration */

/** The level scale: a lower number is more important. LOG_LEV_OFF does not silence a line: a line
 * of that level passes every threshold and is always printed. */
typedef enum _eLogLevl_ KELVARA_ENUM32 {
    LOG_LEV_OFF = 0,   /**< tag "OFF" */
    LOG_LEV_ERROR = 1, /**< tag "ERR" */
    LOG_LEV_RUN = 2,   /**< tag "RUN" */
    LOG_LEV_WARN = 3,  /**< tag "WAN" */
    LOG_LEV_TRACE = 4, /**< tag "TAE": marks the entry of a function */
    LOG_LEV_INFO = 5,  /**< tag "IFO" */
    LOG_LEV_LOUD = 6,  /**< tag "LUD" */
    LOG_LEV_MAX = 7,   /**< as a threshold: everything; not a level of lines */
} eLogLevl;

/** Which thread writes the lines. */
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

/** The configuration of the log service. An all-zero record is a valid start for load_log_cfg(). */
typedef struct _tLogCfg_ {
    eLogRunMod logRunMd;     /**< which thread writes the lines */
    eLogFileMod fileMod;     /**< naming; used only when file output is on */
    uint32_t logSaveMaxCnt;  /**< writes into a file before the next one is begun; 0 means 10000 */
    eLogSwitch stdoutLogSwt; /**< console output */
    eLogSwitch fileLogSwt;   /**< file output */
    char saveLogPath[256];   /**< base path of the files; empty means "/opt/v2x/log/v2xLog" */
} tLogCfg;

/** The run-time threshold. The host program defines it, with a start value of its choice. Every
 * call site reads it, and set_global_log_level() writes it, as one atomic word. */
extern eLogLevl gLogLevl;

/** Logs a line when aicLev is at most the source file's ceiling gicDbLev (a constant: calls above
 * it leave no code) and at most gLogLevl. A suppressed call costs one load and one comparison, and
 * its arguments are not evaluated. The format is a printf format and must contain its own line
 * break. At LOG_LEV_TRACE the format is ignored, and the line contains the calling function's name
 * and "() start". The file name shown is the last component of the path that the compiler was
 * given. */
#define LOG_MSG(aicLev, ...)                                                                       \
    do {                                                                                           \
        const eLogLevl kelvara_lev_ = (aicLev);                                                    \
        if (kelvara_lev_ <= gicDbLev &&                                                            \
            kelvara_lev_ <= __atomic_load_n(&gLogLevl, __ATOMIC_RELAXED))                          \
            log_msg(kelvara_lev_, __builtin_strrchr("/" __FILE__, '/') + 1, __func__, __LINE__,    \
                    __VA_ARGS__);                                                                  \
    } while (0)

/** Formats one line and delivers it; normally called through LOG_MSG. aipcFlNme: base name of the
 * source file; aipcFuncNme: the function's name; aicLnNum: the line; then a printf format and its
 * arguments. The finished line "[TAG:hh:mm:ss.uuuuuuuu file line] text" holds at most 1022
 * characters; the rest is cut, including the line break. If the format cannot be expanded, the line
 * ends with the part expanded so far. A call needs up to 4 KiB of the caller's stack. The library
 * itself allocates nothing. The C library may allocate: for the time zone at the first line, for
 * the console's buffer, for a field width beyond some hundred characters, and for the stream of a
 * new file at a rotation. Levels are LOG_LEV_OFF to LOG_LEV_LOUD; a higher one is shown as
 * LOG_LEV_LOUD. */
void log_msg(const eLogLevl aicLogLvl, const char *aipcFlNme, const char *aipcFuncNme,
             const int aicLnNum, const char *format, ...) __attribute__((format(printf, 5, 6)));

/** Delivers the zero-terminated text unchanged to the outputs of log lines: no header, no line
 * break added, no threshold. level and pid are not used. With the writer thread keep a text within
 * PIPE_BUF bytes (4096); parts of a longer one may alternate with other threads' lines. */
void logger(int level, pid_t pid, const char *aipcMsg);

/** Sets gLogLevl and reports the new value on standard output. 0 to LOG_LEV_MAX are accepted; any
 * other value is reported and replaced by LOG_LEV_RUN. Takes effect at the next call of any
 * thread. */
void set_global_log_level(const eLogLevl aicLogLevl);

/** Fills aopcLogCfg from the libconfig group at path aicpcLogCfgNme: integers "logRunMd",
 * "fileMod", "logSaveMaxCnt", "stdoutLogSwt", "fileLogSwt" and string "saveLogPath" (254
 * characters kept). A key that is missing or of another type leaves its field unchanged; no value
 * is checked here. Keeps no reference to its arguments.
 * @return 0, or -5 (ERR_LOG_LIBCFG_CFG_LOOKUP), logged, when there is no such group; the record is
 * then unchanged */
int load_log_cfg(tLogCfg *const aopcLogCfg, const char *const aicpcLogCfgNme,
                 const struct config_t *const aicpcCfg);

/** Installs a copy of the configuration and starts the outputs that it selects; reports each step
 * on standard output. Call it once in a process, and again only after log_system_exit(). After a
 * failure the completed steps remain until log_system_exit() undoes them, and the configuration
 * stays installed: if it selects the writer thread, no line is delivered, not even to the console.
 * @return
 * - 0: done
 * - -40960 (ERR_LOG_PARM_CONT): null record (nothing installed), or a bad fileMod
 * - -4 (ERR_LOG_FOPEN): the first file cannot be opened
 * - -2 (ERR_LOG_PTHREAD_CREATE): no writer thread, or libgcc_s.so.1, which is needed to end it,
 *   cannot be loaded
 * - -3 (ERR_LOG_PIPE_CREATE): no pipe, or its descriptor is too high for select() */
int log_system_init(const tLogCfg *aipcLogCfg);

/** Stops the writer thread, delivers the contents of the pipe, closes file and pipe. The
 * configuration stays installed: in direct mode later lines go to the console if it was switched
 * on; with the writer thread they are dropped. Idempotent.
 * @return always 0; may be called again, or without an init */
int log_system_exit(void);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
