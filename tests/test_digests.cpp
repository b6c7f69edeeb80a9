// SPDX-License-Identifier: MIT
#include <common/md5.h>
#include <common/sha256.h>

#include "support.h"

#include <endian.h>

template <typename tCtx> struct tDigest {
    size_t len;
    const char *ofAll; // see PiecesMakeTheWhole
    decltype(&md5_buffer) buffer;
    decltype(&md5_stream) stream;
    void (*init)(tCtx *);
    void (*bytes)(const void *, size_t, tCtx *);
    void *(*finish)(tCtx *, void *);
    tCtx ctx = {};
};

// Runs a test for each of the three digests.
template <typename tTest> static void each(tTest body)
{
    const auto test = [&](auto digest) {
        SCOPED_TRACE(digest.len);
        body(digest);
    };
#define DIGEST(len, ofAll, name, core)                                                             \
    tDigest<core##_ctx>{len,                                                                       \
                        ofAll,                                                                     \
                        name##_buffer,                                                             \
                        name##_stream,                                                             \
                        name##_init_ctx,                                                           \
                        core##_process_bytes,                                                      \
                        name##_finish_ctx}
    test(DIGEST(16, "f15455c22a92c53fbd2d3b746318f3d8", md5, md5));
    test(DIGEST(28, "fbbed95aabe092b8f772ba9e7db9c85946d2036588ab2b5f1c425a35", sha224, sha256));
    test(DIGEST(32, "d3a94d826e0076ef1bfb6b78fab6921e233a634fa874bb367f67d3eaecccf546", sha256,
                sha256));
}

// The `len` bytes that `write` writes to an odd address, in hexadecimal. It must return the address
// and write no more.
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

// Messages of all lengths, in pieces of all sizes, at all alignments. The digest of the first 300
// digests was computed with OpenSSL.
TEST(Digests, PiecesMakeTheWhole)
{
    each([](auto d) {
        string all;
        for (size_t len = 0; len < 3000; len += len < 300 ? 1 : 97) {
            const string message = noise(len), wanted = one_call(d, message);
            if (len < 300)
                all += wanted;
            for (size_t piece = 1; piece <= 129; ++piece) {
                const string room = string((len + piece) % 4, ' ') + message;
                memset(&d.ctx, 0xaa, sizeof(d.ctx));
                d.init(&d.ctx);
                for (size_t i = 0; i < len; i += piece)
                    d.bytes(&room[(len + piece) % 4 + i], std::min(piece, len - i), &d.ctx);
                ASSERT_EQ(wanted, finished(d)) << len << " bytes by " << piece;
            }
        }
        EXPECT_EQ(d.ofAll, one_call(d, all));
    });
}

// The byte count carries into its high word; the last block ends with the count in bits.
TEST(Digests, TheCountHas64Bits)
{
    each([](auto d) {
        for (const uint32_t low : {0xffffffc0U, 0xa0000000U}) {
            d.init(&d.ctx);
            d.ctx.total[0] = low;
            d.bytes(noise(74).data(), 74, &d.ctx);
            (void)finished(d);
            uint64_t bits;
            memcpy(&bits, &d.ctx.buffer[14], sizeof bits);
            EXPECT_EQ((low + uint64_t{74}) * 8, d.len == 16 ? le64toh(bits) : be64toh(bits));
        }
    });
}

// A scripted stream: a number delivers as many bytes, -1 fails one read.
using tScript = vector<int>;

static ssize_t read_script(void *cookie, char *to, size_t len)
{
    auto &script = *static_cast<tScript *>(cookie);
    if (script.empty())
        return 0;
    const int step = std::min(script[0], static_cast<int>(len));
    script[0] -= step;
    if (script[0] <= 0)
        script.erase(script.begin());
    memset(to, 'x', static_cast<size_t>(std::max(step, 0)));
    return step;
}

TEST(Digests, StreamsThatEndFailAndReadShort)
{
    // The script, and how many bytes are hashed; -1: the call fails. After a failed read that
    // delivered bytes, reading continues. Only a read without any bytes looks at the error mark.
    const std::pair<tScript, int> cases[] = {
        {{}, 0},    {{1, 1, 1}, 3},   {{4000, 96, 10}, 4106}, {{4096, 4096}, 8192},
        {{-1}, -1}, {{4096, -1}, -1}, {{100, -1, 50}, 150},   {{100, -1, 3996}, -1}};
    each([&](const auto &d) {
        for (auto [script, length] : cases) {
            FILE *stream = fopencookie(&script, "r", {read_script, nullptr, nullptr, nullptr});
            setvbuf(stream, nullptr, _IONBF, 0);
            const bool failed = length < 0;
            const string got = written(failed ? 0 : d.len, [&](void *to) {
                EXPECT_EQ(failed, d.stream(stream, to));
                return to;
            });
            EXPECT_EQ(failed ? "" : one_call(d, string(static_cast<size_t>(length), 'x')), got);
            fclose(stream);
        }
    });
}
