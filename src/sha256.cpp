// SPDX-License-Identifier: MIT
#include <common/sha256.h>

#include "digest_internal.h"

#include <common/self_log.h>
#include <utility>

// The ceiling for log lines of this module, which has none so far.
[[maybe_unused]] static constexpr eLogLevl g_fl_log_lev = LOG_LEV_ERROR;

struct tSha256 {
    using tCtx = sha256_ctx;
    static constexpr bool gibBigEndian = true;
    static constexpr auto store32 = bytes_store_be32;
    static constexpr auto process_block = sha256_process_block;
};

static constexpr uint32_t sha256_round_constants[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2,
};

// The schedule is expanded four words at a time in vectors, because the rounds need nearly all of
// the target's other registers. Without vector instructions compilers use single words instead.
typedef uint32_t tTwo __attribute__((vector_size(8)));
typedef uint32_t tFour __attribute__((vector_size(16)));
typedef uint64_t tHalves __attribute__((vector_size(16)));

template <size_t i> static inline tTwo _half(tFour aiWords)
{
    return reinterpret_cast<tTwo>(reinterpret_cast<tHalves>(aiWords)[i]);
}

static inline tFour _sigma0(tFour w)
{
    return w >> 7 ^ w << 25 ^ w >> 18 ^ w << 14 ^ w >> 3;
}

static inline tTwo _sigma1(tTwo w)
{
    return w >> 17 ^ w << 15 ^ w >> 19 ^ w << 13 ^ w >> 10;
}

// Returns the next four words of the schedule from the last sixteen, oldest first. Each word needs
// the one two places before it, so they are computed in two halves. Not inline: a call costs less
// than twelve copies of this code.
[[gnu::noinline]] static tFour _next_words(tFour aiW16, tFour aiW12, tFour aiW8, tFour aiW4)
{
    const tFour w15 = {aiW16[1], aiW16[2], aiW16[3], aiW12[0]};
    const tFour w7 = {aiW8[1], aiW8[2], aiW8[3], aiW4[0]};
    const tFour sum = aiW16 + _sigma0(w15) + w7;
    const tTwo first = _half<0>(sum) + _sigma1(_half<1>(aiW4));
    const tTwo second = _half<1>(sum) + _sigma1(first);
    return reinterpret_cast<tFour>(
        tHalves{reinterpret_cast<uint64_t>(first), reinterpret_cast<uint64_t>(second)});
}

// Not inline: otherwise compilers put all loads first, and spill most of the words.
[[gnu::noinline]] static void _load_block(uint32_t (&aoWords)[16], const uint8_t *aipcBlock)
{
#pragma GCC unroll 4
    for (size_t i = 0; i < 16; i++)
        aoWords[i] = bytes_load_be32(aipcBlock + 4 * i);
}

// Round i of FIPS 180-4, 6.2.2. The eight words rotate their roles in each round. The roles and the
// constant are known at compile time.
template <size_t i>
[[gnu::always_inline]] static inline void _round(uint32_t (&aoState)[8], uint32_t &aoBxorC,
                                                 uint32_t aiWord)
{
    const uint32_t a = aoState[(64 - i) % 8], b = aoState[(65 - i) % 8];
    const uint32_t e = aoState[(68 - i) % 8], f = aoState[(69 - i) % 8], g = aoState[(70 - i) % 8];
    uint32_t &d = aoState[(67 - i) % 8], &h = aoState[(71 - i) % 8];

    // ROTR 6, 11, 25 of e and ROTR 2, 13, 22 of a; on ARM the addition does the outer rotation.
    const uint32_t sum1 =
        bytes_rotr32(bytes_as_is(e ^ bytes_rotr32(e, 5)) ^ bytes_rotr32(e, 19), 6);
    const uint32_t sum0 =
        bytes_rotr32(bytes_as_is(a ^ bytes_rotr32(a, 11)) ^ bytes_rotr32(a, 20), 2);
    const uint32_t ch = g ^ (e & (f ^ g));
    const uint32_t a_xor_b = a ^ b; // is b ^ c of the next round
    const uint32_t maj = b ^ (a_xor_b & aoBxorC);
    const uint32_t t1 = h + sum1 + ch + sha256_round_constants[i] + aiWord;
    aoBxorC = a_xor_b;
    d += t1;
    h = t1 + sum0 + maj;
}

// Rounds i to i + 3. aoWords is a copy of the schedule as single words.
template <size_t i>
[[gnu::always_inline]] static inline void _four_rounds(uint32_t (&aoState)[8], uint32_t &aoBxorC,
                                                       tFour (&aoSchedule)[4],
                                                       uint32_t (&aoWords)[16])
{
    uint32_t *const words = aoWords + i % 16;
    if constexpr (i >= 16) {
        tFour &next = aoSchedule[i / 4 % 4];
        next = _next_words(next, aoSchedule[(i / 4 + 1) % 4], aoSchedule[(i / 4 + 2) % 4],
                           aoSchedule[(i / 4 + 3) % 4]);
        memcpy(words, &next, sizeof next);
    }
    _round<i>(aoState, aoBxorC, words[0]);
    _round<i + 1>(aoState, aoBxorC, words[1]);
    _round<i + 2>(aoState, aoBxorC, words[2]);
    _round<i + 3>(aoState, aoBxorC, words[3]);
}

template <size_t... i>
[[gnu::always_inline]] static inline void _rounds(uint32_t (&aoState)[8], uint32_t (&aoWords)[16],
                                                  std::index_sequence<i...>)
{
    tFour schedule[4];
    memcpy(schedule, aoWords, sizeof schedule);
    uint32_t b_xor_c = aoState[1] ^ aoState[2];
    (_four_rounds<4 * i>(aoState, b_xor_c, schedule, aoWords), ...);
}

static void _init_ctx(struct sha256_ctx *aopCtx, const uint32_t (&aicState)[8])
{
    memcpy(aopCtx->state, aicState, sizeof aopCtx->state);
    aopCtx->total[0] = aopCtx->total[1] = 0;
    aopCtx->buflen = 0;
}

static void sha256_conclude_ctx(struct sha256_ctx *aopCtx)
{
    digest_conclude<tSha256>(aopCtx);
}

static void *_read_ctx(const struct sha256_ctx *aipcCtx, void *aopResult, size_t aicWords)
{
    for (size_t i = 0; i < aicWords; i++)
        bytes_store_be32(static_cast<uint8_t *>(aopResult) + 4 * i, aipcCtx->state[i]);
    return aopResult;
}

void sha256_init_ctx(struct sha256_ctx *ctx)
{
    _init_ctx(ctx, {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a, 0x510e527f, 0x9b05688c,
                    0x1f83d9ab, 0x5be0cd19});
}

void sha224_init_ctx(struct sha256_ctx *ctx)
{
    _init_ctx(ctx, {0xc1059ed8, 0x367cd507, 0x3070dd17, 0xf70e5939, 0xffc00b31, 0x68581511,
                    0x64f98fa7, 0xbefa4fa4});
}

void sha256_process_block(const void *buffer, size_t len, struct sha256_ctx *ctx)
{
    auto *block = static_cast<const uint8_t *>(buffer);
    uint32_t *const h = ctx->state;
    digest_add_total(ctx->total, len);
    for (size_t left = len / gicDigestBlockLen; left > 0; left--, block += gicDigestBlockLen) {
        uint32_t state[8] = {h[0], h[1], h[2], h[3], h[4], h[5], h[6], h[7]};
        uint32_t words[16];
        _load_block(words, block);
        _rounds(state, words, std::make_index_sequence<16>());
#pragma GCC unroll 8
        for (size_t i = 0; i < 8; i++)
            h[i] += state[i];
    }
}

void sha256_process_bytes(const void *buffer, size_t len, struct sha256_ctx *ctx)
{
    digest_process_bytes<tSha256>(buffer, len, ctx);
}

void *sha256_finish_ctx(struct sha256_ctx *ctx, void *resbuf)
{
    sha256_conclude_ctx(ctx);
    return sha256_read_ctx(ctx, resbuf);
}

void *sha224_finish_ctx(struct sha256_ctx *ctx, void *resbuf)
{
    sha256_conclude_ctx(ctx);
    return sha224_read_ctx(ctx, resbuf);
}

void *sha256_read_ctx(const struct sha256_ctx *ctx, void *resbuf)
{
    return _read_ctx(ctx, resbuf, 8);
}

void *sha224_read_ctx(const struct sha256_ctx *ctx, void *resbuf)
{
    return _read_ctx(ctx, resbuf, 7);
}

void *sha256_buffer(const char *buffer, size_t len, void *resblock)
{
    struct sha256_ctx ctx;
    sha256_init_ctx(&ctx);
    sha256_process_bytes(buffer, len, &ctx);
    return sha256_finish_ctx(&ctx, resblock);
}

void *sha224_buffer(const char *buffer, size_t len, void *resblock)
{
    struct sha256_ctx ctx;
    sha224_init_ctx(&ctx);
    sha256_process_bytes(buffer, len, &ctx);
    return sha224_finish_ctx(&ctx, resblock);
}

int sha256_stream(FILE *stream, void *resblock)
{
    return digest_stream<tSha256>(stream, resblock, sha256_init_ctx, sha256_finish_ctx);
}

int sha224_stream(FILE *stream, void *resblock)
{
    return digest_stream<tSha256>(stream, resblock, sha224_init_ctx, sha224_finish_ctx);
}
