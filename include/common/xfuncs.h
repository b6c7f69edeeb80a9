/* SPDX-License-Identifier: MIT */
/**
 * @file
 * xfuncs: small helpers that every daemon needs: allocation that reports its failures, a check
 * byte, the serial line speed, the limit on open files, a link-local address, random strings.
 *
 *     #include <common/xfuncs.h>
 *     ...
 *     tRecord *rec = xzMalloc(sizeof(tRecord)); // zeroed; a failure is in the log already
 *     if (rec == NULL)
 *         return -1;
 *     ...
 *     free(rec);
 *
 * Threads: everything here may be called from any thread at any time; nothing keeps state of its
 * own. What is shared is the C library's: the random strings reseed and draw from its rand().
 *
 * Who owns what: memory and strings that are returned are the caller's, who releases them with
 * free(). No function keeps a pointer that it was given.
 *
 * What blocks: nothing waits, apart from get_linklocal_ipv6addr() asking the kernel for its list,
 * and from the output of a log line.
 *
 * What is lost on failure: nothing; each function says what its output holds then.
 *
 * Every program that links the library defines gLogLevl: see common/self_log.h.
 *
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
 * Each calls its allocator once and returns what that returned: storage for any type, which the
 * caller frees with free(), or null. A failed request that was not empty leaves one line at
 * LOG_LEV_ERROR; there is no second attempt and no abort, so test the result. An empty request
 * (size 0) gives what the allocator gives for it, null or not, and is never logged. Sizes are
 * bytes; a negative one turns into a request that no memory can satisfy, and fails like one.
 * @{ */

/** malloc(): the storage is not cleared. Logs "malloc() err!!!!".
 * @return the storage, or null */
void *xMalloc(int aicSize);

/** calloc() of aicSize single bytes: zeroed. Logs "malloc() err!!!!" all the same.
 * @return the storage, or null */
void *xzMalloc(int aicSize);

/** calloc() of one member of aicSize bytes: zeroed. Logs "calloc() err!!!!".
 * @return the storage, or null */
void *xzOneCalloc(int aicSize);

/** realloc(): moves or resizes the block at aipPtr (null: a new one); the contents stay up to the
 * smaller size, what is added is not cleared. Logs "realloc() err!!!!". After a failure the old
 * block is unchanged and still the caller's, so do not overwrite the only pointer to it. Size 0
 * releases the block.
 * @return the block, which may have moved, or null */
void *xRealloc(void *aipPtr, int aicSize);

/** calloc() of aicNumMem members of aicSize bytes each: zeroed. A product beyond the address space
 * is refused, not wrapped. Logs "calloc() err!!!!".
 * @return the storage, or null */
void *xCalloc(int aicNumMem, int aicSize);

/** @} */

/* --- Check byte ------------------------------------------------------------------------------ */

/** The XOR of every byte from *aicpcStartPtr to *aicpcEndPtr, the last one included; 0 when the
 * start lies above the end. Both point into one readable object (neither may be null); nothing
 * outside the range is read. A range followed by its own check byte gives 0. The char is plain:
 * unsigned on ARM, signed on x86, so compare it with another char.
 * @return the check byte */
char xorCheckSum(const char *const aicpcStartPtr, const char *const aicpcEndPtr);

/* --- Serial lines ---------------------------------------------------------------------------- */

/** The termios speed code (B9600 and so on) for a line speed in bits per second, as cfsetispeed()
 * and cfsetospeed() take it. Known are 0 (B0: hang up) and the standard speeds from 50 to 4000000;
 * only an exact match counts.
 * @return the code; (speed_t)-1 for any other rate, which is no speed code and is not logged: test
 * for it before use */
speed_t tty_get_baudrate(int aicBaudRate);

/* --- Open files ------------------------------------------------------------------------------ */

/** Sets the process's limits on open descriptors (RLIMIT_NOFILE), soft and hard, to 40000 each,
 * whatever they were; meant for start-up, before descriptors above that exist.
 * @return
 * - 0: both are set
 * - -2: the limits could not be read; logged
 * - -3: they could not be set; logged, and they stay as they were. Raising the hard limit needs
 *   the privilege to do so (CAP_SYS_RESOURCE); lowering it does not. */
int system_set_rlimit(void);

/* --- Addresses ------------------------------------------------------------------------------- */

/** Looks for a link-local IPv6 address (fe80::/10) of the network interface named aipcIface: the
 * whole name, case matters. The 16 bytes go to *aopcAddr6 in network byte order; scope and index
 * are not delivered, if_nametoindex() gives them. Each entry of the system's list that is looked
 * at, and the address that was found, are printed on standard output, whatever the log level.
 *
 * Beware: without a match *aopcAddr6 holds the address of the last IPv6 entry in the list, of any
 * interface and scope, or is untouched if there was none. That it is link-local therefore proves
 * nothing: it may be the address of another interface. Who must know does this:
 *   1. set *aopcAddr6 to in6addr_any before the call; take a result other than 0 as "none";
 *   2. take an address that fails IN6_IS_ADDR_LINKLOCAL as "none";
 *   3. walk getifaddrs(): the address is right if there is an AF_INET6 entry whose ifa_name is the
 *      interface and whose sin6_addr has the same 16 bytes; else there is none.
 *
 * @return 0 when the list was walked, FOUND OR NOT, and -1, logged and with *aopcAddr6 untouched,
 * when an argument is null or the list cannot be had */
int get_linklocal_ipv6addr(struct in6_addr *aopcAddr6, const char *aipcIface);

/** @name Random strings
 *
 * NO SOURCE OF SECRETS: the characters come from rand(), seeded with the time in whole seconds at
 * each call. Who knows the second knows the string, and two calls with the same length within one
 * second return the same one. Never use them for keys, passwords, tokens or nonces; take
 * getrandom() for those. Every other user of rand() in the process sees its sequence restarted.
 * While several threads draw at the same time, length and alphabet still hold.
 *
 * Both return a new zero-terminated string of aicLen characters (0: the empty string) that the
 * caller frees, or null: without memory, which is logged, or when aicLen is negative. Neither of
 * the two touches the generator.
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
