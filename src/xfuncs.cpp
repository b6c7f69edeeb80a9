// SPDX-License-Identifier: MIT
#include <common/self_log.h>
#include <common/xfuncs.h>

#include "thread_internal.h"

#include <arpa/inet.h>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <ifaddrs.h>
#include <sys/resource.h>

static constexpr eLogLevl gicDbLev = LOG_LEV_ERROR;
static constexpr rlim_t gicMaxOpenFiles = 40000;

struct tRate {
    int bitsPerSec;
    speed_t code;
};

static constexpr tRate gicRates[] = {
    {0, B0},
    {50, B50},
    {75, B75},
    {110, B110},
    {134, B134},
    {150, B150},
    {200, B200},
    {300, B300},
    {600, B600},
    {1200, B1200},
    {1800, B1800},
    {2400, B2400},
    {4800, B4800},
    {9600, B9600},
    {19200, B19200},
    {38400, B38400},
    {57600, B57600},
    {115200, B115200},
    {230400, B230400},
    {460800, B460800},
    {500000, B500000},
    {576000, B576000},
    {921600, B921600},
    {1000000, B1000000},
    {1152000, B1152000},
    {1500000, B1500000},
    {2000000, B2000000},
    {2500000, B2500000},
    {3000000, B3000000},
    {3500000, B3500000},
    {4000000, B4000000},
};
// Hosts keep the codes as plain numbers, so a platform with other numbers is refused here.
static_assert(B0 == 0 && B9600 == 13 && B38400 == 15, "basic line speeds");
static_assert(B57600 == 4097 && B115200 == 4098 && B4000000 == 4111, "extended line speeds");

using tWord = size_t; // the processor's word

static tWord _load_word(const char *aipcFrom)
{
    tWord word;
    memcpy(&word, aipcFrom, sizeof word); // it may be unaligned
    return word;
}

static const char *_family_name(int aicFamily)
{
    switch (aicFamily) {
    case AF_PACKET:
        return "AF_PACKET";
    case AF_INET:
        return "AF_INET";
    case AF_INET6:
        return "AF_INET6";
    default:
        return "";
    }
}

static bool _is_linklocal(const in6_addr &aicAddr)
{
    return aicAddr.s6_addr[0] == 0xFE && (aicAddr.s6_addr[1] & 0xC0) == 0x80;
}

// Examines one entry; returns true if it is the address.
static bool _visit_ifaddr(const ifaddrs *aipcEntry, in6_addr *aopAddr6, const char *aipcIface)
{
    const int family = aipcEntry->ifa_addr != nullptr ? aipcEntry->ifa_addr->sa_family : 0;
    // Best effort, here and below: a lost trace line cannot be reported.
    (void)printf("ifa_name=%s, family=0x%X(%s)\n", aipcEntry->ifa_name,
                 static_cast<unsigned>(family), _family_name(family));
    if (family != AF_INET6)
        return false;
    // Copied before anything is compared: without a match the caller gets the last IPv6 address.
    memcpy(aopAddr6,
           reinterpret_cast<const char *>(aipcEntry->ifa_addr) + offsetof(sockaddr_in6, sin6_addr),
           sizeof *aopAddr6);
    return strcmp(aipcEntry->ifa_name, aipcIface) == 0 && _is_linklocal(*aopAddr6);
}

static char _draw_digit()
{
    return static_cast<char>('0' + rand() % 10);
}

static char _draw_alphanumeric()
{
    const int flag = rand() % 3;
    if (flag == 2)
        return _draw_digit();
    return static_cast<char>((flag == 0 ? 'A' : 'a') + rand() % 26);
}

static char *_gen_string(int aicLen, char (*aicpDraw)())
{
    if (aicLen < 0)
        return nullptr;
    // INT_MAX + 1 wraps to a negative size, which no allocator can satisfy.
    auto *const text =
        static_cast<char *>(xzMalloc(static_cast<int>(static_cast<unsigned>(aicLen) + 1U)));
    if (text == nullptr) {
        LOG_MSG(LOG_LEV_ERROR, "xzMalloc() err!!!!\n");
        return nullptr;
    }
    (void)pthread_mutex_lock(&gThreadLibcLk);
    srand(static_cast<unsigned>(time(nullptr)));
    for (int i = 0; i < aicLen; i++)
        text[i] = aicpDraw();
    (void)pthread_mutex_unlock(&gThreadLibcLk);
    text[aicLen] = '\0';
    return text;
}

void *xMalloc(int aicSize)
{
    void *const mem = malloc(static_cast<size_t>(aicSize));
    if (mem == nullptr && aicSize != 0)
        LOG_MSG(LOG_LEV_ERROR, "malloc() err!!!!\n");
    return mem;
}

void *xzMalloc(int aicSize)
{
    void *const mem = calloc(static_cast<size_t>(aicSize), 1);
    if (mem == nullptr && aicSize != 0)
        LOG_MSG(LOG_LEV_ERROR, "malloc() err!!!!\n");
    return mem;
}

void *xzOneCalloc(int aicSize)
{
    void *const mem = calloc(1, static_cast<size_t>(aicSize));
    if (mem == nullptr && aicSize != 0)
        LOG_MSG(LOG_LEV_ERROR, "calloc() err!!!!\n");
    return mem;
}

void *xRealloc(void *aipPtr, int aicSize)
{
    void *const mem = realloc(aipPtr, static_cast<size_t>(aicSize));
    if (mem == nullptr && aicSize != 0)
        LOG_MSG(LOG_LEV_ERROR, "realloc() err!!!!\n");
    return mem;
}

void *xCalloc(int aicNumMem, int aicSize)
{
    void *const mem = calloc(static_cast<size_t>(aicNumMem), static_cast<size_t>(aicSize));
    if (mem == nullptr && aicNumMem != 0 && aicSize != 0)
        LOG_MSG(LOG_LEV_ERROR, "calloc() err!!!!\n");
    return mem;
}

char xorCheckSum(const char *const aicpcStartPtr, const char *const aicpcEndPtr)
{
    const auto first = reinterpret_cast<uintptr_t>(aicpcStartPtr);
    const auto last = reinterpret_cast<uintptr_t>(aicpcEndPtr);
    if (first > last)
        return 0;
    const char *at = aicpcStartPtr;
    size_t left = last - first + 1;

    // Eight words in each iteration hide the cost of counting, and only one of its sums depends on
    // the iteration before.
    constexpr size_t step = sizeof(tWord);
    tWord folded = 0;
    for (; left >= 8 * step; left -= 8 * step, at += 8 * step)
        folded ^= ((_load_word(at) ^ _load_word(at + step)) ^
                   (_load_word(at + 2 * step) ^ _load_word(at + 3 * step))) ^
                  ((_load_word(at + 4 * step) ^ _load_word(at + 5 * step)) ^
                   (_load_word(at + 6 * step) ^ _load_word(at + 7 * step)));
    for (; left >= step; left -= step, at += step)
        folded ^= _load_word(at);
    for (size_t half = step * 4; half >= 8; half /= 2)
        folded ^= folded >> half;
    for (; left > 0; left--, at++)
        folded ^= static_cast<unsigned char>(*at);
    return static_cast<char>(folded);
}

speed_t tty_get_baudrate(int aicBaudRate)
{
    for (const tRate &rate : gicRates)
        if (rate.bitsPerSec == aicBaudRate)
            return rate.code;
    return static_cast<speed_t>(-1);
}

int system_set_rlimit(void)
{
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        LOG_MSG(LOG_LEV_ERROR, "getrlimit() err!!!!\n");
        return -2;
    }
    limit.rlim_cur = gicMaxOpenFiles;
    limit.rlim_max = gicMaxOpenFiles;
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        LOG_MSG(LOG_LEV_ERROR, "setrlimit() err!!!!\n");
        return -3;
    }
    return 0;
}

int get_linklocal_ipv6addr(struct in6_addr *aopcAddr6, const char *aipcIface)
{
    if (aopcAddr6 == nullptr || aipcIface == nullptr) {
        LOG_MSG(LOG_LEV_ERROR, "aopcAddr6 and aipcIface can't be NULL!\n");
        return -1;
    }
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0) {
        LOG_MSG(LOG_LEV_ERROR, "getifaddrs error!!!!\n");
        return -1;
    }
    const ifaddrs *entry = list;
    while (entry != nullptr && !_visit_ifaddr(entry, aopcAddr6, aipcIface))
        entry = entry->ifa_next;
    char text[200];
    if (entry != nullptr && inet_ntop(AF_INET6, aopcAddr6, text, sizeof text) != nullptr)
        (void)printf("find out %s's linklocal IPv6 address: %s\n", aipcIface, text);
    freeifaddrs(list);
    return 0;
}

char *gen_random_string(const int aicLen)
{
    return _gen_string(aicLen, _draw_alphanumeric);
}

char *gen_random_number_string(const int aicLen)
{
    return _gen_string(aicLen, _draw_digit);
}
