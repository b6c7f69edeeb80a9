/* SPDX-License-Identifier: MIT */
/*
 * sockfile: the path of a Unix-domain socket. A server replaces what stands at its path, so look
 * first whose it is; and at the end remove only what is still one's own:
 *
 *     tSockFile file;
 *     int err = sockfile_claim(path);      // EEXIST: no socket; EADDRINUSE: a server has it
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

/* Asks whether a server has the path, without connecting to it. Returns 0 if so, otherwise an error
 * number: ENOENT for no file, ECONNREFUSED for one that no server has (any more). */
int sockfile_probe(const char *aicpcPath);

/* Makes sure that the path may be bound: removes a socket that a server has left behind. Returns 0,
 * EEXIST for a file that is no socket, EADDRINUSE, or what else keeps us from looking. Locks the
 * folder until sockfile_bound(), so that of two servers that start together the second one sees the
 * first. After an error, end the program. */
int sockfile_claim(const char *aicpcPath);

/* Remembers the socket that the caller has bound to the path and listens at, and keeps the pointer.
 * Lets every user connect, whatever the umask, which is about the other files: the folder decides
 * who reaches the socket. Unlocks the folder. */
void sockfile_bound(tSockFile *aopFile, const char *aicpcPath);

/* Removes it, if it is still the same file and nobody serves there. Close the own socket first. */
void sockfile_remove(tSockFile *aiopFile);

#endif
