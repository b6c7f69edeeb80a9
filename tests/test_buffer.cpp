// SPDX-License-Identifier: MIT
#include "calls.h"
#include "support.h"

#include <array>
#include <climits>
#include <common/buffer.h>
#include <common/self_log.h>
#include <endian.h>

eLogLevl gLogLevl = LOG_LEV_ERROR;

static std::string _big(uint64_t v, size_t bytes)
{
    v = htobe64(v);
    return {reinterpret_cast<char *>(&v) + 8 - bytes, bytes};
}

// What a buffer should be.
struct tModel {
    buffer_t *b;
    size_t size;
    std::string data;
};

// Whether there is room for `need` bytes, after growth where that can be had.
static bool _fits(tModel &m, size_t need, bool grows)
{
    if (m.size < need && grows)
        m.size = need / 512 * 512 + 512;
    return m.size >= need;
}

// Random operations on three buffers; in every other run their storage ends at a wall, where it can
// neither grow nor be left.
TEST(Buffer, RandomOperations)
{
    std::mt19937 rng(1);
    const int sizes[] = {1, 64, 301};
    char *from = wall(), *ends[] = {wall(), wall(), wall()};
    tModel all[3];
    buffer_t fixed[3];
    for (unsigned i = 0; i < 80000; i++) {
        const bool atWall = i / 200 % 2, grows = !atWall && rng() % 4 != 0;
        for (size_t k = 0; k < 3 && i % 200 == 0; k++) {
            buffer_free(atWall ? all[k].b : nullptr); // those of the run before
            fixed[k] = {ends[k] - sizes[k], sizes[k], 0};
            all[k] = {atWall ? &fixed[k] : buffer_init(0), atWall ? size_t(sizes[k]) : 64, ""};
        }
        tModel &d = all[rng() % 3], &s = all[rng() % 3];
        const size_t used = d.data.size(), room = d.size - used;
        const size_t n = std::array<size_t, 4>{rng() % 150, 0, used, used + 1}[rng() % 4];
        const std::string bytes = noise(rng() % 150, i);
        const auto len = uint32(bytes.size());
        char *src = static_cast<char *>(memcpy(from - len, bytes.data(), len)), *got = nullptr;
        buffer_t *const to = rng() % 50 ? d.b : nullptr, *const by = rng() % 50 ? s.b : nullptr;
        const bool valid = n <= used, filled = by && !s.data.empty();
        const uint64_t v = uint64_t{rng()} << 32 | rng();
        if (room > 0)
            d.b->ptr[used] = 'x'; // gives away who writes behind the data

#define CALL(call) #call, [&] { call; }
        const struct {
            std::string name;
            std::function<void()> call;
            std::string wanted;   // the data after it
            bool possible = true; // else nothing may happen
            size_t first = 0;     // room that must be had before
        } cases[] = {
            {CALL(write_string(to, src, len)), d.data + _big(len, 4) + bytes, true, used + 5},
            {CALL(_write_ex(to, src, len)), d.data + bytes},
            {CALL(write_bytes(to, src, len)), d.data + bytes},
            {CALL(write_uint8(to, uint8(v))), d.data + _big(v, 1)},
            {CALL(write_uint16(to, uint16(v))), d.data + _big(v, 2)},
            {CALL(write_uint32(to, uint32(v))), d.data + _big(v, 4)},
            {CALL(write_uint64(to, v)), d.data + _big(v, 8)},
            {CALL(buffer_append(to, by)), d.data + s.data, filled},
            {CALL(buffer_copy(to, by)), s.data, filled},
            {CALL(buffer_shift(to, int(n))), d.data.substr(valid ? n : 0), valid && n + room > 0},
            {CALL(buffer_reset(to)), ""},
            {CALL(got = buffer_calloc(d.b, int(n))), d.data + std::string(n, 0), n < room}};
        const auto &c = cases[rng() % std::size(cases)];
        calls_watch(grows ? nullptr : calls_fail("realloc", 0, ENOMEM));
        c.call();
        calls_stop();
        const bool done = c.possible && (to || got) && _fits(d, c.first, grows) &&
                          _fits(d, c.wanted.size() + 1, grows);
        d.data = done ? c.wanted : d.data;

        bool right = !got || (done && got == d.b->ptr + used);
        if (d.data.size() < d.size && !got)
            right &= d.b->ptr[d.data.size()] == (done ? 0 : 'x');
        size_t held = 0;
        for (const tModel &m : all) {
            held += atWall ? 0 : m.size + sizeof(buffer_t);
            right &= size_t(m.b->size) == m.size;
            right &= std::string(m.b->ptr, size_t(m.b->used)) == m.data;
        }
        if (!right || buffer_memory != held)
            FAIL() << c.name << ", call " << i << ", with " << used << " bytes in " << d.b->size;
    }
}

TEST(Buffer, Capacities)
{
    // To make, to expand to, what comes of it, and whether the allocator is asked for the latter.
    const int cases[][4] = {
        {0, 512, 1024, 1},   {63, 64, 64, 0},           {64, INT_MIN, 128, 0},
        {-1, 0, 0, 0},       {INT_MIN, 0, 0, 0},        {INT_MAX - 63, 0, 0, 0},
        {0, INT_MAX, 64, 0}, {0, INT_MAX - 511, 64, 0}, {0, INT_MAX - 512, 64, 1}};
    for (const auto &[init, expand, size, asked] : cases) {
        SCOPED_TRACE(testing::Message() << "buffer_init " << init << ", buffer_expand " << expand);
        buffer_t *b = buffer_init(init);
        calls_watch(expand > 1000 ? calls_fail("realloc", 1, ENOMEM) : nullptr);
        buffer_expand(b, expand);
        EXPECT_EQ(b ? b->size : 0, size);
        EXPECT_EQ(calls_count("realloc"), unsigned(asked));
        buffer_memory = asked ? 0 : buffer_memory / 2; // as if all of it were lost, or half
        buffer_free(b);
        EXPECT_EQ(buffer_memory, 0u) << "wrapped";
    }
    for (unsigned nth : {1u, 2u}) {
        calls_watch(calls_fail("calloc", nth, ENOMEM));
        EXPECT_EQ(buffer_init(10), nullptr);
        EXPECT_EQ(calls_count("free"), nth - 1);
    }
    calls_stop();
    EXPECT_EQ(buffer_memory, 0u);
}

// Of buffers with room for a length alone, and nearly as large as can be.
TEST(Buffer, Refusals)
{
    char text[16] = "0123456789";
    buffer_t src{text, 16, 10}, gap{nullptr, 0, 10}, full{wall(), INT_MAX, INT_MAX - 1};
    calls_watch();
    for (buffer_t *b : {&src, &full}) {
        const buffer_t was = *b;
        for (uint32 l : {UINT32_MAX, UINT32_MAX - 3, UINT32_MAX - 10, uint32{INT_MAX}})
            write_string(b, text, l);
        buffer_append(&full, &src);
        for (const auto call : {buffer_append, buffer_copy}) {
            call(b, &gap);
            call(&gap, b);
        }
        buffer_shift(b, INT_MIN);
        EXPECT_EQ(buffer_calloc(b, INT_MAX), nullptr);
        EXPECT_EQ(buffer_calloc(b, INT_MIN), nullptr);
        EXPECT_EQ(memcmp(b, &was, sizeof was), 0) << "changed";
    }
    buffer_t brim{wall() - 4, 4, 4};
    buffer_shift(&brim, 0); // has no byte left for a 0
    EXPECT_EQ(read_buffer(0, &src), -1);
    EXPECT_EQ(read_buffer(1, nullptr), -1);
    calls_stop();
    EXPECT_TRUE(calls_seen().empty());
    EXPECT_STREQ(text, "0123456789");
}

TEST(Buffer, ReadBuffer)
{
    // What fails and how; bytes held and waiting (-1: a file, its position behind its end); then
    // the result, the capacity and what is printed.
    const struct {
        const char *fails;
        int err, used, waiting, result, size;
        const char *says;
    } cases[] = {{"ioctl", EAGAIN, 0, 3, 0, 64, ""},
                 {"ioctl", EINTR, 0, 3, 0, 64, ""},
                 {"ioctl", EIO, 0, 3, -1, 64, ""},
                 {"read", EAGAIN, 0, 3, 0, 64, ""},
                 {"read", EINTR, 0, 3, 0, 64, ""},
                 {"read", EIO, 0, 3, -1, 64, "toread:3 ret:-1, msg:"},
                 {"realloc", ENOMEM, 64, 3, -1, 64, "toread:0 ret:0, msg:"},
                 {"realloc", ENOMEM, 62, 3, 2, 64, ""},
                 {"", EDOM, 61, 3, 3, 64, ""}, // an exact fit asks for nothing
                 {"", EDOM, 62, 3, 3, 512, ""},
                 {"", EDOM, 64, 446, 446, 512, ""},
                 {"", EDOM, 64, 447, 447, 1024, ""},
                 {"", EDOM, 0, 0, -1, 64, "toread:1 ret:0, msg:"},
                 {"", EDOM, 0, -1, -1, 64, "toread:1 ret:0, msg:"}};
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.fails << " fails with " << c.err << ", " << c.used
                                        << " bytes held, " << c.waiting << " waiting");
        int ends[2];
        std::string bytes = noise(size_t(std::max(c.waiting, 0)));
        ASSERT_EQ(pipe(ends), 0);
        ASSERT_EQ(write(ends[1], bytes.data(), bytes.size()), ssize_t(bytes.size()));
        close(ends[1]);
        if (c.waiting < 0)
            lseek(ends[0] = fileno(tmpfile()), 100, SEEK_SET);
        buffer_t *b = buffer_init(0);
        b->used = c.used;
        calls_watch(calls_fail(c.fails, 0, c.err));
        const std::string said = output_of([&] {
            errno = EDOM;
            EXPECT_EQ(read_buffer(ends[0], b), c.result);
        });
        calls_stop();
        EXPECT_EQ(b->size, c.size);
        EXPECT_EQ(said, *c.says ? std::string(c.says) + strerror(c.err) + "\n" : "");
        EXPECT_EQ(calls_count("read"), c.fails == std::string("ioctl") ? 0u : 1u);
        bytes.resize(size_t(std::max(c.result, 0)));
        EXPECT_EQ(std::string(b->ptr + c.used, size_t(b->used - c.used)), bytes);
        buffer_free(b);
    }
}

TEST(Buffer, ByteOrder)
{
    // As a little-endian processor sees it; all of ours are.
    EXPECT_EQ(TO_WLE(0x12f4), 0x12f4u);
    EXPECT_EQ(TO_WBE(0x12f4), 0xf412u);
    EXPECT_EQ(TO_DWLE(0xf1223384), 0xf1223384u);
    EXPECT_EQ(TO_DWBE(0xf1223384), 0x843322f1u);
    EXPECT_EQ(TO_QWLE(0xf102030405060788), 0xf102030405060788u);
    EXPECT_EQ(TO_QWBE(0xf102030405060788), 0x88070605040302f1u);
}

TEST(Buffer, ThreadsShareTheCounter)
{
    const auto churn = [] {
        for (int i = 0; i < 50000; i++)
            buffer_free(buffer_init(i % 200));
    };
    std::thread other(churn);
    churn();
    other.join();
    EXPECT_EQ(buffer_memory, 0u);
}
