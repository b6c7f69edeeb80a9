// SPDX-License-Identifier: MIT
#include <common/buffer.h>

#include "calls.h"
#include "support.h"

#include <climits>
#include <endian.h>

static string big_endian(uint64_t value, size_t bytes)
{
    value = htobe64(value);
    return {reinterpret_cast<char *>(&value) + 8 - bytes, bytes};
}

static string data_of(const buffer_t *b)
{
    return {b->ptr, static_cast<size_t>(b->used)};
}

TEST(Buffer, RandomOperations)
{
    std::mt19937 rng(1);
    buffer_t *all[2] = {};
    for (unsigned i = 0; i < 60000; ++i) {
        for (buffer_t *&b : all)
            if (i % 200 == 0) {
                buffer_free(b);
                b = buffer_init(0);
            }
        buffer_t *d = all[rng() % 2];
        buffer_t *s = all[rng() % 2];
        buffer_t *to = rng() % 50 ? d : nullptr;
        buffer_t *from = rng() % 50 ? s : nullptr;
        const bool grows = rng() % 4 != 0;
        const string was = data_of(d);
        const string other = data_of(s);
        const bool filled = from != nullptr && !other.empty();
        const size_t n = rng() % (was.size() + 2);
        const int size = d->size;
        const uint64_t v = uint64_t{rng()} << 32 | rng();
        string text = noise(rng() % 150, i);
        const auto len = static_cast<uint32>(text.size());
        d->ptr[was.size()] = 'x'; // every change must replace it by a terminator

#define CALL(call) #call, [&] { call; }
        const struct {
            string name;
            function<void()> call;
            string wanted;        // the data after the call
            bool possible = true; // otherwise the call must change nothing
        } cases[] = {{CALL(write_string(to, &text[0], len)), was + big_endian(len, 4) + text},
                     {CALL(_write_ex(to, &text[0], len)), was + text},
                     {CALL(write_bytes(to, &text[0], len)), was + text},
                     {CALL(write_uint8(to, static_cast<uint8>(v))), was + big_endian(v, 1)},
                     {CALL(write_uint16(to, static_cast<uint16>(v))), was + big_endian(v, 2)},
                     {CALL(write_uint32(to, static_cast<uint32>(v))), was + big_endian(v, 4)},
                     {CALL(write_uint64(to, v)), was + big_endian(v, 8)},
                     {CALL(buffer_append(to, from)), was + other, filled},
                     {CALL(buffer_copy(to, from)), other, filled},
                     {CALL(buffer_shift(to, static_cast<int>(n))), was.substr(n % (was.size() + 1)),
                      n <= was.size()},
                     {CALL(buffer_reset(to)), ""}};
        const auto &c = cases[rng() % std::size(cases)];
        calls_watch(grows ? nullptr : calls_fail("realloc", 0, ENOMEM));
        c.call();
        calls_stop();
        SCOPED_TRACE(c.name + " with " + to_string(was.size()) + " bytes");
        const int need = static_cast<int>(c.wanted.size()) + 1;
        const bool done = c.possible && to != nullptr && (need <= size || grows);
        ASSERT_EQ(done ? c.wanted : was, data_of(d));
        ASSERT_EQ(done ? 0 : 'x', d->ptr[d->used]);
        ASSERT_EQ(done && need > size, d->size > size) << "growth";
        ASSERT_EQ(static_cast<size_t>(all[0]->size + all[1]->size) + 2 * sizeof *d, buffer_memory);
    }
    for (buffer_t *b : all)
        buffer_free(b);
}

// A refused call leaves the buffer unchanged.
TEST(Buffer, Limits)
{
    // The size for buffer_init(), for buffer_expand(), and the size after both
    const int sizes[][3] = {{63, 64, 64},         {64, INT_MIN, 128},     {-1, 0, 0},
                            {INT_MAX - 63, 0, 0}, {0, INT_MAX - 511, 64}, {0, 512, 1024}};
    for (const auto &[init, expand, size] : sizes) {
        SCOPED_TRACE(Message() << "buffer_init " << init << ", buffer_expand " << expand);
        buffer_t *b = buffer_init(init);
        buffer_expand(b, expand);
        EXPECT_EQ(size, b != nullptr ? b->size : 0);
        buffer_memory /= 2; // too low on purpose: the counter must stop at 0
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
    for (const uint32 len : {UINT32_MAX, UINT32_MAX - 3, uint32{INT_MAX}})
        write_string(&some, text, len);
    buffer_append(&huge, &some);
    for (const auto call : {buffer_append, buffer_copy}) {
        call(&some, &noStorage);
        call(&noStorage, &some);
    }
    buffer_shift(&some, INT_MIN);
    EXPECT_EQ("0123456789", data_of(&some));
    EXPECT_EQ(INT_MAX - 1, huge.used);
    buffer_t brim{wall() - 4, 4, 4};
    buffer_shift(&brim, 0); // no byte is left for the terminator
    EXPECT_EQ(-1, read_buffer(0, &some));
    EXPECT_EQ(-1, read_buffer(1, nullptr));

    memset(text + 10, 'x', 6);
    for (const int len : {6, INT_MAX, INT_MIN})
        EXPECT_EQ(nullptr, buffer_calloc(&some, len));
    EXPECT_EQ(text + 10, buffer_calloc(&some, 5));
    EXPECT_EQ(string("0123456789\0\0\0\0\0x", 16), string(text, 16));
    EXPECT_EQ(15, some.used);
    EXPECT_EQ(0U, calls_count("realloc") + calls_count("ioctl"));
}

TEST(Buffer, ReadBuffer)
{
    constexpr int length = 447; // of the file
    const struct {
        const char *fails;
        int err, result;
        string says = "";
        int used = 0, waiting = 3; // bytes in the buffer; bytes up to the end of the file
        int size = 64;
    } cases[] = {{"ioctl", EAGAIN, 0},
                 {"ioctl", EINTR, 0},
                 {"ioctl", EIO, -1},
                 {"read", EAGAIN, 0},
                 {"read", EINTR, 0},
                 {"read", EIO, -1, "toread:3 ret:-1, msg:Input/output error\n"},
                 {"realloc", ENOMEM, 2, "", 62},
                 {"", 0, 3, "", 61}, // an exact fit needs no new memory
                 {"", 0, length, "", 64, length, 1024},
                 {"", 0, -1, "toread:1 ret:0, msg:Success\n", 0, 0},
                 {"", 0, -1, "toread:1 ret:0, msg:Success\n", 0, -100}};
    const string bytes = noise(length);
    const int fd = fileno(tmpfile());
    EXPECT_EQ(length, write(fd, bytes.data(), length));
    for (const auto &c : cases) {
        SCOPED_TRACE(Message() << c.fails << c.err << ", " << c.used << " bytes held, " << c.waiting
                               << " waiting");
        lseek(fd, length - c.waiting, SEEK_SET);
        buffer_t *b = buffer_init(0);
        b->used = c.used;
        calls_watch(calls_fail(c.fails, 0, c.err));
        EXPECT_EQ(c.says, output_of([&] {
                      errno = 0;
                      EXPECT_EQ(c.result, read_buffer(fd, b));
                  }));
        calls_stop();
        EXPECT_EQ(c.size, b->size);
        EXPECT_EQ(c.used + std::max(c.result, 0), b->used);
        EXPECT_EQ(0, memcmp(&bytes[length] - c.waiting, b->ptr + c.used,
                            static_cast<size_t>(std::max(c.result, 0))));
        buffer_free(b);
    }
}

TEST(Buffer, ByteOrder)
{
    // For little-endian processors; no others are supported.
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
