/* SPDX-License-Identifier: MIT */
/**
 * @file
 * md5: MD5 message digests (RFC 1321), 16 bytes each.
 *
 * Of a buffer, of data that arrives in pieces, or of an open stream. The smallest use:
 *
 *     unsigned char digest[16];
 *     md5_buffer(data, len, digest);
 *
 * and in pieces:
 *
 *     struct md5_ctx ctx;
 *     md5_init_ctx(&ctx);
 *     md5_process_bytes(part, part_len, &ctx);          // as often as needed
 *     md5_finish_ctx(&ctx, digest);
 *
 * MD5 detects accidental changes only: an attacker can make two messages with the same digest. Use
 * sha256 against attacks.
 *
 * @par Threads
 * All state is in the caller's context. Different threads may use different contexts at the same
 * time; one context is used by one thread at a time. Only the reads of md5_stream() block.
 *
 * @par Memory
 * The caller owns contexts, inputs and results; the library keeps no reference to any of them and
 * allocates nothing. A context needs no release. Pointers are not checked. Inputs and results may
 * have any alignment; an input at a multiple of 4 is hashed in place, other inputs are copied block
 * by block first.
 *
 * @par Failures
 * Only md5_stream() can fail; the data it had read from the stream is lost.
 *
 * @par Linking
 * Every program that links the library defines gLogLevl: see common/self_log.h.
 *
 * @par Example
 * A complete program, and what it prints:
 * @include md5.c
 * @verbinclude md5.out
 */
#ifndef KELVARA_COMMON_MD5_H
#define KELVARA_COMMON_MD5_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/** A digest in progress. Allocated by the caller, initialised by md5_init_ctx(). */
struct md5_ctx {
    uint32_t A;          /**< the chaining state */
    uint32_t B;          /**< its second word */
    uint32_t C;          /**< its third word */
    uint32_t D;          /**< its fourth word */
    uint32_t total[2];   /**< bytes processed so far, low word first, without those pending */
    uint32_t buflen;     /**< bytes pending, 0 to 64: a whole block may wait */
    uint32_t buffer[32]; /**< the pending bytes, and room to pad them */
};

/** Starts a digest: the initial state of RFC 1321, with no input yet. */
void md5_init_ctx(struct md5_ctx *ctx);

/** Runs the compression function over the len / 64 blocks at buffer and counts len bytes. For
 * callers with whole blocks only: len must be a multiple of 64 (not checked), and no bytes may be
 * pending from md5_process_bytes(), which would otherwise be hashed after these. */
void md5_process_block(const void *buffer, size_t len, struct md5_ctx *ctx);

/** Takes len bytes, any number, and keeps an incomplete block for the next call. */
void md5_process_bytes(const void *buffer, size_t len, struct md5_ctx *ctx);

/** Pads the message, hashes the pending bytes and writes the 16 bytes of the digest to resbuf. The
 * context cannot be used further until md5_init_ctx() starts the next digest in it. Messages may
 * have up to 2^61 - 1 bytes; for a longer one RFC 1321 uses only the low 64 bits of the length.
 * @return resbuf */
void *md5_finish_ctx(struct md5_ctx *ctx, void *resbuf);

/** Writes the current chaining state, A, B, C, D, each word's low byte first: 16 bytes to resbuf.
 * Does not pad and does not change the context, so this is the digest only after md5_finish_ctx().
 * @return resbuf */
void *md5_read_ctx(const struct md5_ctx *ctx, void *resbuf);

/** Writes the digest of the len bytes at buffer, 16 bytes, to resblock.
 * @return resblock */
void *md5_buffer(const char *buffer, size_t len, void *resblock);

/** Writes the digest of the rest of stream, from its position to its end, 16 bytes, to resblock. A
 * read error is reported only when a read delivers nothing; after a short read the next one is
 * tried. The stream is neither rewound nor closed. Uses 4.5 KiB of the caller's stack.
 * @return 0, or 1 on a read error, with resblock unchanged */
int md5_stream(FILE *stream, void *resblock);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
