/* SPDX-License-Identifier: MIT */
/**
 * @file
 * buffer: a growable byte buffer, with writers in network byte order.
 *
 * It assembles a message before it is sent, and collects data from a descriptor until a message is
 * complete. Data is appended at the end, where the buffer grows as needed, and consumed from the
 * front. The smallest use:
 *
 *     #include <common/buffer.h>
 *     buffer_t *b = buffer_init(0);
 *     if (b == NULL)
 *         ...
 *     write_uint32(b, sequence);
 *     write_string(b, text, length);
 *     send(fd, b->ptr, (size_t)b->used, 0);
 *     buffer_reset(b);                                  // for the next message
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
 * @par Threads
 * A buffer is used by one thread at a time; it has no lock. Different threads may use different
 * buffers. The counter that all buffers share, buffer_memory, is atomic. Only read_buffer() can
 * block, when its descriptor blocks. Nothing here logs.
 *
 * @par Memory
 * buffer_init() allocates record and storage, buffer_free() releases both; no other function keeps
 * a pointer. A pointer into the storage (ptr, or one from buffer_calloc()) is valid until the next
 * call that may grow the buffer. So the source given to a writer must not lie in the buffer that is
 * written to. buffer_append() and buffer_copy() accept the same buffer as source and destination.
 *
 * @par Failures
 * Most functions return nothing. If memory for growth is short, an append, copy or write leaves the
 * buffer's data unchanged. To detect this, compare `used` before and after; a copy has succeeded
 * when dst->size > src->used. The capacity limit is 2^31 - 1: a call that would need more fails in
 * the same way, and so does every negative size or length. Every function but buffer_calloc()
 * accepts a null buffer and then does nothing.
 *
 * @par Linking
 * Every program that links the library defines gLogLevl: see common/self_log.h.
 *
 * @par Example
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

/** Always 0 <= used <= size. Appending, copying, shifting and writing put a 0 after the data, at
 * ptr[used], when they change the data. buffer_calloc() and read_buffer() do not; read_buffer() may
 * fill the storage to its last byte. */
typedef struct buffer_t {
    char *ptr;    /**< the storage */
    int32_t size; /**< its capacity in bytes; never shrinks */
    int32_t used; /**< bytes of data, from the start of the storage */
} buffer_t;

/** The heap that all live buffers of the process hold: capacities plus sizeof(buffer_t) each. A
 * statistic. Read it with __atomic_load_n() when other threads use buffers; a plain read of 64 bits
 * can be torn on a 32-bit processor. */
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

/** Ensures a capacity of at least size bytes. A smaller one becomes the next multiple of 512 above
 * size (512 gives 1024); the data is kept and the new bytes are not cleared. If memory is short,
 * nothing changes: check b->size. May move the storage. */
void buffer_expand(buffer_t *b, int size);

/* --- buffer to buffer ------------------------------------------------------------------------- */

/** Appends the data of src to dst, which grows as needed. Does nothing when src is empty, either
 * storage is missing or growth fails. */
void buffer_append(buffer_t *dst, buffer_t *src);

/** Replaces the data of dst by that of src; dst grows as needed. Does nothing in the cases of
 * buffer_append(): an empty src does not empty dst. */
void buffer_copy(buffer_t *dst, buffer_t *src);

/* --- in and out ------------------------------------------------------------------------------- */

/** Appends len zero bytes and returns their address, for the caller to fill; valid until the buffer
 * grows or is freed. Never grows the buffer: when fewer than len + 1 bytes are free or len is
 * negative, it does nothing and returns null. allocator must not be null.
 * @return the address of the len bytes, or null */
char *buffer_calloc(buffer_t *allocator, int len);

/** Appends the result of one read() of fd. If data is waiting (FIONREAD), the buffer grows to take
 * all of it; if growth fails, the read() asks for as much as fits. If no data is waiting, the
 * read() asks for one byte. Works on descriptors that support FIONREAD: sockets, pipes, terminals,
 * regular files. From a datagram socket each call takes one datagram. If none was waiting at the
 * call, the one that arrives is cut to its first byte, so wait until the fd is readable; an empty
 * datagram looks like the end of a stream. When the read() itself ends with -1, the call prints
 * "toread:%d ret:%d, msg:%s\n" on standard output: the bytes asked for, the result, and the text of
 * errno, which at the end of the stream is a stale one. A failing FIONREAD prints nothing.
 * @return
 * - above 0: the number of bytes appended; no 0 is written after them
 * - 0: no data for now, EAGAIN or EINTR
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

/** Appends the len bytes at wbuf. The buffer grows when fewer than len + 1 bytes are free; if that
 * fails, nothing is written. With len 0 only the 0 after the data is written (a full buffer grows
 * for it), and wbuf is not read. */
void _write_ex(buffer_t *buf, const void *wbuf, uint32 len);

/** Appends the byte v. The buffer grows, and growth fails, as in _write_ex(). */
void write_uint8(buffer_t *buf, uint8 v);
/** Appends v in 2 bytes, most significant first; otherwise as write_uint8(). */
void write_uint16(buffer_t *buf, uint16 v);
/** Appends v in 4 bytes, most significant first; otherwise as write_uint8(). */
void write_uint32(buffer_t *buf, uint32 v);
/** Appends v in 8 bytes, most significant first; otherwise as write_uint8(). */
void write_uint64(buffer_t *buf, uint64 v);

/** Appends the l bytes at s, like _write_ex(). */
void write_bytes(buffer_t *buf, char *s, uint32 l);

/** Appends l as write_uint32() does, then the l bytes at s; s needs no terminator. If growth fails,
 * neither part is written. */
void write_string(buffer_t *buf, char *s, uint32 l);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
