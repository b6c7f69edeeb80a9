// SPDX-License-Identifier: MIT
#pragma once

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

// For a new descriptor: commands are not to inherit it. And if the host has closed a standard
// descriptor, ours may get its number and would receive console output: moves it above 2. Gives the
// descriptor, -1 with errno when that fails, and for -1.
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
