// SPDX-License-Identifier: MIT
#include <common/self_log.h>

#include "config_internal.h"
#include "console_internal.h"
#include "thread_internal.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/time.h>
#include <unistd.h>

static const eLogLevl gicDbLev = LOG_LEV_ERROR;

static constexpr char gicLogStrAry[LOG_LEV_MAX][4] = {"OFF", "ERR", "RUN", "WAN",
                                                      "TAE", "IFO", "LUD"};
static constexpr size_t gicLnBytes = 1024;
static constexpr size_t gicNmeBytes = 256;

// Written only by init and exit, which run while no other thread logs.
static tLogCfg giLogCfg;
static tLogCfg *gipLogCfg; // null until a record is installed

// Guarded by giSvLogLk.
static pthread_mutex_t giSvLogLk = PTHREAD_MUTEX_INITIALIZER;
static FILE *gipLogFp;
static int giLogWriteCnt;              // writes into the open file
static int giLogFileBkupCnt;           // names formed in the mode of two files
static int giLogPpFdAry[2] = {-1, -1}; // also read without it

// The writer thread. It starts before the pipe exists.
static pthread_t giLogPthdId;
static bool gibWlRunFlg;
static char rxBuf[gicLnBytes]; // of the writer thread, and after the join of the exit call

// The number of callers that use the pipe. A caller increments it and then tests whether the pipe
// is open; the exit call marks the pipe as shut and then reads the count. So once the count is 0,
// no caller uses the descriptors that are closed. A caller that finds the pipe shut before it
// increments does not increment, so the count reaches 0 even if threads keep logging.
static bool gibLogPpOpn;
static int giLogUsers;

pthread_mutex_t gThreadLibcLk = PTHREAD_MUTEX_INITIALIZER;

// Relaxed atomic access.
template <typename tWord> static tWord _peek(const tWord *aipcWord)
{
    return __atomic_load_n(aipcWord, __ATOMIC_RELAXED);
}

template <typename tWord> static void _poke(tWord *aopWord, tWord aicValue)
{
    __atomic_store_n(aopWord, aicValue, __ATOMIC_RELAXED);
}

// --- forks ------------------------------------------------------------------------------------

// A child has no writer thread. It writes into the file that it shares with the owner, or into the
// owner's pipe. Descendants append and only the owner rotates, because beginning a file empties it.
static pid_t giLogOwner; // the process that called log_system_init()

static bool _may_rotate()
{
    // GCOVR_EXCL_BR_START: EPERM, if a process of another user has the number
    return getpid() == giLogOwner || (kill(giLogOwner, 0) == -1 && errno == ESRCH);
    // GCOVR_EXCL_BR_STOP
}

static int _make_log_pipe()
{
    int fds[2];
    if (pipe(fds) == -1)
        return -1;
    for (int &fd : fds)
        fd = console_leave(fd);
    if (fds[0] != -1 && fds[1] != -1 && fds[0] < FD_SETSIZE) {
        _poke(&giLogPpFdAry[0], fds[0]);
        _poke(&giLogPpFdAry[1], fds[1]);
        return 0;
    }
    for (const int fd : fds)
        if (fd != -1)
            (void)close(fd);
    errno = EMFILE; // or the read end is too high for select()
    return -1;
}

// Acquire: a thread that finds the pipe open also sees this pipe's descriptors, not earlier ones.
static bool _log_pipe_open()
{
    return __atomic_load_n(&gibLogPpOpn, __ATOMIC_ACQUIRE);
}

// If a caller is still inside write(), leaves the pipe open: closing it could raise SIGPIPE in the
// host, or send the line to a reused descriptor.
static void _close_log_pipe_end(int *aiopFd)
{
    if (*aiopFd != -1 && _peek(&giLogUsers) == 0)
        (void)close(*aiopFd);
    _poke(aiopFd, -1);
}

// Leaves aicEnds ends of the pipe open: 2 makes a new pipe, 1 keeps the write end, 0 closes both.
// Returns -1 with errno if there is no pipe. A fork waits for the lock, so a child knows which ends
// it has to close. (Cold, like all of start and stop: here size matters more than speed.)
__attribute__((cold)) static int _set_log_pipe(int aicEnds)
{
    (void)pthread_mutex_lock(&giSvLogLk);
    const int ret = aicEnds == 2 ? _make_log_pipe() : 0;
    for (int i = 0; i < 2 - aicEnds; ++i)
        _close_log_pipe_end(&giLogPpFdAry[i]);
    __atomic_store_n(&gibLogPpOpn, giLogPpFdAry[1] != -1, __ATOMIC_RELEASE);
    (void)pthread_mutex_unlock(&giSvLogLk);
    return ret;
}

static void _log_before_fork()
{
    (void)pthread_mutex_lock(&giSvLogLk);
    (void)pthread_mutex_lock(&gThreadLibcLk);
}

static void _log_after_fork()
{
    (void)pthread_mutex_unlock(&gThreadLibcLk);
    (void)pthread_mutex_unlock(&giSvLogLk);
}

static void _log_in_child()
{
    _log_after_fork();
    giLogPthdId = 0;
    giLogUsers = 0;
    (void)_set_log_pipe(gibLogPpOpn ? 1 : 0); // only the owner reads
}

// Runs before a statically linked host's constructors: fork handlers that they register may log.
__attribute__((constructor(101))) static void _log_meet_forks()
{
    // Fails only if there is no memory at the start.
    (void)pthread_atfork(_log_before_fork, _log_after_fork, _log_in_child);
}

// --- a line's time ----------------------------------------------------------------------------

// The last second in which a line was logged: its number times 2^17, plus its local time of day.
// There an hour counts 64 minutes and a minute 64 seconds, because a leap second has number 60.
// Other lines of the same second use it. The initial value matches no second.
static uint64_t giLogClock = 1ULL << 63;

static unsigned _time_of_day(time_t aicSec)
{
    const uint64_t second = static_cast<uint64_t>(aicSec) << 17;
    uint64_t clock = _peek(&giLogClock);
    if (clock - second >= 1 << 17) {
        tm local = {};
        (void)pthread_mutex_lock(&gThreadLibcLk);
        (void)localtime_r(&aicSec, &local);
        (void)pthread_mutex_unlock(&gThreadLibcLk);
        clock =
            second + static_cast<unsigned>((local.tm_hour * 64 + local.tm_min) * 64 + local.tm_sec);
        _poke(&giLogClock, clock);
    }
    return static_cast<unsigned>(clock - second);
}

// --- a line's header --------------------------------------------------------------------------

// "[%s:%02d:%02d:%02d.%08ld %15s %04d] ", formatted by hand: expanding that format would cost as
// much as the rest of the line's way into the pipe.
static void _put_digits(char *aopTo, size_t aicCount, unsigned long aiValue)
{
    for (size_t i = aicCount; i-- > 0; aiValue /= 10)
        aopTo[i] = static_cast<char>('0' + aiValue % 10);
}

// Appends as much as fits; returns the new length.
static size_t _put_text(char (&aoLine)[gicLnBytes], size_t aicUsed, const char *aipcText,
                        size_t aicLen)
{
    const size_t left = gicLnBytes - 2 - aicUsed;
    const size_t take = aicLen < left ? aicLen : left;
    memcpy(aoLine + aicUsed, aipcText, take);
    return aicUsed + take;
}

static size_t _put_head(char (&aoLine)[gicLnBytes], const char *aipcTag, const timeval &aicNow,
                        const char *aipcFlNme, int aicLnNum)
{
    constexpr size_t field = 15;
    constexpr size_t name = sizeof "[TAG:hh:mm:ss.00uuuuuu " - 1;
    memcpy(aoLine, "[TAG:hh:mm:ss.00uuuuuu                ", name + field);
    memcpy(aoLine + 1, aipcTag, 3);
    const unsigned day = _time_of_day(aicNow.tv_sec);
    _put_digits(aoLine + 5, 2, day / 4096);
    _put_digits(aoLine + 8, 2, day / 64 % 64);
    _put_digits(aoLine + 11, 2, day % 64);
    _put_digits(aoLine + 16, 6, static_cast<unsigned long>(aicNow.tv_usec));

    const size_t len = strlen(aipcFlNme);
    const size_t used = _put_text(aoLine, name + (len < field ? field - len : 0), aipcFlNme, len);
    char tail[16] = " 0000] ";
    if (aicLnNum >= 0 && aicLnNum <= 9999)
        _put_digits(tail + 1, 4, static_cast<unsigned long>(aicLnNum));
    else
        (void)snprintf(tail, sizeof tail, " %04d] ", aicLnNum);
    return _put_text(aoLine, used, tail, strlen(tail));
}

// --- files ------------------------------------------------------------------------------------

// Forms the next file's name. Returns false, with an empty name, for an unknown fileMod. A name
// that is too long is cut.
static bool _next_log_name(char (&aoNme)[gicNmeBytes])
{
    aoNme[0] = '\0';
    if (giLogCfg.fileMod == LOG_FILE_TWO) {
        const int index = giLogFileBkupCnt & 1;
        (void)__builtin_add_overflow(giLogFileBkupCnt, 1, &giLogFileBkupCnt); // wraps
        return snprintf(aoNme, gicNmeBytes - 1, "%s-%02d.log", giLogCfg.saveLogPath, index) >= 0;
    }
    if (giLogCfg.fileMod != LOG_FILE_TIME)
        return false;
    const time_t now = time(nullptr);
    tm local = {};
    (void)pthread_mutex_lock(&gThreadLibcLk);
    (void)localtime_r(&now, &local); // fails for years beyond an int: then zeros
    const int chance = static_cast<int>(random() % 100000);
    (void)pthread_mutex_unlock(&gThreadLibcLk);
    return snprintf(aoNme, gicNmeBytes - 1, "%s-%04d-%02d-%02d-%02d-%02d-%02d-%06d.log",
                    giLogCfg.saveLogPath, local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
                    local.tm_hour, local.tm_min, local.tm_sec, chance) >= 0;
}

// Like console_leave(), for a stream. Each write goes to the current end of the file, also after
// writes of other processes.
static FILE *_fopen_log(const char *aicpcNme)
{
    FILE *pFp = fopen(aicpcNme, "w+");
    if (pFp == nullptr)
        return nullptr;
    if (fileno(pFp) <= STDERR_FILENO) {
        FILE *pHigher = _fopen_log(aicpcNme);
        (void)fclose(pFp); // nothing was written yet
        return pHigher;
    }
    (void)fcntl(fileno(pFp), F_SETFD, FD_CLOEXEC); // these fail on a bad descriptor only
    (void)fcntl(fileno(pFp), F_SETFL, O_APPEND);
    return pFp;
}

// Replaces the open file, if there is one. The library opens nothing between close and open, so the
// new file gets the freed descriptor unless another thread of the host takes it first.
static bool _open_log_file(const char *aicpcNme)
{
    printf("New save log path=%s\n", aicpcNme);
    if (gipLogFp != nullptr)
        (void)fclose(gipLogFp); // every write was flushed; a failure cannot be reported
    gipLogFp = _fopen_log(aicpcNme);
    if (gipLogFp == nullptr) {
        puts("fopen() err!!!!");
        return false;
    }
    giLogWriteCnt = 0;
    return true;
}

// With giSvLogLk held: begins the next file if the open one has had its number of writes.
static void _log_file_rotate()
{
    if (gipLogFp == nullptr || static_cast<uint32_t>(giLogWriteCnt) < giLogCfg.logSaveMaxCnt ||
        !_may_rotate())
        return;
    printf("logSaveMaxCnt=%d\n", static_cast<int>(giLogCfg.logSaveMaxCnt));
    puts("rotate start");
    char nme[gicNmeBytes];
    (void)_next_log_name(nme); // init has refused an unknown fileMod
    (void)_open_log_file(nme); // reports a failure, which ends file output
}

// --- a line's delivery ------------------------------------------------------------------------

static void _write_log_file(const char *aipcMsg)
{
    pthread_mutex_lock(&giSvLogLk);
    _log_file_rotate();
    if (gipLogFp != nullptr) {
        // After a failure, such as a full disk, the next line is tried again.
        (void)fwrite(aipcMsg, 1, strlen(aipcMsg), gipLogFp);
        (void)fflush(gipLogFp);
        (void)__builtin_add_overflow(giLogWriteCnt, 1, &giLogWriteCnt); // wraps
    }
    pthread_mutex_unlock(&giSvLogLk);
}

// The direct sink: console first, then file.
static void _process_log_msg(const char *aipcMsg)
{
    if (gipLogCfg == nullptr || giLogCfg.stdoutLogSwt == LOG_SWITCH_ON)
        printf("%s", aipcMsg);
    if (_peek(&giLogCfg.fileLogSwt) == LOG_SWITCH_ON)
        _write_log_file(aipcMsg);
}

// Writes into the owner's pipe. If its reader has ended, this must not raise SIGPIPE.
static void _write_owners_pipe(int aicFd, const char *aipcMsg)
{
    sigset_t sigPipe;
    sigset_t before;
    (void)sigemptyset(&sigPipe); // these fail on bad arguments only
    (void)sigaddset(&sigPipe, SIGPIPE);
    (void)pthread_sigmask(SIG_BLOCK, &sigPipe, &before);
    const timespec now = {};
    // GCOVR_EXCL_BR_START: by chance, when the pipe is full
    if (write(aicFd, aipcMsg, strlen(aipcMsg)) == -1 && errno == EPIPE)
        // GCOVR_EXCL_BR_STOP
        (void)sigtimedwait(&sigPipe, nullptr, &now); // finds none if it is ignored
    (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

static void _deliver(const char *aipcMsg)
{
    if (giLogCfg.logRunMd != LOG_RUN_NEW_PTHREAD) {
        _process_log_msg(aipcMsg);
        return;
    }
    if (!_peek(&gibLogPpOpn))
        return;
    (void)__atomic_add_fetch(&giLogUsers, 1, __ATOMIC_ACQUIRE);
    // GCOVR_EXCL_BR_START: by chance, when the pipe is shut after the first test
    const int fd = _log_pipe_open() ? _peek(&giLogPpFdAry[1]) : -1;
    if (fd != -1 && _peek(&giLogPpFdAry[0]) == -1)
        _write_owners_pipe(fd, aipcMsg);
    else if (fd != -1)
        (void)!write(fd, aipcMsg, strlen(aipcMsg)); // what the pipe does not take is lost
    // GCOVR_EXCL_BR_STOP
    (void)__atomic_sub_fetch(&giLogUsers, 1, __ATOMIC_RELEASE);
}

// --- the writer thread ------------------------------------------------------------------------

// Waits at most 100 ms for data in the pipe, whose read end may not exist yet. A cancel takes
// effect only here: the thread holds no lock and no data from the pipe.
static int _wait_log_pipe(int aicFd)
{
    // Not on the stack: the address sanitizer does not notice that a cancel unwinds the frame.
    static fd_set rxSet;
    static timeval wait;
    FD_ZERO(&rxSet);
    if (aicFd >= 0)
        FD_SET(aicFd, &rxSet);
    wait.tv_sec = 0;
    wait.tv_usec = 100000;
    (void)pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    pthread_testcancel();
    const int ready = select(aicFd + 1, &rxSet, nullptr, nullptr, &wait);
    (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    return ready;
}

// Delivers one chunk from the pipe, which may begin and end within a line. Returns its length, or 0
// or less after a failure.
static ssize_t _rx_log_chunk(int aicFd)
{
    memset(rxBuf, 0, sizeof rxBuf);
    const ssize_t len = read(aicFd, rxBuf, sizeof rxBuf - 1);
    if (len > 0)
        _process_log_msg(rxBuf);
    else
        printf("read() err, msg:%s!!!!\n", strerror(errno));
    return len;
}

static void *_rx_log_func_pth(void *)
{
    thread_begin("kelvara_log");
    // From here on a cancel takes effect only inside select(), where the stack can be unwound.
    (void)pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr);
    while (_peek(&gibWlRunFlg)) {
        const int fd = _log_pipe_open() ? _peek(&giLogPpFdAry[0]) : -1;
        const int ready = _wait_log_pipe(fd);
        if (ready > 0) {
            (void)_rx_log_chunk(fd); // reports a failure; the loop continues
        } else if (ready == -1) {
            const bool bAgain = errno == EINTR;
            printf("select()=-1, msg:%s!!!!\n", strerror(errno));
            if (!bAgain)
                (void)_wait_log_pipe(-1); // the next select() would fail too: pause
        }
    }
    pthread_exit(const_cast<char *>("_rx_log_func_pth() exit"));
}

// --- start ------------------------------------------------------------------------------------

static int _start_log_file()
{
    if (giLogCfg.logSaveMaxCnt == 0)
        giLogCfg.logSaveMaxCnt = 10000;
    if (giLogCfg.saveLogPath[0] == '\0')
        strcpy(giLogCfg.saveLogPath, "/opt/v2x/log/v2xLog");
    printf("Save log path=%s\n", giLogCfg.saveLogPath);
    char nme[gicNmeBytes];
    if (!_next_log_name(nme)) {
        printf("fileMod=%d err!!!!\n", static_cast<int>(giLogCfg.fileMod));
        return -ERR_LOG_PARM_CONT;
    }
    (void)pthread_mutex_lock(&giSvLogLk);
    const bool bOpn = _open_log_file(nme);
    (void)pthread_mutex_unlock(&giSvLogLk);
    return bOpn ? LOG_SUCCESS : -ERR_LOG_FOPEN;
}

static int _start_log_thread()
{
    // Not set by the thread, which could do so after an exit call has cleared it.
    _poke(&gibWlRunFlg, true);
    pthread_t id = 0;
    int err = thread_load_unwinder();
    if (err == 0)
        err = pthread_create(&id, nullptr, _rx_log_func_pth, nullptr);
    if (err != 0) {
        printf("pthread_create() err, msg:%s\n", strerror(err));
        return -ERR_LOG_PTHREAD_CREATE;
    }
    giLogPthdId = id;
    if (_set_log_pipe(2) == -1) {
        printf("pipe() err, msg:%s!!!!\n", strerror(errno));
        return -ERR_LOG_PIPE_CREATE;
    }
    printf("giLogPpFdAry=%d %d\n", giLogPpFdAry[0], giLogPpFdAry[1]);
    return LOG_SUCCESS;
}

// --- stop -------------------------------------------------------------------------------------

static void _stop_log_thread()
{
    if (giLogPthdId == 0)
        return;
    puts("Wait _rx_log_func_pth() pthread stop------");
    _poke(&gibWlRunFlg, false);
    (void)pthread_cancel(giLogPthdId); // harmless if the thread has ended
    (void)pthread_join(giLogPthdId, nullptr);
    puts("_rx_log_func_pth() pthread already stop------");
    giLogPthdId = 0;
}

// Waits until no caller uses the pipe, and reads, because callers may wait for room in it. It gives
// up when none has finished for half a second: the exit may run in a signal handler that
// interrupted a caller. The limit is 250 turns and not a deadline, which an overloaded machine
// would miss.
static void _wait_for_users(int aicRxFd)
{
    pollfd rx = {aicRxFd, POLLIN, 0};
    int before = 0;
    for (int turns = 250; turns > 0;) {
        // Adding 0 is a read-modify-write, so it is ordered after every earlier increment, and a
        // later caller finds the pipe shut.
        const int users = __atomic_add_fetch(&giLogUsers, 0, __ATOMIC_ACQ_REL);
        // GCOVR_EXCL_BR_START: what poll() has announced can be read
        if (users == 0 || (poll(&rx, 1, 2) == 1 && _rx_log_chunk(aicRxFd) <= 0))
            // GCOVR_EXCL_BR_STOP
            return;
        turns = users == before ? turns - 1 : 250;
        before = users;
    }
}

__attribute__((cold)) static void _release_log()
{
    _poke(&gibLogPpOpn, false);
    const int fd = giLogPpFdAry[0]; // the thread that read it has ended
    _wait_for_users(fd);
    // Delivers only what the pipe contains now: a forked child may still write into it.
    int left = 0;
    (void)ioctl(fd, FIONREAD, &left); // cannot fail on a pipe; without one left stays 0
    // GCOVR_EXCL_BR_START: the pipe contains what FIONREAD counted
    for (ssize_t len = 1; left > 0 && len > 0; left -= static_cast<int>(len))
        // GCOVR_EXCL_BR_STOP
        len = _rx_log_chunk(fd);

    _poke(&giLogCfg.fileLogSwt, LOG_SWITCH_OFF); // or threads that still log keep the lock busy
    (void)pthread_mutex_lock(&giSvLogLk);
    if (gipLogFp != nullptr)
        (void)fclose(gipLogFp); // flushed at every write
    gipLogFp = nullptr;
    (void)pthread_mutex_unlock(&giSvLogLk);
    (void)_set_log_pipe(0);
}

// --- exported ---------------------------------------------------------------------------------

void log_msg(const eLogLevl aicLogLvl, const char *aipcFlNme, const char *aipcFuncNme,
             const int aicLnNum, const char *format, ...)
{
    const int err = errno; // hosts read it after they have logged
    // A cancelled thread of the host must not leave a lock held or a count raised.
    const int was = thread_defer_cancel();
    char line[gicLnBytes] = {};
    constexpr size_t room = gicLnBytes - 1;
    timeval now = {};
    (void)gettimeofday(&now, nullptr); // fails on a bad pointer only
    const eLogLevl tag = aicLogLvl < LOG_LEV_MAX ? aicLogLvl : LOG_LEV_LOUD;
    const size_t used = _put_head(line, gicLogStrAry[tag], now, aipcFlNme, aicLnNum);

    // Text that does not fit is cut. If the format cannot be expanded, the part so far stays.
    if (aicLogLvl == LOG_LEV_TRACE)
        (void)!snprintf(line + used, room - used, "%s() start\n", aipcFuncNme);
    else {
        va_list args;
        va_start(args, format);
        (void)vsnprintf(line + used, room - used, format, args);
        va_end(args);
    }
    _deliver(line);
    thread_restore_cancel(was);
    errno = err;
}

void logger(int, pid_t, const char *aipcMsg)
{
    const int was = thread_defer_cancel(); // as above
    _deliver(aipcMsg);
    thread_restore_cancel(was);
}

void set_global_log_level(const eLogLevl aicLogLevl)
{
    _poke(&gLogLevl, aicLogLevl);
    printf("gLogLevl=%d\n", static_cast<int>(aicLogLevl));
    if (aicLogLevl > LOG_LEV_MAX) {
        constexpr int level = LOG_LEV_RUN;
        printf("Input debug level(%d) err, set %d value\n", static_cast<int>(aicLogLevl), level);
        _poke(&gLogLevl, LOG_LEV_RUN);
        printf("New gLogLevl=%d\n", level);
    }
}

int load_log_cfg(tLogCfg *const aopcLogCfg, const char *const aicpcLogCfgNme,
                 const config_t *const aicpcCfg)
{
    const config_setting_t *pGroup = config_lookup(aicpcCfg, aicpcLogCfgNme);
    if (pGroup == nullptr) {
        LOG_MSG(LOG_LEV_ERROR, "config_lookup(%s) err!!!!\n", aicpcLogCfgNme);
        return -ERR_LOG_LIBCFG_CFG_LOOKUP;
    }
    cfg_load_int(pGroup, "logRunMd", &aopcLogCfg->logRunMd);
    cfg_load_int(pGroup, "fileMod", &aopcLogCfg->fileMod);
    cfg_load_int(pGroup, "logSaveMaxCnt", &aopcLogCfg->logSaveMaxCnt);
    cfg_load_int(pGroup, "stdoutLogSwt", &aopcLogCfg->stdoutLogSwt);
    cfg_load_int(pGroup, "fileLogSwt", &aopcLogCfg->fileLogSwt);
    cfg_load_string(pGroup, "saveLogPath", aopcLogCfg->saveLogPath);
    return LOG_SUCCESS;
}

__attribute__((cold)) int log_system_init(const tLogCfg *aipcLogCfg)
{
    if (aipcLogCfg == nullptr) {
        puts("aipcLogCfg=NULL");
        return -ERR_LOG_PARM_CONT;
    }
    const int was = thread_defer_cancel(); // no cancel may interrupt a start
    gipLogCfg = &giLogCfg;
    giLogCfg = *aipcLogCfg;
    giLogOwner = getpid();

    int ret = LOG_SUCCESS;
    if (giLogCfg.fileLogSwt == LOG_SWITCH_ON)
        ret = _start_log_file();
    else
        puts("File log close");
    if (ret == LOG_SUCCESS && giLogCfg.stdoutLogSwt != LOG_SWITCH_ON)
        puts("Stdout log close");
    if (ret == LOG_SUCCESS && giLogCfg.logRunMd == LOG_RUN_NEW_PTHREAD)
        ret = _start_log_thread();
    else if (ret == LOG_SUCCESS)
        puts("Log no create pthread");
    thread_restore_cancel(was);
    return ret;
}

__attribute__((cold)) int log_system_exit(void)
{
    const int was = thread_defer_cancel(); // as above
    _stop_log_thread();
    if (gipLogCfg != nullptr)
        _release_log();
    thread_restore_cancel(was);
    return LOG_SUCCESS;
}
