// SPDX-License-Identifier: MIT
#include <common/md5.h>
#include <common/self_log.h>
#include <common/sha256.h>

#include "support.h"

#include <endian.h>

eLogLevl gLogLevl = LOG_LEV_ERROR;

using std::string;

template <typename tCtx> struct tDigest {
    const char *name;
    size_t len;
    const char *ofAbc; // see PublishedVectors
    const char *ofAll;
    decltype(&md5_buffer) buffer;
    decltype(&md5_stream) stream;
    void (*init)(tCtx *);
    void (*bytes)(const void *, size_t, tCtx *);
    void *(*finish)(tCtx *, void *);
    tCtx ctx;
};

// Runs a test on each of the three.
template <typename tTest> static void each(tTest body)
{
    const auto test = [&](auto digest) {
        SCOPED_TRACE(digest.name);
        body(digest);
    };
#define DIGEST(name, len, family, ofAbc, ofAll)                                                    \
    test(tDigest<family##_ctx>{#name,                                                              \
                               len,                                                                \
                               ofAbc,                                                              \
                               ofAll,                                                              \
                               name##_buffer,                                                      \
                               name##_stream,                                                      \
                               name##_init_ctx,                                                    \
                               family##_process_bytes,                                             \
                               name##_finish_ctx,                                                  \
                               {}})
    DIGEST(md5, 16, md5, "900150983cd24fb0d6963f7d28e17f72", "f15455c22a92c53fbd2d3b746318f3d8");
    DIGEST(sha224, 28, sha256, "23097d223405d8228642a477bda255b32aadbce4bda0b3f7e36c9da7",
           "fbbed95aabe092b8f772ba9e7db9c85946d2036588ab2b5f1c425a35");
    DIGEST(sha256, 32, sha256, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad",
           "d3a94d826e0076ef1bfb6b78fab6921e233a634fa874bb367f67d3eaecccf546");
}

// What `write` leaves at the odd address that it gets and gives back, in hexadecimal: `len` bytes,
// not one more.
template <typename tWrite> static string written(size_t len, tWrite write)
{
    string room(42, '\0'), digits;
    EXPECT_EQ(&room[1], write(&room[1]));
    EXPECT_EQ(string::npos, room.find_first_not_of('\0', len + 1));
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

// The vector that the standards give, and one by OpenSSL: of the digests of messages of each
// length.
TEST(Digests, PublishedVectors)
{
    each([](const auto &d) {
        string all;
        for (size_t len = 0; len < 300; ++len)
            all += one_call(d, noise(len));
        EXPECT_EQ(d.ofAbc, one_call(d, "abc"));
        EXPECT_EQ(d.ofAll, one_call(d, all));
    });
}

// Messages of every length, in pieces of every size, at every address.
TEST(Digests, PiecesMakeTheWhole)
{
    each([](auto d) {
        for (size_t len = 0; len < 3000; len += len < 300 ? 1 : 97) {
            const string message = noise(len), wanted = one_call(d, message);
            for (size_t piece = 1; piece <= 129; ++piece) {
                const string room = string((len + piece) % 4, ' ') + message;
                memset(&d.ctx, 0xaa, sizeof(d.ctx));
                d.init(&d.ctx);
                for (size_t i = 0, pending = 0; i < len; i += piece) {
                    const size_t part = std::min(piece, len - i), sum = pending + part;
                    d.bytes(&room[(len + piece) % 4 + i], part, &d.ctx);
                    // A block that the pending bytes are filled up to exactly waits.
                    pending = pending && sum == 64 ? 64 : sum % 64;
                    ASSERT_EQ(pending, d.ctx.buflen);
                    ASSERT_EQ(i + part - pending, d.ctx.total[0]);
                }
                ASSERT_EQ(wanted, finished(d)) << len << " bytes by " << piece;
            }
        }
    });
}

// The count of bytes carries into its high word; in bits it ends the last block.
TEST(Digests, TheCountHas64Bits)
{
    each([](auto d) {
        for (const uint32_t low : {0xffffffc0U, 0xa0000000U})
            for (const size_t len : {64U, 74U}) {
                d.init(&d.ctx);
                d.ctx.total[0] = low;
                d.bytes(noise(len).data(), 2, &d.ctx);
                d.bytes(noise(len).data(), len - 2, &d.ctx);
                (void)finished(d);
                uint64_t bits;
                memcpy(&bits, &d.ctx.buffer[len == 64 ? 30 : 14], sizeof bits);
                EXPECT_EQ((low + uint64_t{len}) * 8, d.len == 16 ? le64toh(bits) : be64toh(bits));
            }
    });
}

// A stream by a script: a number delivers so many bytes, -1 fails one read.
using tSource = std::pair<std::vector<int>, string>;

static ssize_t read_source(void *cookie, char *to, size_t len)
{
    auto &[script, delivered] = *static_cast<tSource *>(cookie);
    if (script.empty())
        return 0;
    const int step = std::min(script[0], static_cast<int>(len));
    script[0] -= step;
    if (script[0] <= 0)
        script.erase(script.begin());
    if (step > 0) {
        memset(to, static_cast<int>(delivered.size()), static_cast<size_t>(step));
        delivered.append(to, static_cast<size_t>(step));
    }
    return step;
}

TEST(Digests, StreamsThatEndFailAndReadShort)
{
    // A failure that delivered something is not looked at: reading goes on, and only a read that
    // brings nothing finds the mark that the failure left.
    const std::pair<std::vector<int>, int> cases[] = {{{}, 0},
                                                      {{-1}, 1},
                                                      {{1, 1, 1}, 0},
                                                      {{4095}, 0},
                                                      {{4096}, 0},
                                                      {{4096, 1}, 0},
                                                      {{4000, 96, 10}, 0},
                                                      {{4096, 4096, 4096}, 0},
                                                      {{100, -1}, 1},
                                                      {{4096, -1}, 1},
                                                      {{100, -1, 50}, 0},
                                                      {{4095, -1, 1, 1}, 0},
                                                      {{100, -1, 3996}, 1}};
    each([&](const auto &d) {
        for (const auto &c : cases) {
            const int failed = c.second;
            tSource source = {c.first, ""};
            FILE *const stream =
                fopencookie(&source, "r", {read_source, nullptr, nullptr, nullptr});
            setvbuf(stream, nullptr, _IONBF, 0);
            const string got = written(failed ? 0 : d.len, [&](void *to) {
                EXPECT_EQ(failed, d.stream(stream, to));
                return to;
            });
            EXPECT_EQ(failed ? "" : one_call(d, source.second), got);
            fclose(stream);
        }
    });
}
