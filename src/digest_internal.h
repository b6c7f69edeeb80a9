// SPDX-License-Identifier: MIT
// What MD5 and SHA-256 share: the buffering of pieces, the padding and the reading of a stream.
//
// tDigest describes one of them:
//   tCtx           its context, with the members total, buflen and buffer
//   gicBigEndian   the byte order of its words
//   process_block  its exported function for whole blocks
#pragma once
#include "bytes_internal.h"
#include <stddef.h>
#include <stdio.h>
#include <string.h>

constexpr size_t gicBlockLen = 64;
constexpr size_t gicStreamLen = 4096; // taken from a stream before it is hashed

inline constexpr uint8_t fillbuf[gicBlockLen] = {0x80};

// The 64-bit count of bytes, low word first.
inline void _add_total(uint32_t (&aopTotal)[2], uint64_t aicLen)
{
    aopTotal[0] += static_cast<uint32_t>(aicLen);
    if (aopTotal[0] < static_cast<uint32_t>(aicLen))
        aopTotal[1]++;
    aopTotal[1] += static_cast<uint32_t>(aicLen >> 32);
}

template <typename tDigest>
void _process_bytes(const void *aipcBuffer, size_t aiLen, typename tDigest::tCtx *aopCtx)
{
    using tLen = decltype(aopCtx->buflen);
    const uint8_t *input = static_cast<const uint8_t *>(aipcBuffer);
    uint8_t *const pending = reinterpret_cast<uint8_t *>(aopCtx->buffer);

    if (aiLen == 0)
        return;
    if (aopCtx->buflen != 0) {
        const size_t space = sizeof(aopCtx->buffer) - aopCtx->buflen;
        const size_t add = aiLen < space ? aiLen : space;

        memcpy(pending + aopCtx->buflen, input, add);
        aopCtx->buflen += static_cast<tLen>(add);
        if (aopCtx->buflen > gicBlockLen) {
            const size_t rest = aopCtx->buflen % gicBlockLen;
            const size_t whole = aopCtx->buflen - rest;

            tDigest::process_block(pending, whole, aopCtx);
            memcpy(pending, pending + whole, rest);
            aopCtx->buflen = static_cast<tLen>(rest);
        }
        input += add;
        aiLen -= add;
    }
    // From here on input is left only when nothing is pending, so the buffer is free.
    if (aiLen >= gicBlockLen) {
        if (reinterpret_cast<uintptr_t>(input) % alignof(uint32_t) == 0) {
            const size_t whole = aiLen - aiLen % gicBlockLen;

            tDigest::process_block(input, whole, aopCtx);
            input += whole;
            aiLen -= whole;
        } else {
            for (; aiLen > gicBlockLen; input += gicBlockLen, aiLen -= gicBlockLen) {
                memcpy(pending, input, gicBlockLen);
                tDigest::process_block(pending, gicBlockLen, aopCtx);
            }
        }
    }
    if (aiLen > 0) {
        memcpy(pending, input, aiLen);
        if (aiLen >= gicBlockLen) {
            tDigest::process_block(pending, gicBlockLen, aopCtx);
            aiLen -= gicBlockLen;
        }
        aopCtx->buflen = static_cast<tLen>(aiLen);
    }
}

// Pads what is pending and processes it: 0x80, zeros, and the length of the message in bits.
template <typename tDigest> void _conclude(typename tDigest::tCtx *aopCtx)
{
    constexpr bool cbBig = tDigest::gicBigEndian;
    const size_t bytes = aopCtx->buflen;
    const size_t size = bytes < gicBlockLen - 8 ? gicBlockLen : 2 * gicBlockLen;
    uint8_t *const pending = reinterpret_cast<uint8_t *>(aopCtx->buffer);

    _add_total(aopCtx->total, bytes);
    const uint32_t low = aopCtx->total[0] << 3;
    const uint32_t high = aopCtx->total[1] << 3 | aopCtx->total[0] >> 29;
    _store32<cbBig>(pending + size - 8, cbBig ? high : low);
    _store32<cbBig>(pending + size - 4, cbBig ? low : high);
    memcpy(pending + bytes, fillbuf, size - 8 - bytes);
    tDigest::process_block(pending, size, aopCtx);
}

template <typename tDigest, typename tCtx = typename tDigest::tCtx>
int _stream(FILE *aipStream, void *aopResult, void (*aicpInit)(tCtx *),
            void *(*aicpFinish)(tCtx *, void *))
{
    tCtx ctx;
    alignas(uint32_t) uint8_t chunk[gicStreamLen + 72];
    size_t sum = 0;

    aicpInit(&ctx);
    for (;;) {
        const size_t got = fread(chunk + sum, 1, gicStreamLen - sum, aipStream);

        sum += got;
        if (sum == gicStreamLen) {
            tDigest::process_block(chunk, gicStreamLen, &ctx);
            sum = 0;
        } else if (got == 0) {
            if (ferror(aipStream))
                return 1;
            break;
        } else if (feof(aipStream)) {
            break;
        }
    }
    _process_bytes<tDigest>(chunk, sum, &ctx);
    aicpFinish(&ctx, aopResult);
    return 0;
}
