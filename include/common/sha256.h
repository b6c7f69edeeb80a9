/* SPDX-License-Identifier: MIT */
/**
 * @file
 * sha256: SHA-256 and SHA-224 message digests (FIPS 180-4), 32 and 28 bytes.
 *
 * Of a buffer, of data that arrives in pieces, or of an open stream. The smallest use:
 *
 *     unsigned char digest[32];
 *     sha256_buffer(data, len, digest);
 *
 * and in pieces:
 *
 *     struct sha256_ctx ctx;
 *     sha256_init_ctx(&ctx);
 *     sha256_process_bytes(part, part_len, &ctx);       // as often as needed
 *     sha256_finish_ctx(&ctx, digest);
 *
 * SHA-224 is the same computation from another initial state, with a shorter result: begin with
 * sha224_init_ctx(), feed with the sha256_process_ functions, end with sha224_finish_ctx(). A
 * context that sha224_init_ctx() began must be finished as SHA-224. A digest is neither a signature
 * nor a password hash.
 *
 * @par Threads
 * All state is in the caller's context. Different threads may use different contexts at the same
 * time; one context is used by one thread at a time. Only the reads of the stream functions block.
 *
 * @par Memory
 * The caller owns contexts, inputs and results; the library keeps no reference to any of them and
 * allocates nothing. A context needs no release, but is not wiped either. Pointers are not checked.
 * Inputs and results may have any alignment; an input at a multiple of 4 is hashed in place, other
 * inputs are copied block by block first.
 *
 * @par Failures
 * Only the stream functions can fail; the data they had read from the stream is lost.
 *
 * @par Linking
 * Every program that links the library defines gLogLevl: see common/self_log.h.
 *
 * @par Example
 * A complete program, and what it prints:
 * @include sha256.cpp
 * @verbinclude sha256.out
 */
#ifndef KELVARA_COMMON_SHA256_H
#define KELVARA_COMMON_SHA256_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/** A digest in progress, of either length. Allocated by the caller, initialised by an init call. */
struct sha256_ctx {
    uint32_t state[8];   /**< the hash value, H0 to H7 */
    uint32_t total[2];   /**< bytes processed so far, low word first, without those pending */
    size_t buflen;       /**< bytes pending, 0 to 64: a whole block may wait */
    uint32_t buffer[32]; /**< the pending bytes, and room to pad them */
};

/** Starts a SHA-256 digest: the initial hash value of FIPS 180-4, 5.3.3, with no input yet. */
void sha256_init_ctx(struct sha256_ctx *ctx);

/** Starts a SHA-224 digest: the initial hash value of FIPS 180-4, 5.3.2, with no input yet. */
void sha224_init_ctx(struct sha256_ctx *ctx);

/** Runs the compression function over the len / 64 blocks at buffer and counts len bytes. For
 * callers with whole blocks only: len must be a multiple of 64 (not checked), and no bytes may be
 * pending from sha256_process_bytes(), which would otherwise be hashed after these. */
void sha256_process_block(const void *buffer, size_t len, struct sha256_ctx *ctx);

/** Takes len bytes, any number, and keeps an incomplete block for the next call. */
void sha256_process_bytes(const void *buffer, size_t len, struct sha256_ctx *ctx);

/** Pads the message, hashes the pending bytes and writes the 32 bytes of the digest to resbuf. For
 * a context of sha256_init_ctx(). The context cannot be used further until an init call starts the
 * next digest in it. Messages may have up to 2^61 - 1 bytes, the standard's limit.
 * @return resbuf */
void *sha256_finish_ctx(struct sha256_ctx *ctx, void *resbuf);

/** Finishes a context of sha224_init_ctx(): as sha256_finish_ctx(), with 28 bytes.
 * @return resbuf */
void *sha224_finish_ctx(struct sha256_ctx *ctx, void *resbuf);

/** Writes the current hash value, 8 words, each with its high byte first, 32 bytes, to resbuf. Does
 * not pad and does not change the context, so this is the digest only after a finish.
 * @return resbuf */
void *sha256_read_ctx(const struct sha256_ctx *ctx, void *resbuf);

/** Writes the first 7 words of the hash value, 28 bytes; otherwise as sha256_read_ctx().
 * @return resbuf */
void *sha224_read_ctx(const struct sha256_ctx *ctx, void *resbuf);

/** Writes the SHA-256 digest of the len bytes at buffer, 32 bytes, to resblock.
 * @return resblock */
void *sha256_buffer(const char *buffer, size_t len, void *resblock);

/** Writes the SHA-224 digest of the len bytes at buffer, 28 bytes, to resblock.
 * @return resblock */
void *sha224_buffer(const char *buffer, size_t len, void *resblock);

/** Writes the SHA-256 digest of the rest of stream, from its position to its end, 32 bytes, to
 * resblock. A read error is reported only when a read delivers nothing; after a short read the next
 * one is tried. The stream is neither rewound nor closed. Uses 4.7 KiB of the caller's stack.
 * @return 0, or 1 on a read error, with resblock unchanged */
int sha256_stream(FILE *stream, void *resblock);

/** Writes the SHA-224 digest, 28 bytes; otherwise as sha256_stream().
 * @return 0, or 1 on a read error, with resblock unchanged */
int sha224_stream(FILE *stream, void *resblock);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
