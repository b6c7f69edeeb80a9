// SPDX-License-Identifier: MIT
// Scenarios: each starts, uses and stops a service. The sweeps repeat them with a failing call, a
// stop or a fork. Also the checks after each run.
#pragma once
#include <common/dmn_serv.h>
#include <common/self_dog.h>
#include <common/self_log.h>

#include "calls.h"
#include "support.h"

#include <cstring>

inline atomic<bool> gStopping{false}; // the scenario must go to its exit call at once
inline int gAwaitMs = 50;

// Waits until `done`, a stop, or the time limit: after a failure it may never be done.
inline bool await(const function<bool()> &done)
{
    bool met = false;
    calls_uncounted([&] { met = wait_until([&] { return gStopping || done(); }, gAwaitMs); });
    return met && !gStopping;
}

template <size_t tBytes> void set_path(char (&field)[tBytes], const string &name)
{
    snprintf(field, tBytes, "%s/%s", gDir.path.c_str(), name.c_str());
}

// --- scenarios: each returns whether all of it worked -------------------------------------------

template <eLogRunMod tMode> bool log_life()
{
    tLogCfg cfg = {tMode, LOG_FILE_TWO, 3, LOG_SWITCH_ON, LOG_SWITCH_ON, ""};
    set_path(cfg.saveLogPath, "log");
    const int ret = log_system_init(&cfg);
    EXPECT_TRUE(ret == 0 || ret == -2 || ret == -3 || ret == -4) << ret;
    for (unsigned i = 1; i <= 4; ++i) {
        logger(0, 0, "line\n");
        if (tMode == LOG_RUN_NEW_PTHREAD && ret == 0)
            await([=] { return calls_count("fflush") >= i; });
    }
    EXPECT_EQ(0, log_system_exit());
    size_t lines = 0;
    calls_uncounted([&] {
        for (const char *name : {"log-00.log", "log-01.log"}) {
            lines += count_of(slurp(gDir / name), "line\n");
            unlink((gDir / name).c_str());
        }
    });
    if (gStopping)
        EXPECT_EQ(4U, lines) << "a stop loses nothing, whenever it comes";
    return ret == 0 && lines == 4;
}

inline bool server_life()
{
    static tDmnServCfg cfg;
    set_path(cfg.dmNme, "serv");
    const int ret = dmn_server_init(&cfg);
    EXPECT_TRUE(ret == 0 || ret == -11) << ret;
    int stays = -1;
    int leaves = -1;
    // Whether a broadcast byte arrives. Earlier bytes are discarded: there may be many if a child
    // has delayed the server.
    const auto arrives = [&](int *fd, char byte) {
        return await([&] {
            char got[999];
            if (*fd == -1)
                *fd = unix_connect(cfg.dmNme);
            dmn_serv_tx_clit_msg(&byte, 1);
            const ssize_t len = recv(*fd, got, sizeof got, MSG_DONTWAIT);
            return len > 0 && memchr(got, byte, static_cast<size_t>(len)) != nullptr;
        });
    };
    bool worked = ret == 0 && arrives(&stays, 'a') && arrives(&leaves, 'b');
    if (worked) {
        calls_uncounted([&] {
            send(stays, "to be thrown away", 17, MSG_NOSIGNAL);
            close(leaves);
        });
        leaves = -1;
        worked = arrives(&stays, 'm');
    }
    EXPECT_EQ(0, dmn_server_exit());
    calls_uncounted([&] {
        EXPECT_EQ(string::npos, read_bytes(stays, 9999).find('C')) << "a child's broadcast";
        close(stays);
        close(leaves);
        unlink(cfg.dmNme);
    });
    return worked;
}

// The thread ends by itself: it cannot bind, or has no configuration.
inline bool server_that_cannot()
{
    static tDmnServCfg cfg = {"/no/such/folder/serv"};
    for (tDmnServCfg *pCfg : {&cfg, static_cast<tDmnServCfg *>(nullptr)}) {
        dmn_server_init(pCfg);
        await([] { return calls_count("pthread_exit") > 0; });
        EXPECT_EQ(0, dmn_server_exit());
    }
    return true;
}

inline bool dog_life()
{
    static tFeddogCfg cfg = {0, 1000, "driver", ""};
    set_path(cfg.txFeddogHtDmNme, "dog");
    int dog = -1, fd = -1;
    calls_uncounted([&] {
        dog = unix_listen(cfg.txFeddogHtDmNme);
        fcntl(dog, F_SETFL, O_NONBLOCK);
    });
    const int ret = self_feddog_init(&cfg);
    EXPECT_TRUE(ret == 0 || ret == -11) << ret;
    char got[11];
    const bool worked = ret == 0 &&
                        await([&] { return (fd = accept(dog, nullptr, nullptr)) != -1; }) &&
                        await([&] { return recv(fd, got, sizeof got, MSG_DONTWAIT) == 11; }) &&
                        await([&] { return send(fd, "x", 1, MSG_NOSIGNAL) == 1; });
    calls_uncounted([&] { shutdown(fd, SHUT_WR); });
    if (worked) // the client closes, and heartbeats continue without effect
        await([] { return calls_count("close") > 0 && calls_count("write") > 3; });
    EXPECT_EQ(0, self_feddog_exit());
    calls_uncounted([&] {
        close(fd);
        close(dog);
        unlink(cfg.txFeddogHtDmNme);
    });
    return worked;
}

inline bool dog_that_cannot()
{
    static tFeddogCfg cfg = {0, 1000, "driver", "/no/such/folder/dog"};
    for (tFeddogCfg *pCfg : {&cfg, static_cast<tFeddogCfg *>(nullptr)}) {
        self_feddog_init(pCfg);
        await([] { return calls_count("pthread_exit") > 0; });
        EXPECT_EQ(0, self_feddog_exit());
    }
    return true;
}

// New descriptors get the numbers of the console, which the library must leave free.
template <bool (*tLife)()> bool closed_console()
{
    int in = -1, err = -1;
    calls_uncounted([&] {
        in = fcntl(0, F_DUPFD_CLOEXEC, 3);
        err = fcntl(2, F_DUPFD_CLOEXEC, 3);
        close(0);
        close(2);
    });
    const bool worked = tLife();
    calls_uncounted([&] {
        dup2(in, 0);
        dup2(err, 2);
        close(in);
        close(err);
    });
    return worked;
}

struct tScenario {
    const char *name;
    bool (*run)();
};
inline constexpr tScenario gicDirectLog = {"direct_log", log_life<LOG_RUN_MAIN_PROGRESS>},
                           gicWriterLog = {"writer_log", log_life<LOG_RUN_NEW_PTHREAD>},
                           gicConsoleLog = {"closed_console_log", closed_console<gicWriterLog.run>},
                           gicConsoleServer = {"closed_console_server",
                                               closed_console<server_life>},
                           gicServer = {"server", server_life},
                           gicServerThatCannot = {"server_that_cannot", server_that_cannot},
                           gicDog = {"dog", dog_life},
                           gicDogThatCannot = {"dog_that_cannot", dog_that_cannot};

inline void PrintTo(const tScenario &scenario, std::ostream *out)
{
    *out << scenario.name;
}

// --- what holds after each ----------------------------------------------------------------------

// The rule of a normal run. pclose2() must not signal the process after the shell. Each log line
// gets its own second, so its calls do not depend on the clock.
inline int spare(const tCall &call)
{
    if (call.name == "kill")
        return ESRCH;
    return call.name == "gettimeofday" ? EINVAL : 0;
}

// The output of a run, and whether all of it worked.
struct tLife {
    string said;
    bool worked;
};

inline tLife live(const tScenario &scenario, const tCallRule &rule)
{
    tLife life = {"", false};
    gStopping = false;
    life.said = output_of([&] {
        calls_watch(rule);
        life.worked = scenario.run();
        calls_stop();
    });
    return life;
}

// A run without any event, which must work.
inline void normal_run(const tScenario &scenario)
{
    const int usual = gAwaitMs;
    gAwaitMs = 10000; // the machine may be busy
    const tLife life = live(scenario, spare);
    gAwaitMs = usual;
    EXPECT_TRUE(life.worked) << "a normal run of " << scenario.name << ":\n" << life.said;
    if (scenario.run != gicServerThatCannot.run && scenario.run != gicDogThatCannot.run)
        EXPECT_EQ(0U, count_of(life.said, " err")) << life.said;
}
