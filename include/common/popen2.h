/* SPDX-License-Identifier: MIT */
/**
 * @file
 * popen2: runs a shell command at the other end of a pipe and can end it at once.
 *
 *     #include <common/popen2.h>
 *     char command[] = "tail -f nmea.txt | grep GGA", type[] = "r";
 *     ...
 *     FILE *from = popen2(command, type);  // then fgets(line, sizeof line, from) and so on
 *     ...
 *     if (from != NULL)
 *         pclose2(from);                   // does not wait for the command: signals it
 *
 * @par What pclose2() signals
 * It does not signal the shell. It sends SIGTERM to the process or thread whose number is one
 * greater than the shell's, on the unchecked assumption that this is the command, the first process
 * that the shell made. The assumption is wrong if another process or thread, also one of the host,
 * was started at that moment. It is wrong if the shell makes no process: many shells replace
 * themselves by a single plain command, and a built-in never gets a process. Then the signal goes
 * to whatever has that number, if the caller may signal it, or to nothing. If the number is that of
 * a thread, its whole process ends; a thread of the caller's own process is refused. Use pclose2()
 * only if the host knows its shell and its command. Otherwise use fclose(): the command then ends
 * by itself, at the end of its input or when it writes.
 *
 * @par Reaping the shell
 * The host must do it. Neither function waits for a child, so a shell that has ended remains as a
 * zombie until the host calls waitpid() (with -1, because the process ID is not returned), or
 * ignores SIGCHLD.
 *
 * @par Threads
 * Calls of popen2() and pclose2() must not overlap, because they share a table without a lock. The
 * stream may be used like any other.
 *
 * @par Streams and the table
 * The stream belongs to the caller, which closes it with pclose2(). fclose() leaves the shell's
 * number in the table of streams, where the next stream with that descriptor finds it; after an
 * fclose() pass only streams of popen2() to pclose2(). The table is made at the first call, with a
 * slot for each descriptor that the process may have at that time, and stays until the process
 * ends. A stream whose descriptor lies beyond the table (the limit was raised later) works, but
 * pclose2() refuses it: close it with fclose(). So raise the limit first.
 *
 * @par Blocking
 * popen2() blocks until the child has become the shell. pclose2() blocks while it writes the
 * buffered data of a "w" stream into the pipe: if the command does not read, until the command
 * ends. If the pipe has no reader, that write raises SIGPIPE.
 *
 * @par What the command inherits
 * It inherits every open descriptor of the host that is not close-on-exec, including the pipe ends
 * of earlier streams, so a "w" command sees no end of file while a later command still runs. It
 * also inherits the calling thread's signal mask and the host's ignored signals; SIGPIPE is one of
 * them once the server of common/dmn_serv.h has run. Until the child has become the shell, it runs
 * on the host's memory, and a signal sent to it then runs the host's handler there.
 *
 * @par Security
 * The command line goes through the shell: never put untrusted input into it.
 *
 * @par Linking
 * Every program that links the library defines gLogLevl: see common/self_log.h.
 *
 * @par Example
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
 * not kept. If the shell cannot be started, its child exits with 127, and the stream shows end of
 * file or is a pipe without a reader.
 * @return the stream, or null: a bad type, no memory for the table, no pipe, no process, or no
 * stream (the shell then runs on and finds the pipe closed). errno is set by the system call that
 * failed, if one did */
FILE *popen2(char *program, char *type);

/** Closes a stream of popen2() and sends SIGTERM to the process after the shell (see above).
 * SIGINT, SIGQUIT and SIGHUP are blocked in the calling thread while it sends the signal.
 * @return 0 when the signal was sent, with errno unchanged. -1 when it was not sent (no such
 * process, or this one, both ESRCH): the stream is closed anyway. -1 also when iop is null or not
 * a stream of popen2(): it is then left open */
int pclose2(FILE *iop);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
