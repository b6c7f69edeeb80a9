// SPDX-License-Identifier: MIT
#include "sockfile.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <libgen.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

static int giLockFd = -1; // the folder, locked

int sockfile_address(struct sockaddr_un *aopAddr, const char *aicpcPath)
{
    const size_t len = strlen(aicpcPath);
    if (len == 0 || len >= sizeof aopAddr->sun_path)
        return len == 0 ? ENOENT : ENAMETOOLONG;
    *aopAddr = {};
    aopAddr->sun_family = AF_UNIX;
    memcpy(aopAddr->sun_path, aicpcPath, len);
    return 0;
}

// A datagram socket does not fit a stream server, so the kernel refuses it with EPROTOTYPE, and the
// server does not notice. Without a server it refuses with ECONNREFUSED.
int sockfile_probe(const char *aicpcPath)
{
    struct sockaddr_un addr;
    int err = sockfile_address(&addr, aicpcPath);
    if (err != 0)
        return err;
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd == -1)
        return errno;
    if (connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) == -1)
        err = errno == EPROTOTYPE ? 0 : errno;
    (void)close(fd); // nothing was sent
    return err;
}

// Any user who may read the folder may lock it, so wait at most one second and then continue
// without the lock.
static void _lock_folder(const char *aicpcPath)
{
    char path[sizeof sockaddr_un::sun_path];
    snprintf(path, sizeof path, "%s", aicpcPath);
    giLockFd = open(dirname(path), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int ms = 0; giLockFd != -1 && ms < 1000 && flock(giLockFd, LOCK_EX | LOCK_NB) == -1;
         ms += 10)
        poll(nullptr, 0, 10);
}

int sockfile_claim(const char *aicpcPath)
{
    struct stat st;
    _lock_folder(aicpcPath);
    if (lstat(aicpcPath, &st) == -1)
        return errno == ENOENT ? 0 : errno;
    if (!S_ISSOCK(st.st_mode))
        return EEXIST;
    const int err = sockfile_probe(aicpcPath);
    if (err != ECONNREFUSED)
        return err == 0 ? EADDRINUSE : err;
    return unlink(aicpcPath) == 0 ? 0 : errno;
}

void sockfile_bound(tSockFile *aopFile, const char *aicpcPath)
{
    struct stat st;
    *aopFile = {};
    if (lstat(aicpcPath, &st) == 0)
        *aopFile = {aicpcPath, st.st_dev, st.st_ino};
    (void)chmod(aicpcPath, 0666); // fails for a file that is gone, or another user's
    if (giLockFd != -1)
        (void)close(giLockFd); // nothing was written
    giLockFd = -1;
}

void sockfile_remove(tSockFile *aiopFile)
{
    struct stat st;
    if (aiopFile->path != nullptr && lstat(aiopFile->path, &st) == 0 && S_ISSOCK(st.st_mode) &&
        st.st_dev == aiopFile->dev && st.st_ino == aiopFile->ino &&
        sockfile_probe(aiopFile->path) == ECONNREFUSED)
        (void)unlink(aiopFile->path); // what stays is replaced at the next start
    *aiopFile = {};
}
