/* SPDX-License-Identifier: MIT */
/**
 * @file
 * aes: AES with keys of 128 bits (FIPS-197), on one block (ECB) or on a run of blocks (CBC, NIST SP
 * 800-38A).
 *
 *     AES128_CBC_encrypt_buffer(cipher, plain, len, key, iv);     // len a multiple of 16
 *     AES128_CBC_decrypt_buffer(plain, cipher, len, key, iv);
 *
 * The order of arguments differs: ECB takes (input, key, output), CBC takes (output, input, length,
 * key, iv). CBC encryption changes its input.
 *
 * @par Messages in several calls
 * A long message may be passed in several CBC calls: the first with key and iv, the later ones with
 * null for both. Each later call continues with the most recently expanded key, which any function
 * may have set, and with the chaining value of the CBC call before it. The chaining value is not
 * copied: it is the caller's iv, or the last ciphertext block in the output of an encryption or in
 * the input of a decryption. It must stay in place and unchanged until the next call has begun. If
 * no key was ever given, a null key means 16 zero bytes as every round key (not a proper AES key,
 * only a defined result). If no iv was ever given, a null iv means a block of zeros.
 *
 * @par Threads
 * NOT thread safe. The process has one key and one chaining value, without a lock. Callers must
 * serialise: use one thread, or hold one mutex around every call, and around every sequence of
 * calls that relies on a null key or iv. Nothing blocks and nothing is allocated.
 *
 * @par Memory
 * All buffers belong to the caller. Only the reference to the chaining value is kept after a call;
 * the key is read during the call that passes it. The expanded key stays in the library's memory
 * until another one replaces it. No argument is checked, and no function fails.
 *
 * @par Security
 * Table look-ups depend on key and data, so an attacker who can measure the time of a call on the
 * same processor learns something about them. CBC hides a message but does not authenticate it: a
 * changed message is decrypted without notice, so send a keyed digest with it. Send the length,
 * too, because the last block is padded with zeros.
 *
 * @par Linking
 * Every program that links the library defines gLogLevl: see common/self_log.h.
 *
 * @par Example
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

/** Encrypts the 16 bytes at input into the 16 bytes at output with the 16-byte key, which must not
 * be null. input and output may be the same block. Later CBC calls with a null key use this key;
 * the chaining value is unchanged. */
void AES128_ECB_encrypt(uint8_t *input, const uint8_t *key, uint8_t *output);

/** Decrypts a block; otherwise as AES128_ECB_encrypt(). */
void AES128_ECB_decrypt(uint8_t *input, const uint8_t *key, uint8_t *output);

/** Encrypts length bytes of input into output in CBC mode. key: 16 bytes, or null for the most
 * recently expanded key. iv: the first 16-byte chaining value, or null to continue. output may be
 * input. Each whole block of input is XORed with its chaining value in place, so input no longer
 * holds the plain text. The last length % 16 bytes, if any, are padded with zeros and encrypted as
 * one more block of the chain. output then needs room for length rounded up to 16, and those bytes
 * of input are unchanged. With length 0 key and iv still take effect. */
void AES128_CBC_encrypt_buffer(uint8_t *output, uint8_t *input, uint32_t length, const uint8_t *key,
                               const uint8_t *iv);

/** Decrypts length bytes of input into output in CBC mode; key and iv as above. input is unchanged
 * and must not overlap output. The chaining value must not overlap output either, because it is
 * needed until the first block is done; with a null iv it is the last whole block of the call
 * before. The last length % 16 bytes, if any, are padded with zeros in output and decrypted there
 * as one more block of the chain. output and input then both need length rounded up to 16, because
 * a later call that continues takes that whole block of input as its chaining value. */
void AES128_CBC_decrypt_buffer(uint8_t *output, uint8_t *input, uint32_t length, const uint8_t *key,
                               const uint8_t *iv);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
