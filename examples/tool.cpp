// SPDX-License-Identifier: MIT
#include "tool.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

static constexpr suseconds_t gicGraceUs = 900000; // from the signal to the forced end

static int giSignalPipe[2] = {-1, -1};
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
    fprintf(stderr, "%s: %s: \"%s\" is not allowed, a whole number from %d to %d is\n", aicpcName,
            aicpcWhat, aicpcText, aicMin, aicMax);
    exit(2);
}

// A program that hangs, in the output to a console that nobody reads for instance, still takes
// signals. A handler may call all of this; setitimer() too, in glibc.
static void _on_signal(int aiSignal)
{
    const int saved = errno;
    if (aiSignal == SIGALRM)
        _exit(EXIT_FAILURE);
    if (gibEnding == 0 && (aiSignal == SIGINT || aiSignal == SIGTERM)) {
        const struct itimerval grace = {{0, 0}, {0, gicGraceUs}};
        gibEnding = 1;
        (void)setitimer(ITIMER_REAL, &grace, nullptr); // fails for a bad time only
    }
    const char number = static_cast<char>(aiSignal);
    (void)!write(giSignalPipe[1], &number, sizeof number); // a full pipe is readable all the same
    errno = saved;
}

static void _catch(const int *aicpcSignals)
{
    struct sigaction action = {};
    action.sa_handler = _on_signal;
    action.sa_flags = SA_RESTART;
    for (; *aicpcSignals != 0; aicpcSignals++)
        (void)sigaction(*aicpcSignals, &action, nullptr); // fails for a bad number only
}

int tool_signals(const int *aicpcMore)
{
    static const int always[] = {SIGINT, SIGTERM, SIGALRM, 0};
    // What is opened next would get a closed standard descriptor, and what is printed with it.
    int fd;
    while ((fd = open("/dev/null", O_RDWR)) >= 0 && fd <= STDERR_FILENO)
        continue;
    if (fd > STDERR_FILENO)
        (void)close(fd); // nothing was written
    if (pipe2(giSignalPipe, O_CLOEXEC | O_NONBLOCK) == -1)
        return -1;
    _catch(always);
    _catch(aicpcMore);
    return giSignalPipe[0];
}

uint64_t tool_now_ns(clockid_t aicClock)
{
    struct timespec now;
    (void)clock_gettime(aicClock, &now); // fails for an unknown clock only
    return static_cast<uint64_t>(now.tv_sec) * 1000000000U + static_cast<uint64_t>(now.tv_nsec);
}
