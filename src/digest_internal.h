// SPDX-License-Identifier: MIT
// Shared by MD5 and SHA-256: buffering of pieces, padding, and reading of a stream.
//
// tDigest describes one of them:
//   tCtx           its context, with the members total, buflen and buffer
//   gibBigEndian   the byte order of its words
//   store32        the function that writes a word in that order
//   process_block  its exported function for whole blocks
#pragma once

#include "bytes_internal.h"

#include <cstddef>
#include <cstdio>
#include <cstring>

static constexpr size_t gicDigestBlockLen = 64;
static constexpr size_t gicDigestStreamLen = 4096; // read from a stream before it is hashed

static constexpr uint8_t fillbuf[gicDigestBlockLen] = {0x80};

// Adds to the 64-bit count of bytes, low word first.
static inline void digest_add_total(uint32_t (&aopTotal)[2], uint64_t aicLen)
{
    aopTotal[0] += static_cast<uint32_t>(aicLen);
    if (aopTotal[0] < static_cast<uint32_t>(aicLen))
        aopTotal[1]++;
    aopTotal[1] += static_cast<uint32_t>(aicLen >> 32);
}

template <typename tDigest>
static void digest_process_bytes(const void *aipcBuffer, size_t aiLen,
                                 typename tDigest::tCtx *aopCtx)
{
    using tLen = decltype(aopCtx->buflen);
    auto *input = static_cast<const uint8_t *>(aipcBuffer);
    auto *const pending = reinterpret_cast<uint8_t *>(aopCtx->buffer);

    if (aiLen == 0)
        return;
    if (aopCtx->buflen != 0) {
        const size_t space = sizeof aopCtx->buffer - aopCtx->buflen;
        const size_t add = aiLen < space ? aiLen : space;
        memcpy(pending + aopCtx->buflen, input, add);
        aopCtx->buflen += static_cast<tLen>(add);
        if (aopCtx->buflen > gicDigestBlockLen) {
            const size_t rest = aopCtx->buflen % gicDigestBlockLen;
            const size_t whole = aopCtx->buflen - rest;
            tDigest::process_block(pending, whole, aopCtx);
            memcpy(pending, pending + whole, rest);
            aopCtx->buflen = static_cast<tLen>(rest);
        }
        input += add;
        aiLen -= add;
    }
    // If input is left here, no bytes are pending, so the buffer is free.
    if (aiLen >= gicDigestBlockLen) {
        if (reinterpret_cast<uintptr_t>(input) % alignof(uint32_t) == 0) {
            const size_t whole = aiLen - aiLen % gicDigestBlockLen;
            tDigest::process_block(input, whole, aopCtx);
            input += whole;
            aiLen -= whole;
        } else {
            for (; aiLen > gicDigestBlockLen;
                 input += gicDigestBlockLen, aiLen -= gicDigestBlockLen) {
                memcpy(pending, input, gicDigestBlockLen);
                tDigest::process_block(pending, gicDigestBlockLen, aopCtx);
            }
        }
    }
    if (aiLen > 0) {
        memcpy(pending, input, aiLen);
        if (aiLen >= gicDigestBlockLen) {
            tDigest::process_block(pending, gicDigestBlockLen, aopCtx);
            aiLen -= gicDigestBlockLen;
        }
        aopCtx->buflen = static_cast<tLen>(aiLen);
    }
}

// Pads the pending bytes with 0x80, zeros and the length of the message in bits, and hashes them.
template <typename tDigest> static void digest_conclude(typename tDigest::tCtx *aopCtx)
{
    const size_t bytes = aopCtx->buflen;
    const size_t size = bytes < gicDigestBlockLen - 8 ? gicDigestBlockLen : 2 * gicDigestBlockLen;
    auto *const pending = reinterpret_cast<uint8_t *>(aopCtx->buffer);

    digest_add_total(aopCtx->total, bytes);
    const uint32_t low = aopCtx->total[0] << 3;
    const uint32_t high = aopCtx->total[1] << 3 | aopCtx->total[0] >> 29;
    tDigest::store32(pending + size - 8, tDigest::gibBigEndian ? high : low);
    tDigest::store32(pending + size - 4, tDigest::gibBigEndian ? low : high);
    memcpy(pending + bytes, fillbuf, size - 8 - bytes);
    tDigest::process_block(pending, size, aopCtx);
}

template <typename tDigest, typename tCtx = typename tDigest::tCtx>
static int digest_stream(FILE *aipStream, void *aopResult, void (*aicpInit)(tCtx *),
                         void *(*aicpFinish)(tCtx *, void *))
{
    tCtx ctx;
    alignas(uint32_t) uint8_t chunk[gicDigestStreamLen + 72];
    size_t sum = 0;

    aicpInit(&ctx);
    for (;;) {
        const size_t got = fread(chunk + sum, 1, gicDigestStreamLen - sum, aipStream);
        sum += got;
        if (sum == gicDigestStreamLen) {
            tDigest::process_block(chunk, gicDigestStreamLen, &ctx);
            sum = 0;
        } else if (got == 0) {
            if (ferror(aipStream))
                return 1;
            break;
        } else if (feof(aipStream)) {
            break;
        }
    }
    digest_process_bytes<tDigest>(chunk, sum, &ctx);
    (void)aicpFinish(&ctx, aopResult); // returns aopResult
    return 0;
}
