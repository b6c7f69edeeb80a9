/* SPDX-License-Identifier: MIT */
/*
 * tool: what gnssd, watchdogd and tap have in common on their command lines, with signals and with
 * time.
 */
#ifndef KELVARA_EXAMPLES_TOOL_H
#define KELVARA_EXAMPLES_TOOL_H

#include <cstdint>
#include <ctime>

/* Handles the options that all programs have, and ends the program: 'h' prints the usage, 'V' the
 * version, with status 0. Any other prints the usage on standard error, with status 2. */
[[noreturn]] void tool_answer(int aicOpt, const char *aicpcName, const char *aicpcUsage);

/* Parses a whole number from aicMin to aicMax. If the text is anything else, prints the range of
 * aicpcWhat, an option or argument of program aicpcName, and ends the program with status 2. */
int tool_number(const char *aicpcName, const char *aicpcWhat, const char *aicpcText, int aicMin,
                int aicMax);

/* Opens a closed standard input, output or error on /dev/null, or on the root folder. Catches
 * SIGINT, SIGTERM and the signals of the zero-terminated list; sets SIGCHLD to its default.
 * Returns an eventfd that is readable after a signal, or -1 with errno. If the program still runs
 * 0.9 s after the first SIGINT or SIGTERM, it ends with status 1, wherever it hangs. Threads that
 * are started later should have these signals blocked. */
int tool_signals(const int *aicpcMore);

/* Returns whether the signal arrived since the last call, once or several times. Read the
 * eventfd first. */
bool tool_signal_came(int aicSignal);

/* The clock in nanoseconds. */
uint64_t tool_now_ns(clockid_t aicClock);

#endif
