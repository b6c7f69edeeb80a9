/* SPDX-License-Identifier: MIT */
/*
 * sockfile: the path of a Unix-domain socket. A server replaces any file at its path, so check
 * first that no other server uses it. At the end remove the file only if it is still your own:
 *
 *     tSockFile file;
 *     int err = sockfile_claim(path);      // EEXIST: not a socket; EADDRINUSE: in use
 *     if (err == 0 && bind_and_listen(path))
 *         sockfile_bound(&file, path);
 *     ...
 *     close_the_server();
 *     sockfile_remove(&file);
 */
#ifndef KELVARA_EXAMPLES_SOCKFILE_H
#define KELVARA_EXAMPLES_SOCKFILE_H

#include <sys/types.h>
#include <sys/un.h>

typedef struct _tSockFile_ {
    const char *path; /* null when there is nothing to remove */
    dev_t dev;
    ino_t ino;
} tSockFile;

/* Fills the address. Returns 0, ENAMETOOLONG, or ENOENT for an empty path. */
int sockfile_address(struct sockaddr_un *aopAddr, const char *aicpcPath);

/* Checks whether a server listens at the path, without connecting to it. Returns 0 if so,
 * otherwise an error number: ENOENT for no file, ECONNREFUSED for a socket without a server. */
int sockfile_probe(const char *aicpcPath);

/* Prepares the path for bind(): removes a socket that a server has left behind. Returns 0,
 * EEXIST for a file that is not a socket, EADDRINUSE, or the error of a failed check. Locks the
 * folder until sockfile_bound(), so that if two servers start together, the second one sees the
 * first. After an error, end the program. */
int sockfile_claim(const char *aicpcPath);

/* Records the listening socket that the caller has bound to the path, and keeps the pointer.
 * Lets every user connect, whatever the umask, which is meant for the other files: the permissions
 * of the folder decide which users reach the socket. Unlocks the folder. */
void sockfile_bound(tSockFile *aopFile, const char *aicpcPath);

/* Removes the socket, if it is still the same file and no server listens there. Close your own
 * listening socket first. */
void sockfile_remove(tSockFile *aiopFile);

#endif
