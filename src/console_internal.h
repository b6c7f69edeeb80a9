// SPDX-License-Identifier: MIT
#pragma once

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

// If a host has closed a standard descriptor, ours may get its number and would receive console
// output: moves it above 2, by F_DUPFD or F_DUPFD_CLOEXEC. -1 with errno when that fails, and for
// -1.
inline int console_leave(int aicFd, int aicDup)
{
    if (aicFd == -1 || aicFd > STDERR_FILENO)
        return aicFd;
    const int fd = fcntl(aicFd, aicDup, STDERR_FILENO + 1);
    const int err = errno;
    (void)close(aicFd); // new, with nothing in it to lose
    errno = err;
    return fd;
}
