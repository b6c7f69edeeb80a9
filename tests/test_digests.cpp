// SPDX-License-Identifier: MIT
#include "support.h"
#include <common/md5.h>
#include <common/self_log.h>
#include <common/sha256.h>
#include <endian.h>
#ifdef KELVARA_HAVE_OPENSSL
#include <openssl/evp.h>
#endif

eLogLevl gLogLevl = LOG_LEV_ERROR;

using std::string;

template <typename tCtx> struct tDigest {
    const char *name;
    size_t len;
    decltype(&md5_buffer) buffer;
    decltype(&md5_stream) stream;
    void (*init)(tCtx *);
    void (*block)(const void *, size_t, tCtx *);
    void (*bytes)(const void *, size_t, tCtx *);
    void *(*finish)(tCtx *, void *);
    void *(*read)(const tCtx *, void *);
    tCtx ctx;
};

// Runs a test on each of the three.
template <typename tTest> static void each(tTest test)
{
    // clang-format off
    test(tDigest<md5_ctx>{
        "md5", 16, md5_buffer, md5_stream, md5_init_ctx, md5_process_block, md5_process_bytes,
        md5_finish_ctx, md5_read_ctx, {}});
    test(tDigest<sha256_ctx>{
        "sha224", 28, sha224_buffer, sha224_stream, sha224_init_ctx, sha256_process_block,
        sha256_process_bytes, sha224_finish_ctx, sha224_read_ctx, {}});
    test(tDigest<sha256_ctx>{
        "sha256", 32, sha256_buffer, sha256_stream, sha256_init_ctx, sha256_process_block,
        sha256_process_bytes, sha256_finish_ctx, sha256_read_ctx, {}});
    // clang-format on
}

// What `write` leaves at the odd address that it gets and gives back, in hexadecimal: `len` bytes,
// not one more.
template <typename tWrite> static string written(size_t len, tWrite write)
{
    string room(42, '\0'), digits;
    EXPECT_EQ(write(&room[1]), &room[1]);
    EXPECT_EQ(room.find_first_not_of('\0', len + 1), string::npos);
    for (const char c : room.substr(1, len))
        digits += {"0123456789abcdef"[c >> 4 & 15], "0123456789abcdef"[c & 15]};
    return digits;
}

template <typename tAny> static string one_call(const tAny &d, const string &message)
{
    return written(d.len, [&](void *to) { return d.buffer(message.data(), message.size(), to); });
}

template <typename tAny> static string finished(tAny &d)
{
    return written(d.len, [&](void *to) { return d.finish(&d.ctx, to); });
}

// clang-format off
const string gicLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
const string gicTwoBlocks = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
const std::tuple<string, string, unsigned, string> gicVectors[] = {
    // RFC 1321, A.5
    {"md5", "", 1, "d41d8cd98f00b204e9800998ecf8427e"}, {"md5", "a", 1, "0cc175b9c0f1b6a831c399e269772661"},
    {"md5", "abc", 1, "900150983cd24fb0d6963f7d28e17f72"}, {"md5", "message digest", 1, "f96b697d7cb7938d525a2f31aaf161d0"},
    {"md5", gicLetters.substr(26, 26), 1, "c3fcd3d76192e4007dfb496cca67e13b"},
    {"md5", gicLetters, 1, "d174ab98d277d9f5a5611c2c9f419d9f"}, {"md5", "1234567890", 8, "57edf4a22be3c955ac49da2e2107b67a"},
    // NIST: the examples of FIPS 180-4, byte-oriented short messages, and longer ones
    {"sha224", "\x5c\x7b", 1, "daff9bce685eb831f97fc1225b03c275a6c112e2d6e76f5faf7a36e6"},
    {"sha224", "abc", 1, "23097d223405d8228642a477bda255b32aadbce4bda0b3f7e36c9da7"},
    {"sha224", gicTwoBlocks, 1, "75388b16512776cc5dba5da1fd890150b0c6455cb4f58b1952522525"},
    {"sha224", "a", 1000000, "20794655980c91d8bbb4c1ea97618a4bf03f42581948b2ee4ee7ad67"},
    {"sha256", "", 1, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
    {"sha256", "\xd3", 1, "28969cdfa74a12c82f3bad960b0b000aca2ac329deea5c2328ebc6f2ba9802c1"},
    {"sha256", "abc", 1, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
    {"sha256", gicTwoBlocks, 1, "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
    {"sha256", string(1, 0), 55, "02779466cdec163811d078815c633f21901413081449002f24aa3e80f0b88ef7"},
    {"sha256", "U", 1005, "f4d62ddec0f3dd90ea1380fa16a5ff8dc4c54b21740650f24afc4120903552b0"},
    {"sha256", "a", 1000000, "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
};
// clang-format on

TEST(Digests, PublishedVectors)
{
    each([](const auto &d) {
        for (const auto &[name, unit, times, wanted] : gicVectors) {
            string message;
            for (size_t i = 0; i < times && name == d.name; i++)
                message += unit;
            EXPECT_TRUE(name != d.name || one_call(d, message) == wanted) << name << unit;
        }
    });
}

// Messages of every length, in pieces of every size, at every address.
TEST(Digests, PiecesMakeTheWhole)
{
    each([](auto d) {
        for (size_t len = 0; len < 3000; len += len < 300 ? 1 : 97) {
            const string message = noise(len), wanted = one_call(d, message);
#ifdef KELVARA_HAVE_OPENSSL
            ASSERT_EQ(wanted, written(d.len, [&](void *to) {
                          EVP_Digest(message.data(), len, static_cast<unsigned char *>(to), nullptr,
                                     EVP_get_digestbyname(d.name), nullptr);
                          return to;
                      }));
#endif
            for (size_t piece = 1; piece <= 129; piece++) {
                const string room = string((len + piece) % 4, ' ') + message;
                memset(&d.ctx, 0xaa, sizeof(d.ctx));
                d.init(&d.ctx);
                for (size_t i = 0, pending = 0; i < len; i += piece) {
                    const size_t part = std::min(piece, len - i), sum = pending + part;
                    d.bytes(&room[(len + piece) % 4 + i], part, &d.ctx);
                    // A block that the pending bytes are filled up to exactly waits.
                    pending = pending && sum == 64 ? 64 : sum % 64;
                    ASSERT_TRUE(d.ctx.buflen == pending && d.ctx.total[0] == i + part - pending);
                }
                ASSERT_EQ(finished(d), wanted) << d.name << len << " " << piece;
            }
        }
    });
}

// The count of bytes carries into its high word at a block, or in the finish at the earliest (64
// bytes pending). The padded message, with the length of that count, is made by hand here.
TEST(Digests, TheCountHas64Bits)
{
    each([](auto d) {
        for (const uint64_t low : {0xffffffc0u, 0xa0000000u})
            for (size_t len : {64u, 74u}) {
                string message = noise(len);
                d.init(&d.ctx);
                d.ctx.total[0] = static_cast<uint32_t>(low);
                d.ctx.total[1] = 7;
                d.bytes(&message[0], 2, &d.ctx);
                d.bytes(&message[2], len - 2, &d.ctx);
                const string got = finished(d);
                const uint64_t bits = (7ull << 32 | low) * 8 + len * 8;
                const uint64_t number = d.len == 16 ? htole64(bits) : htobe64(bits);
                message += '\x80' + string(119 - len, '\0');
                message.append(reinterpret_cast<const char *>(&number), 8);
                d.init(&d.ctx);
                d.block(message.data(), 128, &d.ctx);
                EXPECT_EQ(got, written(d.len, [&](void *to) { return d.read(&d.ctx, to); }));
            }
    });
}

// A stream by a script: a number delivers so many bytes, -1 fails one read.
using tSource = std::pair<std::vector<int>, string>;

static ssize_t read_source(void *cookie, char *to, size_t len)
{
    auto &[script, delivered] = *static_cast<tSource *>(cookie);
    const int step = script.empty() ? 0 : script[0];
    const size_t count = std::min(len, static_cast<size_t>(std::max(step, 0)));
    if (!script.empty() && (script[0] -= static_cast<int>(count)) <= 0)
        script.erase(script.begin());
    delivered.append(count, static_cast<char>(delivered.size()));
    delivered.copy(to, count, delivered.size() - count);
    return step < 0 ? -1 : static_cast<ssize_t>(count);
}

TEST(Digests, StreamsThatEndFailAndReadShort)
{
    // A failure that delivered something is not looked at: reading goes on, and only a read that
    // brings nothing finds the mark that the failure left.
    // clang-format off
    const std::pair<std::vector<int>, int> cases[] = {
        {{}, 0}, {{-1}, 1}, {{1, 1, 1}, 0}, {{4095}, 0}, {{4096}, 0}, {{4096, 1}, 0},
        {{4000, 96, 10}, 0}, {{4096, 4096, 4096}, 0}, {{100, -1}, 1}, {{4096, -1}, 1},
        {{100, -1, 50}, 0}, {{4095, -1, 1, 1}, 0}, {{100, -1, 3996}, 1}};
    // clang-format on
    each([&](const auto &d) {
        for (const auto &c : cases) {
            const int failed = c.second;
            tSource source = {c.first, ""};
            FILE *const stream =
                fopencookie(&source, "r", {read_source, nullptr, nullptr, nullptr});
            setvbuf(stream, nullptr, _IONBF, 0);
            const string got = written(failed ? 0 : d.len, [&](void *to) {
                EXPECT_EQ(d.stream(stream, to), failed);
                return to;
            });
            EXPECT_EQ(got, failed ? "" : one_call(d, source.second));
            fclose(stream);
        }
    });
}
