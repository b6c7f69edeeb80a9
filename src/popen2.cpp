// SPDX-License-Identifier: MIT
#include <common/popen2.h>
#include <common/self_log.h>

#include "thread_internal.h"
#include <csignal>
#include <cstdlib>
#include <unistd.h>

namespace
{
[[maybe_unused]] constexpr eLogLevl gicDbLev = LOG_LEV_ERROR;

int *pids;      // by descriptor of the stream: its shell's process ID, or 0
int giPidsSize; // slots in it

bool _make_table()
{
    if (pids)
        return true;
    const int size = getdtablesize();
    if (size <= 0)
        return false;
    // Not malloc() and clearing: with a limit of a thousand million descriptors that would fetch
    // gigabytes, while calloc() gets pages that stay unused until a slot on them is written.
    pids = static_cast<int *>(calloc(static_cast<size_t>(size), sizeof *pids));
    if (!pids)
        return false;
    giPidsSize = size;
    return true;
}

// The slot of a stream; null: its descriptor lies beyond the table.
int *_slot(FILE *aipStream)
{
    const int fd = fileno(aipStream);
    return fd >= 0 && fd < giPidsSize ? &pids[fd] : nullptr;
}

// Starts the shell with aicTheirs as its aicStdFd and without aicOwn. Until it runs, the child
// works on the parent's memory: it must write to none of it, and must not return from here.
pid_t _start_shell(const char *aipcProgram, int aicOwn, int aicTheirs, int aicStdFd)
{
    const pid_t pid = vfork();
    if (pid != 0)
        return pid;
    if (aicTheirs != aicStdFd) {
        if (dup2(aicTheirs, aicStdFd) < 0)
            _exit(127);
        close(aicTheirs);
    }
    // A host that had closed aicStdFd may have got it back as its own end; dup2() replaced it.
    if (aicOwn != aicStdFd)
        close(aicOwn);
    execl("/bin/sh", "sh", "-c", aipcProgram, static_cast<char *>(nullptr));
    _exit(127);
}
} // namespace

FILE *popen2(char *program, char *type)
{
    const bool reads = type[0] == 'r';
    if ((!reads && type[0] != 'w') || type[1] != '\0')
        return nullptr;
    if (!_make_table())
        return nullptr;
    int ends[2]; // not close-on-exec: an end that already is the standard descriptor is inherited
    if (pipe(ends) != 0)
        return nullptr;
    const int own = ends[reads ? 0 : 1];
    const int theirs = ends[reads ? 1 : 0];

    // A child of vfork() shares our memory: a cancel that struck there would unwind the host's
    // stack.
    const int was = thread_defer_cancel();
    const pid_t pid = _start_shell(program, own, theirs, reads ? STDOUT_FILENO : STDIN_FILENO);
    FILE *stream = pid < 0 ? nullptr : fdopen(own, type);
    close(theirs);
    if (!stream)
        close(own);
    else if (int *slot = _slot(stream))
        *slot = pid;
    thread_restore_cancel(was);
    return stream;
}

int pclose2(FILE *iop)
{
    if (!pids)
        return -1;
    int *slot = _slot(iop);
    if (!slot || *slot == 0)
        return -1;
    const int was = thread_defer_cancel(); // or a cancelled close would leave the slot behind
    fclose(iop);                           // what the command did not take is lost with it

    sigset_t held;
    sigset_t before;
    sigemptyset(&held);
    sigaddset(&held, SIGINT);
    sigaddset(&held, SIGQUIT);
    sigaddset(&held, SIGHUP);
    sigprocmask(SIG_BLOCK, &held, &before);
    const int sent = kill(*slot + 1, SIGTERM);
    sigprocmask(SIG_SETMASK, &before, nullptr);
    *slot = 0;
    thread_restore_cancel(was);
    return sent == 0 ? 0 : -1;
}
