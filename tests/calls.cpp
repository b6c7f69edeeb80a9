// SPDX-License-Identifier: MIT
#include "calls.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <map>
#include <mutex>
#include <pthread.h>
#include <sys/time.h>

static std::atomic<bool> gWatching{false};
static thread_local bool gInside; // the bookkeeping allocates; its calls are not counted
static std::mutex gLk;            // guards the two below
static tCallRule gRule;
static std::map<std::string, unsigned> gCounts;

static int _decide(const char *name)
{
    std::unique_lock<std::mutex> hold(gLk);
    const tCall call = {name, ++gCounts[name]};
    const tCallRule rule = gRule;
    hold.unlock();
    return rule ? rule(call) : 0;
}

static int _enter(const char *name)
{
    if (gInside || !gWatching.load(std::memory_order_relaxed))
        return 0;
    const int errNow = errno;
    gInside = true;
    int was; // a rule must not add cancellation points to the library
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &was);
    const int err = _decide(name);
    pthread_setcancelstate(was, nullptr);
    gInside = false;
    errno = errNow;
    return err;
}

void calls_watch(tCallRule rule)
{
    std::lock_guard<std::mutex> hold(gLk);
    gRule = std::move(rule);
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

unsigned calls_count(const std::string &name)
{
    std::lock_guard<std::mutex> hold(gLk);
    return gCounts[name];
}

// The names that the library calls where time and file offsets have 64 bits and a word has 32.
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

// Every argument and result of these functions fits into a word, except a time. So one signature
// serves all of them.
using tWord = intptr_t;
#define WRAP_AS(type, name, said, fails, failed)                                                   \
    extern "C" type __real_##name(tWord, tWord, tWord, tWord, tWord);                              \
    extern "C" type __wrap_##name(tWord a, tWord b, tWord c, tWord d, tWord e);                    \
    type __wrap_##name(tWord a, tWord b, tWord c, tWord d, tWord e)                                \
    {                                                                                              \
        [[maybe_unused]] const int err = _enter(said);                                             \
        if (fails) {                                                                               \
            errno = err;                                                                           \
            return failed;                                                                         \
        }                                                                                          \
        return __real_##name(a, b, c, d, e);                                                       \
    }
// A failing call sets errno and gives `failed`.
#define WRAP(name, failed)    WRAP_AS(tWord, name, #name, err != 0, failed)
#define WRAPTIME(name, shown) WRAP_AS(time_t, name, #name, err != 0, shown)
// A call that cannot fail is counted; its rule may delay it.
#define WATCH(name) WRAP_AS(tWord, name, #name, false, 0)

// A failing clock shows the first second of 2040, and one second more at each call.
static int _set_clock(tWord aiNow)
{
    *reinterpret_cast<timeval *>(aiNow) = {2208988799 + calls_count("gettimeofday"), 70942};
    return 0;
}

WRAP(accept, -1)
WRAP(bind, -1)
WRAP(connect, -1)
WRAP(listen, -1)
WRAP(socket, -1)
WRAP(setsockopt, -1)
WRAP(fcntl, -1)
WRAP(ioctl, -1)
WRAP(eventfd, -1)
WRAP(pipe, -1)
WRAP(poll, -1)
WRAP(select, -1)
WRAP(read, -1)
WRAP(write, -1)
WRAP(unlink, -1)
WRAP(kill, -1)
WRAP(sigprocmask, -1)
WRAP(execl, -1)
WRAP(getrlimit, -1)
WRAP(setrlimit, -1)
WRAP(getifaddrs, -1)
WRAP(nanosleep, -1)
WRAP(event_base_dispatch, -1)
WRAP(event_add, -1)
WRAP(fflush, -1)
WRAP(inet_ntop, 0)
WRAP(fopen, 0)
WRAP(fdopen, 0)
WRAP(fwrite, 0)
WRAP(malloc, 0)
WRAP(calloc, 0)
WRAP(realloc, 0)
WRAP(backtrace, 0)
WRAP(event_base_new, 0)
WRAP(event_new, 0)
WRAP(getdtablesize, -err)
WRAP(pthread_create, err)
WRAP(gettimeofday, _set_clock(a))
WRAPTIME(time, 2208988800)
WATCH(close)
WATCH(pthread_sigmask)
WATCH(signal)
WATCH(freeifaddrs)
WATCH(fclose)
WATCH(free)
WATCH(rand)
WATCH(sched_yield)
WATCH(localtime_r)
WATCH(pthread_cancel)
WATCH(pthread_join)
WATCH(pthread_setcancelstate)
WATCH(pthread_setcanceltype)
WATCH(pthread_rwlock_tryrdlock)
WATCH(pthread_rwlock_trywrlock)
WATCH(pthread_exit)
