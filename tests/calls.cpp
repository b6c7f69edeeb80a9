// SPDX-License-Identifier: MIT
#include "calls.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <event2/event.h>
#include <execinfo.h>
#include <ifaddrs.h>
#include <map>
#include <mutex>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>

static std::atomic<bool> gWatching{false};
static thread_local bool gInside; // the bookkeeping below allocates, and must not count itself
static std::mutex gLk;            // guards the three below
static tCallRule gRule;
static std::vector<std::string> gSeen;
static std::map<std::string, unsigned> gCounts;
static std::atomic<const char *> gExitText{""};

static int _enter(const char *name)
{
    if (gInside || !gWatching.load(std::memory_order_relaxed))
        return 0;
    int errNow = errno;
    gInside = true;
    int was; // where a cancel may take effect is the library's choice, not that of a rule
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &was);
    int err = 0;
    {
        tCall call{name, 0, 0};
        tCallRule rule;
        {
            std::lock_guard<std::mutex> hold(gLk);
            gSeen.emplace_back(name);
            call.index = static_cast<unsigned>(gSeen.size());
            call.nth = ++gCounts[name];
            rule = gRule;
        }
        err = rule ? rule(call) : 0;
    }
    pthread_setcancelstate(was, nullptr);
    gInside = false;
    errno = errNow;
    return err;
}

void calls_watch(tCallRule rule)
{
    std::lock_guard<std::mutex> hold(gLk);
    gRule = std::move(rule);
    gSeen.clear();
    gCounts.clear();
    gWatching = true;
}

void calls_uncounted(const std::function<void()> &body)
{
    const bool was = gInside;
    gInside = true;
    body();
    gInside = was;
}

std::string calls_exit_text()
{
    return gExitText.load();
}

void calls_stop()
{
    gWatching = false;
}

tCallRule calls_fail(std::string name, unsigned nth, int err)
{
    return [=](const tCall &call) {
        return name == call.name && (nth == 0 || nth == call.nth) ? err : 0;
    };
}

std::vector<std::string> calls_seen()
{
    std::lock_guard<std::mutex> hold(gLk);
    return gSeen;
}

unsigned calls_count(const std::string &name)
{
    std::lock_guard<std::mutex> hold(gLk);
    auto at = gCounts.find(name);
    return at == gCounts.end() ? 0 : at->second;
}

// What the library calls instead where its time and files have 64 bits and a word has not.
#ifdef __USE_TIME_BITS64
#define fcntl        __fcntl_time64
#define fopen        fopen64
#define getrlimit    getrlimit64
#define gettimeofday __gettimeofday64
#define ioctl        __ioctl_time64
#define localtime_r  __localtime64_r
#define nanosleep    __nanosleep64
#define select       __select64
#define setrlimit    setrlimit64
#define setsockopt   __setsockopt64
#define time         __time64
#endif

// A failing call sets errno and gives `failed`; the pthread calls give the error number itself.
#define WRAP(type, name, params, args, failed) WRAP_AS(type, name, #name, params, args, failed)
#define WATCH(type, name, params, args)        WATCH_AS(type, name, #name, params, args)
#define WRAP_AS(type, name, said, params, args, failed)                                            \
    extern "C" type __real_##name params;                                                          \
    extern "C" type __wrap_##name params;                                                          \
    type __wrap_##name params                                                                      \
    {                                                                                              \
        if (int err = _enter(said)) {                                                              \
            errno = err;                                                                           \
            return failed;                                                                         \
        }                                                                                          \
        return __real_##name args;                                                                 \
    }
// One that cannot fail is only counted and, by its rule, held.
#define WATCH_AS(type, name, said, params, args)                                                   \
    extern "C" type __real_##name params;                                                          \
    extern "C" type __wrap_##name params;                                                          \
    type __wrap_##name params                                                                      \
    {                                                                                              \
        (void)_enter(said);                                                                        \
        return __real_##name args;                                                                 \
    }

using tEtCb = void (*)(int, short, void *);
using tStart = void *(*)(void *);

WRAP(int, accept, (int a, sockaddr *b, socklen_t *c), (a, b, c), -1)
WRAP(int, bind, (int a, const sockaddr *b, socklen_t c), (a, b, c), -1)
WRAP(int, connect, (int a, const sockaddr *b, socklen_t c), (a, b, c), -1)
WRAP(int, listen, (int a, int b), (a, b), -1)
WRAP(int, socket, (int a, int b, int c), (a, b, c), -1)
WRAP(int, setsockopt, (int a, int b, int c, const void *d, socklen_t e), (a, b, c, d, e), -1)
WRAP(int, fcntl, (int a, int b, long c), (a, b, c), -1)
WRAP(int, ioctl, (int a, unsigned long b, void *c), (a, b, c), -1)
WRAP(int, eventfd, (unsigned a, int b), (a, b), -1)
WRAP(int, pipe, (int *a), (a), -1)
WRAP(int, poll, (pollfd * a, nfds_t b, int c), (a, b, c), -1)
WRAP(int, select, (int a, fd_set *b, fd_set *c, fd_set *d, timeval *e), (a, b, c, d, e), -1)
WRAP(ssize_t, read, (int a, void *b, size_t c), (a, b, c), -1)
WRAP(ssize_t, write, (int a, const void *b, size_t c), (a, b, c), -1)
WATCH(int, close, (int a), (a))
WRAP(int, unlink, (const char *a), (a), -1)
WRAP(int, kill, (pid_t a, int b), (a, b), -1)
WRAP(int, sigprocmask, (int a, const sigset_t *b, sigset_t *c), (a, b, c), -1)
WATCH(int, pthread_sigmask, (int a, const sigset_t *b, sigset_t *c), (a, b, c))
WATCH(sighandler_t, signal, (int a, sighandler_t b), (a, b))
WRAP(int, execl, (const char *a, const char *b, const char *c, const char *d, void *e),
     (a, b, c, d, e), -1)
WRAP(int, getdtablesize, (), (), -err)
WRAP(int, getrlimit, (int a, rlimit *b), (a, b), -1)
WRAP(int, setrlimit, (int a, const rlimit *b), (a, b), -1)
WRAP(int, getifaddrs, (ifaddrs * *a), (a), -1)
WATCH(void, freeifaddrs, (ifaddrs * a), (a))
WRAP(const char *, inet_ntop, (int a, const void *b, char *c, socklen_t d), (a, b, c, d), nullptr)
WRAP(FILE *, fopen, (const char *a, const char *b), (a, b), nullptr)
WRAP(FILE *, fdopen, (int a, const char *b), (a, b), nullptr)
WATCH(int, fclose, (FILE * a), (a))
WRAP(int, fflush, (FILE * a), (a), EOF)
WRAP(size_t, fwrite, (const void *a, size_t b, size_t c, FILE *d), (a, b, c, d), 0)
WRAP(void *, malloc, (size_t a), (a), nullptr)
WRAP(void *, calloc, (size_t a, size_t b), (a, b), nullptr)
WRAP(void *, realloc, (void *a, size_t b), (a, b), nullptr)
WATCH(void, free, (void *a), (a))
WATCH(int, rand, (), ())
// A clock does not fail: it shows the first second of 2040, the next time the next one.
WRAP(time_t, time, (time_t * a), (a), 2208988800)
WRAP(int, gettimeofday, (timeval * a, void *b), (a, b),
     (a->tv_sec = 2208988799 + calls_count("gettimeofday"), 0))
WATCH(int, sched_yield, (), ())
WATCH(tm *, localtime_r, (const time_t *a, tm *b), (a, b))
WRAP(int, nanosleep, (const timespec *a, timespec *b), (a, b), -1)
WRAP(int, backtrace, (void **a, int b), (a, b), 0)
WRAP(int, pthread_create, (pthread_t * a, const pthread_attr_t *b, tStart c, void *d), (a, b, c, d),
     err)
WATCH(int, pthread_cancel, (pthread_t a), (a))
WATCH(int, pthread_join, (pthread_t a, void **b), (a, b))
extern "C" [[noreturn]] void __real_pthread_exit(void *);
extern "C" [[noreturn]] void __wrap_pthread_exit(void *a);
void __wrap_pthread_exit(void *a)
{
    gExitText = static_cast<const char *>(a);
    (void)_enter("pthread_exit");
    __real_pthread_exit(a);
}
WATCH(int, pthread_setcancelstate, (int a, int *b), (a, b))
WATCH(int, pthread_setcanceltype, (int a, int *b), (a, b))
WATCH(int, pthread_rwlock_tryrdlock, (pthread_rwlock_t * a), (a))
WATCH(int, pthread_rwlock_trywrlock, (pthread_rwlock_t * a), (a))
WRAP(int, sem_wait, (sem_t * a), (a), -1)
WRAP(event_base *, event_base_new, (), (), nullptr)
WRAP(int, event_base_dispatch, (event_base * a), (a), -1)
WRAP(event *, event_new, (event_base * a, int b, short c, tEtCb d, void *e), (a, b, c, d, e),
     nullptr)
WRAP(int, event_add, (event * a, const timeval *b), (a, b), -1)
