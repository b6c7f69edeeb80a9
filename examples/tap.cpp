// SPDX-License-Identifier: MIT
//
// tap: shows the messages that a daemon sends to its clients. At the end of the stream, or on a
// signal, it reports on standard error how much arrived, how fast, and how much was lost.
#include "framing.h"
#include "sockfile.h"
#include "tool.h"

#include <common/buffer.h>
#include <common/self_log.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <getopt.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

eLogLevl gLogLevl = LOG_LEV_RUN;

typedef struct _tTap_ {
    unsigned long long bytes;
    unsigned long items;   // lines or records
    unsigned long lost;    // records missing between received ones
    unsigned long skipped; // bytes that belong to no record
    uint32_t nextSeq;
    uint64_t firstUs; // when the first and the last bytes came
    uint64_t lastUs;
    buffer_t *buf; // what is not shown yet
} tTap;

// Shows the complete messages in the buffer and keeps the rest. aibLast: no input will follow.
typedef void (*tShow)(tTap *aipTap, bool aibLast);

typedef struct _tMode_ {
    const char *name;
    tShow show;
    const char *unit;
} tMode;

static constexpr int gicColumns = 80;

static const char gicUsage[] =
    "usage: tap [OPTION]... SOCKET\n"
    "Shows what a daemon sends to its clients.\n"
    "\n"
    "  -m, --mode text    the bytes as they come (the default)\n"
    "  -m, --mode hex     sixteen bytes a line\n"
    "  -m, --mode frames  numbered records; gnssd sends them with records = \"framed\"\n"
    "  -w, --wait MS      waits at most MS milliseconds for the daemon to start\n"
    "  -h, --help         prints this\n"
    "  -V, --version      prints the version\n"
    "\n"
    "SIGINT, SIGTERM, SIGHUP: ends, with a summary of what arrived.\n";

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
    const int head =
        printf("%8u  %02d:%02d:%02d.%06u  ", aipFrame->seq, local.tm_hour, local.tm_min,
               local.tm_sec, static_cast<unsigned>(aipFrame->timeUs % 1000000U));
    // A sentence of 80 characters continues in the next line, below its start.
    const int room = gicColumns - head;
    int left = static_cast<int>(aipFrame->len);
    printf("%.*s\n", left < room ? left : room, aipFrame->text);
    for (int pos = room; (left -= room) > 0; pos += room)
        printf("%*s%.*s\n", head, "", left < room ? left : room, aipFrame->text + pos);
    aipTap->nextSeq = aipFrame->seq + 1;
    aipTap->items++;
}

// After a loss no record may start here: then tries the next byte.
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

// Returns the connection, or -1 with errno; a signal ends the wait. Repeats the attempt, because
// the causes of a failure may pass: a missing folder, a socket without a server, a full queue.
static int _connect(const char *aicpcPath, const int aicWaitMs, const int aicSignalFd)
{
    struct sockaddr_un addr;
    errno = sockfile_address(&addr, aicpcPath);
    if (errno != 0)
        return -1;
    const uint64_t end = tool_now_ns(CLOCK_MONOTONIC) + static_cast<uint64_t>(aicWaitMs) * 1000000U;
    for (;;) {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (fd == -1 || connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) == 0)
            return fd;
        const int err = errno;
        (void)close(fd); // it was never used
        struct pollfd signal = {aicSignalFd, POLLIN, 0};
        const bool bOver = tool_now_ns(CLOCK_MONOTONIC) >= end || poll(&signal, 1, 20) > 0;
        errno = err;
        if (bOver)
            return -1;
    }
}

// Receives until the stream ends or a signal comes.
static void _receive(tTap *aipTap, const int aicFd, const int aicSignalFd, const tShow aicShow)
{
    struct pollfd wait[] = {{aicSignalFd, POLLIN, 0}, {aicFd, POLLIN, 0}};
    for (;;) {
        char chunk[4096];
        if (poll(wait, 2, -1) == -1 && errno == EINTR)
            continue;
        if (wait[0].revents != 0)
            return;
        const ssize_t len = read(aicFd, chunk, sizeof chunk);
        if (len <= 0)
            return;
        aipTap->lastUs = tool_now_ns(CLOCK_MONOTONIC) / 1000U;
        if (aipTap->bytes == 0)
            aipTap->firstUs = aipTap->lastUs;
        aipTap->bytes += static_cast<unsigned long long>(len);
        write_bytes(aipTap->buf, chunk, static_cast<uint32>(len));
        aicShow(aipTap, false);
        if (fflush(stdout) == EOF)
            return;
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
        fprintf(stderr, "\ntap: %lu lost, %lu bytes skipped", aipTap->lost, aipTap->skipped);
    fprintf(stderr, "\n");
}

static const tMode *_find_mode(const char *aicpcName)
{
    static const tMode modes[] = {{"text", _show_text, "lines"},
                                  {"hex", _show_hex, "lines"},
                                  {"frames", _show_frames, "records"}};
    for (const tMode &mode : modes) {
        if (strcmp(mode.name, aicpcName) == 0)
            return &mode;
    }
    tool_answer('?', "tap", gicUsage);
}

int main(int argc, char **argv)
{
    static const int signals[] = {SIGHUP, 0};
    static const struct option options[] = {
        {"mode", required_argument, nullptr, 'm'},
        {"wait", required_argument, nullptr, 'w'},
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},
        {nullptr, 0, nullptr, 0},
    };
    const tMode *mode = _find_mode("text");
    int waitMs = 0;
    for (int opt; (opt = getopt_long(argc, argv, "m:w:hV", options, nullptr)) != -1;) {
        if (opt == 'w')
            waitMs = tool_number("tap", "wait", optarg, 0, INT_MAX);
        else if (opt == 'm')
            mode = _find_mode(optarg);
        else
            tool_answer(opt, "tap", gicUsage);
    }
    if (argc != optind + 1)
        tool_answer('?', "tap", gicUsage);

    tTap tap = {};
    const int signalFd = tool_signals(signals);
    const int fd = signalFd != -1 ? _connect(argv[optind], waitMs, signalFd) : -1;
    if (fd == -1 || (tap.buf = buffer_init(4096)) == nullptr) {
        fprintf(stderr, "tap: %s: %s\n", argv[optind], strerror(errno));
        return EXIT_FAILURE;
    }
    _receive(&tap, fd, signalFd, mode->show);
    mode->show(&tap, true);
    (void)fflush(stdout); // ferror() reports a failure
    _summary(&tap, mode);
    buffer_free(tap.buf);
    if (ferror(stdout) == 0)
        return EXIT_SUCCESS; // the exit closes the rest
    fprintf(stderr, "tap: standard output cannot be written\n");
    return EXIT_FAILURE;
}
