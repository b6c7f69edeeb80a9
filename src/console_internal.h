// SPDX-License-Identifier: MIT
#pragma once

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

// Makes a new descriptor close-on-exec, and moves it above 2: if the host has closed a standard
// descriptor, the new one may have its number and would receive console output. Returns the
// descriptor, or -1 with errno if that fails or aicFd is -1.
__attribute__((noinline)) inline int console_leave(int aicFd)
{
    if (aicFd > STDERR_FILENO)
        (void)fcntl(aicFd, F_SETFD, FD_CLOEXEC); // fails on a bad descriptor only
    if (aicFd == -1 || aicFd > STDERR_FILENO)
        return aicFd;
    const int fd = fcntl(aicFd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int err = errno;
    (void)close(aicFd); // nothing was written to it yet
    errno = err;
    return fd;
}
