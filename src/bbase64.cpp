// SPDX-License-Identifier: MIT
#include <common/bbase64.h>

#include <cstdint>

// Each table has a section of its own. Otherwise the compiler addresses both from one base, and
// adds an offset at every look-up.
[[gnu::section(".rodata.set")]] static constexpr char b_base64_set[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
static_assert(sizeof b_base64_set == 64 + 1);

struct tValues {
    int8_t of[256];
};

// The inverse of the alphabet: the value of each of its characters, -1 for all others.
static constexpr tValues _make_values()
{
    tValues values = {};
    for (int8_t &value : values.of)
        value = -1;
    for (int8_t i = 0; i < 64; i++)
        values.of[static_cast<unsigned char>(b_base64_set[i])] = i;
    return values;
}

[[gnu::section(".rodata.values")]] static constexpr tValues gicValues = _make_values();

static constexpr int bbase64_decode_unit(char ch)
{
    return ch == '=' ? 0 : gicValues.of[static_cast<unsigned char>(ch)];
}
static_assert(bbase64_decode_unit('A') == 0 && bbase64_decode_unit('z') == 51 &&
              bbase64_decode_unit('9') == 61 && bbase64_decode_unit('+') == 62 &&
              bbase64_decode_unit('/') == 63 && bbase64_decode_unit('=') == 0 &&
              bbase64_decode_unit('-') == -1 && bbase64_decode_unit('\0') == -1);

static inline void _encode_group(const unsigned char *aipcBytes, char *aopText)
{
    const unsigned int b0 = aipcBytes[0], b1 = aipcBytes[1], b2 = aipcBytes[2];
    const unsigned int acc = (b0 << 8 | b1) << 8 | b2;
    aopText[0] = b_base64_set[acc >> 18];
    aopText[1] = b_base64_set[acc >> 12 & 63];
    aopText[2] = b_base64_set[acc >> 6 & 63];
    aopText[3] = b_base64_set[acc & 63];
}

// Decodes a group of four characters of the set. For any other group, writes nothing and returns
// false.
static inline bool _decode_group(const char *aipcText, unsigned char *aopBytes)
{
    uint32_t acc = 0;
    // The -1 of a character outside the set sets the top bit, wherever the character is.
#pragma GCC unroll 4
    for (size_t i = 0; i < 4; i++)
        acc =
            acc << 6 | static_cast<uint32_t>(gicValues.of[static_cast<unsigned char>(aipcText[i])]);
    if (acc >> 31)
        return false;
    aopBytes[0] = static_cast<unsigned char>(acc >> 16);
    aopBytes[1] = static_cast<unsigned char>(acc >> 8);
    aopBytes[2] = static_cast<unsigned char>(acc);
    return true;
}

// Decodes a group that is not four characters of the set. Such a group ends the text: it is padded
// and gives 1 or 2 bytes, or it is malformed (-1).
static int _decode_last_group(const char *aipcText, unsigned char *aopBytes)
{
    if (aipcText[0] == '=' || aipcText[1] == '=')
        return -1;
    unsigned int acc = 0;
    for (unsigned i = 0; i < 4; i++) {
        const int unit = bbase64_decode_unit(aipcText[i]);
        if (unit < 0)
            return -1;
        acc = acc << 6 | static_cast<unsigned int>(unit);
    }
    aopBytes[0] = static_cast<unsigned char>(acc >> 16);
    if (aipcText[2] == '=')
        return 1;
    aopBytes[1] = static_cast<unsigned char>(acc >> 8);
    return 2;
}

int bbase64_encode(const unsigned char *src, size_t src_len, char *dest, size_t dst_len)
{
    size_t groups = src_len / 3 < dst_len / 4 ? src_len / 3 : dst_len / 4;
    const size_t rest = src_len - 3 * groups;
    const size_t dst_off = 4 * groups;

    // Four groups in each iteration: the look-ups of one overlap with the stores of the others.
    for (; groups >= 4; groups -= 4, src += 12, dest += 16) {
#pragma GCC unroll 4
        for (size_t i = 0; i < 4; i++)
            _encode_group(src + 3 * i, dest + 4 * i);
    }
    for (; groups > 0; groups--, src += 3, dest += 4)
        _encode_group(src, dest);

    if (rest == 0)
        return static_cast<int>(dst_off);
    if (dst_len - dst_off < 4) // always so if whole groups are left
        return -1;
    const unsigned char padded[3] = {src[0], rest == 2 ? src[1] : static_cast<unsigned char>(0), 0};
    _encode_group(padded, dest);
    if (rest == 1)
        dest[2] = '=';
    dest[3] = '=';
    return static_cast<int>(dst_off + 4);
}

int bbase64_decode(const char *src, size_t src_len, unsigned char *dest, size_t dst_len)
{
    const size_t groups = src_len / 4 < dst_len / 3 ? src_len / 4 : dst_len / 3;
    unsigned char *const start = dest;
    unsigned char *const end = dest + 3 * groups;
    int last = 0;

    for (; dest < end && _decode_group(src, dest); src += 4)
        dest += 3;
    if (dest < end) {
        last = _decode_last_group(src, dest);
        if (last < 0)
            return -1;
    }
    return static_cast<int>(dest - start) + last;
}
