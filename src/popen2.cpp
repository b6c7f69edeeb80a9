// SPDX-License-Identifier: MIT
#include <common/popen2.h>

#include "thread_internal.h"

#include <cerrno>
#include <common/self_log.h>
#include <csignal>
#include <cstdlib>
#include <unistd.h>

// The ceiling for log lines of this module, which has none so far.
[[maybe_unused]] static constexpr eLogLevl gicDbLev = LOG_LEV_ERROR;

static int *pids;      // the shell's process ID or 0, indexed by the descriptor of the stream
static int giPidsSize; // number of slots in pids

static bool _make_table()
{
    if (pids != nullptr)
        return true;
    const int size = getdtablesize();
    if (size <= 0)
        return false;
    // The pages that calloc() returns take no memory until a slot on them is written. With a limit
    // of a thousand million descriptors, malloc() and clearing would use gigabytes.
    pids = static_cast<int *>(calloc(static_cast<size_t>(size), sizeof *pids));
    if (pids == nullptr)
        return false;
    giPidsSize = size;
    return true;
}

// The slot of a stream, or null if its descriptor lies beyond the table.
static int *_slot(FILE *aipStream)
{
    const int fd = fileno(aipStream);
    return fd >= 0 && fd < giPidsSize ? &pids[fd] : nullptr;
}

// Starts the shell with aicTheirs as its aicStdFd and aicOwn closed. Until the shell runs, the
// child shares the parent's memory: it must not write to it, nor return from this function.
static pid_t _start_shell(const char *aipcProgram, int aicOwn, int aicTheirs, int aicStdFd)
{
    const pid_t pid = vfork();
    if (pid != 0)
        return pid;
    if (aicTheirs != aicStdFd) {
        if (dup2(aicTheirs, aicStdFd) < 0) // GCOVR_EXCL_BR_LINE: a pipe's end can be copied
            _exit(127);                    // GCOVR_EXCL_LINE
        (void)close(aicTheirs);            // a pipe's end has nothing to report
    }
    // If the host had closed aicStdFd, aicOwn may be that number, and dup2() has replaced it.
    if (aicOwn != aicStdFd)
        (void)close(aicOwn);
    (void)execl("/bin/sh", "sh", "-c", aipcProgram, static_cast<char *>(nullptr));
    _exit(127);
}

// Processes and threads share one range of numbers, and a signal to a thread's number goes to its
// whole process, which must not be this one.
static int _terminate(pid_t aicPid)
{
    if (tgkill(getpid(), aicPid, 0) == 0) {
        errno = ESRCH;
        return -1;
    }
    return kill(aicPid, SIGTERM);
}

FILE *popen2(char *program, char *type)
{
    const bool bReads = type[0] == 'r';
    if ((!bReads && type[0] != 'w') || type[1] != '\0')
        return nullptr;
    if (!_make_table())
        return nullptr;
    int ends[2]; // not close-on-exec: an end that is already the standard descriptor stays open
    if (pipe(ends) != 0)
        return nullptr;
    const int own = ends[bReads ? 0 : 1];
    const int theirs = ends[bReads ? 1 : 0];

    // A child of vfork() shares our memory: a cancel that took effect there would unwind the
    // host's stack.
    const int was = thread_defer_cancel();
    const pid_t pid = _start_shell(program, own, theirs, bReads ? STDOUT_FILENO : STDIN_FILENO);
    FILE *pStream = pid < 0 ? nullptr : fdopen(own, type);
    (void)close(theirs);
    if (pStream == nullptr)
        (void)close(own);
    else if (int *pSlot = _slot(pStream))
        *pSlot = pid;
    thread_restore_cancel(was);
    return pStream;
}

int pclose2(FILE *iop)
{
    if (pids == nullptr || iop == nullptr)
        return -1;
    int *pSlot = _slot(iop);
    if (pSlot == nullptr || *pSlot == 0)
        return -1;
    const int errBefore = errno;
    const int was = thread_defer_cancel(); // a cancel in fclose() would leave the slot in use
    (void)fclose(iop);                     // data that the command did not read is lost

    sigset_t held;
    sigset_t before;
    (void)sigemptyset(&held); // these fail on bad arguments only
    (void)sigaddset(&held, SIGINT);
    (void)sigaddset(&held, SIGQUIT);
    (void)sigaddset(&held, SIGHUP);
    (void)sigprocmask(SIG_BLOCK, &held, &before);
    const int ret = _terminate(*pSlot + 1);
    if (ret == 0)
        errno = errBefore;
    (void)sigprocmask(SIG_SETMASK, &before, nullptr);
    *pSlot = 0;
    thread_restore_cancel(was);
    return ret;
}
