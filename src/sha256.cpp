// SPDX-License-Identifier: MIT
#include <common/sha256.h>

#include "digest_internal.h"

#include <common/self_log.h>
#include <utility>

// The ceiling for log lines of this module, which has none so far.
[[maybe_unused]] static const eLogLevl g_fl_log_lev = LOG_LEV_ERROR;

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

// Round i of FIPS 180-4, 6.2.2. The roles of the eight words turn by one each round, and the
// schedule keeps its last sixteen words; all of that and the constant are known at compile time.
template <size_t i>
[[gnu::always_inline]] static inline void _round(uint32_t (&aoState)[8], uint32_t (&aoSchedule)[16],
                                                 uint32_t &aoBxorC, const uint8_t *aipcBlock)
{
    const uint32_t a = aoState[(64 - i) % 8], b = aoState[(65 - i) % 8];
    const uint32_t e = aoState[(68 - i) % 8], f = aoState[(69 - i) % 8], g = aoState[(70 - i) % 8];
    uint32_t &d = aoState[(67 - i) % 8], &h = aoState[(71 - i) % 8];
    uint32_t &w = aoSchedule[i % 16];

    if constexpr (i < 16) {
        w = bytes_load_be32(aipcBlock + 4 * i);
    } else {
        const uint32_t w2 = aoSchedule[(i - 2) % 16], w15 = aoSchedule[(i - 15) % 16];
        w += (bytes_rotr32(w15, 7) ^ bytes_rotr32(w15, 18) ^ w15 >> 3) + aoSchedule[(i - 7) % 16] +
             (bytes_rotr32(w2, 17) ^ bytes_rotr32(w2, 19) ^ w2 >> 10);
    }
    // The rotations of a sum are nested, each one by the distance to the one before:
    // ROTR 6, 11, 25 of e and ROTR 2, 13, 22 of a.
    const uint32_t sum1 = bytes_rotr32(e ^ bytes_rotr32(e ^ bytes_rotr32(e, 14), 5), 6);
    const uint32_t sum0 = bytes_rotr32(a ^ bytes_rotr32(a ^ bytes_rotr32(a, 9), 11), 2);
    const uint32_t ch = g ^ (e & (f ^ g));
    const uint32_t a_xor_b = a ^ b; // is b ^ c of the next round
    const uint32_t maj = b ^ (a_xor_b & aoBxorC);
    const uint32_t t1 = h + sum1 + ch + sha256_round_constants[i] + w;

    aoBxorC = a_xor_b;
    d += t1;
    h = t1 + sum0 + maj;
}

template <size_t... i>
[[gnu::always_inline]] static inline void _rounds(uint32_t (&aoState)[8], const uint8_t *aipcBlock,
                                                  std::index_sequence<i...>)
{
    uint32_t schedule[16];
    uint32_t b_xor_c = aoState[1] ^ aoState[2];
    (_round<i>(aoState, schedule, b_xor_c, aipcBlock), ...);
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
    digest_add_total(ctx->total, len);
    for (size_t left = len / gicDigestBlockLen; left > 0; left--, block += gicDigestBlockLen) {
        uint32_t state[8];
        memcpy(state, ctx->state, sizeof state);
        _rounds(state, block, std::make_index_sequence<64>());
        for (unsigned i = 0; i < 8; i++)
            ctx->state[i] += state[i];
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
