/* SPDX-License-Identifier: MIT */
/*
 * tool: what gnssd, watchdogd and tap have in common on their command lines, with signals and with
 * time.
 */
#ifndef KELVARA_EXAMPLES_TOOL_H
#define KELVARA_EXAMPLES_TOOL_H

#include <cstdint>
#include <ctime>

/* Ends the program after an option that is the same everywhere: 'h' prints the usage, 'V' the
 * version, status 0; anything else is wrong: the usage on standard error, status 2. */
[[noreturn]] void tool_answer(int aicOpt, const char *aicpcName, const char *aicpcUsage);

/* Reads a whole number from aicMin to aicMax and nothing behind it. Otherwise ends the program with
 * status 2 and a line that says what aicpcWhat, an option or argument of program aicpcName, can be.
 */
int tool_number(const char *aicpcName, const char *aicpcWhat, const char *aicpcText, int aicMin,
                int aicMax);

/* Opens a closed standard input, output or error on /dev/null, or on the root folder. Catches
 * SIGINT and SIGTERM, and the signals of the list, which a 0 ends; sets SIGCHLD to its default.
 * Returns an eventfd that is readable after a signal, or -1 with errno. From the first SIGINT or
 * SIGTERM on the program has 0.9 s: then it is ended with status 1, wherever it hangs. Threads that
 * are started later should have these signals blocked. */
int tool_signals(const int *aicpcMore);

/* Returns whether the signal arrived since the last call, once or several times. Read the
 * eventfd first. */
bool tool_signal_came(int aicSignal);

/* The clock in nanoseconds. */
uint64_t tool_now_ns(clockid_t aicClock);

#endif
