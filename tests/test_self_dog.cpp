// SPDX-License-Identifier: MIT
#include <common/self_dog.h>
#include <common/self_log.h>

#include "calls.h"
#include "support.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <event2/event.h>

eLogLevl gLogLevl = LOG_LEV_ERROR;

static const std::string gicStop = "OFF self_dog: Wait _feddog_func_pth() pthread stop------\n"
                                   "OFF self_dog: _feddog_func_pth() pthread already stop------\n";
static tTempDir gDir;

static tFeddogCfg dog_cfg(uint32_t usec, const char *name = "gnssd")
{
    tFeddogCfg cfg = {0, usec, "", ""};
    snprintf(cfg.feddogNme, sizeof cfg.feddogNme, "%s", name);
    (gDir / "w").copy(cfg.txFeddogHtDmNme, sizeof cfg.txFeddogHtDmNme - 1);
    return cfg;
}

// What is said while a client of `cfg` runs and `body` plays the watchdog, on its connection.
static std::string fed(tFeddogCfg cfg, const std::function<void(int)> &body)
{
    unlink(cfg.txFeddogHtDmNme);
    const int dog = unix_listen(cfg.txFeddogHtDmNme);
    const std::string said = tagged(output_of([&] {
        EXPECT_EQ(0, self_feddog_init(&cfg));
        const int fd = accept(dog, nullptr, nullptr);
        body(fd);
        EXPECT_EQ(0, self_feddog_exit());
        calls_stop();
        close(fd);
    }));
    close(dog);
    return said;
}

static bool is_call(const tCall &call, const std::string &name)
{
    return name == call.name;
}

TEST(SelfDog, HeartbeatsAreExactAndOnePeriodApart)
{
    const std::string longest(63, 'x');
    const struct {
        const char *name;
        std::string bytes;
    } table[] = {
        {"gnssd", std::string("\0\0\0\0\5gnssd", 10)},
        {"", std::string(5, '\0')},
        {longest.c_str(), std::string("\0\0\0\0\77", 5) + longest},
    };
    event_enable_debug_mode(); // it aborts at an event whose descriptor blocks
    const size_t tasks = threads_at_rest(), fds = open_descriptors();
    for (const auto &row : table) {
        const auto start = std::chrono::steady_clock::now();
        int ours = -1;
        EXPECT_EQ(gicStop, fed(dog_cfg(150000, row.name), [&](int fd) {
                      EXPECT_EQ(3, send(fd, "abc", 3, 0)); // read and thrown away
                      for (int beat = 1; beat <= 3; ++beat) {
                          EXPECT_EQ(row.bytes, read_bytes(fd, row.bytes.size()));
                          EXPECT_GE(ms_since(start), beat * 149);
                      }
                      ours = dup(fd);
                  }));
        EXPECT_EQ("", read_bytes(ours, 1));
        close(ours);
        EXPECT_EQ("", output_of([] { EXPECT_EQ(0, self_feddog_exit()); }));
    }
    EXPECT_TRUE(threads_settle_at(tasks));
    EXPECT_EQ(fds, open_descriptors());
}

// Microseconds beyond a second count as such, and the longest period does not wrap into a flood.
TEST(SelfDog, PeriodsOfAnySize)
{
    const struct {
        uint32_t sec, usec;
        bool beats; // within 1.6 s
    } table[] = {
        {0, 0, true}, {0, 1200000, true}, {2, 0, false}, {0xffffffffU, 0xffffffffU, false}};
    for (const auto &row : table) {
        tFeddogCfg cfg = dog_cfg(row.usec);
        cfg.feddogSec = row.sec;
        fed(cfg, [&](int fd) {
            timeval wait = {1, 600000};
            setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
            char beat[10];
            EXPECT_EQ(row.beats ? 10 : -1, recv(fd, beat, sizeof beat, 0)) << row.usec;
        });
    }
}

// One-shot and re-armed: after a late firing the next one is a whole period away.
TEST(SelfDog, LateHeartbeatsAreNotMadeUp)
{
    calls_watch([&](const tCall &call) {
        nap(is_call(call, "write") && call.nth == 1 ? 450 : 0);
        return 0;
    });
    fed(dog_cfg(100000), [](int fd) {
        EXPECT_EQ(10U, read_bytes(fd, 10).size());
        const auto late = std::chrono::steady_clock::now();
        EXPECT_EQ(10U, read_bytes(fd, 10).size());
        EXPECT_GE(ms_since(late), 90);
    });
}

TEST(SelfDog, GoneWatchdogIsNoticedOnce)
{
    for (const bool failing : {false, true}) {
        calls_watch([=](const tCall &call) { return is_call(call, "read") && failing ? EIO : 0; });
        EXPECT_EQ((failing ? "ERR self_dog: read() err, msg:Input/output error!!!!\n"
                           : "OFF self_dog: Server close------\n") +
                      gicStop,
                  fed(dog_cfg(20000), [&](int fd) {
                      EXPECT_EQ(10U, read_bytes(fd, 10).size());
                      send(fd, "x", failing ? 1 : 0, 0);
                      shutdown(fd, SHUT_RDWR);
                      ASSERT_TRUE(wait_until([] { return calls_count("read") > 0; }));
                      const unsigned beats = calls_count("write"); // they go on into the void
                      EXPECT_TRUE(wait_until([&] { return calls_count("write") > beats + 5; }));
                  }));
    }
}

// The peer closes right before a heartbeat is written, and nobody has read the end yet. On a host's
// own base, which is left alone.
TEST(SelfDog, HeartbeatToAClosedPeerIsNoSignal)
{
    tFeddogCfg cfg = dog_cfg(0);
    const int dog = unix_listen(cfg.txFeddogHtDmNme);
    std::thread([&] {
        event_base *base = event_base_new();
        ASSERT_EQ(0, _feed_dog_init(base, &cfg));
        const int fd = accept(dog, nullptr, nullptr);
        calls_watch([&](const tCall &call) { return is_call(call, "write") ? close(fd) : 0; });
        for (int i = 0; i < 100 && calls_count("write") == 0; ++i)
            event_base_loop(base, EVLOOP_ONCE);
        EXPECT_EQ(1U, calls_count("write"));
        calls_stop();
        const auto exitCb = [](int, short, void *) { EXPECT_EQ(0, self_feddog_exit()); };
        const timeval now = {0, 0};
        event_base_once(base, -1, EV_TIMEOUT, exitCb, nullptr, &now);
        EXPECT_EQ("", output_of([=] { event_base_dispatch(base); }));
        EXPECT_EQ(0, event_base_get_num_events(base, EVENT_BASE_COUNT_ADDED));
        event_base_free(base);
    }).join();
    EXPECT_EQ(SIG_DFL, signal(SIGPIPE, SIG_DFL));
    close(dog);
}
