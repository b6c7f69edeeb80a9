/* SPDX-License-Identifier: MIT */
/**
 * @file
 * buffer: a growable byte buffer, with writers in network byte order.
 *
 * For assembling a message before it is sent, and for collecting what a descriptor delivers until
 * a whole message is there. Data is appended at the end, where the buffer grows as needed, and
 * consumed from the front. The smallest use:
 *
 *     #include <common/buffer.h>
 *     buffer_t *b = buffer_init(0);
 *     if (b == NULL)
 *         ...
 *     write_uint32(b, sequence);
 *     write_string(b, text, length);
 *     send(fd, b->ptr, (size_t)b->used, 0);
 *     buffer_reset(b);                                  // and again
 *     ...
 *     buffer_free(b);
 *
 *     while (read_buffer(fd, b) > 0) {                  // a non-blocking fd is readable
 *         while (message_is_whole(b->ptr, b->used)) {
 *             ...
 *             buffer_shift(b, message_length);
 *         }
 *     }
 *
 * Threads: a buffer is used by one thread at a time, there is no lock in it. Different buffers may
 * be used by different threads; the counter they share, buffer_memory, is atomic.
 *
 * Owner: buffer_init() allocates record and storage, buffer_free() releases both; no other
 * function keeps a pointer. A pointer into the storage (ptr, or one from buffer_calloc()) is good
 * until the next call that may grow the buffer, so the source given to a writer must not lie in
 * the buffer that is written to. buffer_append() and buffer_copy() may have one buffer as both.
 *
 * What blocks: only read_buffer(), when its descriptor blocks. Nothing here logs.
 *
 * What is lost on failure: most functions return nothing. When storage cannot be had, an append,
 * copy or write leaves the buffer's data as it was. Where that matters, compare `used` before and
 * after; a copy has succeeded when dst->size > src->used. A capacity cannot pass 2^31 - 1; what
 * would need more is refused in the same way, and so is every negative size or length.
 *
 * Except in buffer_calloc() a null buffer is allowed everywhere, and nothing is done.
 *
 * Every program that links the library defines gLogLevl: see common/self_log.h.
 *
 * A complete program, and what it prints:
 * @include buffer.c
 * @verbinclude buffer.out
 */
#ifndef KELVARA_COMMON_BUFFER_H
#define KELVARA_COMMON_BUFFER_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

typedef uint8_t uint8;   /**< 8 bits, unsigned */
typedef uint16_t uint16; /**< 16 bits, unsigned */
typedef uint32_t uint32; /**< 32 bits, unsigned */
typedef uint64_t uint64; /**< 64 bits, unsigned */

/** Always 0 <= used <= size. Appending, copying, shifting and writing leave a 0 behind the data, at
 * ptr[used], when they change the data; buffer_calloc() and read_buffer() do not, and the latter
 * may fill the storage to its last byte. */
typedef struct buffer_t {
    char *ptr;    /**< the storage */
    int32_t size; /**< its capacity in bytes; never shrinks */
    int32_t used; /**< bytes of data, from the start of the storage */
} buffer_t;

/** The heap that all live buffers of the process hold: capacities plus sizeof(buffer_t) each. A
 * statistic. Read it with __atomic_load_n() where other threads use buffers; a plain read of 64
 * bits can be torn on a 32-bit processor. */
extern uint64_t buffer_memory;

/* --- life ------------------------------------------------------------------------------------- */

/** Makes an empty buffer; the capacity is the next multiple of 64 above size (0 gives 64, 64 gives
 * 128), all bytes 0.
 * @return the buffer; null when memory is short, when size is negative, or when it is too large
 * for such a multiple */
buffer_t *buffer_init(int size);

/** Releases buffer and storage. */
void buffer_free(buffer_t *b);

/** Empties the buffer for reuse and sets the whole storage to 0. The capacity stays. */
void buffer_reset(buffer_t *b);

/** Makes sure of a capacity of at least size bytes. A smaller one becomes the next multiple of 512
 * above size (512 gives 1024), with the data kept and the new bytes not cleared. When that cannot
 * be had, nothing changes: look at b->size. Moves the storage. */
void buffer_expand(buffer_t *b, int size);

/* --- buffer to buffer ------------------------------------------------------------------------- */

/** Appends the data of src to dst, which grows as needed. Does nothing when src is empty, either
 * storage is missing or growth fails. */
void buffer_append(buffer_t *dst, buffer_t *src);

/** Replaces the data of dst by that of src; dst grows as needed. Does nothing in the same cases: an
 * empty src does not empty dst. */
void buffer_copy(buffer_t *dst, buffer_t *src);

/* --- in and out ------------------------------------------------------------------------------- */

/** Appends len zero bytes and returns their address, for filling in place; good until the buffer
 * grows or is freed. Never grows the buffer: null, with nothing done, when fewer than len + 1
 * bytes are free or len is negative. allocator must not be null.
 * @return the address of the len bytes, or null */
char *buffer_calloc(buffer_t *allocator, int len);

/** Appends what one read() of fd delivers: all that waits there (FIONREAD), for which the buffer
 * grows first, or one byte when nothing waits. When growth fails, as much as there is room for.
 * Works on what FIONREAD knows: sockets, pipes, terminals, regular files. From a datagram socket
 * each call takes one datagram: one that comes when nothing waited is cut to its first byte, so
 * wait until the fd is readable; an empty one looks like the end of a stream. Prints "toread:%d
 * ret:%d, msg:%s\n" on standard output when the read() itself ends with -1: the bytes asked for,
 * its result and the text of errno, which is a stale one at the end of the stream. A failing
 * FIONREAD is silent.
 * @return
 * - above 0: the number of bytes appended; no 0 is written behind them
 * - 0: nothing for now, EAGAIN or EINTR
 * - -1: end of stream, an error, no room, a null buffer, or an fd below 1 */
int read_buffer(int fd, buffer_t *p_buff_t);

/** Drops len bytes from the front and moves the rest there. Does nothing when fewer are stored or
 * len is negative. */
void buffer_shift(buffer_t *b, int len);

/* --- byte order ------------------------------------------------------------------------------- */

/** Converts 2 bytes to or from little-endian order.
 * @return the value whose 2 bytes in memory are those of _p, least significant first, on a
 * processor of either kind. */
uint16 TO_WLE(uint16 _p);
/** Converts 4 bytes to or from little-endian order.
 * @return as TO_WLE(), of 4 bytes. */
uint32 TO_DWLE(uint32 _p);
/** Converts 8 bytes to or from little-endian order.
 * @return as TO_WLE(), of 8 bytes. */
uint64 TO_QWLE(uint64 _p);
/** Converts 2 bytes to or from network byte order.
 * @return the value whose 2 bytes in memory are those of _p, most significant first (network byte
 * order), on a processor of either kind. */
uint16 TO_WBE(uint16 _p);
/** Converts 4 bytes to or from network byte order.
 * @return as TO_WBE(), of 4 bytes. */
uint32 TO_DWBE(uint32 _p);
/** Converts 8 bytes to or from network byte order.
 * @return as TO_WBE(), of 8 bytes. */
uint64 TO_QWBE(uint64 _p);

/* --- writers ---------------------------------------------------------------------------------- */

/** Appends the len bytes at wbuf. The buffer grows when fewer than len + 1 bytes are free; when
 * that fails, nothing is written. len 0 writes the 0 behind the data and nothing else (a full
 * buffer grows for it); wbuf is not looked at then. */
void _write_ex(buffer_t *buf, const void *wbuf, uint32 len);

/** Appends the byte v. The buffer grows, and fails to grow, as with _write_ex(). */
void write_uint8(buffer_t *buf, uint8 v);
/** Appends v in 2 bytes, most significant first; all else as with write_uint8(). */
void write_uint16(buffer_t *buf, uint16 v);
/** Appends v in 4 bytes, most significant first; all else as with write_uint8(). */
void write_uint32(buffer_t *buf, uint32 v);
/** Appends v in 8 bytes, most significant first; all else as with write_uint8(). */
void write_uint64(buffer_t *buf, uint64 v);

/** Appends the l bytes at s, like _write_ex(). */
void write_bytes(buffer_t *buf, char *s, uint32 l);

/** Appends l as write_uint32() does, then the l bytes at s. l is never measured from s. Either all
 * of it is written or, when growth fails, nothing. */
void write_string(buffer_t *buf, char *s, uint32 l);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
