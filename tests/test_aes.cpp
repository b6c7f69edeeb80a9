// SPDX-License-Identifier: MIT
#include <common/aes.h>
#include <common/self_log.h>

#include "support.h"

eLogLevl gLogLevl = LOG_LEV_ERROR;

using tBytes = std::basic_string<uint8_t>;

static tBytes hex(const std::string &digits)
{
    tBytes bytes;
    for (size_t i = 0; i < digits.size(); i += 2)
        bytes += static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16));
    return bytes;
}

static tBytes operator^(tBytes a, const tBytes &b)
{
    for (size_t i = 0; i < a.size(); ++i)
        a[i] ^= b[i];
    return a;
}

static tBytes block(decltype(AES128_ECB_encrypt) cipher, const tBytes &key, tBytes in)
{
    tBytes out(16, 0);
    cipher(in.data(), key.data(), out.data());
    cipher(in.data(), key.data(), in.data());
    EXPECT_EQ(in, out) << "in place";
    return out;
}

TEST(Aes, Blocks)
{
    // FIPS 197, C.1
    const tBytes key = hex("000102030405060708090a0b0c0d0e0f");
    const tBytes plain = hex("00112233445566778899aabbccddeeff");
    const tBytes cipher = hex("69c4e0d86a7b0430d8cdb78070b4c55a");
    EXPECT_EQ(cipher, block(AES128_ECB_encrypt, key, plain));
    EXPECT_EQ(plain, block(AES128_ECB_decrypt, key, cipher));
    // A chain that takes every entry of the tables; OpenSSL gave its end.
    tBytes text(16, 0);
    tBytes last = text;
    for (int i = 0; i < 1000; ++i) {
        const tBytes next = block(AES128_ECB_encrypt, last, text);
        ASSERT_EQ(text, block(AES128_ECB_decrypt, last, next)) << i;
        last = last ^ next;
        text = next;
    }
    EXPECT_EQ(hex("c03b462451b8ec9fa674a2d1e9c0555e"), text);
}

// What a chain makes of `in`, block by block.
static tBytes chained(bool encrypts, const tBytes &key, tBytes last, const tBytes &in)
{
    tBytes out;
    for (size_t i = 0; i < in.size(); i += 16) {
        const tBytes data = (in + tBytes(16, 0)).substr(i, 16);
        out += encrypts ? block(AES128_ECB_encrypt, key, data ^ last)
                        : block(AES128_ECB_decrypt, key, data) ^ last;
        last = encrypts ? out.substr(i) : data;
    }
    return out;
}

// Without a key a call takes the last one; without an iv the chaining value is the memory of the
// last block, with whatever it holds by now. The end of the input may be a part of a block.
TEST(Aes, AnySequenceOfChains)
{
    // NIST SP 800-38A, F.2.1
    tBytes key = hex("2b7e151628aed2a6abf7158809cf4f3c");
    EXPECT_EQ(hex("7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"),
              chained(true, key, hex("000102030405060708090a0b0c0d0e0f"),
                      hex("6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51")));
    std::mt19937 rng(1);
    uint8_t rooms[2][160];
    uint8_t iv[16] = {};
    uint8_t *pLast = iv;
    unsigned turn = 0;
    for (unsigned call = 0; call < 4000; ++call) {
        const bool encrypts = rng() % 2;
        const auto len = static_cast<uint32_t>(rng() % 65);
        const bool newKey = call == 0 || rng() % 3 == 0;
        const bool newIv = call == 0 || rng() % 3 == 0;
        uint8_t *in = rooms[turn % 2] + rng() % 16;
        uint8_t *out = encrypts && rng() % 2 ? in : in + 80;
        noise(160, call).copy(reinterpret_cast<char *>(rooms[turn % 2]), 160);
        if (newIv)
            pLast = iv;
        pLast[rng() % 16] ^= 1;
        if (newKey)
            key[rng() % 16] ^= 1;

        const tBytes plain(in, len);
        const tBytes last(pLast, 16);
        const tBytes wanted = chained(encrypts, key, last, plain);
        (void)block(AES128_ECB_decrypt, newKey ? last : key, last); // any call's key is kept
        (encrypts ? AES128_CBC_encrypt_buffer : AES128_CBC_decrypt_buffer)(
            out, in, len, newKey ? key.data() : nullptr, newIv ? iv : nullptr);
        SCOPED_TRACE(testing::Message() << "call " << call << ", " << len << " bytes");
        ASSERT_EQ(wanted, tBytes(out, wanted.size()));
        const size_t whole = len / 16 * 16;
        if (out != in) {
            // Encryption leaves whole blocks XORed with the chaining value.
            const tBytes left = encrypts ? plain ^ (last + wanted) : plain;
            ASSERT_EQ(left.substr(0, whole) + plain.substr(whole), tBytes(in, len));
        }
        if (len > 0) {
            pLast = (encrypts ? out : in) + (len - 1) / 16 * 16;
            ++turn;
        }
    }
}
