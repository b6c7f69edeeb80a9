// SPDX-License-Identifier: MIT
#include <common/dmn_serv.h>
#include <common/self_log.h>

#include "calls.h"
#include "support.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <event2/event.h>
#include <event2/thread.h>
#include <fcntl.h>

eLogLevl gLogLevl = LOG_LEV_ERROR;

namespace
{
const char gicWait[] = "Wait _dmn_server_func_pth() pthread stop------\n";
const char gicStopped[] = "_dmn_server_func_pth() pthread already stop------\n";

tDmnServCfg serv_cfg(const std::string &path)
{
    tDmnServCfg cfg = {};
    path.copy(cfg.dmNme, sizeof cfg.dmNme - 1);
    return cfg;
}

int broadcast(const std::string &text)
{
    std::string copy = text;
    return dmn_serv_tx_clit_msg(&copy[0], static_cast<int>(copy.size()));
}

// The messages of the log lines in `said`, without their headers.
std::string bodies(const std::string &said)
{
    std::string out;
    size_t at = 0;
    while (at < said.size()) {
        size_t end = said.find('\n', at);
        end = end == std::string::npos ? said.size() : end + 1;
        const std::string line = said.substr(at, end - at);
        const size_t body = line[0] == '[' ? line.find("] ") + 2 : 0;
        EXPECT_TRUE(body == 0 || line.find(body < 2 ? "" : " dmn_serv ") != std::string::npos ||
                    line.find(" xfuncs ") != std::string::npos)
            << line;
        out += line.substr(body);
        at = end;
    }
    return out;
}

// A client that the server has admitted: it gets a message.
int admitted(const std::string &path)
{
    const int fd = unix_connect_soon(path);
    EXPECT_TRUE(wait_until([&] {
        broadcast("?");
        char mark;
        return recv(fd, &mark, 1, MSG_DONTWAIT) == 1;
    }));
    char rest[256];
    while (recv(fd, rest, sizeof rest, MSG_DONTWAIT) > 0)
        ;
    return fd;
}
} // namespace

TEST(DmnServ, LoadsItsPath)
{
    const struct {
        std::string text, path;
    } table[] = {
        {"a: { serv: { dmNme = \"/run/x\"; }; };", "/run/x"},
        {"a: { serv: { }; };", "kept"},
        {"a: { serv: { dmNme = 7; }; };", "kept"},
        {"a: { serv: { dmNme = \"" + std::string(300, 'p') + "\"; }; };", std::string(254, 'p')},
    };
    for (const auto &row : table) {
        tConfig config(row.text);
        tDmnServCfg cfg = {"kept"};
        EXPECT_EQ(0, load_dmn_serv_cfg(&cfg, "a.serv", &config.cfg));
        EXPECT_EQ(row.path, cfg.dmNme);
    }
    tConfig config("a: { };");
    tDmnServCfg cfg = {"kept"};
    EXPECT_EQ("config_lookup(\"a.serv\") err!!!!\n", bodies(output_of([&] {
                  EXPECT_EQ(-15, load_dmn_serv_cfg(&cfg, "a.serv", &config.cfg));
              })));
    EXPECT_STREQ("kept", cfg.dmNme);
}

TEST(DmnServ, BroadcastsToAllInOrderOfConnection)
{
    tTempDir dir;
    tDmnServCfg cfg = serv_cfg(dir / "s");
    std::ofstream(dir / "s") << "left over by an earlier run";
    EXPECT_EQ(0, broadcast("to nobody"));
    const size_t tasks = threads_at_rest(), fds = open_descriptors();
    const std::string said = output_of([&] {
        for (int round = 0; round < 2; ++round) {
            ASSERT_EQ(0, dmn_server_init(&cfg));
            int clients[3];
            for (int &fd : clients)
                fd = admitted(dir / "s");
            for (int fd : clients) // what the later ones were admitted with
                for (char rest[256]; recv(fd, rest, sizeof rest, MSG_DONTWAIT) > 0;)
                    ;
            EXPECT_EQ(1000, send(clients[1], std::string(1000, 'x').data(), 1000, 0));
            std::vector<int> order;
            calls_watch();
            EXPECT_EQ(0, broadcast(std::string("a\0\n%s", 5)));
            EXPECT_EQ(3U, calls_count("write"));
            calls_stop();
            EXPECT_EQ(0, broadcast(""));
            char one[] = "b";
            EXPECT_EQ(0, dmn_serv_tx_clit_msg(one, -1));
            EXPECT_EQ(0, broadcast("c"));
            for (int fd : clients)
                EXPECT_EQ(std::string("a\0\n%sc", 6), read_bytes(fd, 6));
            EXPECT_EQ(0, dmn_server_exit());
            for (int fd : clients) {
                EXPECT_EQ("", read_bytes(fd, 1)); // end of stream; reset for the one that has sent
                close(fd);
            }
            EXPECT_EQ(0, dmn_server_exit());
            EXPECT_EQ(-1, unix_connect(dir / "s"));
            EXPECT_EQ(ECONNREFUSED, errno); // the file stays
        }
    });
    EXPECT_EQ(std::string(gicWait) + gicStopped + gicWait + gicStopped, bodies(said));
    EXPECT_TRUE(threads_settle_at(tasks));
    EXPECT_EQ(fds, open_descriptors());
    EXPECT_EQ(SIG_IGN, signal(SIGPIPE, SIG_DFL));
}

TEST(DmnServ, OldestClientIsWrittenFirst)
{
    tTempDir dir;
    tDmnServCfg cfg = serv_cfg(dir / "s");
    ASSERT_EQ(0, dmn_server_init(&cfg));
    int clients[3];
    for (int &fd : clients)
        fd = admitted(dir / "s");
    for (int fd : clients)
        for (char rest[256]; recv(fd, rest, sizeof rest, MSG_DONTWAIT) > 0;)
            ;
    // Before each write, how many clients have their byte already?
    std::vector<std::vector<bool>> got;
    calls_watch([&](const tCall &call) {
        if (call.name == std::string("write")) {
            got.emplace_back();
            for (int fd : clients) {
                char mark;
                got.back().push_back(recv(fd, &mark, 1, MSG_DONTWAIT | MSG_PEEK) == 1);
            }
        }
        return 0;
    });
    broadcast("x");
    calls_stop();
    const std::vector<std::vector<bool>> wanted = {
        {false, false, false}, {true, false, false}, {true, true, false}};
    EXPECT_EQ(wanted, got);
    dmn_server_exit();
    for (int fd : clients)
        close(fd);
}

TEST(DmnServ, LeavingClientsAreNoticedAndHarmNobody)
{
    tTempDir dir;
    tDmnServCfg cfg = serv_cfg(dir / "s");
    for (const bool unread : {false, true}) {
        gLogLevl = unread ? LOG_LEV_ERROR : LOG_LEV_OFF; // the close notice passes every threshold
        const std::string said = output_of([&] {
            ASSERT_EQ(0, dmn_server_init(&cfg));
            const int stays = admitted(dir / "s"), leaves = admitted(dir / "s");
            for (char rest[256]; recv(stays, rest, sizeof rest, MSG_DONTWAIT) > 0;)
                ;
            if (unread) {
                broadcast("u");
                EXPECT_EQ("u", read_bytes(stays, 1));
            }
            const size_t fds = open_descriptors();
            close(leaves);
            EXPECT_TRUE(wait_until([&] { return open_descriptors() == fds - 2; }));
            calls_watch();
            broadcast("x");
            EXPECT_EQ(1U, calls_count("write"));
            calls_stop();
            EXPECT_EQ("x", read_bytes(stays, 1));
            dmn_server_exit();
            close(stays);
        });
        EXPECT_EQ(
            (unread ? "read() err, msg:Connection reset by peer!!!!\n" : "Remote close------\n") +
                std::string(gicWait) + gicStopped,
            bodies(said));
    }
}

TEST(DmnServ, SlowAndDeadClientsDoNotHoldUpTheOthers)
{
    tTempDir dir;
    tDmnServCfg cfg = serv_cfg(dir / "s");
    std::atomic<bool> hold{true};
    output_of([&] {
        ASSERT_EQ(0, dmn_server_init(&cfg));
        const int slow = admitted(dir / "s"), good = admitted(dir / "s");
        const int dead = admitted(dir / "s");
        const std::string message(50000, 'm');
        for (char rest[256]; recv(good, rest, sizeof rest, MSG_DONTWAIT) > 0;)
            ;
        for (int i = 0; i < 50; ++i) {
            EXPECT_EQ(0, broadcast(message));
            EXPECT_EQ(message, read_bytes(good, message.size()));
        }
        // Hold the server thread: the client is closed, and the server has not noticed.
        calls_watch([&](const tCall &call) {
            if (call.name == std::string("read"))
                EXPECT_TRUE(wait_until([&] { return !hold; }));
            return 0;
        });
        close(dead);
        ASSERT_TRUE(wait_until([] { return calls_count("read") > 0; }));
        EXPECT_EQ(0, broadcast("x")); // EPIPE for the dead one, and no signal
        EXPECT_EQ("x", read_bytes(good, 1));
        hold = false;
        dmn_server_exit();
        calls_stop();
        close(slow);
        close(good);
    });
}

TEST(DmnServ, SetUpFailuresShowInTheLogAndTheNextStartWorks)
{
    tTempDir dir;
    const std::string init = "_dmn_server_init() err!!!!\n";
    const struct {
        const char *call;
        int err;
        unsigned nth;
        std::string said;
    } table[] = {
        {"event_base_new", 1, 1, "event_base_new() err!!!!\n"},
        {"socket", EMFILE, 1, "socket() err, msg=Too many open files!!!!!!\n" + init},
        {"bind", EACCES, 1, "bind() err, msg=Permission denied!!!!!!\n" + init},
        {"listen", EADDRINUSE, 1, "listen() err, msg=Address already in use!!!!!!\n" + init},
        {"event_new", 1, 1, "event_new() err!!!!\n" + init},
        {"event_new", 1, 2, "event_new() err!!!!\n"},
        {"event_add", 1, 2, "event_new() err!!!!\n"},
        {"event_base_dispatch", 1, 1, ""},
    };
    tDmnServCfg cfg = serv_cfg(dir / "s");
    const size_t tasks = threads_at_rest(), fds = open_descriptors();
    for (const auto &row : table) {
        const std::string said = output_of([&] {
            calls_watch(calls_fail(row.call, row.nth, row.err));
            EXPECT_EQ(0, dmn_server_init(&cfg));
            EXPECT_TRUE(wait_until([] { return calls_count("pthread_exit") == 1; })) << row.call;
            calls_stop();
            EXPECT_EQ(0, broadcast("to nobody"));
            fflush(stdout);
            EXPECT_EQ(0, dmn_server_exit());
        });
        EXPECT_EQ(row.said + gicWait + gicStopped, bodies(said)) << row.call;
        EXPECT_TRUE(threads_settle_at(tasks));
        EXPECT_EQ(fds, open_descriptors()) << row.call;
    }
    const struct {
        const char *call;
        int err;
        std::string said;
    } starts[] = {
        {"pthread_create", EAGAIN, "pthread_create() err, msg:Resource temporarily unavailable\n"},
        {"eventfd", EMFILE, "pthread_create() err, msg:Too many open files\n"},
    };
    for (const auto &row : starts) {
        EXPECT_EQ(row.said, bodies(output_of([&] {
                      calls_watch(calls_fail(row.call, 1, row.err));
                      EXPECT_EQ(-11, dmn_server_init(&cfg));
                      calls_stop();
                      EXPECT_EQ(0, dmn_server_exit());
                  })));
        EXPECT_EQ(fds, open_descriptors());
    }
    EXPECT_EQ(std::string("aipArg err!!!!\n") + gicWait + gicStopped, bodies(output_of([&] {
                  EXPECT_EQ(0, dmn_server_init(nullptr));
                  std::this_thread::sleep_for(std::chrono::milliseconds(20));
                  dmn_server_exit();
              })));
    output_of([&] {
        EXPECT_EQ(0, dmn_server_init(&cfg));
        close(admitted(dir / "s"));
        dmn_server_exit();
    });
    EXPECT_TRUE(threads_settle_at(tasks));
    EXPECT_EQ(fds, open_descriptors());
}

TEST(DmnServ, AdmissionFailuresCloseTheConnection)
{
    tTempDir dir;
    const struct {
        const char *call;
        int err;
        unsigned nth;
        std::string said;
        bool closed;
    } table[] = {
        {"accept", EMFILE, 1, "accept() err, msg=Too many open files!!!!!!\n", false},
        {"calloc", ENOMEM, 1, "malloc() err!!!!\nxzMalloc() err!!!!\n", true},
        {"event_new", 1, 1, "event_new() err!!!!\n", true},
        {"setsockopt", EINVAL, 0, "", false},
    };
    tDmnServCfg cfg = serv_cfg(dir / "s");
    for (const auto &row : table) {
        const std::string said = output_of([&] {
            ASSERT_EQ(0, dmn_server_init(&cfg));
            const int first = admitted(dir / "s");
            const size_t fds = open_descriptors();
            close(first);
            EXPECT_TRUE(wait_until([&] { return open_descriptors() == fds - 2; }));
            calls_watch(calls_fail(row.call, row.nth, row.err));
            const int fd = unix_connect(dir / "s");
            EXPECT_TRUE(wait_until([&] { return calls_count(row.call) > 0; }));
            if (row.closed)
                EXPECT_EQ("", read_bytes(fd, 1)) << row.call;
            calls_stop();
            if (!row.closed) // served, if need be by another try of accept()
                EXPECT_TRUE(wait_until([&] {
                    broadcast("y");
                    char mark;
                    return recv(fd, &mark, 1, MSG_DONTWAIT) == 1;
                })) << row.call;
            dmn_server_exit();
            close(fd);
        });
        EXPECT_EQ("Remote close------\n" + row.said + gicWait + gicStopped, bodies(said))
            << row.call;
    }
}

TEST(DmnServ, PathLengthsUpTo107)
{
    tTempDir dir;
    event_base *base = event_base_new();
    for (size_t len : {106U, 107U, 108U, 109U, 254U}) {
        const std::string path = dir / std::string(len - dir.path.size() - 1, 'n');
        if (len > 107)
            std::ofstream(path) << "stays";
        tDmnServCfg cfg = serv_cfg(path);
        const std::string said = bodies(output_of([&] {
            EXPECT_EQ(len > 107 ? -4100 : 0, _dmn_server_init(base, &cfg));
            EXPECT_EQ(0, dmn_server_exit());
        }));
        EXPECT_EQ(len > 107 ? "bind() err, msg=File name too long!!!!!!\n" : "", said) << len;
        EXPECT_EQ(0, access(path.c_str(), F_OK)) << len;
    }
    event_base_free(base);
    tDmnServCfg cfg = serv_cfg(dir / "no/such/folder");
    EXPECT_EQ("bind() err, msg=No such file or directory!!!!!!\n", bodies(output_of([&] {
                  EXPECT_EQ(-4100, _dmn_server_init(nullptr, &cfg));
                  dmn_server_exit();
              })));
}

TEST(DmnServ, ServesOnAHostsOwnBase)
{
    tTempDir dir;
    tDmnServCfg cfg = serv_cfg(dir / "s");
    const size_t fds = open_descriptors();
    for (int round = 0; round < 2; ++round) {
        event_base *base = event_base_new();
        ASSERT_EQ(0, _dmn_server_init(base, &cfg));
        const int fd = unix_connect(dir / "s");
        event_base_loop(base, EVLOOP_ONCE);
        EXPECT_EQ(0, broadcast("own"));
        EXPECT_EQ("own", read_bytes(fd, 3));
        EXPECT_EQ("", output_of([] { EXPECT_EQ(0, dmn_server_exit()); }));
        EXPECT_EQ("", read_bytes(fd, 1));
        EXPECT_EQ(0, event_base_get_num_events(base, EVENT_BASE_COUNT_ADDED));
        event_base_free(base); // still the host's
        close(fd);
        EXPECT_EQ(fds, open_descriptors());
    }
}

TEST(DmnServ, DescriptorZeroIsServedWithoutBlockingAndGivenBack)
{
    tTempDir dir;
    tDmnServCfg cfg = serv_cfg(dir / "s");
    event_base *base = event_base_new();
    const int saved = dup(0);
    for (const bool clientOnZero : {false, true}) {
        const std::string said = bodies(output_of([&] {
            if (!clientOnZero)
                close(0);
            ASSERT_EQ(0, _dmn_server_init(base, &cfg));
            const int fd = unix_connect(dir / "s");
            if (clientOnZero)
                close(0);
            event_base_loop(base, EVLOOP_ONCE);
            EXPECT_NE(-1, fcntl(0, F_GETFD));
            const std::string message(100000, 'm');
            for (int i = 0; i < 20; ++i)
                EXPECT_EQ(0, broadcast(message)); // would wait for ever on a blocking descriptor
            dmn_server_exit();
            EXPECT_EQ(-1, fcntl(0, F_GETFD));
            close(fd);
        }));
        EXPECT_EQ(clientOnZero ? "aicFd=0 err!!!!\n" : "", said);
        dup2(saved, 0);
    }
    // The wake-up of the thread may be descriptor 0 as well.
    close(0);
    output_of([&] {
        ASSERT_EQ(0, dmn_server_init(&cfg));
        close(admitted(dir / "s"));
        dmn_server_exit();
    });
    EXPECT_EQ(-1, fcntl(0, F_GETFD));
    dup2(saved, 0);
    event_base_free(base);
}

// Senders without a pause keep the read lock busy all the time; a client still comes, goes, and the
// server stops. With and without the host's having switched libevent's locks on.
TEST(DmnServ, SendersAtAnyTimeKeepNobodyWaiting)
{
    tTempDir dir;
    tDmnServCfg cfg = serv_cfg(dir / "s");
    std::atomic<bool> run{true};
    output_of([&] {
        std::vector<std::thread> senders;
        for (int i = 0; i < 4; ++i)
            senders.emplace_back([&] {
                while (run)
                    broadcast("s");
            });
        for (int round = 0; round < 20; ++round) {
            if (round == 10)
                evthread_use_pthreads();
            ASSERT_EQ(0, dmn_server_init(&cfg));
            const int fd = unix_connect_soon(dir / "s");
            EXPECT_EQ("s", read_bytes(fd, 1));
            close(fd);
            const auto start = std::chrono::steady_clock::now();
            dmn_server_exit();
            EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
        }
        run = false;
        for (auto &one : senders)
            one.join();
    });
}

// A sender cancelled in the middle of a broadcast leaves no lock behind.
TEST(DmnServ, CancelledSenderLeavesTheRegistryUsable)
{
    tTempDir dir;
    tDmnServCfg cfg = serv_cfg(dir / "s");
    output_of([&] {
        ASSERT_EQ(0, dmn_server_init(&cfg));
        const int fd = admitted(dir / "s");
        std::atomic<bool> hold{true};
        calls_watch([&](const tCall &call) {
            if (call.name == std::string("write"))
                EXPECT_TRUE(wait_until([&] { return !hold; }));
            return 0;
        });
        pthread_t sender;
        pthread_create(
            &sender, nullptr, [](void *) -> void * { return broadcast("c"), nullptr; }, nullptr);
        ASSERT_TRUE(wait_until([] { return calls_count("write") == 1; }));
        pthread_cancel(sender);
        hold = false;
        pthread_join(sender, nullptr);
        calls_stop();
        EXPECT_EQ("c", read_bytes(fd, 1));
        close(fd);
        dmn_server_exit(); // takes the write lock
    });
}
