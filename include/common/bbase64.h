/* SPDX-License-Identifier: MIT */
/**
 * @file
 * bbase64: bytes to Base64 text and back, in the standard alphabet with padding (RFC 4648,
 * section 4).
 *
 *     char text[4 * ((sizeof(data) + 2) / 3) + 1];
 *     int len = bbase64_encode(data, sizeof(data), text, sizeof(text) - 1);
 *     if (len >= 0)
 *         text[len] = '\0';                             // the functions write no terminator
 *
 * Threads: any number of threads may call both functions at the same time; there is no state.
 * Nothing blocks, nothing is allocated and no reference is kept. Input and output belong to the
 * caller and must not overlap.
 *
 * Pointers are not checked; they may be null if their length is 0. Results are ints, so keep
 * outputs within INT_MAX.
 *
 * Failures: nothing is written beyond dst_len, but output written before a failure stays.
 *
 * Every program that links the library defines gLogLevl: see common/self_log.h.
 *
 * A complete program, and what it prints:
 * @include bbase64.c
 * @verbinclude bbase64.out
 */
#ifndef KELVARA_COMMON_BBASE64_H
#define KELVARA_COMMON_BBASE64_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/** Encodes src_len bytes of src into dest, which has room for dst_len characters; 4 * ((src_len +
 * 2) / 3) of them are needed. Writes no terminating zero.
 * @return the number of characters written, or -1 when dest is too small; dest then holds the
 * groups that fit */
int bbase64_encode(const unsigned char *src, size_t src_len, char *dest, size_t dst_len);

/** Decodes src_len characters of src into dest, which has room for dst_len bytes, in groups of 4
 * characters. These cases are not errors:
 * - a group with '=' third or fourth gives 1 or 2 bytes and ends the text; the rest is ignored;
 * - 1 to 3 characters after the last whole group are ignored;
 * - bits of a padded group that reach no byte are ignored ("QR==" is "QQ==");
 * - decoding stops when fewer than 3 bytes of room are left, also before a padded group, so give
 *   dest 3 bytes for every 4 characters.
 * @return the number of bytes written, or -1 at a group with a character outside the alphabet (line
 * breaks and blanks are outside) or with '=' as its first or second character; dest then holds the
 * bytes of the groups before */
int bbase64_decode(const char *src, size_t src_len, unsigned char *dest, size_t dst_len);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
