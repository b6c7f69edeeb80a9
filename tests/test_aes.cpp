// SPDX-License-Identifier: MIT
#include "support.h"
#include <common/aes.h>
#include <common/self_log.h>
#ifdef KELVARA_HAVE_OPENSSL
#include <openssl/evp.h>
#endif

eLogLevl gLogLevl = LOG_LEV_ERROR;

using tBytes = std::basic_string<uint8_t>;
constexpr auto encrypt = AES128_CBC_encrypt_buffer, decrypt = AES128_CBC_decrypt_buffer;

static tBytes hex(const std::string &digits)
{
    tBytes bytes;
    for (size_t i = 0; i < digits.size(); i += 2)
        bytes += static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16));
    return bytes;
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

// One block: by OpenSSL where the machine has it, else by the functions that the vectors prove.
static tBytes block(bool encrypts, const tBytes &key, tBytes in)
{
    tBytes out(16, 0);
#ifdef KELVARA_HAVE_OPENSSL
    static EVP_CIPHER_CTX *const judge = EVP_CIPHER_CTX_new();
    int len = 0;
    EVP_CipherInit_ex(judge, EVP_aes_128_ecb(), nullptr, key.data(), nullptr, encrypts);
    EVP_CIPHER_CTX_set_padding(judge, 0);
    EVP_CipherUpdate(judge, out.data(), &len, in.data(), 16);
#else
    (encrypts ? AES128_ECB_encrypt : AES128_ECB_decrypt)(in.data(), key.data(), out.data());
#endif
    return out;
}

// First of all, with no key or iv given in the process: all round keys and the chaining value are
// zeros. Every byte is then its own block: ten times through the S-box, 0 becomes 0x36.
TEST(Aes, NothingGivenYet)
{
    tBytes zeros(16, 0);
    encrypt(zeros.data(), zeros.data(), 16, nullptr, nullptr);
    EXPECT_EQ(zeros, tBytes(16, 0x36));
}

TEST(Aes, PublishedVectors)
{
    // FIPS-197, C.1, whose key is that iv, and before it the others.
    const tBytes plain = gicText + hex("00112233445566778899aabbccddeeff");
    const tBytes cipher = gicEcb + hex("69c4e0d86a7b0430d8cdb78070b4c55a");
    for (size_t i = 0; i < 80; i += 16) {
        tBytes in = plain.substr(i, 16);
        for (auto *ecb : {AES128_ECB_encrypt, AES128_ECB_decrypt}) {
            tBytes out(16, 0), wanted = ecb == AES128_ECB_encrypt ? cipher : plain;
            for (uint8_t *to : {out.data(), in.data()}) { // in place only at last
                ecb(in.data(), (i < 64 ? gicKey : gicIv).data(), to);
                EXPECT_EQ(tBytes(to, 16), wanted.substr(i, 16));
            }
        }
    }
    for (uint32_t step : {64u, 16u, 48u}) {
        tBytes in = gicText, out(64, 0);
        const auto walk = [&](decltype(encrypt) cbc, uint8_t *to, uint8_t *from) {
            for (uint32_t i = 0; i < 64; i += step)
                cbc(to + i, from + i, std::min(step, 64 - i), i ? nullptr : gicKey.data(),
                    i ? nullptr : gicIv.data());
        };
        walk(encrypt, out.data(), in.data());
        walk(decrypt, in.data(), out.data());
        EXPECT_EQ(out, gicCbc);
        EXPECT_EQ(in, gicText);
    }
}

static tBytes operator^(tBytes a, const tBytes &b)
{
    for (size_t i = 0; i < a.size(); i++)
        a[i] = static_cast<uint8_t>(a[i] ^ b[i]);
    return a;
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
        const auto len = static_cast<uint32_t>(random() % 65);
        noise(232, call).copy(reinterpret_cast<char *>(here), 232);
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
        ASSERT_EQ(tBytes(here, 232), wanted) << call << " " << len;
        turn += len > 0;
        chain = len == 0 ? chain : here + (encrypts ? out : in) + (len - 1) / 16 * 16;
    }
}
