/* SPDX-License-Identifier: MIT */
/**
 * @file
 * aes: AES with keys of 128 bits (FIPS-197), on one block (ECB) or on a run of blocks (CBC, NIST
 * SP 800-38A).
 *
 *     AES128_CBC_encrypt_buffer(cipher, plain, len, key, iv);     // len a multiple of 16
 *     AES128_CBC_decrypt_buffer(plain, cipher, len, key, iv);
 *
 * Mind the orders: ECB takes (input, key, output), CBC takes (output, input, length, key, iv).
 * Encryption by CBC changes its input, see there.
 *
 * A long message may be handed over in several CBC calls, the first with key and iv, the later
 * ones with null for both: each continues with the key expanded last, by whichever function, and
 * the chaining value that the CBC call before it left. That value is not copied: it is the caller's
 * iv, or the last ciphertext block in the output of an encryption or in the input of a decryption,
 * and must stay in place and unchanged until the next call has begun. Before any key was given a
 * null key means 16 zero bytes as every round key (no proper AES key, only a defined result), and
 * before any iv was given a null iv means a block of zeros.
 *
 * Threads: NOT thread safe. Key and chaining value are one per process and no lock guards them.
 * Callers serialise: one thread, or one mutex held around every call, and around every sequence of
 * calls that relies on a null key or iv. Nothing blocks and nothing is allocated.
 *
 * Who owns what: all buffers are the caller's. Only the reference to the chaining value is kept
 * beyond a call; the key is read during the call that brings it. The expanded key stays in the
 * library's memory until another one replaces it. Look-ups in tables depend on key and data, so
 * the time a call takes tells something to whoever can measure it on the same processor.
 *
 * What is lost on failure: there are no failures; nothing is checked.
 *
 * CBC hides a message but does not protect it: a changed one is deciphered without notice, so send
 * a keyed digest along. The length has to travel, too, as the last block is filled up with zeros.
 *
 * Every program that links the library defines gLogLevl: see common/self_log.h.
 *
 * A complete program, and what it prints:
 * @include aes.c
 * @verbinclude aes.out
 */
#ifndef KELVARA_COMMON_AES_H
#define KELVARA_COMMON_AES_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/** Enciphers the 16 bytes at input into the 16 bytes at output, under the 16-byte key, which must
 * not be null. input and output may be the same block. The key also serves later CBC calls with a
 * null key; the chaining value is not touched. */
void AES128_ECB_encrypt(uint8_t *input, const uint8_t *key, uint8_t *output);

/** Deciphers a block; all else is as with AES128_ECB_encrypt(). */
void AES128_ECB_decrypt(uint8_t *input, const uint8_t *key, uint8_t *output);

/** Enciphers length bytes of input into output by CBC. key: 16 bytes, or null for the key expanded
 * last. iv: the 16-byte chaining value to begin with, or null to continue. output may be input.
 * Each whole block of input is left XORed with its chaining value: it no longer holds the plain
 * text.
 * The last length % 16 bytes, if any, are enciphered as one more block of the chain, filled up
 * with zeros; output then needs room for length rounded up to 16, and those bytes of input stay as
 * they were. With length 0 key and iv are still taken over. */
void AES128_CBC_encrypt_buffer(uint8_t *output, uint8_t *input, uint32_t length, const uint8_t *key,
                               const uint8_t *iv);

/** Deciphers length bytes of input into output by CBC; key and iv as above. input stays unchanged
 * and must not overlap output; nor may the chaining value, which is needed until the first block is
 * done: with a null iv that is the last whole block of the call before.
 * The last length % 16 bytes, if any, are filled up with zeros in output and deciphered there as
 * one more block of the chain; output and input then both need length rounded up to 16, because a
 * call that continues takes that whole block of input as its chaining value. */
void AES128_CBC_decrypt_buffer(uint8_t *output, uint8_t *input, uint32_t length, const uint8_t *key,
                               const uint8_t *iv);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
