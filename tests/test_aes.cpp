// SPDX-License-Identifier: MIT
#include <algorithm>
#include <common/aes.h>
#include <common/self_log.h>
#include <gtest/gtest.h>
#include <random>
#include <string>
#ifdef KELVARA_HAVE_OPENSSL
#include <openssl/evp.h>
#endif

eLogLevl gLogLevl = LOG_LEV_ERROR;

namespace
{

using tBytes = std::basic_string<uint8_t>;
constexpr auto encrypt = AES128_CBC_encrypt_buffer, decrypt = AES128_CBC_decrypt_buffer;

tBytes hex(const std::string &digits)
{
    tBytes bytes;
    for (size_t i = 0; i < digits.size(); i += 2)
        bytes += static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16));
    return bytes;
}

tBytes operator^(tBytes a, const tBytes &b)
{
    for (size_t i = 0; i < a.size(); i++)
        a[i] = static_cast<uint8_t>(a[i] ^ b[i]);
    return a;
}

// NIST SP 800-38A, appendix F: key, iv and text of all examples with AES-128, and their ciphers.
const tBytes gicKey = hex("2b7e151628aed2a6abf7158809cf4f3c");
const tBytes gicIv = hex("000102030405060708090a0b0c0d0e0f");
const tBytes gicText = hex("6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
                           "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710");
const tBytes gicEcb = hex("3ad77bb40d7a3660a89ecaf32466ef97f5d3d58503b9699de785895a96fdbaaf"
                          "43b1cd7f598ece23881b00e3ed0306887b0c785e27e8ad3f8223207104725dd4");
const tBytes gicCbc = hex("7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"
                          "73bed6b8e3c1743b7116e69e222295163ff1caa1681fac09120eca307586e1a7");

// One call, with room for the last block.
tBytes run(decltype(encrypt) cbc, tBytes input, const uint8_t *key, const uint8_t *iv)
{
    tBytes output((input.size() + 15) / 16 * 16, 0x55);
    cbc(output.data(), input.data(), static_cast<uint32_t>(input.size()), key, iv);
    return output;
}

// First of all, with no key or iv given in the process: all round keys and the chaining value are
// zeros. Every byte is then its own block: ten times through the S-box, 0 becomes 0x36.
TEST(Aes, NothingGivenYet)
{
    EXPECT_EQ(run(encrypt, tBytes(16, 0), nullptr, nullptr), tBytes(16, 0x36));
}

TEST(Aes, EcbVectors)
{
    const auto check = [](const tBytes &key, const tBytes &plain, const tBytes &cipher) {
        tBytes in = plain, out(16, 0);
        AES128_ECB_encrypt(in.data(), key.data(), out.data());
        EXPECT_EQ(out, cipher);
        EXPECT_EQ(in, plain);
        AES128_ECB_decrypt(out.data(), key.data(), in.data());
        EXPECT_EQ(in, plain);
        EXPECT_EQ(out, cipher);
        AES128_ECB_encrypt(in.data(), key.data(), in.data());
        EXPECT_EQ(in, cipher);
        AES128_ECB_decrypt(in.data(), key.data(), in.data());
        EXPECT_EQ(in, plain);
    };
    check(gicIv, hex("00112233445566778899aabbccddeeff"), // FIPS-197, C.1; the key is this iv
          hex("69c4e0d86a7b0430d8cdb78070b4c55a"));
    for (size_t i = 0; i < 64; i += 16)
        check(gicKey, gicText.substr(i, 16), gicEcb.substr(i, 16));
}

TEST(Aes, CbcVectorsInOneCallAndInMany)
{
    for (uint32_t step : {64u, 16u, 48u}) {
        tBytes in = gicText, out(64, 0), in_place = gicText;
        const auto walk = [&](decltype(encrypt) cbc, tBytes &to, tBytes &from) {
            for (uint32_t i = 0; i < 64; i += step)
                cbc(&to[i], &from[i], std::min(step, 64 - i), i ? nullptr : gicKey.data(),
                    i ? nullptr : gicIv.data());
        };
        walk(encrypt, out, in);
        EXPECT_EQ(out, gicCbc);
        EXPECT_EQ(in, gicText ^ (gicIv + gicCbc.substr(0, 48)));
        walk(encrypt, in_place, in_place);
        EXPECT_EQ(in_place, gicCbc);
        walk(decrypt, in, out);
        EXPECT_EQ(in, gicText);
        EXPECT_EQ(out, gicCbc);
    }
}

TEST(Aes, ANullKeyIsTheOneExpandedLast)
{
    tBytes key, block(16, 0);
    for (auto *ecb : {AES128_ECB_encrypt, AES128_ECB_decrypt}) {
        run(encrypt, block, block.data(), block.data());
        key = gicKey;
        ecb(block.data(), key.data(), block.data());
        key.assign(16, 0); // not read again
        EXPECT_EQ(run(encrypt, gicText, nullptr, gicIv.data()), gicCbc);
    }
}

// The chaining value is the memory that it came from, in whatever direction it is used next.
TEST(Aes, TheChainingValueIsTheCallersMemory)
{
    const tBytes zeros(16, 0), mask = gicText.substr(0, 16) ^ gicText.substr(32, 16);
    tBytes iv = zeros, in = gicText.substr(0, 16), out = zeros, second = gicEcb.substr(16, 16);
    encrypt(out.data(), in.data(), 0, gicKey.data(), iv.data());
    EXPECT_EQ(out, zeros);
    iv = gicIv; // taken over by the empty call, changed since
    encrypt(out.data(), in.data(), 16, nullptr, nullptr);
    EXPECT_EQ(out, gicCbc.substr(0, 16));
    AES128_ECB_encrypt(in.data(), gicKey.data(), in.data()); // leaves it alone
    out = zeros;                                             // where the value is
    decrypt(in.data(), second.data(), 16, nullptr, nullptr);
    EXPECT_EQ(in, gicText.substr(16, 16));
    second = mask; // where the value is now
    in = gicText.substr(0, 16);
    encrypt(out.data(), in.data(), 16, nullptr, nullptr);
    EXPECT_EQ(out, gicEcb.substr(32, 16));
}

TEST(Aes, APartialLastBlockIsOneMoreOfTheChain)
{
    for (uint32_t len = 1; len < 64; len++) {
        const uint32_t size = (len + 15) / 16 * 16, whole = len / 16 * 16;
        const tBytes zeros(size, 0), padded = gicText.substr(0, len) + zeros.substr(len);
        const tBytes wanted = run(encrypt, padded + tBytes(16, 0), gicKey.data(), gicIv.data());
        tBytes in = padded, out = zeros, odd = tBytes(1, 0) + padded;
        encrypt(out.data(), in.data(), len, gicKey.data(), gicIv.data());
        EXPECT_EQ(out + run(encrypt, tBytes(16, 0), nullptr, nullptr), wanted);
        EXPECT_EQ(in.substr(whole), padded.substr(whole));
        encrypt(&odd[1], &odd[1], len, gicKey.data(), gicIv.data());
        EXPECT_EQ(odd.substr(1), wanted.substr(0, size));

        in = padded;
        decrypt(out.data(), in.data(), len, gicKey.data(), gicIv.data());
        EXPECT_EQ(run(decrypt, gicEcb.substr(0, 16), nullptr, nullptr),
                  gicText.substr(0, 16) ^ padded.substr(size - 16));
        EXPECT_EQ(out, run(decrypt, padded, gicKey.data(), gicIv.data()));
    }
}

#ifdef KELVARA_HAVE_OPENSSL
TEST(Aes, OpensslAgrees)
{
    std::mt19937 random(1);
    EVP_CIPHER_CTX *const judge = EVP_CIPHER_CTX_new();
    for (size_t size = 16; size < 4096; size += 16) {
        tBytes key(16, 0), iv(16, 0), text(size, 0), wanted(size, 0);
        for (tBytes *bytes : {&key, &iv, &text})
            std::generate(bytes->begin(), bytes->end(), [&] { return random() & 0xff; });
        int len = 0;
        EVP_EncryptInit_ex(judge, EVP_aes_128_cbc(), nullptr, key.data(), iv.data());
        EVP_EncryptUpdate(judge, wanted.data(), &len, text.data(), static_cast<int>(size));
        EXPECT_EQ(run(encrypt, text, key.data(), iv.data()), wanted);
        EXPECT_EQ(run(decrypt, wanted, key.data(), iv.data()), text);
    }
    EVP_CIPHER_CTX_free(judge);
}
#endif

} // namespace
