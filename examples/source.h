/* SPDX-License-Identifier: MIT */
/*
 * source: the input of gnssd: a file, standard input, a serial line or the output of a command. One
 * thread opens the source, another one may gather, and the first closes the source when the other
 * has ended. Results are the negated codes of common/dmn_serv.h. Failures are logged here, except
 * those of source_gather(), whose thread must not wait for the log.
 */
#ifndef KELVARA_EXAMPLES_SOURCE_H
#define KELVARA_EXAMPLES_SOURCE_H

#include <common/buffer.h>

#include <cstdio>
#include <sys/types.h>

typedef enum _eSrcKind_ {
    SRC_FILE,    /* a file, also a named pipe; "-" is standard input */
    SRC_SERIAL,  /* a serial line, put into raw mode at a baud rate */
    SRC_COMMAND, /* a shell command, for as long as it runs */
    SRC_MAX,
} eSrcKind;

typedef struct _tSource_ {
    eSrcKind kind;
    int fd;       /* above the standard descriptors: read_buffer() refuses 0 */
    bool bWhole;  /* FIONREAD fails, or gives the size of a whole file */
    FILE *stream; /* SRC_COMMAND: from popen2(); what the command writes is read from fd */
    pid_t shell;  /* SRC_COMMAND: the shell of popen2(), reaped by this module, */
    pid_t child;  /* and its child that runs the command */
} tSource;

typedef enum _eSrcResult_ {
    SRC_BYTES, /* bytes were added to the buffer */
    SRC_STOP,  /* the stop descriptor is readable */
    SRC_END,   /* the input is at its end */
    SRC_FAIL,  /* reading failed, errno has the reason */
} eSrcResult;

/* Opens the source; aicpcPath is the path or the command line. Returns 0, -6 (ERR_FOPEN_DMN), -8
 * (ERR_OPEN_TTY_DMN: no terminal, or no such baud rate) or -5 (ERR_CREATE_PIPE_DMN). Open a command
 * before other threads and the server are started: it inherits ignored signals and open
 * descriptors. */
int source_open(tSource *aopSrc, eSrcKind aicKind, const char *aicpcPath, int aicBaudRate);

/* Waits for input or for aicStopFd, and appends the available input to the buffer. Logs nothing. */
eSrcResult source_gather(const tSource *aipSrc, buffer_t *aipBuf, int aicStopFd);

/* Closes the source. aibEnded: its end has been read, so a command may finish by itself;
 * otherwise the command is terminated. Returns 0, or -1 for a command that ended with an error
 * of its own, logged. */
int source_close(tSource *aipSrc, bool aibEnded);

#endif
