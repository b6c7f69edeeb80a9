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

static bool _fit(tModel &m, size_t need, bool grows)
{
    if (m.size < need && grows)
        m.size = need / 512 * 512 + 512;
    return m.size >= need;
}

// Random operations on three buffers; in every other run their storage ends at a wall, where it can
// neither grow nor be left.
TEST(buffer, model)
{
    std::mt19937 rng(1);
    const int sizes[] = {1, 64, 301};
    char *from = wall(), *ends[] = {wall(), wall(), wall()};
    for (unsigned i = 0; i < 80000; i++) {
        static tModel all[3];
        static buffer_t fixed[3];
        const bool atWall = i / 200 % 2, grows = !atWall && rng() % 4 != 0;
        for (size_t k = 0; k < 3 && i % 200 == 0; k++) {
            buffer_free(atWall ? all[k].b : nullptr); // those of the run before
            fixed[k] = {ends[k] - sizes[k], sizes[k], 0};
            all[k] = {atWall ? &fixed[k] : buffer_init(0), atWall ? size_t(sizes[k]) : 64, ""};
        }
        tModel &d = all[rng() % 3], &s = all[rng() % 3];
        const size_t used = d.data.size(), room = d.size - used;
        const int n = std::array{int(rng() % 152) - 1, 0, int(used), int(used) + 1}[rng() % 4];
        const bool valid = n >= 0 && size_t(n) <= used;
        const std::string bytes = noise(rng() % 150, i);
        const auto len = uint32(bytes.size());
        char *src = static_cast<char *>(memcpy(from - len, bytes.data(), len)), *got = nullptr;
        const uint64_t v = uint64_t{rng()} << 32 | rng();
        if (room > 0)
            d.b->ptr[used] = 'x'; // gives away who writes behind the data
        // What each does, if it does.
        const std::function<std::string()> calls[] = {
            [&] { return write_string(d.b, src, len), d.data + _big(len, 4) + bytes; },
            [&] { return _write_ex(d.b, src, len), d.data + bytes; },
            [&] { return write_bytes(d.b, src, len), d.data + bytes; },
            [&] { return write_uint8(d.b, uint8(v)), d.data + _big(v, 1); },
            [&] { return write_uint16(d.b, uint16(v)), d.data + _big(v, 2); },
            [&] { return write_uint32(d.b, uint32(v)), d.data + _big(v, 4); },
            [&] { return write_uint64(d.b, v), d.data + _big(v, 8); },
            [&] { return buffer_append(d.b, s.b), d.data + s.data; },
            [&] { return buffer_copy(d.b, s.b), s.data; },
            [&] { return buffer_shift(d.b, n), valid ? d.data.substr(size_t(n)) : d.data; },
            [&] { return buffer_reset(d.b), ""; },
            [&] {
                return got = buffer_calloc(d.b, n), d.data + std::string(got ? size_t(n) : 0, 0);
            }};
        const size_t call = rng() % std::size(calls);
        calls_watch(grows ? nullptr : calls_fail("realloc", 0, ENOMEM));
        const std::string after = calls[call]();
        calls_stop();
        bool ended = call == 9 ? valid && (n > 0 || room > 0) : call == 10;
        if (call < 7 || (call < 9 && !s.data.empty())) // a string grows in two steps
            ended = (call > 0 || _fit(d, used + 5, grows)) && _fit(d, after.size() + 1, grows);
        if (call == 11)
            ASSERT_EQ(got, n >= 0 && size_t(n) < room ? d.b->ptr + used : nullptr);
        if (call == 10)
            ASSERT_EQ(std::string(d.b->ptr, d.size), std::string(d.size, 0));
        d.data = ended || call == 11 ? after : d.data;
        if (room > 0 && !got)
            ASSERT_EQ(d.b->ptr[d.data.size()], ended ? 0 : 'x') << call;
        size_t held = 0;
        for (const tModel &m : all) {
            held += atWall ? 0 : m.size + sizeof(buffer_t);
            ASSERT_EQ(size_t(m.b->size), m.size) << call;
            ASSERT_EQ(std::string(m.b->ptr, size_t(m.b->used)), m.data) << call;
        }
        ASSERT_EQ(buffer_memory, held);
    }
}

TEST(buffer, capacities)
{
    // To make, to expand to, what comes of it, and whether the allocator is asked for the latter.
    // clang-format off
    const int cases[][4] = {
        {0, 512, 1024, 1}, {63, 64, 64, 0}, {64, INT_MIN, 128, 0}, {-1, 0, 0, 0},
        {INT_MIN, 0, 0, 0}, {INT_MAX - 63, 0, 0, 0}, {0, INT_MAX, 64, 0},
        {0, INT_MAX - 511, 64, 0}, {0, INT_MAX - 512, 64, 1}};
    // clang-format on
    for (auto [init, expand, size, asked] : cases) {
        buffer_t *b = buffer_init(init);
        calls_watch(expand > 1000 ? calls_fail("realloc", 1, ENOMEM) : nullptr);
        buffer_expand(b, expand);
        EXPECT_EQ(b ? b->size : 0, size) << init << " " << expand;
        EXPECT_EQ(calls_count("realloc"), unsigned(asked)) << expand;
        buffer_memory /= 2; // as if half of it were lost
        buffer_free(b);
        EXPECT_EQ(buffer_memory, 0u) << "wrapped";
    }
    for (unsigned nth : {1u, 2u}) {
        calls_watch(calls_fail("calloc", nth, ENOMEM));
        EXPECT_TRUE(!buffer_init(10) && calls_count("free") == nth - 1 && buffer_memory == 0);
    }
    calls_stop();
}

TEST(buffer, refusals)
{
    // Room for a length alone; nearly as large as can be; none.
    char text[16] = "0123456789";
    buffer_t src{text, 16, 10}, gap{nullptr, 0, 10}, full{wall(), INT_MAX, INT_MAX - 1};
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
    // clang-format off
    // What fails and how; bytes held and waiting (-1: a file, its position behind its end); then
    // the result, the capacity and what is printed.
    const std::tuple<std::string, int, int, int, int, int, std::string> cases[] = {
        {"ioctl", EAGAIN, 0, 3, 0, 64, ""}, {"ioctl", EINTR, 0, 3, 0, 64, ""},
        {"ioctl", EIO, 0, 3, -1, 64, ""},
        {"read", EAGAIN, 0, 3, 0, 64, ""}, {"read", EINTR, 0, 3, 0, 64, ""},
        {"read", EIO, 0, 3, -1, 64, "toread:3 ret:-1, msg:"},
        {"realloc", ENOMEM, 64, 3, -1, 64, "toread:0 ret:0, msg:"},
        {"realloc", ENOMEM, 62, 3, 2, 64, ""},
        {"", EDOM, 61, 3, 3, 64, ""}, // an exact fit asks for nothing
        {"", EDOM, 62, 3, 3, 512, ""}, {"", EDOM, 64, 446, 446, 512, ""},
        {"", EDOM, 64, 447, 447, 1024, ""},
        {"", EDOM, 0, 0, -1, 64, "toread:1 ret:0, msg:"},
        {"", EDOM, 0, -1, -1, 64, "toread:1 ret:0, msg:"}};
    // clang-format on
    for (const auto &[fails, err, used, waiting, result, size, says] : cases) {
        int ends[2], got = 0;
        std::string bytes = noise(size_t(std::max(waiting, 0)));
        ASSERT_EQ(pipe(ends), 0);
        ASSERT_EQ(write(ends[1], bytes.data(), bytes.size()), ssize_t(bytes.size()));
        close(ends[1]);
        if (waiting < 0)
            lseek(ends[0] = fileno(tmpfile()), 100, SEEK_SET);
        buffer_t *b = buffer_init(0);
        b->used = used;
        calls_watch(calls_fail(fails, 0, err));
        const std::string said = output_of([&] {
            errno = EDOM;
            got = read_buffer(ends[0], b);
        });
        calls_stop();
        EXPECT_TRUE(got == result && b->size == size) << fails << err << " " << used << waiting;
        EXPECT_EQ(said, says.empty() ? "" : says + strerror(err) + "\n");
        EXPECT_EQ(calls_count("read"), fails == "ioctl" ? 0u : 1u);
        bytes.resize(size_t(std::max(result, 0)));
        EXPECT_EQ(std::string(b->ptr + used, size_t(b->used - used)), bytes);
        buffer_free(b);
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
    const auto churn = [] {
        for (int i = 0; i < 50000; i++)
            buffer_free(buffer_init(i % 200));
    };
    std::thread other(churn);
    churn();
    other.join();
    EXPECT_EQ(buffer_memory, 0u);
}
