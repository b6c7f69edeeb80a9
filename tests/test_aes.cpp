// SPDX-License-Identifier: MIT
#include "support.h"
#include <common/aes.h>
#include <common/self_log.h>

eLogLevl gLogLevl = LOG_LEV_ERROR;

using tBytes = std::basic_string<uint8_t>;
constexpr auto encrypt = AES128_CBC_encrypt_buffer, decrypt = AES128_CBC_decrypt_buffer;

static tBytes hex(const std::string &digits)
{
    tBytes bytes;
    for (size_t i = 0; i < digits.size(); i += 2)
        bytes += uint8_t(std::stoul(digits.substr(i, 2), nullptr, 16));
    return bytes;
}

static tBytes operator^(tBytes a, const tBytes &b)
{
    for (size_t i = 0; i < a.size(); i++)
        a[i] = uint8_t(a[i] ^ b[i]);
    return a;
}

// First of all, with no key or iv given in the process: all round keys and the chaining value are
// zeros. Every byte is then its own block: ten times through the S-box, 0 becomes 0x36.
TEST(Aes, NothingGivenYet)
{
    tBytes zeros(16, 0);
    encrypt(zeros.data(), zeros.data(), 16, nullptr, nullptr);
    EXPECT_EQ(zeros, tBytes(16, 0x36));
}

// In place at odd calls.
static tBytes block(bool encrypts, const tBytes &key, tBytes in)
{
    static bool inPlace;
    inPlace = !inPlace;
    tBytes out(16, 0), &to = inPlace ? in : out;
    (encrypts ? AES128_ECB_encrypt : AES128_ECB_decrypt)(in.data(), key.data(), to.data());
    return to;
}

TEST(Aes, Blocks)
{
    // FIPS-197, C.1
    const tBytes key = hex("000102030405060708090a0b0c0d0e0f");
    const tBytes plain = hex("00112233445566778899aabbccddeeff");
    const tBytes cipher = hex("69c4e0d86a7b0430d8cdb78070b4c55a");
    for (int turn = 0; turn < 2; turn++) {
        EXPECT_EQ(block(true, key, plain), cipher);
        EXPECT_EQ(block(false, key, cipher), plain);
    }
    // A chain that takes every entry of the tables; its end is OpenSSL's.
    tBytes text(16, 0), last = text, next = text;
    for (int i = 0; i < 1000; i++, last = last ^ text) {
        next = block(true, last, text);
        ASSERT_EQ(block(false, last, next), text) << i;
        text = next;
    }
    EXPECT_EQ(text, hex("c03b462451b8ec9fa674a2d1e9c0555e"));
}

// Each call has memory of its own: input and output at any address, a key and an iv. The chaining
// value is the memory that it came from, whatever has become of it since.
TEST(Aes, AnySequenceOfCalls)
{
    std::mt19937 random(1);
    uint8_t room[2][232], *chain = room[0];
    tBytes key;
    for (unsigned call = 0, turn = 0; call < 5000; call++) {
        uint8_t *const here = room[turn % 2], *const new_key = here + 200, *const iv = here + 216;
        const bool encrypts = random() % 2, in_place = encrypts && random() % 2;
        const bool has_iv = call == 0 || random() % 4 == 0;
        const auto has_key = call == 0 ? 0 : random() % 4; // 0: so it is; 1: an ECB call has
        const size_t in = random() % 16, out = in_place ? in : 100 + random() % 16;
        const auto len = uint32_t(random() % 65);
        memcpy(here, noise(232, call).data(), 232);
        chain[random() % 16] ^= 1;
        chain = has_iv ? iv : chain;
        tBytes wanted(here, 232), last(chain, 16);
        key = has_key < 2 ? tBytes(new_key, 16) : key;
        for (size_t i = 0; i < len; i += 16) {
            tBytes data = wanted.substr(in + i, std::min<size_t>(16, len - i));
            const size_t whole = data.size() / 16 * 16; // of a partial block the input stays
            data.resize(16);
            if (encrypts)
                wanted.replace(in + i, whole, data = data ^ last, 0, whole);
            data = block(encrypts, key, data);
            wanted.replace(out + i, 16, encrypts ? data : data ^ last);
            last = wanted.substr(i + (encrypts ? out : in), 16);
        }
        if (has_key == 1) {
            tBytes other(16, 0), judged = block(encrypts, key, other);
            (encrypts ? AES128_ECB_encrypt : AES128_ECB_decrypt)(&other[0], new_key, &other[0]);
            ASSERT_EQ(other, judged);
        }
        (encrypts ? encrypt : decrypt)(here + out, here + in, len, has_key ? nullptr : new_key,
                                       has_iv ? iv : nullptr);
        ASSERT_EQ(tBytes(here, 232), wanted)
            << (encrypts ? "encrypt" : "decrypt") << ", call " << call << ", " << len << " bytes";
        turn += len > 0;
        chain = len == 0 ? chain : here + (encrypts ? out : in) + (len - 1) / 16 * 16;
    }
}
