// SPDX-License-Identifier: MIT
#include "source.h"

#include <common/dmn_serv.h>
#include <common/popen2.h>
#include <common/self_log.h>
#include <common/xfuncs.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

static const eLogLevl gicDbLev = LOG_LEV_LOUD;

static constexpr int gicReapMs = 500; // how long a command has to end

static int _open_file(const char *aicpcPath)
{
    if (strcmp(aicpcPath, "-") == 0)
        return STDIN_FILENO;
    // Without O_NONBLOCK, open() of a named pipe without a writer would block.
    const int fd = open(aicpcPath, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd == -1)
        LOG_MSG(LOG_LEV_ERROR, "open(%s) err, msg:%s!!!!\n", aicpcPath, strerror(errno));
    return fd;
}

static int _open_serial(const char *aicpcPath, const int aicBaudRate)
{
    const speed_t speed = tty_get_baudrate(aicBaudRate);
    if (speed == static_cast<speed_t>(-1) || speed == B0) {
        LOG_MSG(LOG_LEV_ERROR, "baud rate %d is unknown!!!!\n", aicBaudRate);
        return -1;
    }
    const int fd = _open_file(aicpcPath);
    if (fd == -1)
        return -1;
    struct termios tio;
    if (tcgetattr(fd, &tio) == 0) {
        cfmakeraw(&tio);
        tio.c_cflag |= CLOCAL | CREAD;
        if (cfsetispeed(&tio, speed) == 0 && cfsetospeed(&tio, speed) == 0 &&
            tcsetattr(fd, TCSANOW, &tio) == 0)
            return fd;
    }
    LOG_MSG(LOG_LEV_ERROR, "%s is no serial line for us, msg:%s!!!!\n", aicpcPath, strerror(errno));
    close(fd);
    return -1;
}

// The number in the next line of an unbuffered stream; 0 if there is none.
static pid_t _read_number(FILE *aipStream)
{
    char line[32];
    if (fgets(line, sizeof line, aipStream) == nullptr)
        return 0;
    return static_cast<pid_t>(strtol(line, nullptr, 10));
}

// pclose2() would signal the process whose number is one above the shell's, without checking what
// it is. So the command runs in a subshell, which first prints both numbers.
static int _open_command(tSource *aopSrc, const char *aicpcCommand)
{
    char program[1024];
    char mode[] = "r";
    const int len = snprintf(program, sizeof program,
                             "(echo $$; sh -c 'echo $PPID'\n%s\n)\nexit $?", aicpcCommand);
    if (len < 0 || static_cast<size_t>(len) >= sizeof program) {
        LOG_MSG(LOG_LEV_ERROR, "the command is too long!!!!\n");
        return -1;
    }
    sigset_t none;
    sigset_t was;
    sigemptyset(&none);
    (void)pthread_sigmask(SIG_SETMASK, &none, &was); // the command must take signals
    aopSrc->stream = popen2(program, mode);
    (void)pthread_sigmask(SIG_SETMASK, &was, nullptr);
    if (aopSrc->stream == nullptr) {
        LOG_MSG(LOG_LEV_ERROR, "popen2(%s) err, msg:%s!!!!\n", aicpcCommand, strerror(errno));
        return -1;
    }
    setvbuf(aopSrc->stream, nullptr, _IONBF, 0);
    aopSrc->shell = _read_number(aopSrc->stream);
    aopSrc->child = _read_number(aopSrc->stream);
    return fileno(aopSrc->stream);
}

int source_open(tSource *aopSrc, eSrcKind aicKind, const char *aicpcPath, int aicBaudRate)
{
    static constexpr int failure[SRC_MAX] = {-ERR_FOPEN_DMN, -ERR_OPEN_TTY_DMN,
                                             -ERR_CREATE_PIPE_DMN};
    *aopSrc = {aicKind, -1, false, nullptr, 0, 0};
    const int fd = aicKind == SRC_SERIAL    ? _open_serial(aicpcPath, aicBaudRate)
                   : aicKind == SRC_COMMAND ? _open_command(aopSrc, aicpcPath)
                                            : _open_file(aicpcPath);
    if (fd == -1)
        return failure[aicKind];
    aopSrc->fd = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (aopSrc->fd == -1)
        LOG_MSG(LOG_LEV_ERROR, "no descriptor for the input, msg:%s!!!!\n", strerror(errno));
    if (fd != STDIN_FILENO && aopSrc->stream == nullptr)
        close(fd);
    if (aopSrc->fd == -1) {
        source_close(aopSrc, false);
        return failure[aicKind];
    }
    struct stat st;
    int waiting = 0;
    aopSrc->bWhole = (fstat(aopSrc->fd, &st) == 0 && S_ISREG(st.st_mode)) ||
                     ioctl(aopSrc->fd, FIONREAD, &waiting) == -1;
    return 0;
}

static eSrcResult _gather_chunk(const tSource *aipSrc, buffer_t *aipBuf)
{
    char chunk[4096];
    const ssize_t len = read(aipSrc->fd, chunk, sizeof chunk);
    if (len > 0) {
        const int32_t used = aipBuf->used;
        _write_ex(aipBuf, chunk, static_cast<uint32>(len));
        if (aipBuf->used > used)
            return SRC_BYTES;
        errno = ENOMEM;
    }
    if (len == 0)
        return SRC_END;
    return len == -1 && (errno == EAGAIN || errno == EINTR) ? SRC_BYTES : SRC_FAIL;
}

eSrcResult source_gather(const tSource *aipSrc, buffer_t *aipBuf, int aicStopFd)
{
    struct pollfd wait[] = {{aicStopFd, POLLIN, 0}, {aipSrc->fd, POLLIN, 0}};
    while (poll(wait, 2, -1) == -1) {
        if (errno != EINTR)
            return SRC_FAIL;
    }
    if (wait[0].revents != 0)
        return SRC_STOP;
    if (aipSrc->bWhole)
        return _gather_chunk(aipSrc, aipBuf);
    if (read_buffer(aipSrc->fd, aipBuf) >= 0)
        return SRC_BYTES;
    if (aipSrc->kind != SRC_SERIAL)
        return SRC_END;
    errno = EIO; // a serial line has no end
    return SRC_FAIL;
}

// True once the shell has ended. No other thread reaps it.
static bool _reap_shell(const pid_t aicShell, const int aicWaitMs, int *aopStatus)
{
    for (int ms = 0;; ms += 10) {
        const pid_t pid = waitpid(aicShell > 0 ? aicShell : -1, aopStatus, WNOHANG);
        if (pid != 0 || ms >= aicWaitMs)
            return pid > 0;
        poll(nullptr, 0, 10);
    }
}

// The shell waits for the command, so while the shell runs, the number belongs to the command.
// Once the shell has ended, any process may have that number.
static int _close_command(tSource *aipSrc, const bool aibEnded)
{
    int status = 0;
    bool bReaped = _reap_shell(aipSrc->shell, aibEnded ? gicReapMs : 0, &status);
    if (!bReaped && aipSrc->child > 0)
        (void)kill(aipSrc->child, SIGTERM); // fails when it has ended at this moment
    (void)fclose(aipSrc->stream);           // it was only read
    bReaped = bReaped || _reap_shell(aipSrc->shell, gicReapMs, &status);
    if (!bReaped)
        LOG_MSG(LOG_LEV_WARN, "the command has not ended, it is left alone\n");
    if (!bReaped || !aibEnded || status == 0)
        return 0;
    if (WIFEXITED(status))
        LOG_MSG(LOG_LEV_ERROR, "the command ended with status %d!!!!\n", WEXITSTATUS(status));
    else
        LOG_MSG(LOG_LEV_ERROR, "the command was ended by signal %d!!!!\n", WTERMSIG(status));
    return -1;
}

int source_close(tSource *aipSrc, bool aibEnded)
{
    if (aipSrc->fd != -1)
        close(aipSrc->fd);
    aipSrc->fd = -1;
    const int result = aipSrc->stream != nullptr ? _close_command(aipSrc, aibEnded) : 0;
    aipSrc->stream = nullptr;
    return result;
}
