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

namespace
{
const char gicWait[] = "Wait _feddog_func_pth() pthread stop------\n";
const char gicStopped[] = "_feddog_func_pth() pthread already stop------\n";

tFeddogCfg dog_cfg(const std::string &path, uint32_t usec, const char *name = "gnssd")
{
    tFeddogCfg cfg = {0, usec, "", ""};
    snprintf(cfg.feddogNme, sizeof cfg.feddogNme, "%s", name);
    path.copy(cfg.txFeddogHtDmNme, sizeof cfg.txFeddogHtDmNme - 1);
    return cfg;
}

// `said` with the headers of its log lines replaced by their tags.
std::string tagged(const std::string &said)
{
    std::string out;
    for (size_t at = 0, head = 0; at < said.size(); at = head + 2) {
        head = said.find("] ", at);
        if (head == std::string::npos)
            return out + said.substr(at);
        const size_t from = said.rfind('[', head);
        out += said.substr(at, from - at) + said.substr(from + 1, 3) + ":";
        EXPECT_EQ(" self_dog ", said.substr(head - 14, 10));
    }
    return out;
}
} // namespace

TEST(SelfDog, LoadsItsRecord)
{
    const std::string name(70, 'n'), path(300, 'p');
    const struct {
        std::string text;
        uint32_t sec, usec;
        std::string name, path;
    } table[] = {
        {"dog: { };", 3, 4, "kept", "kept too"},
        {"dog: { feddogSec = 2; feddogUSec = 500000; feddogNme = \"gnssd\"; txFeddogHtDmNme = "
         "\"/run/w\"; };",
         2, 500000, "gnssd", "/run/w"},
        {"dog: { feddogSec = -1; feddogUSec = \"x\"; feddogNme = 3; txFeddogHtDmNme = 4; };",
         0xffffffffU, 4, "kept", "kept too"},
        {"dog: { feddogNme = \"" + name + "\"; txFeddogHtDmNme = \"" + path + "\"; };", 3, 4,
         name.substr(0, 62), path.substr(0, 254)},
    };
    for (const auto &row : table) {
        tConfig config(row.text);
        tFeddogCfg cfg = {3, 4, "kept", "kept too"};
        EXPECT_EQ(0, load_feeddog_cfg(&cfg, "dog", &config.cfg));
        EXPECT_EQ(row.sec, cfg.feddogSec);
        EXPECT_EQ(row.usec, cfg.feddogUSec);
        EXPECT_EQ(row.name, cfg.feddogNme);
        EXPECT_EQ(row.path, cfg.txFeddogHtDmNme);
    }
    tConfig config("dog: { };");
    tFeddogCfg cfg = {};
    EXPECT_EQ("ERR:config_lookup(\"cat\") err!!!!\n", tagged(output_of([&] {
                  EXPECT_EQ(-15, load_feeddog_cfg(&cfg, "cat", &config.cfg));
              })));
}

TEST(SelfDog, HeartbeatsAreExactAndOnePeriodApart)
{
    tTempDir dir;
    const int dog = unix_listen(dir / "w");
    const std::string longest(63, 'x');
    const struct {
        const char *name;
        std::string bytes;
    } table[] = {
        {"gnssd", std::string("\0\0\0\0\5gnssd", 10)},
        {"", std::string(5, '\0')},
        {longest.c_str(), std::string("\0\0\0\0\77", 5) + longest},
    };
    const size_t tasks = threads_at_rest(), fds = open_descriptors();
    for (const auto &row : table) {
        tFeddogCfg cfg = dog_cfg(dir / "w", 150000, row.name);
        const std::string said = output_of([&] {
            const auto start = std::chrono::steady_clock::now();
            ASSERT_EQ(0, self_feddog_init(&cfg));
            const int fd = accept(dog, nullptr, nullptr);
            EXPECT_EQ(3, send(fd, "abc", 3, 0)); // read and thrown away
            for (int beat = 1; beat <= 3; ++beat) {
                EXPECT_EQ(row.bytes, read_bytes(fd, row.bytes.size()));
                EXPECT_GE(std::chrono::steady_clock::now() - start,
                          beat * std::chrono::milliseconds(145));
            }
            EXPECT_EQ(0, self_feddog_exit());
            EXPECT_EQ("", read_bytes(fd, 1));
            close(fd);
            EXPECT_EQ(0, self_feddog_exit());
        });
        EXPECT_EQ(std::string("OFF:") + gicWait + "OFF:" + gicStopped, tagged(said));
    }
    EXPECT_TRUE(threads_settle_at(tasks));
    EXPECT_EQ(fds, open_descriptors());
    close(dog);
}

// Microseconds beyond a second count as such, and the longest period does not wrap into a flood.
TEST(SelfDog, PeriodsOfAnySize)
{
    tTempDir dir;
    const int dog = unix_listen(dir / "w");
    const struct {
        uint32_t sec, usec;
        bool beats; // within 1.6 s
    } table[] = {
        {0, 0, true}, {0, 1200000, true}, {2, 0, false}, {0xffffffffU, 0xffffffffU, false}};
    output_of([&] {
        for (const auto &row : table) {
            tFeddogCfg cfg = dog_cfg(dir / "w", row.usec);
            cfg.feddogSec = row.sec;
            ASSERT_EQ(0, self_feddog_init(&cfg));
            const int fd = accept(dog, nullptr, nullptr);
            timeval wait = {1, 600000};
            setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
            char beat[10];
            EXPECT_EQ(row.beats ? 10 : -1, recv(fd, beat, sizeof beat, 0)) << row.usec;
            self_feddog_exit();
            close(fd);
        }
    });
    close(dog);
}

// One-shot and re-armed: after a late firing the next one is a whole period away.
TEST(SelfDog, LateHeartbeatsAreNotMadeUp)
{
    tTempDir dir;
    const int dog = unix_listen(dir / "w");
    tFeddogCfg cfg = dog_cfg(dir / "w", 100000);
    output_of([&] {
        calls_watch([&](const tCall &call) {
            if (call.name == std::string("write") && call.nth == 1)
                std::this_thread::sleep_for(std::chrono::milliseconds(450));
            return 0;
        });
        ASSERT_EQ(0, self_feddog_init(&cfg));
        const int fd = accept(dog, nullptr, nullptr);
        EXPECT_EQ(10U, read_bytes(fd, 10).size());
        const auto late = std::chrono::steady_clock::now();
        EXPECT_EQ(10U, read_bytes(fd, 10).size());
        EXPECT_GE(std::chrono::steady_clock::now() - late, std::chrono::milliseconds(90));
        self_feddog_exit();
        calls_stop();
        close(fd);
    });
    close(dog);
}

TEST(SelfDog, GoneWatchdogIsNoticedOnceAndNeverSignalled)
{
    tTempDir dir;
    const int dog = unix_listen(dir / "w");
    for (const bool unnoticed : {false, true}) {
        std::atomic<bool> hold{unnoticed};
        tFeddogCfg cfg = dog_cfg(dir / "w", 20000);
        const std::string said = output_of([&] {
            calls_watch([&](const tCall &call) {
                if (call.name == std::string("read"))
                    wait_until([&] { return !hold; }, 100); // a heartbeat is due before the read
                return call.name == std::string("read") && unnoticed ? EIO : 0;
            });
            ASSERT_EQ(0, self_feddog_init(&cfg));
            int fd = accept(dog, nullptr, nullptr);
            EXPECT_EQ(10U, read_bytes(fd, 10).size());
            if (unnoticed)
                send(fd, "x", 1, 0);
            close(fd);
            ASSERT_TRUE(wait_until([] { return calls_count("read") > 0; }));
            const unsigned beats = calls_count("write");
            EXPECT_TRUE(wait_until([&] { return calls_count("write") > beats + 5; }));
            self_feddog_exit();
            calls_stop();
        });
        EXPECT_EQ(std::string(unnoticed ? "ERR:read() err, msg:Input/output error!!!!\n"
                                        : "OFF:Server close------\n") +
                      "OFF:" + gicWait + "OFF:" + gicStopped,
                  tagged(said));
    }
    close(dog);
}

// On a host's own base the write to a closed peer comes before anybody can read the end.
TEST(SelfDog, HeartbeatToAClosedPeerIsNoSignal)
{
    tTempDir dir;
    const int dog = unix_listen(dir / "w");
    tFeddogCfg cfg = dog_cfg(dir / "w", 0);
    std::thread([&] {
        event_base *base = event_base_new();
        ASSERT_EQ(0, _feed_dog_init(base, &cfg));
        const int fd = accept(dog, nullptr, nullptr);
        calls_watch([&](const tCall &call) {
            if (call.name == std::string("write"))
                close(fd);
            return 0;
        });
        for (int i = 0; i < 100 && calls_count("write") == 0; ++i)
            event_base_loop(base, EVLOOP_ONCE);
        EXPECT_EQ(1U, calls_count("write"));
        calls_stop();
        EXPECT_EQ("", output_of([] { self_feddog_exit(); }));
        EXPECT_EQ(0, event_base_get_num_events(base, EVENT_BASE_COUNT_ADDED));
        event_base_free(base);
    }).join();
    EXPECT_EQ(SIG_DFL, signal(SIGPIPE, SIG_DFL));
    close(dog);
}

TEST(SelfDog, SetUpFailuresShowInTheLogAndTheNextStartWorks)
{
    tTempDir dir;
    const int dog = unix_listen(dir / "w");
    const std::string init = "ERR:_feed_dog_init() err!!!!\n",
                      conn = "ERR:_unix_socket_connect() err!!!!\n" + init;
    const struct {
        const char *call;
        int err;
        unsigned nth;
        std::string said;
    } table[] = {
        {"event_base_new", 1, 1, "ERR:event_base_new() err!!!!\n"},
        {"socket", ENFILE, 1, "ERR:socket() err, msg:Too many open files in system!!!!\n" + conn},
        {"connect", EAGAIN, 1,
         "ERR:connect() err, msg:Resource temporarily unavailable!!!!!!" + conn},
        {"event_new", 1, 1, "ERR:event_new() err!!!!\n" + init},
        {"event_new", 1, 2, "ERR:evtimer_new() err!!!!\n" + init},
        {"event_new", 1, 3, "ERR:event_new() err!!!!\n"},
        {"event_base_dispatch", 1, 1, ""},
    };
    tFeddogCfg cfg = dog_cfg(dir / "w", 20000);
    const std::string stop = std::string("OFF:") + gicWait + "OFF:" + gicStopped;
    const size_t tasks = threads_at_rest(), fds = open_descriptors();
    for (const auto &row : table) {
        const std::string said = output_of([&] {
            calls_watch(calls_fail(row.call, row.nth, row.err));
            EXPECT_EQ(0, self_feddog_init(&cfg));
            EXPECT_TRUE(wait_until([] { return calls_count("pthread_exit") == 1; })) << row.call;
            calls_stop();
            EXPECT_EQ(0, self_feddog_exit());
        });
        EXPECT_EQ(row.said + stop, tagged(said)) << row.call;
        EXPECT_TRUE(threads_settle_at(tasks));
        EXPECT_EQ(fds, open_descriptors()) << row.call;
    }
    EXPECT_EQ("ERR:pthread_create() err, msg:Resource temporarily unavailable\n",
              tagged(output_of([&] {
                  calls_watch(calls_fail("pthread_create", 1, EAGAIN));
                  EXPECT_EQ(-11, self_feddog_init(&cfg));
                  calls_stop();
                  self_feddog_exit();
              })));
    EXPECT_EQ("ERR:aipArg err!!!!\n" + stop, tagged(output_of([&] {
                  EXPECT_EQ(0, self_feddog_init(nullptr));
                  std::this_thread::sleep_for(std::chrono::milliseconds(20));
                  self_feddog_exit();
              })));
    EXPECT_EQ(fds, open_descriptors());
    close(dog);
    unlink((dir / "w").c_str());
    const int longDog = unix_listen(dir / std::string(107 - dir.path.size() - 1, 'n'));
    event_base *base = event_base_new();
    for (size_t len : {107U, 108U, 250U}) {
        tFeddogCfg longCfg = dog_cfg(dir / std::string(len - dir.path.size() - 1, 'n'), 1);
        EXPECT_EQ(len == 107 ? ""
                             : "ERR:connect() err, msg:File name too long!!!!!!"
                               "ERR:_unix_socket_connect() err!!!!\n",
                  tagged(output_of([&] {
                      EXPECT_EQ(len == 107 ? 0 : -4098, _feed_dog_init(base, &longCfg));
                      self_feddog_exit();
                  })));
    }
    event_base_free(base);
    close(longDog);
    EXPECT_EQ(fds - 1, open_descriptors());
}
