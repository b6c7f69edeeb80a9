// SPDX-License-Identifier: MIT
#include <common/buffer.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/ioctl.h>
#include <unistd.h>

uint64_t buffer_memory;
static_assert(__atomic_always_lock_free(sizeof buffer_memory, nullptr),
              "the counter needs no lock and no helper library");

// The next multiple of step above size, or -1 beyond 2^31 - 1. size is not negative.
static int _capacity(int size, int step)
{
    const int add = step - size % step;
    return size > INT32_MAX - add ? -1 : size + add;
}

static void _count(uint64_t bytes)
{
    (void)__atomic_fetch_add(&buffer_memory, bytes, __ATOMIC_RELAXED);
}

static void _uncount(uint64_t bytes)
{
    uint64_t now = __atomic_load_n(&buffer_memory, __ATOMIC_RELAXED);
    uint64_t next;
    do
        next = now > bytes ? now - bytes : 0;
    // GCOVR_EXCL_BR_START: by chance, when another thread changes it first
    while (!__atomic_compare_exchange_n(&buffer_memory, &now, next, true, __ATOMIC_RELAXED,
                                        __ATOMIC_RELAXED));
    // GCOVR_EXCL_BR_STOP
}

// Ensures a capacity of need bytes. Returns false if that fails.
static bool _grow(buffer_t *buf, int64_t need)
{
    if (need > INT32_MAX)
        return false;
    buffer_expand(buf, static_cast<int>(need));
    return buf->size >= need;
}

// Makes room for len bytes and the 0 behind them.
static bool _reserve(buffer_t *buf, int64_t len)
{
    return buf->size - buf->used > len || _grow(buf, buf->used + len + 1);
}

// Precondition: len + 1 bytes are free.
static inline void _put(buffer_t *buf, const void *from, uint32 len)
{
    char *const end = buf->ptr + buf->used;
    const int32_t used = buf->used + static_cast<int32_t>(len);
    memcpy(end, from, len);
    end[len] = 0;
    buf->used = used;
}

// The value whose bytes in memory are those of v, most or least significant first. In the unrolled
// loop compilers recognise a byte swap.
template <bool abBigEndian, typename T> static T _in_order(T v)
{
    T out;
    auto *const bytes = reinterpret_cast<uint8 *>(&out);
#pragma GCC unroll 8
    for (size_t i = 0; i < sizeof v; i++)
        // cppcheck-suppress objectIndex ; all sizeof v bytes of out
        bytes[i] = static_cast<uint8>(v >> 8 * (abBigEndian ? sizeof v - 1 - i : i));
    return out;
}

// Out of line, as a tail call: the fast path is short and needs no stack.
template <typename T> __attribute__((noinline)) static void _write_slowly(buffer_t *buf, T v)
{
    _write_ex(buf, &v, sizeof v);
}

template <typename T> static void _write_be(buffer_t *buf, T v)
{
    v = _in_order<true>(v);
    if (__builtin_expect(buf == nullptr || buf->size - buf->used <= int32_t{sizeof v}, 0))
        _write_slowly(buf, v);
    else
        _put(buf, &v, sizeof v);
}

buffer_t *buffer_init(int size)
{
    const int capacity = size < 0 ? -1 : _capacity(size, 64);
    if (capacity < 0)
        return nullptr;
    auto *const b = static_cast<buffer_t *>(calloc(1, sizeof(buffer_t)));
    if (b == nullptr)
        return nullptr;
    b->size = capacity;
    b->ptr = static_cast<char *>(calloc(1, static_cast<size_t>(capacity)));
    if (b->ptr == nullptr) {
        free(b);
        return nullptr;
    }
    _count(static_cast<uint64_t>(capacity) + sizeof *b);
    return b;
}

void buffer_free(buffer_t *b)
{
    if (b == nullptr)
        return;
    _uncount(static_cast<uint64_t>(b->size) + sizeof *b);
    free(b->ptr);
    free(b);
}

void buffer_reset(buffer_t *b)
{
    if (b == nullptr)
        return;
    b->used = 0;
    memset(b->ptr, 0, static_cast<size_t>(b->size));
}

void buffer_expand(buffer_t *b, int size)
{
    if (b == nullptr || b->size >= size)
        return;
    const int capacity = _capacity(size, 512);
    if (capacity < 0)
        return;
    auto *const moved = static_cast<char *>(realloc(b->ptr, static_cast<size_t>(capacity)));
    if (moved == nullptr)
        return;
    _count(static_cast<uint64_t>(capacity - b->size));
    b->ptr = moved;
    b->size = capacity;
}

void buffer_append(buffer_t *dst, buffer_t *src)
{
    if (dst == nullptr || src == nullptr || dst->ptr == nullptr || src->ptr == nullptr ||
        src->used == 0 || !_reserve(dst, src->used))
        return;
    // src may be dst, so its storage is read only after the growth.
    _put(dst, src->ptr, static_cast<uint32>(src->used));
}

void buffer_copy(buffer_t *dst, buffer_t *src)
{
    if (dst == nullptr || src == nullptr || dst->ptr == nullptr || src->ptr == nullptr ||
        src->used == 0)
        return;
    if (src->used >= dst->size && !_grow(dst, int64_t{src->used} + 1))
        return;
    memmove(dst->ptr, src->ptr, static_cast<size_t>(src->used)); // src may be dst
    dst->used = src->used;
    dst->ptr[dst->used] = 0;
}

char *buffer_calloc(buffer_t *allocator, int len)
{
    if (len < 0 || allocator->size - allocator->used <= len)
        return nullptr;
    char *const p = allocator->ptr + allocator->used;
    memset(p, 0, static_cast<size_t>(len));
    allocator->used += len;
    return p;
}

int read_buffer(int fd, buffer_t *p_buff_t)
{
    if (p_buff_t == nullptr || fd <= 0)
        return -1;
    int toread = 0;
    if (ioctl(fd, FIONREAD, &toread) < 0)
        return errno == EAGAIN || errno == EINTR ? 0 : -1;
    // Negative: a file of more than 2 GiB, or one that is shorter than its position.
    if (toread <= 0)
        toread = 1;
    if (p_buff_t->size - p_buff_t->used < toread)
        _grow(p_buff_t, int64_t{p_buff_t->used} + toread + 1);
    const int room = p_buff_t->size - p_buff_t->used;
    if (toread > room)
        toread = room;
    const ssize_t got = read(fd, p_buff_t->ptr + p_buff_t->used, static_cast<size_t>(toread));
    if (got > 0) {
        p_buff_t->used += static_cast<int32_t>(got);
        return static_cast<int>(got);
    }
    if (got < 0 && (errno == EINTR || errno == EAGAIN))
        return 0;
    // Best effort: a lost trace line cannot be reported.
    (void)printf("toread:%d ret:%d, msg:%s\n", toread, static_cast<int>(got), strerror(errno));
    return -1;
}

void buffer_shift(buffer_t *b, int len)
{
    if (b == nullptr || len < 0 || b->used < len)
        return;
    b->used -= len;
    if (len > 0)
        memmove(b->ptr, b->ptr + len, static_cast<size_t>(b->used));
    if (b->used < b->size) // a full buffer has no byte left for it
        b->ptr[b->used] = 0;
}

uint16 TO_WLE(uint16 _p)
{
    return _in_order<false>(_p);
}

uint32 TO_DWLE(uint32 _p)
{
    return _in_order<false>(_p);
}

uint64 TO_QWLE(uint64 _p)
{
    return _in_order<false>(_p);
}

uint16 TO_WBE(uint16 _p)
{
    return _in_order<true>(_p);
}

uint32 TO_DWBE(uint32 _p)
{
    return _in_order<true>(_p);
}

uint64 TO_QWBE(uint64 _p)
{
    return _in_order<true>(_p);
}

void _write_ex(buffer_t *buf, const void *wbuf, uint32 len)
{
    if (buf == nullptr || !_reserve(buf, len))
        return;
    if (len > 0)
        _put(buf, wbuf, len);
    else
        buf->ptr[buf->used] = 0;
}

void write_uint8(buffer_t *buf, uint8 v)
{
    _write_be(buf, v);
}

void write_uint16(buffer_t *buf, uint16 v)
{
    _write_be(buf, v);
}

void write_uint32(buffer_t *buf, uint32 v)
{
    _write_be(buf, v);
}

void write_uint64(buffer_t *buf, uint64 v)
{
    _write_be(buf, v);
}

void write_bytes(buffer_t *buf, char *s, uint32 l)
{
    _write_ex(buf, s, l);
}

void write_string(buffer_t *buf, char *s, uint32 l)
{
    // Makes room for both parts first: a length without its bytes would misalign the reader.
    const int64_t both = int64_t{l} + 4;
    if (buf == nullptr || !_reserve(buf, 4) || !_reserve(buf, both))
        return;
    write_uint32(buf, l);
    _write_ex(buf, s, l);
}
