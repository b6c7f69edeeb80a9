// SPDX-License-Identifier: MIT
#include <common/aes.h>

#include "support.h"

using tBytes = std::basic_string<uint8_t>;

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

// A chain that uses every entry of the tables. Its last block was computed with OpenSSL.
TEST(Aes, Blocks)
{
    tBytes text(16, 0);
    tBytes key = text;
    for (int i = 0; i < 1000; ++i) {
        const tBytes next = block(AES128_ECB_encrypt, key, text);
        ASSERT_EQ(text, block(AES128_ECB_decrypt, key, next)) << i;
        key = key ^ next;
        text = next;
    }
    EXPECT_EQ((tBytes{0xc0, 0x3b, 0x46, 0x24, 0x51, 0xb8, 0xec, 0x9f, 0xa6, 0x74, 0xa2, 0xd1, 0xe9,
                      0xc0, 0x55, 0x5e}),
              text);
}

// The expected result of a CBC call, computed block by block.
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

// A call without a key uses the last key. A call without an iv chains from the memory of the last
// block, with its present contents, or from zeros if there was none. The last block of the input
// may be incomplete.
TEST(Aes, AnySequenceOfChains)
{
    std::mt19937 rng(1);
    string memory = noise(4000 * 160);
    tBytes key(16, 0);
    uint8_t iv[16] = {};
    uint8_t *pLast = iv;
    for (size_t call = 0; call < 4000; ++call) {
        const bool encrypts = rng() % 2;
        const auto len = static_cast<uint32_t>(rng() % 65);
        const bool newKey = rng() % 3 == 0;
        const bool newIv = call > 99 && rng() % 3 == 0;
        uint8_t *in = reinterpret_cast<uint8_t *>(&memory[call * 160]) + rng() % 16;
        uint8_t *out = encrypts && rng() % 2 ? in : in + 80;
        if (newIv)
            pLast = iv;
        if (call > 0)
            pLast[rng() % 16] ^= 1;
        if (newKey)
            key[rng() % 16] ^= 1;

        const tBytes plain(in, len);
        const tBytes last(pLast, 16);
        const tBytes wanted = chained(encrypts, key, last, plain);
        (void)block(AES128_ECB_decrypt, newKey ? last : key,
                    last); // ECB calls replace the key, too
        (encrypts ? AES128_CBC_encrypt_buffer : AES128_CBC_decrypt_buffer)(
            out, in, len, newKey ? key.data() : nullptr, newIv ? iv : nullptr);
        SCOPED_TRACE(Message() << "call " << call << ", " << len << " bytes");
        ASSERT_EQ(wanted, tBytes(out, wanted.size()));
        const size_t whole = len / 16 * 16;
        if (out != in) {
            // Encryption leaves whole blocks XORed with the chaining value.
            const tBytes left = encrypts ? plain ^ (last + wanted) : plain;
            ASSERT_EQ(left.substr(0, whole) + plain.substr(whole), tBytes(in, len));
        }
        if (len > 0)
            pLast = (encrypts ? out : in) + (len - 1) / 16 * 16;
    }
}
