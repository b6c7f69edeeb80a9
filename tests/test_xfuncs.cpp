// SPDX-License-Identifier: MIT
#include <common/xfuncs.h>

#include "calls.h"
#include "support.h"

#include <arpa/inet.h>
#include <climits>
#include <ifaddrs.h>
#include <sys/resource.h>

static const struct {
    const char *name, *family, *addr;
} gicEntries[] = {{"lo", "0x0()", ""},
                  {"eth0", "0x11(AF_PACKET)", ""},
                  {"eth0", "0xA(AF_INET6)", "2080::1"},
                  {"eth0", "0xA(AF_INET6)", "fe7f::1"},
                  {"eth0", "0xA(AF_INET6)", "fec0::1"},
                  {"eth01", "0xA(AF_INET6)", "febf:ff::2"},
                  {"eth0", "0xA(AF_INET6)", "fe80::1"},
                  {"lo", "0x2(AF_INET)", ""}};

extern "C" int getifaddrs(ifaddrs **list) noexcept
{
    static ifaddrs links[std::size(gicEntries)];
    static sockaddr_in6 addrs[std::size(gicEntries)];
    *list = nullptr;
    for (size_t i = std::size(gicEntries); i-- > 0; *list = &links[i]) {
        addrs[i].sin6_family = static_cast<sa_family_t>(strtol(gicEntries[i].family, nullptr, 0));
        (void)inet_pton(AF_INET6, gicEntries[i].addr, &addrs[i].sin6_addr);
        links[i].ifa_next = *list;
        links[i].ifa_name = const_cast<char *>(gicEntries[i].name);
        if (i > 0)
            links[i].ifa_addr = reinterpret_cast<sockaddr *>(&addrs[i]);
    }
    return 0;
}

extern "C" void freeifaddrs(ifaddrs *) noexcept {}

static rlimit gLimit;

// The real call needs a privilege. It is not instrumented, because a sanitizer calls it before its
// own start-up is complete.
extern "C" __attribute__((no_sanitize("address", "undefined", "thread"))) int
setrlimit(__rlimit_resource_t, const rlimit *limit) noexcept
{
    gLimit = *limit;
    return 0;
}

TEST(Xfuncs, FailuresAreLoggedOnce)
{
    static in6_addr addr;
    static const auto lookUp = get_linklocal_ipv6addr;
    const string null = "aopcAddr6 and aipcIface can't be NULL!";
#define HOLDS(call) #call, [] { return call; }
    const struct {
        const char *name;
        bool (*holds)();
        string fails, log; // the failing calls, and the log line
    } cases[] = {
        {HOLDS(!xMalloc(5)), "malloc", "malloc() err!!!!"},
        {HOLDS(!xzMalloc(5)), "calloc", "malloc() err!!!!"},
        {HOLDS(!xzOneCalloc(-5)), "calloc", "calloc() err!!!!"},
        {HOLDS(!xCalloc(5, 7)), "calloc", "calloc() err!!!!"},
        {HOLDS(!xRealloc(nullptr, 9)), "realloc", "realloc() err!!!!"},
        {HOLDS(!xMalloc(0) && !xzMalloc(0) && !xzOneCalloc(0) && !xCalloc(0, 5) && !xCalloc(5, 0) &&
               !xRealloc(nullptr, 0)),
         "malloc calloc realloc", ""},
        {HOLDS(!gen_random_number_string(INT_MAX)), "calloc",
         "malloc() err!!!!\nERR xfuncs: xzMalloc() err!!!!"},
        {HOLDS(!gen_random_string(-1)), "", ""},
        {HOLDS(system_set_rlimit() == -2), "getrlimit", "getrlimit() err!!!!"},
        {HOLDS(system_set_rlimit() == -3), "setrlimit", "setrlimit() err!!!!"},
        {HOLDS(system_set_rlimit() == 0 && gLimit.rlim_cur == 40000), "", ""},
        {HOLDS(gLimit.rlim_max == 40000), "", ""},
        {HOLDS(lookUp(&addr, "lo") == -1), "getifaddrs", "getifaddrs error!!!!"},
        {HOLDS(lookUp(&addr, nullptr) == -1), "", null},
        {HOLDS(lookUp(nullptr, "lo") == -1), "", null},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(Message() << c.name << " while " << c.fails << " fails");
        calls_watch([&](const tCall &call) {
            return c.fails.find(call.name) != string::npos ? ENOMEM : 0;
        });
        const string said = tagged(output_of([&] { EXPECT_TRUE(c.holds()); }));
        EXPECT_EQ(c.log.empty() ? "" : "ERR xfuncs: " + c.log + "\n", said);
    }
}

TEST(Xfuncs, AllocationsAreClearedAndKept)
{
    free(xMalloc(999));
    for (void *mem : {xzMalloc(999), xzOneCalloc(999), xCalloc(333, 3)}) {
        EXPECT_EQ(string(999, '\0'), string(static_cast<char *>(mem), 999));
        mem = xRealloc(strcpy(static_cast<char *>(mem), "kept"), 100000);
        EXPECT_STREQ("kept", static_cast<char *>(mem));
        EXPECT_EQ(nullptr, xRealloc(mem, 0)); // releases it
    }
}

TEST(Xfuncs, CheckSumIsThatOfAByteLoop)
{
    char *const end = wall();
    for (size_t len = 0; len <= 150; ++len)
        for (size_t shift = 0; shift < 64; ++shift) {
            const string bytes = noise(len, static_cast<unsigned>(shift));
            char *const first = end - len - shift;
            char sum = 0;
            for (const char byte : bytes)
                sum ^= byte;
            bytes.copy(first, len);
            ASSERT_EQ(sum, xorCheckSum(first, first + len - 1)) << len << " " << shift;
        }
    EXPECT_EQ(0, xorCheckSum(end, end - 9));
}

TEST(Xfuncs, BaudRatesAreThoseOfTheCLibrary)
{
    for (int base = 0; base <= 4000000; base += base < 5000 ? 1 : 100)
        for (const int rate : {base - 1, base, base + 1}) {
            termios line;
            // cfsetspeed() also accepts the codes themselves.
            const bool code = (rate > 0 && rate < 50) || (rate > 4096 && rate < 4112);
            const bool known = !code && cfsetspeed(&line, static_cast<speed_t>(rate)) == 0;
            ASSERT_EQ(known ? cfgetospeed(&line) : ~0U, tty_get_baudrate(rate)) << rate;
        }
}

TEST(Xfuncs, LinkLocalLookUp)
{
    const struct {
        const char *iface;
        size_t traced;    // entries in the trace
        const char *addr; // of the match, or the last one
        string fails = "";
    } cases[] = {{"eth0", 7, "fe80::1"},
                 {"eth01", 6, "febf:ff::2"},
                 {"eth01", 6, "febf:ff::2", "inet_ntop"},
                 {"eth", 8, "fe80::1"}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.iface + c.fails);
        string text;
        for (size_t i = 0; i < c.traced; ++i)
            text += string("ifa_name=") + gicEntries[i].name + ", family=" + gicEntries[i].family +
                    "\n";
        if (c.traced < 8 && c.fails.empty())
            text += string("find out ") + c.iface + "'s linklocal IPv6 address: " + c.addr + "\n";
        in6_addr wanted, got;
        (void)inet_pton(AF_INET6, c.addr, &wanted);
        calls_watch(calls_fail(c.fails, 0, ENOSPC));
        EXPECT_EQ(text, output_of([&] { EXPECT_EQ(0, get_linklocal_ipv6addr(&got, c.iface)); }));
        EXPECT_EQ(0, memcmp(&wanted, &got, sizeof wanted));
        EXPECT_EQ(1U, calls_count("freeifaddrs"));
    }
}

// All letters and digits, or all digits, occur. Calls within one second give the same string.
TEST(Xfuncs, RandomStrings)
{
    calls_watch(calls_fail("time", 0, 1)); // the clock stands still
    for (const auto call : {gen_random_string, gen_random_number_string}) {
        char *first = call(5000);
        char *second = call(5000);
        char *none = call(0);
        EXPECT_STREQ(first, second);
        EXPECT_STREQ("", none);
        const string drawn(first);
        EXPECT_EQ(5000U, drawn.size());
        const bool letters = call == gen_random_string;
        for (int c = 0; c < 256; ++c)
            EXPECT_EQ(letters ? isalnum(c) != 0 : isdigit(c) != 0,
                      drawn.find(static_cast<char>(c)) != string::npos);
        for (char *text : {first, second, none})
            free(text);
    }
}
