// SPDX-License-Identifier: MIT
// Digests, ciphers, Base64 and the check byte.
#include "bench.h"

#include <algorithm>
#include <cstring>
#include <glib.h>
#include <modp_b64.h>
#include <nettle/aes.h>
#include <nettle/base64.h>
#include <nettle/nettle-meta.h>
#include <openssl/aes.h>
#include <openssl/evp.h>
#include <random>

#include <common/aes.h>
#include <common/bbase64.h>
#include <common/md5.h>
#include <common/sha256.h>
#include <common/xfuncs.h>

using tBytes = std::vector<unsigned char>;

static std::shared_ptr<tBytes> random_bytes(size_t len)
{
    static std::minstd_rand draw(1);
    auto bytes = std::make_shared<tBytes>(len);
    for (unsigned char &one : *bytes)
        one = static_cast<unsigned char>(draw() >> 8);
    return bytes;
}

static void expect_same(const tBytes &ours, const tBytes &its)
{
    expect(ours == its, "the outputs differ");
}

static const char *text_of(const tBytes &bytes)
{
    return reinterpret_cast<const char *>(bytes.data());
}

static std::shared_ptr<EVP_MD_CTX> evp_digest_context()
{
    return {EVP_MD_CTX_new(), EVP_MD_CTX_free};
}

// --- digests ----------------------------------------------------------------------------------

struct tDigest {
    const char *name;
    const char *yardstick;
    size_t len;
    void *(*buffer)(const char *, size_t, void *);
    int (*stream)(FILE *, void *);
    const nettle_hash *nettle;
    GChecksumType glib;

    std::shared_ptr<EVP_MD> fetch() const
    {
        return {EVP_MD_fetch(nullptr, name, nullptr), EVP_MD_free};
    }
};

static const tDigest gicMd5 = {"MD5",       "OpenSSL EVP", 16, md5_buffer, md5_stream,
                               &nettle_md5, G_CHECKSUM_MD5};
static const tDigest gicSha256 = {"SHA-256",        "scalar OpenSSL", 32,
                                  sha256_buffer,    sha256_stream,    &nettle_sha256,
                                  G_CHECKSUM_SHA256};

#ifdef __arm__
static const char gicNettle[] = "nettle (C)"; // but for AES, which is assembler everywhere
#else
static const char gicNettle[] = "nettle (assembler)";
#endif

// The digest of `len` bytes at `data` into `to`, once.
using tHash = std::function<void(const unsigned char *data, size_t len, unsigned char *to)>;

static tHash evp_hash(const tDigest &digest)
{
    return [md = digest.fetch(), context = evp_digest_context()](const unsigned char *data,
                                                                 size_t len, unsigned char *to) {
        EVP_DigestInit_ex(context.get(), md.get(), nullptr);
        EVP_DigestUpdate(context.get(), data, len);
        EVP_DigestFinal_ex(context.get(), to, nullptr);
    };
}

// As a host calls it that has one message and keeps no context.
static tHash evp_one_call(const tDigest &digest)
{
    return [md = EVP_get_digestbyname(digest.name)](const unsigned char *data, size_t len,
                                                    unsigned char *to) {
        EVP_Digest(data, len, to, nullptr, md, nullptr);
    };
}

static tHash nettle_hash_of(const tDigest &digest)
{
    auto context = std::make_shared<std::vector<uint64_t>>(digest.nettle->context_size / 8 + 1);
    return [=, hash = digest.nettle](const unsigned char *data, size_t len, unsigned char *to) {
        hash->init(context->data());
        hash->update(context->data(), len, data);
        hash->digest(context->data(), hash->digest_size, to);
    };
}

static tHash glib_hash(const tDigest &digest)
{
    std::shared_ptr<GChecksum> sum(g_checksum_new(digest.glib), g_checksum_free);
    return [=](const unsigned char *data, size_t len, unsigned char *to) {
        gsize room = 32;
        g_checksum_reset(sum.get());
        g_checksum_update(sum.get(), data, static_cast<gssize>(len));
        g_checksum_get_digest(sum.get(), to, &room);
    };
}

static tDuel hash_duel(const tDigest &digest, size_t len, size_t offset,
                       tHash (*peer)(const tDigest &))
{
    auto data = random_bytes(len + offset + 8);
    const unsigned char *at = data->data();
    while (reinterpret_cast<uintptr_t>(at) % 8 != offset)
        ++at;
    auto to = std::make_shared<tBytes>(digest.len);
    const tHash hash = peer(digest);
    tBytes theirs(digest.len);
    hash(at, len, theirs.data());
    digest.buffer(reinterpret_cast<const char *>(at), len, to->data());
    expect_same(*to, theirs);
    return {each([=, buffer = digest.buffer] {
                benchmark::DoNotOptimize(
                    buffer(reinterpret_cast<const char *>(at), len, to->data()));
            }),
            each([=] { (void)data, hash(at, len, to->data()); })};
}

static tDuel stream_duel(const tDigest &digest)
{
    auto data = random_bytes(1 << 18);
    std::shared_ptr<FILE> file(tmpfile(), fclose);
    expect(file != nullptr && fwrite(data->data(), 1, data->size(), file.get()) == data->size(),
           "no temporary file");
    auto to = std::make_shared<tBytes>(digest.len);
    auto theirs = std::make_shared<tBytes>(digest.len);
    const tRun ours = each([=, stream = digest.stream] {
        rewind(file.get());
        benchmark::DoNotOptimize(stream(file.get(), to->data()));
    });
    const tRun its = each([=, md = digest.fetch(), context = evp_digest_context()] {
        unsigned char chunk[4096];
        rewind(file.get());
        EVP_DigestInit_ex(context.get(), md.get(), nullptr);
        while (const size_t got = fread(chunk, 1, sizeof chunk, file.get()))
            EVP_DigestUpdate(context.get(), chunk, got);
        EVP_DigestFinal_ex(context.get(), theirs->data(), nullptr);
    });
    ours(1);
    its(1);
    expect_same(*to, *theirs);
    return {ours, its};
}

static void add_digest(const tDigest &digest)
{
    const std::string name = digest.name;
    const auto add = [&](const std::string &what, size_t len, size_t offset,
                         const std::string &yardstick = {},
                         tHash(*peer)(const tDigest &) = evp_hash, bool bSized = false) {
        tRow row = {name + ", " + what, yardstick.empty() ? digest.yardstick : yardstick,
                    [=] { return hash_duel(digest, len, offset, peer); }, static_cast<double>(len)};
        if (bSized) {
            row.family = name + ", per byte, by message size";
            row.size = row.bytes;
        }
        add_row(row);
    };
    const std::string yardstick = digest.yardstick;
    add("64 B", 64, 0, yardstick + ", one call", evp_one_call);
    add("64 B", 64, 0, yardstick + ", a context kept");
    add("4 KiB", 4096, 0, {}, evp_hash, true);
    add("64 KiB aligned", 65536, 0);
    add("64 KiB aligned", 65536, 0, gicNettle, nettle_hash_of);
    add("64 KiB aligned", 65536, 0, "GLib (C)", glib_hash);
    add("64 KiB odd address", 65536, 1);
    add("256 KiB", 1 << 18, 0, {}, evp_hash, true);
    add_row({name + ", stream of 256 KiB", digest.yardstick, [=] { return stream_duel(digest); },
             1 << 18});
}

// --- AES --------------------------------------------------------------------------------------

// One block with its key, as ours takes it.
using tBlock = void (*)(bool bEncrypt, const unsigned char *in, const unsigned char *key,
                        unsigned char *to);

static void openssl_block(bool bEncrypt, const unsigned char *in, const unsigned char *key,
                          unsigned char *to)
{
    AES_KEY expanded;
    if (bEncrypt) {
        AES_set_encrypt_key(key, 128, &expanded);
        AES_encrypt(in, to, &expanded);
    } else {
        AES_set_decrypt_key(key, 128, &expanded);
        AES_decrypt(in, to, &expanded);
    }
}

static void nettle_block(bool bEncrypt, const unsigned char *in, const unsigned char *key,
                         unsigned char *to)
{
    aes128_ctx expanded;
    if (bEncrypt) {
        aes128_set_encrypt_key(&expanded, key);
        aes128_encrypt(&expanded, 16, to, in);
    } else {
        aes128_set_decrypt_key(&expanded, key);
        aes128_decrypt(&expanded, 16, to, in);
    }
}

static tDuel ecb_duel(bool bEncrypt, tBlock peer)
{
    auto key = random_bytes(16);
    auto in = random_bytes(16);
    auto to = std::make_shared<tBytes>(16);
    auto theirs = std::make_shared<tBytes>(16);
    const auto ours = bEncrypt ? AES128_ECB_encrypt : AES128_ECB_decrypt;
    const tDuel duel = {each([=] { ours(in->data(), key->data(), to->data()); }),
                        each([=] { peer(bEncrypt, in->data(), key->data(), theirs->data()); })};
    duel.subject(1);
    duel.yardstick(1);
    expect_same(*to, *theirs);
    return duel;
}

static tDuel cbc_duel(bool bEncrypt)
{
    constexpr size_t len = 16384;
    auto key = random_bytes(16);
    auto iv = random_bytes(16);
    auto data = random_bytes(len);
    auto in = std::make_shared<tBytes>(*data); // an encryption changes its input
    auto to = std::make_shared<tBytes>(len);
    auto theirs = std::make_shared<tBytes>(len + 16);
    std::shared_ptr<EVP_CIPHER> cipher(EVP_CIPHER_fetch(nullptr, "AES-128-CBC", nullptr),
                                       EVP_CIPHER_free);
    std::shared_ptr<EVP_CIPHER_CTX> context(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    const tRun ours = each([=] {
        (bEncrypt ? AES128_CBC_encrypt_buffer : AES128_CBC_decrypt_buffer)(
            to->data(), in->data(), len, key->data(), iv->data());
    });
    const tRun its = each([=] {
        int got = 0;
        EVP_CipherInit_ex(context.get(), cipher.get(), nullptr, key->data(), iv->data(), bEncrypt);
        EVP_CIPHER_CTX_set_padding(context.get(), 0);
        EVP_CipherUpdate(context.get(), theirs->data(), &got, data->data(), len);
    });
    ours(1);
    its(1);
    theirs->resize(len);
    expect_same(*to, *theirs);
    theirs->resize(len + 16);
    return {ours, its};
}

// --- Base64 and the check byte ----------------------------------------------------------------

using tEncode = void (*)(const tBytes &data, unsigned char *to);
using tDecode = void (*)(const tBytes &text, unsigned char *to);

static void evp_encode(const tBytes &data, unsigned char *to)
{
    benchmark::DoNotOptimize(EVP_EncodeBlock(to, data.data(), static_cast<int>(data.size())));
}

static void nettle_encode(const tBytes &data, unsigned char *to)
{
    base64_encode_raw(reinterpret_cast<char *>(to), data.size(), data.data());
}

static void modp_encode(const tBytes &data, unsigned char *to)
{
    benchmark::DoNotOptimize(
        modp_b64_encode(reinterpret_cast<char *>(to), text_of(data), data.size()));
}

static void evp_decode(const tBytes &text, unsigned char *to)
{
    benchmark::DoNotOptimize(EVP_DecodeBlock(to, text.data(), static_cast<int>(text.size())));
}

static void modp_decode(const tBytes &text, unsigned char *to)
{
    benchmark::DoNotOptimize(
        modp_b64_decode(reinterpret_cast<char *>(to), text_of(text), text.size()));
}

static tDuel encode_duel(size_t len, tEncode peer)
{
    auto data = random_bytes(len);
    auto to = std::make_shared<tBytes>((len + 2) / 3 * 4 + 1);
    auto theirs = std::make_shared<tBytes>(to->size());
    const tDuel duel = {each([=] {
                            char *text = reinterpret_cast<char *>(to->data());
                            benchmark::DoNotOptimize(
                                bbase64_encode(data->data(), len, text, to->size() - 1));
                        }),
                        each([=] { peer(*data, theirs->data()); })};
    duel.subject(1);
    duel.yardstick(1);
    expect_same(*to, *theirs);
    return duel;
}

static tDuel decode_duel(size_t len, tDecode peer)
{
    auto data = random_bytes(len / 3 * 3);
    auto text = std::make_shared<tBytes>(data->size() / 3 * 4 + 1);
    EVP_EncodeBlock(text->data(), data->data(), static_cast<int>(data->size()));
    text->pop_back();
    auto to = std::make_shared<tBytes>(data->size());
    auto theirs = std::make_shared<tBytes>(data->size());
    const tDuel duel = {each([=] {
                            benchmark::DoNotOptimize(bbase64_decode(text_of(*text), text->size(),
                                                                    to->data(), to->size()));
                        }),
                        each([=] { peer(*text, theirs->data()); })};
    duel.subject(1);
    duel.yardstick(1);
    expect_same(*to, *data);
    expect_same(*theirs, *data);
    return duel;
}

[[gnu::noinline]] static char plain_xor(const char *start, const char *end)
{
    char sum = 0;
    for (const char *at = start; at <= end; ++at)
        sum = static_cast<char>(sum ^ *at);
    return sum;
}

static tDuel xor_duel(size_t len)
{
    auto data = random_bytes(len + 64);
    const char *start = text_of(*data);
    while (reinterpret_cast<uintptr_t>(start) % 64 != 0)
        ++start;
    const char *end = start + len - 1;
    expect(xorCheckSum(start, end) == plain_xor(start, end), "the check bytes differ");
    return {each([=] { (void)data, benchmark::DoNotOptimize(xorCheckSum(start, end)); }),
            each([=] { (void)data, benchmark::DoNotOptimize(plain_xor(start, end)); })};
}

void add_codecs()
{
    add_digest(gicMd5);
    add_digest(gicSha256);
    for (const bool bEncrypt : {true, false}) {
        const std::string way = bEncrypt ? ", encrypt" : ", decrypt";
        const std::string block = "AES ECB block with its key" + way;
        add_row({block, "OpenSSL's low-level calls",
                 [=] { return ecb_duel(bEncrypt, openssl_block); }});
        add_row({block, "nettle (assembler)", [=] { return ecb_duel(bEncrypt, nettle_block); }});
        add_row(
            {"AES CBC 16 KiB" + way, "scalar OpenSSL", [=] { return cbc_duel(bEncrypt); }, 16384});
    }
    for (const size_t len : {size_t{1024}, size_t{65536}}) {
        const std::string size = ", " + std::to_string(len / 1024) + " KiB";
        const double bytes = static_cast<double>(len);
        const auto encode = [&](const char *name, tEncode peer) {
            add_row({"Base64 encode" + size, name, [=] { return encode_duel(len, peer); }, bytes});
        };
        const auto decode = [&](const char *name, tDecode peer) {
            add_row({"Base64 decode" + size, name, [=] { return decode_duel(len, peer); }, bytes});
        };
        encode("EVP_EncodeBlock", evp_encode);
        encode("nettle", nettle_encode);
        encode("modp_b64", modp_encode);
        decode("EVP_DecodeBlock", evp_decode);
        decode("modp_b64", modp_decode);
    }
    add_row({"XOR check byte, 64 B", "plain byte loop", [] { return xor_duel(64); }, 64});
    add_row({"XOR check byte, 4 KiB", "plain byte loop", [] { return xor_duel(4096); }, 4096});
}
