// SPDX-License-Identifier: MIT
//
// watchdogd: the supervisor's side of the heartbeats, for the desk.
//
//     watchdogd SOCKET [LATE_MS]
//
// Prints each heartbeat with the daemon's name and the time since the one before, and a warning
// when there was none for LATE_MS (2000). Ends with status 0 on SIGINT or SIGTERM, and removes its
// socket. One thread: everything hangs on one poll().
#include <common/buffer.h>
#include <common/self_dog.h>
#include <common/self_log.h>

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stddef.h>
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
static tFed giFed[gicFirst + gicFedMax]; // of the same index
static nfds_t giUsed = gicFirst;
static uint64_t giLateMs = 2000;

static uint64_t _now_ms(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000U +
           static_cast<uint64_t>(now.tv_nsec) / 1000000U;
}

static void _say(const tFed *aipFed, const char *aicpcWhat, const uint64_t aicMs)
{
    struct timespec now;
    struct tm local;
    clock_gettime(CLOCK_REALTIME, &now);
    localtime_r(&now.tv_sec, &local);
    printf("%02d:%02d:%02d.%03ld  %-12s %4u  %-10s %10.3f s\n", local.tm_hour, local.tm_min,
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

// The last one moves to the freed place.
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

// A heartbeat may come in pieces, or several at once. False: the daemon has gone.
static bool _receive(const int aicFd, tFed *aipFed)
{
    char chunk[1024];
    const ssize_t len = read(aicFd, chunk, sizeof(chunk));
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

// Warns once a silence.
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
        if (poll(giPoll, giUsed, 50) == -1 && errno != EINTR)
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

int main(int argc, char **argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    if (argc < 2 || argc > 3 || strlen(argv[1]) >= sizeof(addr.sun_path)) {
        fprintf(stderr, "usage: watchdogd SOCKET [LATE_MS]\n");
        return 2;
    }
    memcpy(addr.sun_path, argv[1], strlen(argv[1]) + 1);
    if (argc == 3)
        giLateMs = strtoul(argv[2], nullptr, 10);

    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    giPoll[0] = {signalfd(-1, &set, SFD_CLOEXEC), POLLIN, 0};
    giPoll[1] = {socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), POLLIN, 0};
    unlink(argv[1]);
    if (giPoll[0].fd == -1 || giPoll[1].fd == -1 ||
        bind(giPoll[1].fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr)) == -1 ||
        listen(giPoll[1].fd, 16) == -1) {
        fprintf(stderr, "watchdogd: %s: %s\n", argv[1], strerror(errno));
        return EXIT_FAILURE;
    }
    _serve();
    unlink(argv[1]);
    return EXIT_SUCCESS;
}
