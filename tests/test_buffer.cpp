// SPDX-License-Identifier: MIT
#include "calls.h"

#include <array>
#include <climits>
#include <common/buffer.h>
#include <common/self_log.h>
#include <cstring>
#include <endian.h>
#include <future>
#include <gtest/gtest.h>
#include <random>
#include <sys/mman.h>
#include <unistd.h>

eLogLevl gLogLevl = LOG_LEV_ERROR;

namespace
{
// Behind a page of storage: one byte further is a crash.
char *_wall()
{
    auto page = size_t(sysconf(_SC_PAGESIZE));
    void *at = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    EXPECT_EQ(mprotect(static_cast<char *>(at) + page, page, PROT_NONE), 0);
    return static_cast<char *>(at) + page;
}

std::string _big(uint64_t v, size_t bytes)
{
    char out[9];
    v = htobe64(v);
    memcpy(out, &v, 8);
    return {out + 8 - bytes, bytes};
}

// What a buffer should be.
struct tModel {
    buffer_t *b;
    size_t size;
    std::string data;
};

bool _fit(tModel &m, size_t need, bool grows)
{
    if (m.size < need && grows)
        m.size = need / 512 * 512 + 512;
    return m.size >= need;
}

// Random operations on three buffers; at the wall their storage can neither grow nor be left.
void _run_model(bool atWall)
{
    std::mt19937 rng(atWall);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    char *from = _wall(), rest[10000];
    std::string noise(std::size(rest), 0);
    for (char &c : noise)
        c = char(rng());
    buffer_t fixed[] = {{_wall() - 1, 1, 0}, {_wall() - 64, 64, 0}, {_wall() - 301, 301, 0}};
    tModel all[] = {{fixed, 1, ""}, {fixed + 1, 64, ""}, {fixed + 2, 301, ""}};
    for (tModel &m : all)
        m = atWall ? m : tModel{buffer_init(0), 64, ""};
    for (int i = 0; i < 50000; i++) {
        tModel &d = all[rng() % 3], &s = all[rng() % 3];
        size_t used = d.data.size(), room = d.size - used, held = 0;
        std::string bytes = noise.substr(rng() % 9000, rng() % 150);
        auto len = uint32(bytes.size());
        char *src = static_cast<char *>(memcpy(from - len, bytes.data(), len));
        uint64_t v = uint64_t{rng()} << 32 | rng();
        int op = used > 1000 ? 10 : int(rng() % 16), n = int(rng() % 152) - 1;
        bool grows = !atWall && rng() % 4 != 0, ended = false;
        if (room > 0)
            d.b->ptr[used] = 'x'; // gives away who writes behind the data
        calls_watch(grows ? nullptr : calls_fail("realloc", 0, ENOMEM));
        const std::function<std::string()> appending[] = {
            [&] { return write_string(d.b, src, len), _big(len, 4) + bytes; },
            [&] { return buffer_append(d.b, s.b), s.data; },
            [&] { return _write_ex(d.b, src, len), bytes; },
            [&] { return write_bytes(d.b, src, len), bytes; },
            [&] { return write_uint8(d.b, uint8(v)), _big(v, 1); },
            [&] { return write_uint16(d.b, uint16(v)), _big(v, 2); },
            [&] { return write_uint32(d.b, uint32(v)), _big(v, 4); },
            [&] { return write_uint64(d.b, v), _big(v, 8); }};
        if (op < 8) {
            std::string more = appending[op]();
            // A string grows in two steps, but is written whole or not at all.
            ended = op == 0 ? _fit(d, used + 5, grows) : op != 1 || !more.empty();
            ended = ended && _fit(d, used + more.size() + 1, grows);
            d.data += ended ? more : "";
        } else if (op == 8) {
            buffer_copy(d.b, s.b);
            ended = !s.data.empty() && _fit(d, s.data.size() + 1, grows);
            d.data = ended ? s.data : d.data;
        } else if (op == 9) {
            char *got = buffer_calloc(d.b, n);
            ASSERT_EQ(got, n >= 0 && size_t(n) < room ? d.b->ptr + used : nullptr);
            d.data.append(got ? size_t(n) : 0, 0);
        } else if (op < 13) {
            n = std::array{n, n, 0, int(used), int(used) + 1}[rng() % 5];
            buffer_shift(d.b, n);
            ended = n >= 0 && size_t(n) <= used && (n > 0 || room > 0);
            d.data.erase(0, ended ? size_t(n) : 0);
        } else if (op == 13 && room > 0) {
            bytes = noise.substr(rng() % 9, i % 2 ? len + 1 : room); // often just what is free
            ASSERT_EQ(write(ends[1], bytes.data(), bytes.size()), ssize_t(bytes.size()));
            if (bytes.size() > room && !_fit(d, used + bytes.size() + 1, grows))
                bytes.erase(0, size_t(read(ends[0], rest, bytes.size() - room)));
            ASSERT_EQ(read_buffer(ends[0], d.b), int(bytes.size()));
            d.data += bytes;
        } else if (op == 14 && i % 8 == 0) {
            buffer_reset(d.b);
            d.data = "";
            ASSERT_EQ(std::string(d.b->ptr, d.size), std::string(d.size, 0));
        } else if (op == 15 && i % 8 == 0 && !atWall) {
            buffer_free(d.b);
            d = {buffer_init(int(len)), len / 64 * 64 + 64, ""};
        }
        calls_stop();
        bool same = op < 14 && used == d.data.size() && room > 0;
        ASSERT_TRUE(!ended || d.b->ptr[d.b->used] == 0) << "no end after operation " << op;
        ASSERT_TRUE(ended || !same || d.b->ptr[used] == 'x') << "not left alone by " << op;
        for (const tModel &m : all) {
            held += atWall ? 0 : m.size + sizeof(buffer_t);
            ASSERT_EQ(size_t(m.b->size), m.size) << "after operation " << op;
            ASSERT_EQ(std::string(m.b->ptr, size_t(m.b->used)), m.data) << "after " << op;
        }
        ASSERT_EQ(buffer_memory, held);
    }
    for (tModel &m : all)
        buffer_free(atWall ? nullptr : m.b);
}

TEST(buffer, models)
{
    _run_model(false);
    _run_model(true);
}

TEST(buffer, capacities)
{
    // To make, to expand to, what comes of it, and whether the allocator is asked for the latter.
    const int cases[][4] = {
        {0, 512, 1024, 1},   {63, 64, 64, 0},           {64, INT_MIN, 128, 0},
        {-1, 0, 0, 0},       {INT_MIN, 0, 0, 0},        {INT_MAX - 63, 0, 0, 0},
        {0, INT_MAX, 64, 0}, {0, INT_MAX - 511, 64, 0}, {0, INT_MAX - 512, 64, 1}};
    for (auto [init, expand, size, asked] : cases) {
        buffer_t *b = buffer_init(init);
        calls_watch(expand > 1000 ? calls_fail("realloc", 1, ENOMEM) : nullptr);
        buffer_expand(b, expand);
        EXPECT_EQ(b ? b->size : 0, size) << init << " " << expand;
        EXPECT_EQ(calls_count("realloc"), unsigned(asked)) << expand;
        buffer_free(b);
    }
    for (unsigned nth : {1u, 2u}) {
        calls_watch(calls_fail("calloc", nth, ENOMEM));
        EXPECT_TRUE(!buffer_init(10) && calls_count("free") == nth - 1 && buffer_memory == 0);
    }
    calls_stop();
    buffer_t *b = buffer_init(0);
    buffer_memory = 5;
    buffer_free(b);
    EXPECT_EQ(buffer_memory, 0u) << "wrapped";
}

TEST(buffer, refusals)
{
    // Room for a length alone; nearly as large as can be; none.
    char text[16] = "0123456789";
    buffer_t src{text, 16, 10}, gap{nullptr, 0, 10}, full{_wall(), INT_MAX, INT_MAX - 1};
    buffer_t *none = nullptr;
    calls_watch();
    for (buffer_t *b : {&src, &full, none}) {
        const buffer_t was = b ? *b : gap;
        for (uint32 l : {UINT32_MAX, UINT32_MAX - 3, UINT32_MAX - 10, uint32{INT_MAX}})
            write_string(b, text, l);
        write_uint64(b == &src ? none : b, 1);
        for (buffer_t *other : {b == &src ? &gap : &src, &gap, none})
            buffer_append(b, other);
        buffer_copy(b, &gap);
        buffer_copy(none, b);
        buffer_shift(b, INT_MIN);
        EXPECT_EQ(read_buffer(b ? 0 : 1, b), -1);
        EXPECT_TRUE(!b || (!buffer_calloc(b, INT_MAX) && !buffer_calloc(b, INT_MIN)));
        EXPECT_TRUE(!b || memcmp(b, &was, sizeof was) == 0);
    }
    calls_stop();
    EXPECT_TRUE(calls_seen().empty() && gap.ptr == nullptr && text[10] == 0);
}

TEST(buffer, read_buffer_results)
{
    auto says = [](const char *head, int err) { return std::string(head) + strerror(err) + "\n"; };
    const struct {
        std::string fails;
        int err, used, waiting, result; // waiting -1: a file whose position is behind its end
        std::string says;
    } cases[] = {{"ioctl", EAGAIN, 0, 3, 0, ""},
                 {"ioctl", EINTR, 0, 3, 0, ""},
                 {"ioctl", EIO, 0, 3, -1, ""},
                 {"read", EAGAIN, 0, 3, 0, ""},
                 {"read", EINTR, 0, 3, 0, ""},
                 {"read", EIO, 0, 3, -1, says("toread:3 ret:-1, msg:", EIO)},
                 {"realloc", ENOMEM, 64, 3, -1, says("toread:0 ret:0, msg:", ENOMEM)},
                 {"realloc", ENOMEM, 61, 3, 3, ""}, // an exact fit asks for nothing
                 {"", 0, 0, 0, -1, says("toread:1 ret:0, msg:", EDOM)},
                 {"", 0, 0, -1, -1, says("toread:1 ret:0, msg:", EDOM)}};
    for (auto &c : cases) {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        ASSERT_GE(write(ends[1], "abc", size_t(std::max(c.waiting, 0))), 0);
        close(ends[1]);
        if (c.waiting < 0 && lseek(ends[0] = fileno(tmpfile()), 100, SEEK_SET) != 100)
            FAIL();
        char storage[64];
        buffer_t b{storage, 64, c.used};
        testing::internal::CaptureStdout();
        calls_watch(calls_fail(c.fails, 0, c.err));
        errno = EDOM;
        EXPECT_EQ(read_buffer(ends[0], &b), c.result) << c.fails << c.err << " " << c.used;
        calls_stop();
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.says);
        EXPECT_EQ(calls_count("read"), c.fails == "ioctl" ? 0u : 1u);
    }
}

TEST(buffer, byte_order)
{
    // As a little-endian processor sees it; all of ours are.
    EXPECT_TRUE(TO_WLE(0x12f4) == 0x12f4 && TO_WBE(0x12f4) == 0xf412);
    EXPECT_TRUE(TO_DWLE(0xf1223384) == 0xf1223384 && TO_DWBE(0xf1223384) == 0x843322f1);
    EXPECT_EQ(TO_QWLE(0xf102030405060788), 0xf102030405060788u);
    EXPECT_EQ(TO_QWBE(0xf102030405060788), 0x88070605040302f1u);
}

TEST(buffer, threads_share_the_counter)
{
    auto churn = [] {
        for (int i = 0; i < 20000; i++) {
            buffer_t *b = buffer_init(i % 200);
            buffer_expand(b, i);
            buffer_free(b);
        }
    };
    auto others = {std::async(std::launch::async, churn), std::async(std::launch::async, churn)};
    for (auto &other : others)
        other.wait();
    EXPECT_EQ(buffer_memory, 0u);
}
} // namespace
