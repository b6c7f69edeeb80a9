// SPDX-License-Identifier: MIT
#include "scenarios.h"

#include <shared_mutex>

eLogLevl gLogLevl = LOG_LEV_ERROR;

static long from_environment(const char *name, long otherwise)
{
    const char *pText = getenv(name);
    return pText != nullptr ? atol(pText) : otherwise;
}

// Everything together, started and stopped over and over: log service in both modes with files that
// rotate, server with clients that come and go, watchdog, senders, loggers, threshold changes.
TEST(Storm, StartsAndStopsOfEverything)
{
    const long wanted = from_environment("KELVARA_STORM_ROUNDS", 100);
    const auto end = std::chrono::steady_clock::now() +
                     std::chrono::seconds(from_environment("KELVARA_STORM_SECONDS", 0));
    static tDmnServCfg serv;
    static tFeddogCfg dogCfg = {0, 500, "storm", ""};
    set_path(serv.dmNme, "s");
    set_path(dogCfg.txFeddogHtDmNme, "d");
    const int dog = unix_listen(dogCfg.txFeddogHtDmNme);
    fcntl(dog, F_SETFL, O_NONBLOCK);
    const int console = dup(1);
    fflush(stdout);
    (void)!freopen("/dev/null", "w", stdout);

    atomic<bool> run{true};
    std::shared_mutex logging; // held shared by a thread that logs, alone while the service changes
    char text[300] = "";
    const function<void()> peers[] = {[&] { close(accept(dog, nullptr, nullptr)); },
                                      [&] {
                                          char rest[300];
                                          const int fd = unix_connect(serv.dmNme);
                                          send(fd, text, sizeof text, MSG_NOSIGNAL);
                                          recv(fd, rest, sizeof rest, MSG_DONTWAIT);
                                          close(fd);
                                      },
                                      [&] { dmn_serv_tx_clit_msg(text, sizeof text); },
                                      [&] {
                                          const std::shared_lock<std::shared_mutex> hold(logging);
                                          log_msg(LOG_LEV_OFF, "storm", "f", 1, "line\n");
                                          set_global_log_level(LOG_LEV_RUN);
                                      }};
    thread busy(in_threads, 4, [&](int t) {
        while (run)
            peers[t]();
    });

    size_t fds = 0;
    size_t tasks = 0;
    std::mt19937 random(20261122);
    long rounds = 0;
    for (; rounds < wanted || std::chrono::steady_clock::now() < end; ++rounds) {
        tLogCfg cfg = {static_cast<eLogRunMod>(random() % 2),
                       LOG_FILE_TWO,
                       5,
                       LOG_SWITCH_OFF,
                       LOG_SWITCH_ON,
                       ""};
        set_path(cfg.saveLogPath, "l");
        {
            const std::lock_guard<std::shared_mutex> hold(logging);
            EXPECT_EQ(0, log_system_init(&cfg));
        }
        EXPECT_EQ(0, dmn_server_init(&serv) + self_feddog_init(&dogCfg));
        if (random() % 4 != 0)
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 1500));
        self_feddog_exit();
        dmn_server_exit();
        const std::lock_guard<std::shared_mutex> hold(logging);
        log_system_exit();
        if (rounds == 1) {
            fds = open_descriptors();
            tasks = entries_of("/proc/self/task");
        }
    }
    EXPECT_TRUE(threads_settle_at(tasks));
    EXPECT_TRUE(wait_until([&] { return open_descriptors() <= fds; })); // the peers' own vary
    run = false;
    busy.join();
    fflush(stdout);
    dup2(console, 1);
    printf("%ld rounds\n", rounds);
}
