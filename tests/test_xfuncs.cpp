// SPDX-License-Identifier: MIT
#include "calls.h"
#include "support.h"
#include <arpa/inet.h>
#include <climits>
#include <common/self_log.h>
#include <common/xfuncs.h>
#include <ifaddrs.h>
#include <sys/resource.h>

eLogLevl gLogLevl = LOG_LEV_ERROR;

static const struct {
    const char *name, *family, *addr;
} gEntries[] = {{"lo", "0x0()", ""},
                {"lo", "0x2(AF_INET)", ""},
                {"eth0", "0x11(AF_PACKET)", ""},
                {"eth0", "0x3()", ""},
                {"eth0", "0xA(AF_INET6)", "2001:db8::1"},
                {"eth0", "0xA(AF_INET6)", "fe80::1"},
                {"eth01", "0xA(AF_INET6)", "febf:ff::2"},
                {"site", "0xA(AF_INET6)", "fec0::1"},
                {"low", "0xA(AF_INET6)", "fe7f::1"}};
static size_t gEntryCount; // how many of them the list holds now
static int gLists;         // lists that were had and not released
static in6_addr gAddr;
static rlimit gLimit;

extern "C" time_t time(time_t *) noexcept
{
    return 1700000000;
}

extern "C" int getifaddrs(ifaddrs **list) noexcept
{
    static ifaddrs links[std::size(gEntries)];
    static sockaddr_in6 addrs[std::size(gEntries)];
    *list = nullptr;
    for (size_t i = gEntryCount; i-- > 0; *list = &links[i]) {
        addrs[i].sin6_family = sa_family_t(strtol(gEntries[i].family, nullptr, 0));
        (void)inet_pton(AF_INET6, gEntries[i].addr, &addrs[i].sin6_addr);
        links[i].ifa_next = *list;
        links[i].ifa_name = const_cast<char *>(gEntries[i].name);
        links[i].ifa_addr = i > 0 ? reinterpret_cast<sockaddr *>(&addrs[i]) : nullptr;
    }
    gLists++;
    return 0;
}

extern "C" void freeifaddrs(ifaddrs *) noexcept
{
    gLists--;
}

// Raising the limit takes a privilege that a test seldom has. A sanitizer calls this before it is
// ready to watch it.
extern "C" __attribute__((no_sanitize("address", "undefined", "thread"))) int
setrlimit(__rlimit_resource_t resource, const rlimit *limit) noexcept
{
    gLimit = resource == RLIMIT_NOFILE ? *limit : gLimit;
    return 0;
}

TEST(Xfuncs, FailuresAreLoggedOnce)
{
    static char kept[] = "kept";
    static const auto lookUp = get_linklocal_ipv6addr;
    const std::string null = "aopcAddr6 and aipcIface can't be NULL!";
    const std::string random = "malloc() err!!!!\nERR xfuncs: xzMalloc() err!!!!";
#define HOLDS(call) #call, [] { return call; }
    const struct {
        const char *name;
        bool (*holds)();
        std::string fails, log; // the call that fails, and the line about it
    } cases[] = {
        {HOLDS(!xMalloc(5)), "malloc", "malloc() err!!!!"},
        {HOLDS(!xzMalloc(5)), "calloc", "malloc() err!!!!"},
        {HOLDS(!xzOneCalloc(-5)), "calloc", "calloc() err!!!!"},
        {HOLDS(!xCalloc(5, 7)), "calloc", "calloc() err!!!!"},
        {HOLDS(!xRealloc(kept, 9) && *kept == 'k'), "realloc", "realloc() err!!!!"},
        {HOLDS(!xMalloc(0)), "malloc", ""},
        {HOLDS(!xzMalloc(0) && !xzOneCalloc(0)), "calloc", ""},
        {HOLDS(!xCalloc(0, 5) && !xCalloc(5, 0)), "calloc", ""},
        {HOLDS(!xRealloc(kept, 0)), "realloc", ""},
        {HOLDS(!gen_random_string(4)), "calloc", random},
        {HOLDS(!gen_random_number_string(INT_MAX)), "calloc", random},
        {HOLDS(!gen_random_string(-1) && !gen_random_number_string(INT_MIN)), "", ""},
        {HOLDS(system_set_rlimit() == -2), "getrlimit", "getrlimit() err!!!!"},
        {HOLDS(system_set_rlimit() == -3), "setrlimit", "setrlimit() err!!!!"},
        {HOLDS(system_set_rlimit() == 0), "", ""}, // sets both, see below
        {HOLDS(lookUp(&gAddr, "lo") == -1), "getifaddrs", "getifaddrs error!!!!"},
        {HOLDS(lookUp(&gAddr, nullptr) == -1), "", null},
        {HOLDS(lookUp(nullptr, "lo") == -1), "", null},
    };
    for (const auto &c : cases)
        for (const eLogLevl shown : {LOG_LEV_ERROR, LOG_LEV_OFF}) {
            SCOPED_TRACE(testing::Message() << c.name << " while " << c.fails << " fails");
            gLogLevl = shown;
            srand(7);
            calls_watch(calls_fail(c.fails, c.log.empty() ? 0 : 1, ENOMEM)); // any retry succeeds
            const std::string said = tagged(output_of([&] { EXPECT_TRUE(c.holds()); }));
            EXPECT_EQ(said, c.log.empty() || !shown ? "" : "ERR xfuncs: " + c.log + "\n");
            const int next = rand(); // nobody seeded or drew
            srand(7);
            EXPECT_EQ(rand(), next);
        }
    EXPECT_EQ(gLists, 0);
    EXPECT_EQ(gLimit.rlim_cur, 40000u);
    EXPECT_EQ(gLimit.rlim_max, 40000u);
}

TEST(Xfuncs, AllocationsAreClearedAndKept)
{
    free(xMalloc(999));
    for (void *mem : {xzMalloc(999), xzOneCalloc(999), xCalloc(333, 3), xCalloc(3, 333)}) {
        EXPECT_EQ(std::string(static_cast<char *>(mem), 999), std::string(999, '\0'));
        mem = xRealloc(strcpy(static_cast<char *>(mem), "kept"), 100000);
        EXPECT_STREQ(static_cast<char *>(mem), "kept");
        EXPECT_EQ(xRealloc(mem, 0), nullptr); // releases it
    }
}

TEST(Xfuncs, CheckSumIsThatOfAByteLoop)
{
    char *const end = wall();
    for (size_t len = 0; len <= 150; len++)
        for (size_t shift = 0; shift < 64; shift++) {
            const std::string bytes = noise(len, unsigned(shift));
            char *const first = end - len - shift;
            char sum = 0;
            for (char byte : bytes)
                sum = char(sum ^ byte);
            bytes.copy(first, len);
            ASSERT_EQ(xorCheckSum(first, first + len - 1), sum) << len << " " << shift;
        }
    EXPECT_EQ(xorCheckSum(end, end - 9), 0);
}

TEST(Xfuncs, BaudRatesAreThoseOfTheCLibrary)
{
    for (int base = 0; base <= 4000000; base += base < 5000 ? 1 : 100)
        for (const int rate : {base - 1, base, base + 1}) {
            termios line;
            // It takes its own codes as well.
            const bool code = (rate > 0 && rate < 50) || (rate > 4096 && rate < 4112);
            const bool known = !code && cfsetspeed(&line, speed_t(rate)) == 0;
            ASSERT_EQ(tty_get_baudrate(rate), known ? cfgetospeed(&line) : speed_t(-1)) << rate;
        }
}

TEST(Xfuncs, LinkLocalLookUp)
{
    const size_t all = std::size(gEntries);
    const struct {
        const char *iface;
        size_t listed, traced;
        const char *addr;
        bool found = false;
    } cases[] = {{"eth0", 0, 0, "::1"},
                 {"eth0", 4, 4, "::1"},
                 {"eth0", all, 6, "fe80::1", true},
                 {"eth01", all, 7, "febf:ff::2", true},
                 {"eth", all, all, "fe7f::1"},
                 {"ETH0", 7, 7, "febf:ff::2"},
                 {"site", 8, 8, "fec0::1"},
                 {"low", all, all, "fe7f::1"}};
    for (const auto &c : cases)
        for (const std::string fails : {"", "inet_ntop"}) {
            SCOPED_TRACE(testing::Message() << c.iface << " among " << c.listed << ", " << fails);
            std::string text;
            for (size_t i = 0; i < c.traced; i++)
                text += std::string("ifa_name=") + gEntries[i].name +
                        ", family=" + gEntries[i].family + "\n";
            if (c.found && fails.empty())
                text += std::string("find out ") + c.iface +
                        "'s linklocal IPv6 address: " + c.addr + "\n";
            gEntryCount = c.listed;
            gAddr = in6addr_loopback;
            calls_watch(calls_fail(fails, 0, ENOSPC));
            EXPECT_EQ(text,
                      output_of([&] { EXPECT_EQ(get_linklocal_ipv6addr(&gAddr, c.iface), 0); }));
            calls_stop();
            char addr[INET6_ADDRSTRLEN];
            EXPECT_STREQ(inet_ntop(AF_INET6, &gAddr, addr, sizeof addr), c.addr);
            EXPECT_EQ(gLists, 0);
        }
}

// One draw a digit, two a character of the other kind, and none besides.
TEST(Xfuncs, RandomStrings)
{
    for (const int len : {0, 1000})
        for (const bool digits : {false, true}) {
            char *text = (digits ? gen_random_number_string : gen_random_string)(len);
            const int next = rand();
            std::string expected;
            srand(unsigned(time(nullptr)));
            for (int i = 0; i < len; i++) {
                const int flag = digits ? 2 : rand() % 3;
                expected += char("Aa0"[flag] + rand() % (flag == 2 ? 10 : 26));
            }
            EXPECT_EQ(rand(), next);
            EXPECT_EQ(text, expected);
            free(text);
        }
}
