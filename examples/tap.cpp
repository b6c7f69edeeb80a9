// SPDX-License-Identifier: MIT
//
// tap: shows what a daemon sends to its clients.
//
//     tap [-m text|hex|frames] [-w MS] SOCKET
//
// text: the bytes as they come; hex: sixteen a line; frames: the records of framing.h, one a line.
// -w: waits so long for the daemon to start. At the end of the stream, or on SIGINT or SIGTERM,
// tells on standard error what came, how fast, and how much was lost; status 0.
#include "framing.h"

#include <common/buffer.h>
#include <common/self_log.h>

#include <ctype.h>
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

eLogLevl gLogLevl = LOG_LEV_RUN;

typedef struct _tTap_ {
    unsigned long long bytes;
    unsigned long items;   // lines or records
    unsigned long lost;    // records missing between others
    unsigned long skipped; // bytes that belong to no record
    uint32_t nextSeq;
    uint64_t firstUs; // when the first and the last bytes came
    uint64_t lastUs;
    buffer_t *buf; // what is not shown yet
} tTap;

// Shows what can be shown of the buffer and leaves the rest. aibLast: nothing will follow.
typedef void (*tShow)(tTap *aipTap, bool aibLast);

typedef struct _tMode_ {
    const char *name;
    tShow show;
    const char *unit;
} tMode;

static uint64_t _now_us(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000U +
           static_cast<uint64_t>(now.tv_nsec) / 1000U;
}

static void _show_text(tTap *aipTap, bool)
{
    const char *const data = aipTap->buf->ptr;
    const size_t used = static_cast<size_t>(aipTap->buf->used);
    for (size_t i = 0; i < used; i++)
        aipTap->items += data[i] == '\n';
    fwrite(data, 1, used, stdout);
    buffer_shift(aipTap->buf, aipTap->buf->used);
}

static void _show_hex(tTap *aipTap, const bool aibLast)
{
    constexpr int perLine = 16;
    int pos = 0;
    for (; pos + perLine <= aipTap->buf->used || (aibLast && pos < aipTap->buf->used);
         pos += perLine) {
        char text[perLine + 1] = "";
        printf("%08lx ", aipTap->items * perLine);
        for (int i = 0; i < perLine; i++) {
            if (pos + i >= aipTap->buf->used) {
                printf("   ");
                continue;
            }
            const unsigned char byte = static_cast<unsigned char>(aipTap->buf->ptr[pos + i]);
            text[i] = isprint(byte) ? static_cast<char>(byte) : '.';
            printf(" %02x", byte);
        }
        printf("  %s\n", text);
        aipTap->items++;
    }
    buffer_shift(aipTap->buf, pos < aipTap->buf->used ? pos : aipTap->buf->used);
}

static void _show_frame(tTap *aipTap, const tFrame *aipFrame)
{
    if (aipTap->items > 0 && aipFrame->seq != aipTap->nextSeq) {
        const uint32_t missing = aipFrame->seq - aipTap->nextSeq;
        printf("-- %u lost --\n", missing);
        aipTap->lost += missing;
    }
    const time_t sec = static_cast<time_t>(aipFrame->timeUs / 1000000U);
    struct tm local;
    localtime_r(&sec, &local);
    printf("%8u  %02d:%02d:%02d.%06u  %.*s\n", aipFrame->seq, local.tm_hour, local.tm_min,
           local.tm_sec, static_cast<unsigned>(aipFrame->timeUs % 1000000U),
           static_cast<int>(aipFrame->len), aipFrame->text);
    aipTap->nextSeq = aipFrame->seq + 1;
    aipTap->items++;
}

// Where no record starts, because bytes were lost, one is looked for at the next byte.
static void _show_frames(tTap *aipTap, const bool aibLast)
{
    int pos = 0;
    for (;;) {
        tFrame frame;
        const int size = frame_next(aipTap->buf->ptr + pos, aipTap->buf->used - pos, &frame);
        if (size == 0)
            break;
        if (size > 0)
            _show_frame(aipTap, &frame);
        else
            aipTap->skipped++;
        pos += size > 0 ? size : 1;
    }
    buffer_shift(aipTap->buf, pos);
    if (aibLast)
        aipTap->skipped += static_cast<unsigned long>(aipTap->buf->used);
}

static int _connect(const char *aicpcPath, const long aicWaitMs)
{
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    if (strlen(aicpcPath) >= sizeof(addr.sun_path)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(addr.sun_path, aicpcPath, strlen(aicpcPath) + 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    for (long ms = 0; fd != -1; ms += 20) {
        if (connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr)) == 0)
            return fd;
        if (ms >= aicWaitMs)
            break;
        poll(nullptr, 0, 20);
    }
    return -1;
}

// Until the stream ends or a signal comes.
static void _receive(tTap *aipTap, const int aicFd, const int aicSignalFd, const tShow aicShow)
{
    struct pollfd wait[] = {{aicSignalFd, POLLIN, 0}, {aicFd, POLLIN, 0}};
    for (;;) {
        char chunk[4096];
        if (poll(wait, 2, -1) == -1 || wait[0].revents != 0)
            return;
        const ssize_t len = read(aicFd, chunk, sizeof(chunk));
        if (len <= 0)
            return;
        aipTap->lastUs = _now_us();
        if (aipTap->bytes == 0)
            aipTap->firstUs = aipTap->lastUs;
        aipTap->bytes += static_cast<unsigned long long>(len);
        write_bytes(aipTap->buf, chunk, static_cast<uint32>(len));
        aicShow(aipTap, false);
        fflush(stdout);
    }
}

static void _summary(const tTap *aipTap, const tMode *aipMode)
{
    const double sec = static_cast<double>(aipTap->lastUs - aipTap->firstUs) / 1e6;
    fprintf(stderr, "tap: %lu %s, %llu bytes in %.2f s", aipTap->items, aipMode->unit,
            aipTap->bytes, sec);
    if (sec > 0)
        fprintf(stderr, ", %.0f %s/s", static_cast<double>(aipTap->items) / sec, aipMode->unit);
    if (aipMode->show == _show_frames)
        fprintf(stderr, ", %lu lost, %lu bytes skipped", aipTap->lost, aipTap->skipped);
    fprintf(stderr, "\n");
}

int main(int argc, char **argv)
{
    static const tMode modes[] = {{"text", _show_text, "lines"},
                                  {"hex", _show_hex, "lines"},
                                  {"frames", _show_frames, "records"}};
    const tMode *mode = &modes[0];
    long waitMs = 0;
    for (int opt; (opt = getopt(argc, argv, "m:w:")) != -1;) {
        const tMode *const end = modes + sizeof(modes) / sizeof(modes[0]);
        if (opt == 'w')
            waitMs = strtol(optarg, nullptr, 10);
        else if (opt == 'm')
            for (mode = modes; mode < end && strcmp(mode->name, optarg) != 0;)
                mode++;
        if (opt == '?' || mode == end)
            argc = 0;
    }
    if (argc != optind + 1) {
        fprintf(stderr, "usage: tap [-m text|hex|frames] [-w MS] SOCKET\n");
        return 2;
    }
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    tTap tap = {};
    const int fd = _connect(argv[optind], waitMs);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    const int signalFd = signalfd(-1, &set, SFD_CLOEXEC);
    tap.buf = buffer_init(4096);
    if (fd == -1 || signalFd == -1 || tap.buf == nullptr) {
        fprintf(stderr, "tap: %s: %s\n", argv[optind], strerror(errno));
        return EXIT_FAILURE;
    }
    _receive(&tap, fd, signalFd, mode->show);
    mode->show(&tap, true);
    fflush(stdout);
    _summary(&tap, mode);
    buffer_free(tap.buf);
    close(signalFd);
    close(fd);
    return EXIT_SUCCESS;
}
