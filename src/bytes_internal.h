// SPDX-License-Identifier: MIT
// Loads and stores 32-bit words in either byte order, at any address. Compilers turn each into one
// instruction, plus a byte swap if the order needs it.
#pragma once

#include <cstdint>

constexpr uint32_t bytes_load_le32(const uint8_t *aipcBytes)
{
    const uint32_t b0 = aipcBytes[0], b1 = aipcBytes[1], b2 = aipcBytes[2], b3 = aipcBytes[3];
    return b3 << 24 | b2 << 16 | b1 << 8 | b0;
}

constexpr uint32_t bytes_load_be32(const uint8_t *aipcBytes)
{
    const uint32_t b0 = aipcBytes[0], b1 = aipcBytes[1], b2 = aipcBytes[2], b3 = aipcBytes[3];
    return b0 << 24 | b1 << 16 | b2 << 8 | b3;
}

constexpr void bytes_store_le32(uint8_t *aopBytes, uint32_t aiWord)
{
    aopBytes[0] = static_cast<uint8_t>(aiWord);
    aopBytes[1] = static_cast<uint8_t>(aiWord >> 8);
    aopBytes[2] = static_cast<uint8_t>(aiWord >> 16);
    aopBytes[3] = static_cast<uint8_t>(aiWord >> 24);
}

constexpr void bytes_store_be32(uint8_t *aopBytes, uint32_t aiWord)
{
    aopBytes[0] = static_cast<uint8_t>(aiWord >> 24);
    aopBytes[1] = static_cast<uint8_t>(aiWord >> 16);
    aopBytes[2] = static_cast<uint8_t>(aiWord >> 8);
    aopBytes[3] = static_cast<uint8_t>(aiWord);
}

constexpr uint32_t bytes_rotr32(uint32_t aiWord, unsigned aiBits)
{
    return aiWord >> aiBits | aiWord << (32 - aiBits);
}

static inline uint32_t _unseen(uint32_t aiWord)
{
    asm("" : "+r"(aiWord));
    return aiWord;
}

// Returns the word unchanged, but hides its origin from the compiler, which would otherwise regroup
// the expression into one that takes an instruction more.
constexpr uint32_t bytes_as_is(uint32_t aiWord)
{
    return __builtin_is_constant_evaluated() ? aiWord : _unseen(aiWord);
}
