// SPDX-License-Identifier: MIT
// 32-bit words kept as bytes, in either order and at any address. The compiler makes one load or
// store of each, with a byte swap where the order asks for it.
#pragma once
#include <stdint.h>

template <bool abBigEndian> constexpr uint32_t _load32(const uint8_t *aipcBytes)
{
    const uint32_t b0 = aipcBytes[0], b1 = aipcBytes[1], b2 = aipcBytes[2], b3 = aipcBytes[3];
    return abBigEndian ? b0 << 24 | b1 << 16 | b2 << 8 | b3 : b3 << 24 | b2 << 16 | b1 << 8 | b0;
}

template <bool abBigEndian> constexpr void _store32(uint8_t *aopBytes, uint32_t aiWord)
{
    aopBytes[abBigEndian ? 3 : 0] = static_cast<uint8_t>(aiWord);
    aopBytes[abBigEndian ? 2 : 1] = static_cast<uint8_t>(aiWord >> 8);
    aopBytes[abBigEndian ? 1 : 2] = static_cast<uint8_t>(aiWord >> 16);
    aopBytes[abBigEndian ? 0 : 3] = static_cast<uint8_t>(aiWord >> 24);
}

constexpr uint32_t _rotr(uint32_t aiWord, unsigned aiBits)
{
    return aiWord >> aiBits | aiWord << (32 - aiBits);
}
