// SPDX-License-Identifier: MIT
#include <common/dmn_serv.h>

#include "calls.h"
#include "support.h"

static const string gPath = gDir / "s";

static int broadcast(string text)
{
    return dmn_serv_tx_clit_msg(&text[0], static_cast<int>(text.size()));
}

struct tServer : tLoop {
    tDmnServCfg cfg = {};

    tServer()
    {
        gPath.copy(cfg.dmNme, sizeof cfg.dmNme - 1);
        EXPECT_EQ(0, _dmn_server_init(base, &cfg));
    }
    int client() const
    {
        const int fd = unix_connect(gPath);
        EXPECT_EQ("", turn());
        return fd;
    }
    ~tServer()
    {
        EXPECT_EQ("", output_of([] { EXPECT_EQ(0, dmn_server_exit() + dmn_server_exit()); }));
        EXPECT_EQ(-1, unix_connect(gPath));
        EXPECT_EQ(ECONNREFUSED, errno); // the socket's file remains
    }
};

TEST(DmnServ, BroadcastsToAllOldestFirst)
{
    std::ofstream(gPath) << "left over by an earlier run";
    EXPECT_EQ(0, broadcast("to nobody"));
    for (int round = 0; round < 2; ++round) {
        tServer server;
        EXPECT_EQ(SIG_IGN, signal(SIGPIPE, SIG_DFL));
        const int clients[] = {server.client(), server.client(), server.client()};
        // Before each write: which clients have the message.
        string got;
        calls_watch([&](const tCall &call) {
            char byte;
            for (const int fd : clients)
                if (call.name == "write")
                    got += recv(fd, &byte, 1, MSG_DONTWAIT | MSG_PEEK) == 1 ? "+" : "-";
            return 0;
        });
        EXPECT_EQ(0, broadcast(string("a\0\n%s", 5)));
        calls_stop();
        EXPECT_EQ("---+--++-", got);
        EXPECT_EQ(1000, send(clients[1], string(1000, 'x').data(), 1000, 0));
        EXPECT_EQ("", server.turn()); // what clients send is discarded
        char one[] = "b";
        EXPECT_EQ(0, dmn_serv_tx_clit_msg(one, -1));
        EXPECT_EQ(0, broadcast("") + broadcast("c"));
        for (const int fd : clients) {
            EXPECT_EQ(string("a\0\n%sc", 6), read_bytes(fd, 6));
            close(fd);
        }
    }
}

TEST(DmnServ, LeavingClientsAreNoticedAndHarmNobody)
{
    for (const bool unread : {false, true}) {
        gLogLevl = unread ? LOG_LEV_ERROR : LOG_LEV_OFF;
        tServer server;
        const int stays = server.client();
        const int leaves = server.client();
        if (unread)
            broadcast("u");
        close(leaves);
        thread sender; // while the server closes the connection
        calls_watch([&](const tCall &call) {
            if (call.name == "close") {
                sender = thread([] { broadcast("x"); });
                EXPECT_TRUE(wait_until([] { return calls_count("write") > 0; }))
                    << "a sender waits for more than the list";
            }
            return 0;
        });
        EXPECT_EQ(unread ? "ERR dmn_serv: read() err, msg:Connection reset by peer!!!!\n"
                         : "OFF dmn_serv: Remote close------\n",
                  server.turn());
        sender.join();
        calls_stop();
        EXPECT_EQ(1U, calls_count("write"));
        EXPECT_EQ(unread ? "ux" : "x", read_bytes(stays, unread ? 2 : 1));
        close(stays);
    }
}

TEST(DmnServ, AdmissionFailures)
{
    const struct {
        const char *call;
        bool served, later; // the client is served; only in a later turn
    } table[] = {{"accept", true, true},
                 {"setsockopt", true, false},
                 {"calloc", false, false},
                 {"event_new", false, false}};
    for (const auto &row : table) {
        SCOPED_TRACE(row.call);
        tServer server;
        const int fd = unix_connect(gPath);
        calls_watch(calls_fail(row.call, 0, EMFILE));
        const auto start = now_ms();
        server.turn();
        calls_stop();
        EXPECT_TRUE(!row.later || now_ms() - start >= 20)
            << "a pause, or the next try fills the log";
        if (row.later)
            server.turn();
        broadcast("!");
        EXPECT_EQ(row.served ? "!" : "", read_bytes(fd, 1));
        close(fd);
    }
}

// The close of a received socket may linger, and block the server inside read().
TEST(DmnServ, TakesNoDescriptorsFromItsClients)
{
    constexpr int passRights = 83; // SO_PASSRIGHTS
    const int off = 0;
    tServer server;
    const int fd = server.client();
    const bool known = setsockopt(fd, SOL_SOCKET, passRights, &off, sizeof off) == 0;
    char byte = 'r';
    iovec bytes = {&byte, 1};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof fd)] = {};
    msghdr msg = {nullptr, 0, &bytes, 1, control, sizeof control, 0};
    *CMSG_FIRSTHDR(&msg) = {CMSG_LEN(sizeof fd), SOL_SOCKET, SCM_RIGHTS};
    memcpy(CMSG_DATA(CMSG_FIRSTHDR(&msg)), &fd, sizeof fd);
    EXPECT_TRUE(!known || sendmsg(fd, &msg, 0) == -1);
    close(fd);
    if (!known)
        GTEST_SKIP() << "the kernel is older than Linux 6.16";
}

TEST(DmnServ, DescriptorZeroIsServedWithoutBlockingAndGivenBack)
{
    const int saved = dup(0);
    for (const bool clientOnZero : {false, true}) {
        string said;
        if (!clientOnZero)
            close(0);
        {
            tServer server;
            const int fd = unix_connect(gPath);
            gLogLevl = LOG_LEV_ERROR;
            said = tagged(output_of([&] { // opens its own file before descriptor 0 is closed
                if (clientOnZero)
                    close(0);
                event_base_loop(server.base, EVLOOP_ONCE);
            }));
            EXPECT_NE(-1, fcntl(0, F_GETFD));
            for (int i = 0; i < 20; ++i) // a blocking descriptor would block for ever
                EXPECT_EQ(0, broadcast(string(100000, 'm')));
            close(fd);
            server.fds -= clientOnZero; // closed by this test
        }
        EXPECT_EQ(-1, fcntl(0, F_GETFD));
        EXPECT_EQ(clientOnZero ? "ERR dmn_serv: aicFd=0 err!!!!\n" : "", said);
        dup2(saved, 0);
    }
}

TEST(DmnServ, NoPriorityKeepsAnotherFromItsStep)
{
    between_priorities([] {
        dmn_server_exit();
        broadcast("to nobody");
    });
}
