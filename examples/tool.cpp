// SPDX-License-Identifier: MIT
#include "tool.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/time.h>
#include <unistd.h>

static constexpr suseconds_t gicGraceUs = 900000; // from the signal to the forced end

static int giSignalFd = -1; // an eventfd: not zero after a signal
static int gibCame[NSIG];
static volatile sig_atomic_t gibEnding;

void tool_answer(int aicOpt, const char *aicpcName, const char *aicpcUsage)
{
    if (aicOpt == 'V')
        printf("%s %s\n", aicpcName, KELVARA_VERSION);
    else
        fputs(aicpcUsage, aicOpt == 'h' ? stdout : stderr);
    exit(aicOpt == 'V' || aicOpt == 'h' ? EXIT_SUCCESS : 2);
}

int tool_number(const char *aicpcName, const char *aicpcWhat, const char *aicpcText, int aicMin,
                int aicMax)
{
    char *end = nullptr;
    errno = 0;
    const long value = strtol(aicpcText, &end, 10);
    if (errno == 0 && end != aicpcText && *end == '\0' && value >= aicMin && value <= aicMax)
        return static_cast<int>(value);
    fprintf(stderr, "%s: %s: \"%s\" is not a whole number from %d to %d\n", aicpcName, aicpcWhat,
            aicpcText, aicMin, aicMax);
    exit(2);
}

// A program that hangs, for instance in output to a console that is not read, must still handle
// signals. All calls here are async-signal-safe; in glibc setitimer() is, too.
static void _on_signal(int aiSignal)
{
    const uint64_t one = 1;
    const int saved = errno;
    if (aiSignal == SIGALRM)
        _exit(EXIT_FAILURE);
    if (gibEnding == 0 && (aiSignal == SIGINT || aiSignal == SIGTERM)) {
        const struct itimerval grace = {{0, 0}, {0, gicGraceUs}};
        gibEnding = 1;
        (void)setitimer(ITIMER_REAL, &grace, nullptr); // fails for a bad time only
    }
    __atomic_store_n(&gibCame[aiSignal], 1, __ATOMIC_RELAXED);
    (void)!write(giSignalFd, &one, sizeof one); // fails if the counter is full: it is readable then
    errno = saved;
}

// Also unblocks the signal, because the parent may have blocked it.
static void _handle(const int aicSignal, void (*aipHandler)(int))
{
    struct sigaction action = {};
    sigset_t set;
    action.sa_handler = aipHandler;
    action.sa_flags = SA_RESTART;
    sigemptyset(&set);
    sigaddset(&set, aicSignal);
    (void)sigaction(aicSignal, &action, nullptr); // these fail for a bad number only
    (void)pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

// A descriptor opened later must not get the number of a closed standard descriptor, or it would
// also receive the printed output. A folder serves the purpose: it can neither be read nor written.
static bool _fill_standard_descriptors(void)
{
    for (;;) {
        int fd = open("/dev/null", O_RDWR);
        if (fd == -1)
            fd = open("/", O_RDONLY);
        if (fd == -1)
            return false;
        if (fd > STDERR_FILENO) {
            (void)close(fd); // nothing was written
            return true;
        }
    }
}

int tool_signals(const int *aicpcMore)
{
    if (!_fill_standard_descriptors())
        return -1;
    giSignalFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (giSignalFd == -1)
        return -1;
    _handle(SIGINT, _on_signal);
    _handle(SIGTERM, _on_signal);
    _handle(SIGALRM, _on_signal);
    for (; *aicpcMore != 0; ++aicpcMore)
        _handle(*aicpcMore, _on_signal);
    _handle(SIGCHLD, SIG_DFL); // if it is ignored, no child can be waited for
    return giSignalFd;
}

bool tool_signal_came(int aicSignal)
{
    return __atomic_exchange_n(&gibCame[aicSignal], 0, __ATOMIC_RELAXED) != 0;
}

uint64_t tool_now_ns(clockid_t aicClock)
{
    struct timespec now;
    (void)clock_gettime(aicClock, &now); // fails for an unknown clock only
    return static_cast<uint64_t>(now.tv_sec) * 1000000000U + static_cast<uint64_t>(now.tv_nsec);
}
