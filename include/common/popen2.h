/* SPDX-License-Identifier: MIT */
/**
 * @file
 * popen2: a shell command at the other end of a pipe, that can be ended at once.
 *
 *     #include <common/popen2.h>
 *     char command[] = "tail -f nmea.txt | grep GGA", type[] = "r";
 *     ...
 *     FILE *from = popen2(command, type);  // then fgets(line, sizeof line, from) and so on
 *     ...
 *     if (from != NULL)
 *         pclose2(from);                   // does not wait for the command: signals it
 *
 * WHAT pclose2() SIGNALS: not the shell, but the process or thread whose number is one greater than
 * the shell's, in the belief that this is the command, as the first process that the shell made.
 * Nothing checks it. The belief is wrong when another process or thread was started at that moment,
 * the host's own included, and when the shell makes no process at all: many a shell runs a single
 * plain command in its own place, a built-in always. Then whatever has that number gets the
 * SIGTERM, if the caller may signal it, or nothing does. A thread's number ends its whole
 * process; one of the caller's own process is refused. Use pclose2() where the host knows its shell
 * and its command, and otherwise fclose(): the command then ends by itself, at the end of its
 * input, or when it writes.
 *
 * WHO REAPS THE SHELL: the host. Neither function waits for a child, so each popen2() leaves an
 * exited child behind when its shell has ended, until the host calls waitpid() (with -1, as the ID
 * is not handed out), or ignores SIGCHLD.
 *
 * Threads: calls of popen2() and pclose2() must not overlap: they share a table without a lock.
 * The stream may be used like any other.
 *
 * Who owns what: the stream is the caller's, who ends it with pclose2(). fclose() leaves the
 * shell's number in the table of streams, for the descriptor's next user to find: give pclose2()
 * nothing but streams of popen2() then. The table is made at the first call, with a slot for each
 * descriptor that the process may have at that time, and stays until the process ends. A stream
 * whose descriptor lies beyond it (the limit was raised later) works, but pclose2() does not know
 * it: fclose() it. So raise the limit first.
 *
 * What blocks: popen2() until the child has become the shell. pclose2() while what is buffered in
 * a "w" stream goes into the pipe: when the command does not read, until it ends. Without a reader
 * that raises SIGPIPE.
 *
 * What the command inherits: every open descriptor of the host that is not close-on-exec, with the
 * pipe ends of streams made earlier, the calling thread's signal mask and the host's ignored
 * signals: SIGPIPE, once the server of common/dmn_serv.h has run. A "w" command therefore sees no
 * end of file while a later command still runs. Until the child has become the shell, it runs on
 * the host's memory, and a signal sent to it then runs the host's handler there.
 *
 * The command line goes through the shell: never put into it what came from outside.
 *
 * Every program that links the library defines gLogLevl: see common/self_log.h.
 *
 * A complete program, and what it prints:
 * @include popen2.c
 * @verbinclude popen2.out
 */
#ifndef KELVARA_COMMON_POPEN2_H
#define KELVARA_COMMON_POPEN2_H

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/** Runs /bin/sh -c program with a pipe to it. type is exactly "r": the stream reads the command's
 * standard output, or "w": the stream writes to its standard input. The strings are only read, and
 * not kept. A shell that cannot be started shows as end of file, or as a pipe without a reader,
 * and exits with 127.
 * @return the stream, or null: a bad type, no memory for the table, no pipe, no process, or no
 * stream (the shell then runs on and finds the pipe closed). errno is set by the system call that
 * failed, if one did */
FILE *popen2(char *program, char *type);

/** Closes a stream of popen2() and sends SIGTERM to the process after the shell (see above), with
 * SIGINT, SIGQUIT and SIGHUP held back in the calling thread meanwhile.
 * @return 0 when the signal was sent, with errno as it was, and -1 when it was not (no such
 * process, or this one, both ESRCH: the stream is closed anyway), or when iop is null or no stream
 * of popen2(): it is then left open */
int pclose2(FILE *iop);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
