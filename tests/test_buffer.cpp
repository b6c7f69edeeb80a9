// SPDX-License-Identifier: MIT
#include <common/buffer.h>
#include <common/self_log.h>

#include "calls.h"
#include "support.h"

#include <climits>
#include <endian.h>

eLogLevl gLogLevl = LOG_LEV_ERROR;

static std::string big_endian(uint64_t value, size_t bytes)
{
    value = htobe64(value);
    return {reinterpret_cast<char *>(&value) + 8 - bytes, bytes};
}

// A buffer, and what it should be.
struct tModel {
    buffer_t *b = nullptr;
    size_t size = 0;
    std::string data;

    // Whether there is room for so many bytes, perhaps after growth.
    bool fits(size_t need, bool grows)
    {
        if (size < need && grows)
            size = need / 512 * 512 + 512;
        return size >= need;
    }
};

TEST(Buffer, RandomOperations)
{
    std::mt19937 rng(1);
    tModel all[2];
    for (unsigned i = 0; i < 60000; ++i) {
        for (tModel &m : all)
            if (i % 200 == 0) {
                buffer_free(m.b);
                m = {buffer_init(0), 64, ""};
            }
        tModel &d = all[rng() % 2];
        tModel &s = all[rng() % 2];
        const bool grows = rng() % 4 != 0;
        const size_t used = d.data.size();
        const size_t n = rng() % (used + 2);
        std::string text = noise(rng() % 150, i);
        const auto len = static_cast<uint32>(text.size());
        buffer_t *to = rng() % 50 ? d.b : nullptr;
        buffer_t *from = rng() % 50 ? s.b : nullptr;
        const bool filled = from != nullptr && !s.data.empty();
        const uint64_t v = uint64_t{rng()} << 32 | rng();
        char *got = nullptr;
        if (used < d.size)
            d.b->ptr[used] = 'x'; // must become a 0 with every change

#define CALL(call) #call, [&] { call; }
        const struct {
            std::string name;
            std::function<void()> call;
            std::string wanted;   // the data after it
            bool possible = true; // else nothing may happen
            size_t first = 0;     // a growth before the one for all of it
        } cases[] = {{CALL(write_string(to, &text[0], len)), d.data + big_endian(len, 4) + text,
                      true, used + 5},
                     {CALL(_write_ex(to, &text[0], len)), d.data + text},
                     {CALL(write_bytes(to, &text[0], len)), d.data + text},
                     {CALL(write_uint8(to, static_cast<uint8>(v))), d.data + big_endian(v, 1)},
                     {CALL(write_uint16(to, static_cast<uint16>(v))), d.data + big_endian(v, 2)},
                     {CALL(write_uint32(to, static_cast<uint32>(v))), d.data + big_endian(v, 4)},
                     {CALL(write_uint64(to, v)), d.data + big_endian(v, 8)},
                     {CALL(buffer_append(to, from)), d.data + s.data, filled},
                     {CALL(buffer_copy(to, from)), s.data, filled},
                     {CALL(buffer_shift(to, static_cast<int>(n))), d.data.substr(std::min(n, used)),
                      n <= used},
                     {CALL(buffer_reset(to)), ""},
                     {CALL(got = buffer_calloc(d.b, static_cast<int>(n))),
                      d.data + std::string(n, 0), n < d.size - used}};
        const auto &c = cases[rng() % std::size(cases)];
        calls_watch(grows ? nullptr : calls_fail("realloc", 0, ENOMEM));
        c.call();
        calls_stop();
        const bool done = c.possible && (to != nullptr || got != nullptr) &&
                          d.fits(c.first, grows) && d.fits(c.wanted.size() + 1, grows);
        SCOPED_TRACE(c.name + " with " + std::to_string(used) + " bytes");
        if (done)
            d.data = c.wanted;
        if (got != nullptr)
            ASSERT_EQ(d.b->ptr + used, got);
        else if (d.data.size() < d.size)
            ASSERT_EQ(done ? 0 : 'x', d.b->ptr[d.data.size()]);
        size_t held = 0;
        for (const tModel &m : all) {
            held += m.size + sizeof(buffer_t);
            ASSERT_EQ(m.size, static_cast<size_t>(m.b->size));
            ASSERT_EQ(m.data, std::string(m.b->ptr, static_cast<size_t>(m.b->used)));
        }
        ASSERT_EQ(held, buffer_memory);
    }
    for (const tModel &m : all)
        buffer_free(m.b);
}

// What is refused leaves the buffer as it was.
TEST(Buffer, Limits)
{
    // To make, to expand to, and the size after the allocator refused to grow it.
    const int sizes[][3] = {{63, 64, 64},    {64, INT_MIN, 128},   {-1, 0, 0},
                            {INT_MIN, 0, 0}, {INT_MAX - 63, 0, 0}, {0, INT_MAX - 511, 64},
                            {0, 513, 64}};
    for (const auto &[init, expand, size] : sizes) {
        SCOPED_TRACE(testing::Message() << "buffer_init " << init << ", buffer_expand " << expand);
        calls_watch(calls_fail("realloc", 0, ENOMEM));
        buffer_t *b = buffer_init(init);
        buffer_expand(b, expand);
        EXPECT_EQ(size, b != nullptr ? b->size : 0);
        EXPECT_EQ(expand == 513 ? 1U : 0U, calls_count("realloc"));
        buffer_memory /= 2; // as if half of it were lost: the counter stops at 0
        buffer_free(b);
        EXPECT_EQ(0U, buffer_memory);
    }
    for (const unsigned nth : {1U, 2U}) {
        calls_watch(calls_fail("calloc", nth, ENOMEM));
        EXPECT_EQ(nullptr, buffer_init(10));
        EXPECT_EQ(nth - 1, calls_count("free"));
    }
    calls_watch();
    char text[16] = "0123456789";
    buffer_t some{text, 16, 10};
    buffer_t noStorage{nullptr, 0, 10};
    buffer_t huge{wall(), INT_MAX, INT_MAX - 1};
    for (buffer_t *b : {&some, &huge}) {
        const buffer_t was = *b;
        for (const uint32 len : {UINT32_MAX, UINT32_MAX - 3, uint32{INT_MAX}})
            write_string(b, text, len);
        buffer_append(&huge, &some);
        for (const auto call : {buffer_append, buffer_copy}) {
            call(b, &noStorage);
            call(&noStorage, b);
        }
        buffer_shift(b, INT_MIN);
        EXPECT_EQ(nullptr, buffer_calloc(b, INT_MAX));
        EXPECT_EQ(nullptr, buffer_calloc(b, INT_MIN));
        EXPECT_EQ(0, memcmp(b, &was, sizeof was)) << "changed";
    }
    buffer_t brim{wall() - 4, 4, 4};
    buffer_shift(&brim, 0); // has no byte left for a 0
    EXPECT_EQ(-1, read_buffer(0, &some));
    EXPECT_EQ(-1, read_buffer(1, nullptr));
    EXPECT_TRUE(calls_seen().empty());
    EXPECT_STREQ("0123456789", text);
}

TEST(Buffer, ReadBuffer)
{
    const std::string atEnd = std::string("toread:1 ret:0, msg:") + strerror(EDOM) + "\n";
    const struct {
        const char *fails;
        int err, used, waiting; // bytes held, and in the pipe
        int result, size;
        std::string says = "";
    } cases[] = {{"ioctl", EAGAIN, 0, 3, 0, 64},
                 {"ioctl", EINTR, 0, 3, 0, 64},
                 {"ioctl", EIO, 0, 3, -1, 64},
                 {"read", EAGAIN, 0, 3, 0, 64},
                 {"read", EINTR, 0, 3, 0, 64},
                 {"read", EIO, 0, 3, -1, 64, "toread:3 ret:-1, msg:Input/output error\n"},
                 {"realloc", ENOMEM, 62, 3, 2, 64},
                 {"", 0, 61, 3, 3, 64}, // an exact fit asks for nothing
                 {"", 0, 62, 3, 3, 512},
                 {"", 0, 64, 447, 447, 1024},
                 {"", 0, 0, 0, -1, 64, atEnd},
                 {"", 0, 0, -1, -1, 64, atEnd}}; // a file, its position behind its end
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.fails << " fails with " << c.err << ", " << c.used
                                        << " bytes held, " << c.waiting << " waiting");
        int ends[2];
        const std::string bytes = noise(447);
        ASSERT_EQ(0, pipe(ends));
        (void)!write(ends[1], bytes.data(), static_cast<size_t>(std::max(c.waiting, 0)));
        close(ends[1]);
        if (c.waiting < 0) {
            ends[0] = fileno(tmpfile());
            lseek(ends[0], 100, SEEK_SET);
        }
        buffer_t *b = buffer_init(0);
        b->used = c.used;
        calls_watch(calls_fail(c.fails, 0, c.err));
        EXPECT_EQ(c.says, output_of([&] {
                      errno = EDOM;
                      EXPECT_EQ(c.result, read_buffer(ends[0], b));
                  }));
        calls_stop();
        const int got = std::max(c.result, 0);
        EXPECT_EQ(c.size, b->size);
        EXPECT_EQ(c.used + got, b->used);
        EXPECT_EQ(0, memcmp(b->ptr + c.used, bytes.data(), static_cast<size_t>(got)));
        buffer_free(b);
    }
}

TEST(Buffer, ByteOrder)
{
    // As a little-endian processor sees it; all of ours are.
    EXPECT_EQ(0x12f4U, TO_WLE(0x12f4));
    EXPECT_EQ(0xf412U, TO_WBE(0x12f4));
    EXPECT_EQ(0xf1223384U, TO_DWLE(0xf1223384));
    EXPECT_EQ(0x843322f1U, TO_DWBE(0xf1223384));
    EXPECT_EQ(0xf102030405060788U, TO_QWLE(0xf102030405060788));
    EXPECT_EQ(0x88070605040302f1U, TO_QWBE(0xf102030405060788));
}

TEST(Buffer, ThreadsShareTheCounter)
{
    in_threads(2, [](int) {
        for (int i = 0; i < 50000; ++i)
            buffer_free(buffer_init(i % 200));
    });
    EXPECT_EQ(0U, buffer_memory);
}
