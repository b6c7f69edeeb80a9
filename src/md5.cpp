// SPDX-License-Identifier: MIT
#include <common/md5.h>

#include "digest_internal.h"

#include <common/self_log.h>
#include <utility>

// The ceiling for log lines of this module, which has none so far.
[[maybe_unused]] static constexpr eLogLevl gicDbLev = LOG_LEV_INFO;

struct tMd5 {
    using tCtx = md5_ctx;
    static constexpr bool gibBigEndian = false;
    static constexpr auto store32 = bytes_store_le32;
    static constexpr auto process_block = md5_process_block;
};

// Step i + 1 of RFC 1321 adds gicSine[i] and rotates to the left by gicShift[i / 16][i % 4].
static constexpr uint32_t gicSine[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391,
};
static constexpr unsigned gicShift[4][4] = {
    {7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

// The four words rotate their roles in each step. The roles, the constants and the index of the
// message word are known at compile time.
template <size_t i>
[[gnu::always_inline]] static inline void _step(uint32_t (&aoState)[4], const uint8_t *aipcBlock)
{
    constexpr size_t round = i / 16;
    constexpr size_t word = round == 0   ? i
                            : round == 1 ? 5 * i + 1
                            : round == 2 ? 3 * i + 5
                                         : 7 * i;
    uint32_t &a = aoState[(64 - i) % 4];
    const uint32_t b = aoState[(65 - i) % 4];
    const uint32_t c = aoState[(66 - i) % 4];
    const uint32_t d = aoState[(67 - i) % 4];

    a += bytes_load_le32(aipcBlock + 4 * (word % 16)) + gicSine[i];
    if constexpr (round == 0) {
        a += d ^ (b & (c ^ d)); // F: b selects from c and d
    } else if constexpr (round == 1) {
        // G: d selects from b and c. The two halves have no bit in common, so they can be added
        // separately. Only the second addition then waits for b, the result of the last step.
        a += c & ~d;
        a += b & d;
    } else if constexpr (round == 2) {
        a += b ^ (c ^ d); // H
    } else {
        a += c ^ (b | ~d); // I
    }
    a = b + bytes_rotr32(a, 32 - gicShift[round][i % 4]);
}

template <size_t... i>
[[gnu::always_inline]] static inline void _steps(uint32_t (&aoState)[4], const uint8_t *aipcBlock,
                                                 std::index_sequence<i...>)
{
    (_step<i>(aoState, aipcBlock), ...);
}

void md5_init_ctx(struct md5_ctx *ctx)
{
    ctx->A = 0x67452301;
    ctx->B = 0xefcdab89;
    ctx->C = 0x98badcfe;
    ctx->D = 0x10325476;
    ctx->total[0] = ctx->total[1] = 0;
    ctx->buflen = 0;
}

void md5_process_block(const void *buffer, size_t len, struct md5_ctx *ctx)
{
    auto *block = static_cast<const uint8_t *>(buffer);
    digest_add_total(ctx->total, len);
    for (size_t left = len / gicDigestBlockLen; left > 0; left--, block += gicDigestBlockLen) {
        uint32_t state[4] = {ctx->A, ctx->B, ctx->C, ctx->D};
        _steps(state, block, std::make_index_sequence<64>());
        ctx->A += state[0];
        ctx->B += state[1];
        ctx->C += state[2];
        ctx->D += state[3];
    }
}

void md5_process_bytes(const void *buffer, size_t len, struct md5_ctx *ctx)
{
    digest_process_bytes<tMd5>(buffer, len, ctx);
}

void *md5_finish_ctx(struct md5_ctx *ctx, void *resbuf)
{
    digest_conclude<tMd5>(ctx);
    return md5_read_ctx(ctx, resbuf);
}

void *md5_read_ctx(const struct md5_ctx *ctx, void *resbuf)
{
    auto *const result = static_cast<uint8_t *>(resbuf);
    bytes_store_le32(result, ctx->A);
    bytes_store_le32(result + 4, ctx->B);
    bytes_store_le32(result + 8, ctx->C);
    bytes_store_le32(result + 12, ctx->D);
    return resbuf;
}

void *md5_buffer(const char *buffer, size_t len, void *resblock)
{
    struct md5_ctx ctx;
    md5_init_ctx(&ctx);
    md5_process_bytes(buffer, len, &ctx);
    return md5_finish_ctx(&ctx, resblock);
}

int md5_stream(FILE *stream, void *resblock)
{
    return digest_stream<tMd5>(stream, resblock, md5_init_ctx, md5_finish_ctx);
}
