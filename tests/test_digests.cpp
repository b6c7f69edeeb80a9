// SPDX-License-Identifier: MIT
#include <algorithm>
#include <common/md5.h>
#include <common/self_log.h>
#include <common/sha256.h>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>
#ifdef KELVARA_HAVE_OPENSSL
#include <openssl/evp.h>
#endif

eLogLevl gLogLevl = LOG_LEV_ERROR;

namespace
{

using std::string;
using namespace std::string_literals;

template <typename tCtx> struct tDigest {
    const char *name;
    size_t len;
    bool big_endian;
    decltype(&md5_buffer) buffer;
    decltype(&md5_stream) stream;
    void (*init)(tCtx *);
    void (*block)(const void *, size_t, tCtx *);
    void (*bytes)(const void *, size_t, tCtx *);
    void *(*finish)(tCtx *, void *);
    void *(*read)(const tCtx *, void *);
    tCtx blank;
};

// Runs a test on each of the three.
template <typename tTest> void each(tTest test)
{
    // clang-format off
    test(tDigest<md5_ctx>{
        "md5", 16, false, md5_buffer, md5_stream, md5_init_ctx, md5_process_block,
        md5_process_bytes, md5_finish_ctx, md5_read_ctx, {}});
    test(tDigest<sha256_ctx>{
        "sha224", 28, true, sha224_buffer, sha224_stream, sha224_init_ctx, sha256_process_block,
        sha256_process_bytes, sha224_finish_ctx, sha224_read_ctx, {}});
    test(tDigest<sha256_ctx>{
        "sha256", 32, true, sha256_buffer, sha256_stream, sha256_init_ctx, sha256_process_block,
        sha256_process_bytes, sha256_finish_ctx, sha256_read_ctx, {}});
    // clang-format on
}

// What `write` leaves at the odd address that it is given, in hexadecimal: `len` bytes, not one
// more.
template <typename tWrite> string written(size_t len, tWrite write)
{
    unsigned char room[42] = {};
    string digits;
    write(&room[1]);
    for (size_t i = 0; i < sizeof(room); i++)
        if (i >= 1 && i <= len)
            digits += {"0123456789abcdef"[room[i] >> 4], "0123456789abcdef"[room[i] & 15]};
        else
            EXPECT_EQ(room[i], 0);
    return digits;
}

template <typename tAny> string one_call(const tAny &d, const string &message)
{
    return written(d.len,
                   [&](void *to) { EXPECT_EQ(d.buffer(message.data(), message.size(), to), to); });
}

template <typename tAny>
string in_pieces(const tAny &d, const char *message, size_t len, size_t piece)
{
    auto ctx = d.blank;
    memset(&ctx, 0xaa, sizeof(ctx));
    d.init(&ctx);
    for (size_t i = 0; i < len; i += piece) {
        d.bytes(message + i, std::min(piece, len - i), &ctx);
        EXPECT_LE(ctx.buflen, 64u);
    }
    return written(d.len, [&](void *to) { EXPECT_EQ(d.finish(&ctx, to), to); });
}

string noise(size_t len)
{
    std::mt19937 random(static_cast<unsigned>(len));
    string text(len, '\0');
    std::generate(text.begin(), text.end(), [&] { return static_cast<char>(random()); });
    return text;
}

// clang-format off
const string gicLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
const string gicTwoBlocks = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
const struct {
    string digest, unit;
    unsigned times;
    string hex;
} gicVectors[] = {
    // RFC 1321, A.5, and a million times "a"
    {"md5", "", 1, "d41d8cd98f00b204e9800998ecf8427e"},
    {"md5", "a", 1, "0cc175b9c0f1b6a831c399e269772661"},
    {"md5", "abc", 1, "900150983cd24fb0d6963f7d28e17f72"},
    {"md5", "message digest", 1, "f96b697d7cb7938d525a2f31aaf161d0"},
    {"md5", gicLetters.substr(26, 26), 1, "c3fcd3d76192e4007dfb496cca67e13b"},
    {"md5", gicLetters, 1, "d174ab98d277d9f5a5611c2c9f419d9f"},
    {"md5", "1234567890", 8, "57edf4a22be3c955ac49da2e2107b67a"},
    {"md5", "a", 1000000, "7707d6ae4e027c70eea2a935c2296f21"},
    // NIST: the examples of FIPS 180-4, byte-oriented short messages, and longer ones
    {"sha224", "\x5c\x7b", 1, "daff9bce685eb831f97fc1225b03c275a6c112e2d6e76f5faf7a36e6"},
    {"sha224", "abc", 1, "23097d223405d8228642a477bda255b32aadbce4bda0b3f7e36c9da7"},
    {"sha224", gicTwoBlocks, 1, "75388b16512776cc5dba5da1fd890150b0c6455cb4f58b1952522525"},
    {"sha224", "a", 1000000, "20794655980c91d8bbb4c1ea97618a4bf03f42581948b2ee4ee7ad67"},
    {"sha256", "", 1, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
    {"sha256", "\xd3", 1, "28969cdfa74a12c82f3bad960b0b000aca2ac329deea5c2328ebc6f2ba9802c1"},
    {"sha256", "abc", 1, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
    {"sha256", gicTwoBlocks, 1, "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
    {"sha256", "\0"s, 55, "02779466cdec163811d078815c633f21901413081449002f24aa3e80f0b88ef7"},
    {"sha256", "\0"s, 64, "f5a5fd42d16a20302798ef6ed309979b43003d2320d9f0e8ea9831a92759fb4b"},
    {"sha256", "U", 1005, "f4d62ddec0f3dd90ea1380fa16a5ff8dc4c54b21740650f24afc4120903552b0"},
    {"sha256", "a", 1000000, "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
};
// clang-format on

TEST(Digests, PublishedVectorsByEveryWay)
{
    each([](const auto &d) {
        for (const auto &v : gicVectors) {
            if (v.digest != d.name)
                continue;
            string message, file = "skip";
            for (size_t i = 0; i < v.times; i++)
                message += v.unit;
            EXPECT_EQ(one_call(d, message), v.hex);
            for (size_t piece = 1; piece <= 129 && message.size() < 2000; piece++)
                EXPECT_EQ(in_pieces(d, message.data(), message.size(), piece), v.hex);
            file += message;
            FILE *const stream = fmemopen(file.data(), file.size(), "r");
            EXPECT_EQ(fseek(stream, 4, SEEK_SET), 0);
            EXPECT_EQ(written(d.len, [&](void *to) { EXPECT_EQ(d.stream(stream, to), 0); }), v.hex);
            EXPECT_EQ(static_cast<size_t>(ftell(stream)), file.size());
            fclose(stream);
        }
    });
}

TEST(Digests, PiecesOfEverySizeAtEveryAddress)
{
    each([](const auto &d) {
        for (size_t len : {55u, 56u, 63u, 64u, 65u, 119u, 120u, 128u, 300u}) {
            const string message = noise(len), wanted = one_call(d, message);
            for (size_t shift = 0; shift < 4; shift++) {
                std::vector<uint64_t> room(len / 8 + 2);
                char *const at = reinterpret_cast<char *>(room.data()) + shift;
                memcpy(at, message.data(), len);
                for (size_t piece = 1; piece <= 129; piece++)
                    ASSERT_EQ(in_pieces(d, at, len, piece), wanted) << d.name << len << shift;
                ASSERT_EQ(in_pieces(d, at, len, len), wanted) << d.name << len << shift;
            }
        }
    });
}

TEST(Digests, AWholeBlockMayBePending)
{
    each([](const auto &d) {
        const string message = noise(200);
        for (size_t more : {0u, 1u, 64u, 136u}) {
            auto ctx = d.blank;
            d.init(&ctx);
            d.bytes(message.data(), 60, &ctx);
            d.bytes(message.data() + 60, 4, &ctx);
            EXPECT_EQ(ctx.buflen, 64u);
            EXPECT_EQ(ctx.total[0], 0u);
            d.bytes(message.data() + 64, more, &ctx);
            EXPECT_EQ(written(d.len, [&](void *to) { d.finish(&ctx, to); }),
                      one_call(d, message.substr(0, 64 + more)));
        }
    });
}

TEST(Digests, ReadingShowsTheState)
{
    const string wanted[] = {"0123456789abcdeffedcba9876543210",
                             "c1059ed8367cd5073070dd17f70e5939ffc00b316858151164f98fa7",
                             "6a09e667bb67ae853c6ef372a54ff53a510e527f9b05688c1f83d9ab5be0cd19"};
    each([&, i = 0](const auto &d) mutable {
        auto ctx = d.blank;
        d.init(&ctx);
        EXPECT_EQ(written(d.len, [&](void *to) { EXPECT_EQ(d.read(&ctx, to), to); }), wanted[i++]);
    });
}

// The count of bytes carries into its high word at a block, or in the finish at the earliest (64
// bytes pending). The padded message, with the length of that count, is made by hand here.
TEST(Digests, TheCountHas64Bits)
{
    each([](const auto &d) {
        for (const uint64_t start : {0x7ffffffc0ull, 0x7a0000000ull})
            for (size_t len : {64u, 74u}) {
                const string message = noise(len);
                auto ctx = d.blank, judge = d.blank;
                d.init(&ctx);
                d.init(&judge);
                ctx.total[0] = static_cast<uint32_t>(start);
                ctx.total[1] = static_cast<uint32_t>(start >> 32);
                for (size_t i = 0; i < len; i += 2)
                    d.bytes(&message[i], 2, &ctx);
                EXPECT_EQ(ctx.total[0] + (uint64_t{ctx.total[1]} << 32), start + len / 74 * 64);

                string padded = message + '\x80';
                padded.resize(128);
                for (size_t i = 0; i < 8; i++)
                    padded[d.big_endian ? 127 - i : 120 + i] =
                        static_cast<char>((start + len) * 8 >> 8 * i);
                d.block(padded.data(), 128, &judge);
                EXPECT_EQ(written(d.len, [&](void *to) { d.finish(&ctx, to); }),
                          written(d.len, [&](void *to) { d.read(&judge, to); }));
            }
    });
}

// A stream by a script: a number delivers so many bytes of it, -1 fails one read.
using tSource = std::pair<string, std::vector<int>>;

ssize_t read_source(void *cookie, char *to, size_t len)
{
    auto &[data, script] = *static_cast<tSource *>(cookie);
    if (script.empty())
        return 0;
    const int step = script[0];
    len = std::min(len, static_cast<size_t>(std::max(step, 0)));
    if ((script[0] -= static_cast<int>(len)) <= 0)
        script.erase(script.begin());
    data.erase(0, data.copy(to, len));
    return step < 0 ? -1 : static_cast<ssize_t>(len);
}

TEST(Digests, StreamsThatEndFailAndReadShort)
{
    // A failure that delivered something is not looked at: reading goes on, and only a read that
    // brings nothing finds the mark that the failure left.
    // clang-format off
    const std::pair<std::vector<int>, int> cases[] = {
        {{}, 0}, {{-1}, 1}, {{1, 1, 1}, 0}, {{4095}, 0}, {{4096}, 0}, {{4097}, 0},
        {{4000, 96, 10}, 0}, {{4096, 4096, 4096}, 0}, {{10000}, 0}, {{100, -1}, 1},
        {{4096, -1}, 1}, {{100, -1, 50}, 0}, {{4095, -1, 2}, 0}, {{100, -1, 3996}, 1}};
    // clang-format on
    each([&](const auto &d) {
        for (const auto &c : cases) {
            tSource source = {"", c.first};
            for (int step : c.first)
                source.first += noise(static_cast<size_t>(std::max(step, 0)));
            const string wanted = c.second ? "" : one_call(d, source.first);
            FILE *const stream =
                fopencookie(&source, "r", {read_source, nullptr, nullptr, nullptr});
            setvbuf(stream, nullptr, _IONBF, 0);
            EXPECT_EQ(written(wanted.size() / 2,
                              [&](void *to) { EXPECT_EQ(d.stream(stream, to), c.second); }),
                      wanted);
            fclose(stream);
        }
    });
}

#ifdef KELVARA_HAVE_OPENSSL
TEST(Digests, OpensslAgrees)
{
    each([random = std::mt19937(1)](const auto &d) mutable {
        for (size_t i = 0; i < 500; i++) {
            const string message = noise(i < 300 ? i : random() % 20000);
            EXPECT_EQ(one_call(d, message), written(d.len, [&](unsigned char *to) {
                          EVP_Digest(message.data(), message.size(), to, nullptr,
                                     EVP_get_digestbyname(d.name), nullptr);
                      }));
        }
    });
}
#endif

} // namespace
