// SPDX-License-Identifier: MIT
#include <common/aes.h>

#include "bytes_internal.h"

#include <cstddef>
#include <cstring>

static constexpr unsigned gicAesBlockLen = 16;
static constexpr size_t gicAesRounds = 10;

typedef uint8_t state_t[4][4]; // [column][row], the order of the bytes of a block

// The state kept between calls. The process has one copy of it, without a lock.
static state_t *state; // the current block, in the caller's output
static uint8_t RoundKey[gicAesBlockLen * (gicAesRounds + 1)]; // the last key, expanded
static const uint8_t *Key; // the caller's key, while it is expanded
static const uint8_t *Iv;  // the chaining value, in the caller's memory

// Multiplies each of the four bytes by x. A bit that is shifted out is replaced by 0x1b.
static constexpr uint32_t xtime(uint32_t x)
{
    const uint32_t top = x & 0x80808080, rest = bytes_as_is(x & 0x7f7f7f7f);
    return rest << 1 ^ ((top - (top >> 7)) & 0x1b1b1b1b);
}

// Multiplies by x squared. The two bits that are shifted out, as a number t, are replaced by the
// product of t and 0x1b without carries, which is t ^ t << 1 ^ t << 3 ^ t << 4.
static constexpr uint32_t _xtime_twice(uint32_t x)
{
    const uint32_t top = bytes_as_is(x & 0xc0c0c0c0), rest = bytes_as_is(x & 0x3f3f3f3f);
    const uint32_t t9 = bytes_as_is(top ^ top >> 3);
    return rest << 2 ^ t9 >> 3 ^ t9 >> 2;
}
static_assert(_xtime_twice(0x40c080ff) == xtime(xtime(0x40c080ff)));

struct tTable {
    uint8_t of[256];
};
struct tConstants {
    uint8_t of[255];
};
struct tTables {
    tTable sbox, rsbox;
    tConstants Rcon;
};

static constexpr tTables _make_tables()
{
    tTables tables = {};
    uint8_t power[255] = {}, log[256] = {}; // of x + 1: its powers are all bytes except 0
    for (uint32_t i = 0, value = 1; i < 255; i++, value ^= xtime(value)) {
        power[i] = static_cast<uint8_t>(value);
        log[value] = static_cast<uint8_t>(i);
    }
    for (size_t i = 0; i < 256; i++) {
        const uint32_t inverse = i == 0 ? 0 : power[(255 - log[i]) % 255];
        const uint32_t twice = inverse * 0x101; // a shift right by n rotates left by 8 - n
        const uint32_t image = (twice ^ twice >> 4 ^ twice >> 5 ^ twice >> 6 ^ twice >> 7) & 0xff;
        tables.sbox.of[i] = static_cast<uint8_t>(image ^ 0x63);
        tables.rsbox.of[image ^ 0x63] = static_cast<uint8_t>(i);
    }
    for (uint32_t i = 0, value = 0x8d; i < 255; i++, value = xtime(value))
        tables.Rcon.of[i] = static_cast<uint8_t>(value);
    return tables;
}

// Each box has a section of its own. Otherwise the compiler addresses both from one base, and adds
// an offset at every look-up.
[[gnu::section(".rodata.sbox")]] static constexpr tTable gicSbox = _make_tables().sbox;
[[gnu::section(".rodata.rsbox")]] static constexpr tTable gicRsbox = _make_tables().rsbox;
static constexpr tConstants gicRcon = _make_tables().Rcon;
static constexpr const uint8_t (&sbox)[256] = gicSbox.of, (&rsbox)[256] = gicRsbox.of;
static constexpr const uint8_t (&Rcon)[255] = gicRcon.of; // [i]: the constant of round i, from 1
static_assert(sbox[0x00] == 0x63 && sbox[0x53] == 0xed && sbox[0xff] == 0x16);
static_assert(rsbox[0x00] == 0x52 && rsbox[0xed] == 0x53 && rsbox[0xff] == 0x7d);
static_assert(Rcon[0] == 0x8d && Rcon[1] == 0x01 && Rcon[9] == 0x1b && Rcon[10] == 0x36);

static inline uint8_t getSBoxValue(uint32_t num)
{
    return sbox[num];
}

static inline uint8_t getSBoxInvert(uint32_t num)
{
    return rsbox[num];
}

// The steps of FIPS-197 work on four columns, each a word with row r in bits 8r to 8r + 7. A
// rotation to the right by 8 gives each row the byte of the next row. The pragma unrolls the loops,
// so that the single bytes stay in registers.
typedef uint32_t tColumns[4];

static inline void _load_columns(tColumns &s, const uint8_t *aipcBlock)
{
#pragma GCC unroll 4
    for (size_t c = 0; c < 4; c++)
        s[c] = bytes_load_le32(aipcBlock + 4 * c);
}

static inline void _store_columns(uint8_t *aopBlock, const tColumns &s)
{
    for (size_t c = 0; c < 4; c++)
        bytes_store_le32(aopBlock + 4 * c, s[c]);
}

static void KeyExpansion()
{
    uint32_t word = 0;
    memcpy(RoundKey, Key, gicAesBlockLen);
    word = bytes_load_le32(RoundKey + gicAesBlockLen - 4);
    for (size_t i = 4; i < 4 * (gicAesRounds + 1); i++) {
        if (i % 4 == 0) {
            const uint32_t rotated = bytes_rotr32(word, 8);
            uint8_t substituted[4] = {};

#pragma GCC unroll 4
            for (size_t r = 0; r < 4; r++)
                substituted[r] = getSBoxValue(rotated >> 8 * r & 0xff);
            word = bytes_load_le32(substituted) ^ Rcon[i / 4];
        }
        word ^= bytes_load_le32(RoundKey + 4 * (i - 4));
        bytes_store_le32(RoundKey + 4 * i, word);
    }
}

static inline void AddRoundKey(tColumns &s, size_t round)
{
#pragma GCC unroll 4
    for (size_t c = 0; c < 4; c++)
        s[c] ^= bytes_load_le32(RoundKey + gicAesBlockLen * round + 4 * c);
}

static inline void SubBytes(state_t &aoBytes, const tColumns &s)
{
#pragma GCC unroll 16
    for (size_t i = 0; i < 16; i++)
        aoBytes[i / 4][i % 4] = getSBoxValue(s[i / 4] >> 8 * (i % 4) & 0xff);
}

static inline void ShiftRows(tColumns &s, const state_t &aicBytes)
{
#pragma GCC unroll 4
    for (size_t c = 0; c < 4; c++) {
        const uint8_t column[4] = {aicBytes[c][0], aicBytes[(c + 1) % 4][1],
                                   aicBytes[(c + 2) % 4][2], aicBytes[(c + 3) % 4][3]};
        s[c] = bytes_load_le32(column);
    }
}

static inline void MixColumns(tColumns &s)
{
#pragma GCC unroll 4
    for (size_t c = 0; c < 4; c++) {
        const uint32_t sum = s[c] ^ bytes_rotr32(s[c], 8);
        // Row r: 2 s(r) + 3 s(r+1) + s(r+2) + s(r+3).
        s[c] = xtime(sum) ^ bytes_rotr32(s[c] ^ bytes_rotr32(sum, 8), 8);
    }
}

static inline void InvShiftRows(state_t &aoBytes, const tColumns &s)
{
#pragma GCC unroll 16
    for (size_t i = 0; i < 16; i++)
        aoBytes[i / 4][i % 4] = static_cast<uint8_t>(s[(i / 4 + 4 - i % 4) % 4] >> 8 * (i % 4));
}

static inline void InvSubBytes(tColumns &s, const state_t &aicBytes)
{
#pragma GCC unroll 4
    for (size_t c = 0; c < 4; c++) {
        const uint8_t column[4] = {getSBoxInvert(aicBytes[c][0]), getSBoxInvert(aicBytes[c][1]),
                                   getSBoxInvert(aicBytes[c][2]), getSBoxInvert(aicBytes[c][3])};
        s[c] = bytes_load_le32(column);
    }
}

static inline void InvMixColumns(tColumns &s)
{
    // {0b}x^3 + {0d}x^2 + {09}x + {0e} is {03}x^3 + {01}x^2 + {01}x + {02}, the polynomial of
    // MixColumns, times {04}x^2 + {05}.
#pragma GCC unroll 4
    for (size_t c = 0; c < 4; c++)
        s[c] ^= _xtime_twice(s[c] ^ bytes_rotr32(s[c], 16));
    MixColumns(s);
}

static void Cipher()
{
    tColumns s;
    state_t bytes;
    _load_columns(s, reinterpret_cast<const uint8_t *>(state));
    AddRoundKey(s, 0);
    for (size_t round = 1; round < gicAesRounds; round++) {
        SubBytes(bytes, s);
        ShiftRows(s, bytes);
        MixColumns(s);
        AddRoundKey(s, round);
    }
    SubBytes(bytes, s);
    ShiftRows(s, bytes);
    AddRoundKey(s, gicAesRounds);
    _store_columns(reinterpret_cast<uint8_t *>(state), s);
}

static void InvCipher()
{
    tColumns s;
    state_t bytes;
    _load_columns(s, reinterpret_cast<const uint8_t *>(state));
    AddRoundKey(s, gicAesRounds);
    for (size_t round = gicAesRounds - 1; round > 0; round--) {
        InvShiftRows(bytes, s);
        InvSubBytes(s, bytes);
        AddRoundKey(s, round);
        InvMixColumns(s);
    }
    InvShiftRows(bytes, s);
    InvSubBytes(s, bytes);
    AddRoundKey(s, 0);
    _store_columns(reinterpret_cast<uint8_t *>(state), s);
}

static void _set_key(const uint8_t *aipcKey)
{
    Key = aipcKey;
    KeyExpansion();
}

// A null argument leaves its value unchanged.
static void _set_key_and_iv(const uint8_t *aipcKey, const uint8_t *aipcIv)
{
    if (aipcKey != nullptr)
        _set_key(aipcKey);
    if (aipcIv != nullptr)
        Iv = aipcIv;
}

static void _run(void (*aicpCipher)(), uint8_t *aopBlock)
{
    state = reinterpret_cast<state_t *>(aopBlock);
    aicpCipher();
}

// input and output may be the same block.
static void BlockCopy(uint8_t *output, const uint8_t *input)
{
    memmove(output, input, gicAesBlockLen);
}

static void _copy_padded(uint8_t *aopOutput, const uint8_t *aipcInput, uint32_t aicLen)
{
    memmove(aopOutput, aipcInput, aicLen);
    memset(aopOutput + aicLen, 0, gicAesBlockLen - aicLen);
}

// Until an Iv is given, the chaining value is a block of zeros.
static void XorWithIv(uint8_t *buf)
{
    if (Iv == nullptr)
        return;
#pragma GCC unroll 4
    for (size_t i = 0; i < gicAesBlockLen; i += 4)
        bytes_store_le32(buf + i, bytes_load_le32(buf + i) ^ bytes_load_le32(Iv + i));
}

void AES128_ECB_encrypt(uint8_t *input, const uint8_t *key, uint8_t *output)
{
    BlockCopy(output, input);
    _set_key(key);
    _run(Cipher, output);
}

void AES128_ECB_decrypt(uint8_t *input, const uint8_t *key, uint8_t *output)
{
    BlockCopy(output, input);
    _set_key(key);
    _run(InvCipher, output);
}

void AES128_CBC_encrypt_buffer(uint8_t *output, uint8_t *input, uint32_t length, const uint8_t *key,
                               const uint8_t *iv)
{
    _set_key_and_iv(key, iv);
    for (; length >= gicAesBlockLen; length -= gicAesBlockLen) {
        XorWithIv(input);
        BlockCopy(output, input);
        _run(Cipher, output);
        Iv = output;
        input += gicAesBlockLen;
        output += gicAesBlockLen;
    }
    if (length > 0) {
        _copy_padded(output, input, length);
        XorWithIv(output);
        _run(Cipher, output);
        Iv = output;
    }
}

void AES128_CBC_decrypt_buffer(uint8_t *output, uint8_t *input, uint32_t length, const uint8_t *key,
                               const uint8_t *iv)
{
    _set_key_and_iv(key, iv);
    for (; length >= gicAesBlockLen; length -= gicAesBlockLen) {
        BlockCopy(output, input);
        _run(InvCipher, output);
        XorWithIv(output);
        Iv = input;
        input += gicAesBlockLen;
        output += gicAesBlockLen;
    }
    if (length > 0) {
        _copy_padded(output, input, length);
        _run(InvCipher, output);
        XorWithIv(output);
        Iv = input;
    }
}
