// SPDX-License-Identifier: MIT
#include "scenarios.h"

#include <shared_mutex>

eLogLevl gLogLevl = LOG_LEV_ERROR;

// Everything together, started and stopped over and over: log service in both modes with files that
// rotate, server with clients that come and go, watchdog, senders, loggers, threshold changes.
TEST(Storm, StartsAndStopsOfEverything)
{
    const char *pSeconds = getenv("KELVARA_STORM_SECONDS"),
               *pRounds = getenv("KELVARA_STORM_ROUNDS");
    const long wanted = pRounds != nullptr ? atol(pRounds) : 200;
    const auto end = std::chrono::steady_clock::now() +
                     std::chrono::seconds(pSeconds != nullptr ? atol(pSeconds) : 0);
    const int console = dup(1), null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    fflush(stdout);
    dup2(null, 1);
    static tDmnServCfg serv;
    static tFeddogCfg dogCfg = {0, 500, "storm", ""};
    set_path(serv.dmNme, "s");
    set_path(dogCfg.txFeddogHtDmNme, "d");

    // The peers: a watchdog that takes everybody, and clients that come and go.
    const int dog = unix_listen(gDir / "d");
    std::atomic<bool> run{true};
    std::shared_mutex logging; // held shared by whoever logs, alone while the service changes
    std::vector<std::thread> pool;
    pool.emplace_back([&] {
        fcntl(dog, F_SETFL, O_NONBLOCK);
        while (run) {
            const int fd = accept(dog, nullptr, nullptr);
            std::this_thread::sleep_for(std::chrono::microseconds(300));
            close(fd);
        }
    });
    pool.emplace_back([&] {
        char rest[300];
        while (run) {
            const int fd = unix_connect(gDir / "s");
            send(fd, rest, sizeof rest, MSG_NOSIGNAL);
            recv(fd, rest, sizeof rest, MSG_DONTWAIT);
            close(fd);
        }
    });
    pool.emplace_back([&] {
        char msg[] = "a message to all";
        while (run)
            dmn_serv_tx_clit_msg(msg, sizeof msg);
    });
    pool.emplace_back([&] {
        for (unsigned i = 0; run; ++i) {
            std::shared_lock<std::shared_mutex> hold(logging);
            log_msg(LOG_LEV_OFF, "storm", "f", 1, "line %u\n", i);
            if (i % 16 == 0)
                set_global_log_level(static_cast<eLogLevl>(i % 3));
        }
    });

    size_t fds = 0, tasks = 0;
    long rounds = 0, longest = 0;
    std::mt19937 random(20261122);
    while (rounds < wanted || std::chrono::steady_clock::now() < end) {
        tLogCfg cfg = {random() % 2 ? LOG_RUN_NEW_PTHREAD : LOG_RUN_MAIN_PROGRESS,
                       LOG_FILE_TWO,
                       5,
                       LOG_SWITCH_OFF,
                       LOG_SWITCH_ON,
                       ""};
        set_path(cfg.saveLogPath, "l");
        {
            std::lock_guard<std::shared_mutex> hold(logging);
            EXPECT_EQ(0, log_system_init(&cfg));
        }
        EXPECT_EQ(0, dmn_server_init(&serv));
        EXPECT_EQ(0, self_feddog_init(&dogCfg));
        if (random() % 4 != 0)
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 1500));
        const auto start = std::chrono::steady_clock::now();
        self_feddog_exit();
        dmn_server_exit();
        std::lock_guard<std::shared_mutex> hold(logging);
        log_system_exit();
        longest = std::max(longest, ms_since(start));
        if (++rounds == 2) {
            fds = open_descriptors();
            tasks = entries_of("/proc/self/task");
        }
    }
    EXPECT_TRUE(threads_settle_at(tasks));
    EXPECT_TRUE(wait_until([&] { return open_descriptors() <= fds; })); // the peers' own vary
    run = false;
    for (auto &one : pool)
        one.join();
    close(dog);
    fflush(stdout);
    dup2(console, 1);
    close(console);
    close(null);
    printf("%ld rounds, the longest stop of all three took %ld ms\n", rounds, longest);
    EXPECT_LT(longest, 5000);
}
