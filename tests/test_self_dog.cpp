// SPDX-License-Identifier: MIT
#include <common/self_dog.h>

#include "calls.h"
#include "support.h"

// A client on the host's own loop, and the watchdog's end of its connection.
struct tFed : tLoop {
    tFeddogCfg cfg;
    int dog = -1;
    int fd = -1;

    explicit tFed(uint32_t sec, uint32_t usec, const string &name = "gnssd")
        : cfg{sec, usec, "", ""}
    {
        name.copy(cfg.feddogNme, sizeof cfg.feddogNme - 1);
        (gDir / "w").copy(cfg.txFeddogHtDmNme, sizeof cfg.txFeddogHtDmNme - 1);
        dog = unix_listen(cfg.txFeddogHtDmNme);
        EXPECT_EQ(0, _feed_dog_init(base, &cfg));
        fd = accept(dog, nullptr, nullptr);
    }
    ~tFed()
    {
        // Called from a callback of the client's own loop.
        const auto exitCb = [](int, short, void *) { EXPECT_EQ(0, self_feddog_exit()); };
        const timeval now = {0, 0};
        event_base_once(base, -1, EV_TIMEOUT, exitCb, nullptr, &now);
        EXPECT_EQ("", output_of([this] { event_base_dispatch(base); }));
        (void)read_bytes(fd, 999); // up to the end: a busy machine may be late with a heartbeat
        close(fd);
        close(dog);
        unlink(cfg.txFeddogHtDmNme);
        EXPECT_EQ("", output_of([] { EXPECT_EQ(0, self_feddog_exit()); }));
    }
};

TEST(SelfDog, HeartbeatsAreExactAndOnePeriodApart)
{
    event_enable_debug_mode(); // aborts if an event's descriptor is blocking
    const string longest(63, 'x');
    const struct {
        uint32_t sec, usec;
        string name, bytes;
    } table[] = {
        {0, 0, "gnssd", string("\0\0\0\0\5gnssd", 10)},
        {0, 150000, "", string(5, '\0')},
        {0, 1100000, longest, string("\0\0\0\0\77", 5) + longest},
        {1, 0, "gnssd", string("\0\0\0\0\5gnssd", 10)},
        {~0U, ~0U, "gnssd", ""}, // must not overflow to a short period
    };
    for (const auto &row : table) {
        SCOPED_TRACE(Message() << row.sec << " s " << row.usec << " us");
        const long period = static_cast<long>(row.sec) * 1000 + static_cast<long>(row.usec) / 1000;
        tFed fed(row.sec, row.usec, row.name);
        if (row.bytes.empty()) {
            event_base_loop(fed.base, EVLOOP_NONBLOCK);
            char byte;
            EXPECT_EQ(-1, recv(fed.fd, &byte, 1, MSG_DONTWAIT));
            continue;
        }
        const auto start = now_ms();
        for (int beat = 1; beat <= (period < 1000 ? 3 : 1); ++beat) {
            EXPECT_EQ("", fed.turn());
            EXPECT_EQ(row.bytes, read_bytes(fed.fd, row.bytes.size()));
            EXPECT_GE(now_ms() - start + 1, beat * period);
        }
    }
}

TEST(SelfDog, GoneWatchdogIsNoticedOnce)
{
    for (const int err : {0, EIO}) {
        tFed fed(0, 20000);
        EXPECT_EQ(3, send(fed.fd, "abc", 3, 0));
        EXPECT_EQ("", fed.turn()); // what the watchdog sends is discarded
        calls_watch(calls_fail("read", 1, err));
        EXPECT_EQ(err ? 1 : 0, send(fed.fd, "x", err ? 1 : 0, 0));
        shutdown(fed.fd, SHUT_RDWR);
        string said;
        for (int turns = 0; turns < 5; ++turns) // heartbeats continue, without effect
            said += fed.turn();
        calls_stop();
        EXPECT_EQ(err ? "ERR self_dog: read() err, msg:Input/output error!!!!\n"
                      : "OFF self_dog: Server close------\n",
                  said);
        EXPECT_LE(4U, calls_count("write"));
        EXPECT_EQ(1, event_base_get_num_events(fed.base, EVENT_BASE_COUNT_ADDED)) << "only beats";
    }
}

// The peer closes right before a heartbeat is written; the client has not yet read the end.
TEST(SelfDog, HeartbeatToAClosedPeerIsNoSignal)
{
    tFed fed(0, 0);
    const int watchdog = dup(fed.fd);
    close(fed.fd);
    calls_watch([&](const tCall &call) { return call.name == "write" ? close(watchdog) : 0; });
    fed.turn();
    calls_stop();
    EXPECT_EQ(1U, calls_count("write"));
    EXPECT_EQ(SIG_DFL, signal(SIGPIPE, SIG_DFL));
    fed.fd = open("/dev/null", O_RDONLY);
}
