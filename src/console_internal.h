// SPDX-License-Identifier: MIT
#pragma once

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

// For a new descriptor: makes it close-on-exec. If the host has closed a standard descriptor, ours
// may get its number and would receive console output, so it is moved above 2. Returns the
// descriptor; -1 with errno if that fails, and for -1.
__attribute__((noinline)) inline int console_leave(int aicFd)
{
    if (aicFd > STDERR_FILENO)
        (void)fcntl(aicFd, F_SETFD, FD_CLOEXEC); // fails on a bad descriptor only
    if (aicFd == -1 || aicFd > STDERR_FILENO)
        return aicFd;
    const int fd = fcntl(aicFd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int err = errno;
    (void)close(aicFd); // new, with nothing in it to lose
    errno = err;
    return fd;
}
