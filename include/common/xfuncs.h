/* SPDX-License-Identifier: MIT */
/**
 * @file
 * xfuncs: small helpers that every daemon needs: allocation that reports its failures, a check
 * byte, the serial line speed, the limit on open files, a link-local address, random strings.
 *
 *     #include <common/xfuncs.h>
 *     ...
 *     tRecord *rec = xzMalloc(sizeof(tRecord)); // zeroed; a failure is already logged
 *     if (rec == NULL)
 *         return -1;
 *     ...
 *     free(rec);
 *
 * @par Threads
 * Any thread may call any function at any time; the functions keep no state. The random strings
 * reseed and use the C library's rand(), which the whole process shares. Only
 * get_linklocal_ipv6addr(), which waits for the kernel's list, and the output of a log line can
 * block.
 *
 * @par Memory
 * Memory and strings that are returned belong to the caller, which releases them with free(). No
 * function keeps a pointer that it was given. Each function says what its output holds after a
 * failure.
 *
 * @par Linking
 * Every program that links the library defines gLogLevl: see common/self_log.h.
 *
 * @par Example
 * A complete program, and what it prints:
 * @include xfuncs.c
 * @verbinclude xfuncs.out
 */
#ifndef KELVARA_COMMON_XFUNCS_H
#define KELVARA_COMMON_XFUNCS_H

#include <netinet/in.h>
#include <termios.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/** @name Allocation
 *
 * Each calls its allocator once and returns the result: storage for any type, which the caller
 * frees with free(), or null. A failed request that was not empty logs one line at LOG_LEV_ERROR.
 * There is no second attempt and no abort, so test the result. An empty request (size 0) returns
 * the allocator's result, null or not, and is never logged. Sizes are bytes; a negative one becomes
 * a request too large for any memory, and fails like one.
 * @{ */

/** malloc(): the storage is not cleared. Logs "malloc() err!!!!".
 * @return the storage, or null */
void *xMalloc(int aicSize);

/** calloc() of aicSize single bytes: zeroed. Logs "malloc() err!!!!" too.
 * @return the storage, or null */
void *xzMalloc(int aicSize);

/** calloc() of one member of aicSize bytes: zeroed. Logs "calloc() err!!!!".
 * @return the storage, or null */
void *xzOneCalloc(int aicSize);

/** realloc(): moves or resizes the block at aipPtr (null: a new one). The contents up to the
 * smaller size are kept; added bytes are not cleared. Logs "realloc() err!!!!". After a failure
 * the old block is unchanged and still belongs to the caller, so do not overwrite the only pointer
 * to it. Size 0 releases the block.
 * @return the block, which may have moved, or null */
void *xRealloc(void *aipPtr, int aicSize);

/** calloc() of aicNumMem members of aicSize bytes each: zeroed. A product beyond the address space
 * fails and does not wrap. Logs "calloc() err!!!!".
 * @return the storage, or null */
void *xCalloc(int aicNumMem, int aicSize);

/** @} */

/* --- Check byte ------------------------------------------------------------------------------ */

/** The XOR of every byte from *aicpcStartPtr to *aicpcEndPtr inclusive; 0 when the start lies above
 * the end. Both point into one readable object (neither may be null); nothing outside the range is
 * read. A range followed by its own check byte gives 0. The result is a plain char, unsigned on ARM
 * and signed on x86, so compare it with another char.
 * @return the check byte */
char xorCheckSum(const char *const aicpcStartPtr, const char *const aicpcEndPtr);

/* --- Serial lines ---------------------------------------------------------------------------- */

/** The termios speed code (B9600 and so on) for a line speed in bits per second, as cfsetispeed()
 * and cfsetospeed() take it. It supports 0 (B0: hang up) and the standard speeds from 50 to
 * 4000000, exact matches only.
 * @return the code, or (speed_t)-1 for any other rate, which is not a speed code and is not logged:
 * test for it before use */
speed_t tty_get_baudrate(int aicBaudRate);

/* --- Open files ------------------------------------------------------------------------------ */

/** Sets the process's limits on open descriptors (RLIMIT_NOFILE), soft and hard, to 40000 each,
 * whatever they were. Call it at start-up, before descriptors above that exist.
 * @return
 * - 0: both are set
 * - -2: the limits could not be read; logged
 * - -3: they could not be set; logged, and they are unchanged. Raising the hard limit needs a
 *   privilege (CAP_SYS_RESOURCE); lowering it does not. */
int system_set_rlimit(void);

/* --- Addresses ------------------------------------------------------------------------------- */

/** Looks for a link-local IPv6 address (fe80::/10) of the network interface named aipcIface: the
 * whole name, case matters. Writes the 16 bytes to *aopcAddr6 in network byte order. Scope and
 * index are not returned; if_nametoindex() gives them. Each entry of the system's list that is
 * examined, and the address that was found, are printed on standard output, whatever the log level.
 *
 * Beware: without a match *aopcAddr6 holds the address of the last IPv6 entry in the list, of any
 * interface and scope, or is unchanged if there was none. Even a link-local result may therefore be
 * the address of another interface. To be certain:
 * 1. set *aopcAddr6 to in6addr_any before the call; take a result other than 0 as "none";
 * 2. take an address that fails IN6_IS_ADDR_LINKLOCAL as "none";
 * 3. walk getifaddrs(): the address is right if there is an AF_INET6 entry whose ifa_name is the
 *    interface and whose sin6_addr has the same 16 bytes; otherwise there is none.
 *
 * @return 0 when the list was walked, FOUND OR NOT, and -1, logged and with *aopcAddr6 unchanged,
 * when an argument is null or the list is not available */
int get_linklocal_ipv6addr(struct in6_addr *aopcAddr6, const char *aipcIface);

/** @name Random strings
 *
 * NO SOURCE OF SECRETS: the characters come from rand(), seeded with the time in whole seconds at
 * each call. The second of the call determines the string, and two calls with the same length
 * within one second return the same one. Never use them for keys, passwords, tokens or nonces; use
 * getrandom() for those. Each call restarts the sequence that other users of rand() in the process
 * see. When several threads call them at the same time, length and alphabet are still correct.
 *
 * Both return a new zero-terminated string of aicLen characters (0: the empty string) that the
 * caller frees, or null: without memory, which is logged, or when aicLen is negative. A call that
 * returns null does not change the generator.
 * @{ */

/** Letters A-Z, a-z and digits 0-9. Each of the three classes is drawn equally often, so one digit
 * comes up more often than one letter.
 * @return the string, which the caller frees, or null */
char *gen_random_string(const int aicLen);

/** Digits 0-9.
 * @return the string, which the caller frees, or null */
char *gen_random_number_string(const int aicLen);

/** @} */

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
