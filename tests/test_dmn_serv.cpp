// SPDX-License-Identifier: MIT
#include <common/dmn_serv.h>
#include <common/self_log.h>

#include "calls.h"
#include "support.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <event2/event.h>
#include <fcntl.h>
#include <sys/resource.h>

eLogLevl gLogLevl = LOG_LEV_ERROR;

static const std::string gicStop =
    "OFF dmn_serv: Wait _dmn_server_func_pth() pthread stop------\n"
    "OFF dmn_serv: _dmn_server_func_pth() pthread already stop------\n";
static tTempDir gDir;
static const std::string gPath = gDir / "s";

static tDmnServCfg serv_cfg(const std::string &path = gPath)
{
    tDmnServCfg cfg = {};
    path.copy(cfg.dmNme, sizeof cfg.dmNme - 1);
    return cfg;
}

static int broadcast(std::string text)
{
    return dmn_serv_tx_clit_msg(&text[0], static_cast<int>(text.size()));
}

static void drain(int fd)
{
    for (char rest[256]; recv(fd, rest, sizeof rest, MSG_DONTWAIT) > 0;)
        ;
}

static bool gets_some(int fd)
{
    char byte;
    broadcast("?");
    return recv(fd, &byte, 1, MSG_DONTWAIT) == 1;
}

// A client that the server has admitted.
static int admitted()
{
    const int fd = unix_connect_soon(gPath);
    EXPECT_TRUE(wait_until([&] { return gets_some(fd); }));
    drain(fd);
    return fd;
}

// What is said while a server runs and `body` uses it.
static std::string served(const std::function<void()> &body)
{
    return tagged(output_of([&] {
        static tDmnServCfg cfg = serv_cfg();
        EXPECT_EQ(0, dmn_server_init(&cfg));
        body();
        EXPECT_EQ(0, dmn_server_exit());
    }));
}

TEST(DmnServ, BroadcastsToAllOldestFirst)
{
    std::ofstream(gPath) << "left over by an earlier run";
    EXPECT_EQ(0, broadcast("to nobody"));
    const size_t tasks = threads_at_rest(), fds = open_descriptors();
    for (int round = 0; round < 2; ++round) {
        int clients[3];
        EXPECT_EQ(gicStop, served([&] {
                      for (int &fd : clients)
                          fd = admitted();
                      for (int fd : clients) // what the later ones were admitted with
                          drain(fd);
                      EXPECT_EQ(1000, send(clients[1], std::string(1000, 'x').data(), 1000, 0));
                      // Before each write, who has the message already?
                      std::string got;
                      calls_watch([&](const tCall &call) {
                          char byte;
                          for (int fd : clients)
                              if (call.name == std::string("write"))
                                  got +=
                                      recv(fd, &byte, 1, MSG_DONTWAIT | MSG_PEEK) == 1 ? "+" : "-";
                          return 0;
                      });
                      EXPECT_EQ(0, broadcast(std::string("a\0\n%s", 5)));
                      calls_stop();
                      EXPECT_EQ("---+--++-", got);
                      EXPECT_EQ(0, broadcast(""));
                      char one[] = "b";
                      EXPECT_EQ(0, dmn_serv_tx_clit_msg(one, -1));
                      EXPECT_EQ(0, broadcast("c"));
                      for (int fd : clients)
                          EXPECT_EQ(std::string("a\0\n%sc", 6), read_bytes(fd, 6));
                  }));
        for (int fd : clients) {
            EXPECT_EQ("", read_bytes(fd, 1));
            close(fd);
        }
        EXPECT_EQ("", output_of([] { EXPECT_EQ(0, dmn_server_exit()); }));
        EXPECT_EQ(-1, unix_connect(gPath));
        EXPECT_EQ(ECONNREFUSED, errno); // the file stays
    }
    EXPECT_TRUE(threads_settle_at(tasks));
    EXPECT_EQ(fds, open_descriptors());
    EXPECT_EQ(SIG_IGN, signal(SIGPIPE, SIG_DFL));
}

TEST(DmnServ, LeavingClientsAreNoticedAndHarmNobody)
{
    for (const bool unread : {false, true}) {
        gLogLevl = unread ? LOG_LEV_ERROR : LOG_LEV_OFF; // the close notice passes every threshold
        EXPECT_EQ(
            (unread ? "ERR dmn_serv: read() err, msg:Connection reset by peer!!!!\n"
                    : "OFF dmn_serv: Remote close------\n") +
                gicStop,
            served([&] {
                const int stays = admitted(), leaves = admitted();
                if (unread)
                    broadcast("u");
                drain(stays);
                const size_t fds = open_descriptors();
                std::thread sender; // while the server closes the connection
                calls_watch([&](const tCall &call) {
                    if (call.name == std::string("close")) {
                        sender = std::thread([] { broadcast("x"); });
                        EXPECT_TRUE(wait_until([] { return calls_count("write") == 1; }, 2000))
                            << "a sender waits for more than the list";
                    }
                    return 0;
                });
                calls_uncounted([=] { close(leaves); });
                EXPECT_TRUE(wait_until([&] { return open_descriptors() == fds - 2; }));
                sender.join();
                calls_stop();
                EXPECT_EQ(1U, calls_count("write"));
                EXPECT_EQ("x", read_bytes(stays, 1));
                dmn_server_exit();
                close(stays);
            }));
    }
}

TEST(DmnServ, AdmissionFailuresCloseTheConnection)
{
    const struct {
        const char *call;
        int err;
        std::string said;
        bool closed;
        int ms = 0; // a pause, or the next try would fill the log
    } table[] = {
        {"accept", EMFILE, "ERR dmn_serv: accept() err, msg=Too many open files!!!!!!\n", false,
         20},
        {"calloc", ENOMEM, "ERR xfuncs: malloc() err!!!!\nERR dmn_serv: xzMalloc() err!!!!\n",
         true},
        {"event_new", 1, "ERR dmn_serv: event_new() err!!!!\n", true},
        {"setsockopt", EINVAL, "", false},
    };
    for (const auto &row : table)
        EXPECT_EQ(row.said + gicStop, served([&] {
                      const int first = admitted();
                      calls_watch(calls_fail(row.call, 1, row.err));
                      const auto start = std::chrono::steady_clock::now();
                      const int fd = unix_connect(gPath);
                      EXPECT_TRUE(wait_until([&] { return calls_count(row.call) > 0; }));
                      if (row.closed)
                          EXPECT_EQ("", read_bytes(fd, 1)) << row.call;
                      else // served, if need be after another try of accept()
                          EXPECT_TRUE(wait_until([&] { return gets_some(fd); })) << row.call;
                      EXPECT_GE(ms_since(start), row.ms) << row.call;
                      calls_stop();
                      dmn_server_exit();
                      close(first);
                      close(fd);
                  }));
}

TEST(DmnServ, ServesOnAHostsOwnBase)
{
    tDmnServCfg cfg = serv_cfg();
    const size_t fds = open_descriptors();
    for (int round = 0; round < 2; ++round) {
        event_base *base = event_base_new();
        ASSERT_EQ(0, _dmn_server_init(base, &cfg));
        const int fd = unix_connect(gPath);
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

// A closing socket may linger, and the server would wait for that inside its read().
TEST(DmnServ, TakesNoDescriptorsFromItsClients)
{
    constexpr int passRights = 83; // SO_PASSRIGHTS
    const int off = 0;
    served([&] {
        const int fd = admitted();
        if (setsockopt(fd, SOL_SOCKET, passRights, &off, sizeof off) == 0) {
            char byte = 'r';
            iovec bytes = {&byte, 1};
            alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
            msghdr msg = {nullptr, 0, &bytes, 1, control, sizeof control, 0};
            *CMSG_FIRSTHDR(&msg) = {CMSG_LEN(sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
            memcpy(CMSG_DATA(CMSG_FIRSTHDR(&msg)), &fd, sizeof fd);
            EXPECT_EQ(-1, sendmsg(fd, &msg, 0));
            EXPECT_EQ(EPERM, errno);
        } else {
            printf("the kernel is older than Linux 6.16\n");
        }
        close(fd);
    });
}

// Only the kernel itself holds a program to its limit, and a sanitizer wants more than any.
TEST(DmnServ, StartsOnceThereIsMemoryForItsThread)
{
#if defined __SANITIZE_THREAD__ || defined __SANITIZE_ADDRESS__
    GTEST_SKIP() << "sanitizer";
#endif
    if (getenv("KELVARA_EMULATED") != nullptr)
        GTEST_SKIP() << "emulator";
    static tDmnServCfg cfg = serv_cfg();
    rlimit before;
    ASSERT_EQ(0, getrlimit(RLIMIT_AS, &before));
    const rlimit tight = {1 << 20, before.rlim_max};
    EXPECT_EQ("ERR dmn_serv: pthread_create() err, msg:Resource temporarily unavailable\n",
              tagged(output_of([&] {
                  EXPECT_EQ(0, setrlimit(RLIMIT_AS, &tight));
                  EXPECT_EQ(-ERR_PTHREAD_CREATE_DMN, dmn_server_init(&cfg));
                  EXPECT_EQ(0, setrlimit(RLIMIT_AS, &before));
              })));
    int fd = -1;
    EXPECT_EQ(gicStop, served([&] { fd = admitted(); }));
    close(fd);
}

TEST(DmnServ, DescriptorZeroIsServedWithoutBlockingAndGivenBack)
{
    tDmnServCfg cfg = serv_cfg();
    event_base *base = event_base_new();
    const int saved = dup(0);
    for (const bool clientOnZero : {false, true}) {
        EXPECT_EQ(clientOnZero ? "ERR dmn_serv: aicFd=0 err!!!!\n" : "", tagged(output_of([&] {
                      if (!clientOnZero)
                          close(0);
                      ASSERT_EQ(0, _dmn_server_init(base, &cfg));
                      const int fd = unix_connect(gPath);
                      if (clientOnZero)
                          close(0);
                      event_base_loop(base, EVLOOP_ONCE);
                      EXPECT_NE(-1, fcntl(0, F_GETFD));
                      for (int i = 0; i < 20; ++i) // would wait for ever on a blocking descriptor
                          EXPECT_EQ(0, broadcast(std::string(100000, 'm')));
                      dmn_server_exit();
                      EXPECT_EQ(-1, fcntl(0, F_GETFD));
                      close(fd);
                  })));
        dup2(saved, 0);
    }
    event_base_free(base);
    close(0); // now the wake-up of the thread gets it
    served([] { close(admitted()); });
    EXPECT_EQ(-1, fcntl(0, F_GETFD));
}

// While one sender holds the registry and the stop waits for it, the next sender stands behind.
TEST(DmnServ, StopGoesBeforeLaterSenders)
{
    served([&] {
        const int fd = admitted();
        std::atomic<bool> hold{true};
        calls_watch([&](const tCall &call) {
            if (call.name == std::string("write"))
                EXPECT_TRUE(wait_until([&] { return !hold; }));
            return 0;
        });
        std::thread first([] { broadcast("1"); });
        ASSERT_TRUE(wait_until([] { return calls_count("write") == 1; }));
        std::thread stop(dmn_server_exit);
        ASSERT_TRUE(wait_until([] { return calls_count("pthread_rwlock_trywrlock") > 0; }));
        std::thread second([] { broadcast("2"); });
        nap(100);
        EXPECT_EQ(1U, calls_count("write"));
        hold = false;
        for (std::thread *one : {&first, &stop, &second})
            one->join();
        calls_stop();
        EXPECT_EQ("1", read_bytes(fd, 2));
        close(fd);
    });
}

TEST(DmnServ, NoPriorityKeepsAnotherFromItsStep)
{
    between_priorities([] {
        dmn_server_exit();
        broadcast("to nobody");
    });
}
