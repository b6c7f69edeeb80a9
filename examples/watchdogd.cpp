// SPDX-License-Identifier: MIT
//
// watchdogd: the receiver of the heartbeats, for development. One thread handles everything with
// one poll().
#include "sockfile.h"
#include "tool.h"

#include <common/buffer.h>
#include <common/self_dog.h>
#include <common/self_log.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstddef>
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

typedef struct _tFed_ {
    buffer_t *bytes; // received, not yet a whole heartbeat
    uint64_t lastMs; // when the connection or the last heartbeat came
    unsigned count;
    bool bLate;
    char name[256];
} tFed;

static constexpr nfds_t gicFedMax = 64;
static constexpr nfds_t gicFirst = 2; // before the daemons: the signals, the listening socket

static struct pollfd giPoll[gicFirst + gicFedMax];
static tFed giFed[gicFirst + gicFedMax]; // with the index of giPoll
static nfds_t giUsed = gicFirst;
static uint64_t giLateMs = 2000;

static const char gicUsage[] =
    "usage: watchdogd SOCKET [LATE_MS]\n"
    "Prints a line for each heartbeat: time of day, name, count, and the time since\n"
    "the last one; and a line if none comes for LATE_MS milliseconds (default 2000).\n"
    "\n"
    "  -h, --help     prints this\n"
    "  -V, --version  prints the version\n"
    "\n"
    "SIGINT, SIGTERM, SIGHUP: ends, and removes its socket.\n";

static uint64_t _now_ms(void)
{
    return tool_now_ns(CLOCK_MONOTONIC) / 1000000U;
}

static void _say(const tFed *aipFed, const char *aicpcWhat, const uint64_t aicMs)
{
    struct timespec now;
    struct tm local;
    clock_gettime(CLOCK_REALTIME, &now);
    localtime_r(&now.tv_sec, &local);
    printf("%02d:%02d:%02d.%03ld  %-12.24s %4u  %-10s %10.3f s\n", local.tm_hour, local.tm_min,
           local.tm_sec, now.tv_nsec / 1000000, aipFed->name, aipFed->count, aicpcWhat,
           static_cast<double>(aicMs) / 1000);
}

static void _admit(const int aicListenFd)
{
    const int fd = accept4(aicListenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd == -1)
        return;
    buffer_t *bytes = giUsed < gicFirst + gicFedMax ? buffer_init(0) : nullptr;
    if (bytes == nullptr) {
        fprintf(stderr, "watchdogd: no room for another daemon\n");
        close(fd);
        return;
    }
    giFed[giUsed] = {bytes, _now_ms(), 0, false, "?"};
    giPoll[giUsed++] = {fd, POLLIN, 0};
}

// Moves the last daemon to the freed place.
static void _dismiss(const nfds_t aicIdx)
{
    close(giPoll[aicIdx].fd);
    buffer_free(giFed[aicIdx].bytes);
    giUsed--;
    giPoll[aicIdx] = giPoll[giUsed];
    giFed[aicIdx] = giFed[giUsed];
}

static void _take_name(tFed *aipFed, const char *aicpcName, const size_t aicLen)
{
    for (size_t i = 0; i < aicLen; i++)
        aipFed->name[i] = aicpcName[i] > ' ' && aicpcName[i] <= '~' ? aicpcName[i] : '?';
    aipFed->name[aicLen] = '\0';
}

// A heartbeat may arrive in pieces, or several at once. Returns false if the daemon has gone.
static bool _receive(const int aicFd, tFed *aipFed)
{
    char chunk[1024];
    const ssize_t len = read(aicFd, chunk, sizeof chunk);
    if (len <= 0)
        return len == -1 && (errno == EAGAIN || errno == EINTR);
    write_bytes(aipFed->bytes, chunk, static_cast<uint32>(len));
    constexpr size_t head = offsetof(tWthdogFed, name);
    for (;;) {
        const char *const data = aipFed->bytes->ptr;
        const size_t used = static_cast<size_t>(aipFed->bytes->used);
        const size_t nameLen = used < head ? 0 : static_cast<unsigned char>(data[head - 1]);
        if (used < head + nameLen)
            return true;
        const uint64_t now = _now_ms();
        _take_name(aipFed, data + head, nameLen);
        aipFed->count++;
        _say(aipFed, "heartbeat", now - aipFed->lastMs);
        aipFed->lastMs = now;
        aipFed->bLate = false;
        buffer_shift(aipFed->bytes, static_cast<int>(head + nameLen));
    }
}

// Warns once for each silence.
static void _check_late(void)
{
    const uint64_t now = _now_ms();
    for (nfds_t i = gicFirst; i < giUsed; i++) {
        if (!giFed[i].bLate && now - giFed[i].lastMs > giLateMs) {
            giFed[i].bLate = true;
            _say(&giFed[i], "IS LATE", now - giFed[i].lastMs);
        }
    }
}

static void _serve(void)
{
    while (giPoll[0].revents == 0) {
        const int waitMs = giUsed > gicFirst ? 50 : -1; // without a daemon none can be late
        if (poll(giPoll, giUsed, waitMs) == -1 && errno != EINTR)
            return;
        for (nfds_t i = giUsed; i-- > gicFirst;) {
            if (giPoll[i].revents != 0 && !_receive(giPoll[i].fd, &giFed[i])) {
                _say(&giFed[i], "has left", _now_ms() - giFed[i].lastMs);
                _dismiss(i);
            }
        }
        if (giPoll[1].revents != 0)
            _admit(giPoll[1].fd);
        _check_late();
    }
}

// The listening socket, or -1 with errno.
static int _listen(const char *aicpcPath)
{
    struct sockaddr_un addr;
    errno = sockfile_address(&addr, aicpcPath);
    if (errno == 0)
        errno = sockfile_claim(aicpcPath);
    if (errno != 0)
        return -1;
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd != -1 && bind(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) == 0 &&
        listen(fd, 16) == 0)
        return fd;
    return -1; // the program ends and closes it
}

int main(int argc, char **argv)
{
    static const int signals[] = {SIGHUP, 0};
    static const struct option options[] = {{"help", no_argument, nullptr, 'h'},
                                            {"version", no_argument, nullptr, 'V'},
                                            {nullptr, 0, nullptr, 0}};
    const int opt = getopt_long(argc, argv, "hV", options, nullptr);
    if (opt != -1 || argc < optind + 1 || argc > optind + 2)
        tool_answer(opt, "watchdogd", gicUsage);
    const char *const path = argv[optind];
    if (argc == optind + 2)
        giLateMs = static_cast<uint64_t>(
            tool_number("watchdogd", "LATE_MS", argv[optind + 1], 1, INT_MAX));

    setvbuf(stdout, nullptr, _IOLBF, 0);
    giPoll[0] = {tool_signals(signals), POLLIN, 0};
    giPoll[1] = {giPoll[0].fd != -1 ? _listen(path) : -1, POLLIN, 0};
    if (giPoll[1].fd == -1) {
        fprintf(stderr, "watchdogd: %s: %s\n", path, strerror(errno));
        return EXIT_FAILURE;
    }
    tSockFile file;
    sockfile_bound(&file, path);
    _serve();
    (void)close(giPoll[1].fd); // nothing was written to it
    sockfile_remove(&file);
    return EXIT_SUCCESS;
}
