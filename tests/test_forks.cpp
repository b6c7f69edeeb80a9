// SPDX-License-Identifier: MIT
// Children that are forked while the services are busy.
#include "scenarios.h"

#include <common/xfuncs.h>
#include <csignal>
#include <sys/wait.h>

eLogLevl gLogLevl = LOG_LEV_ERROR;

// A handler of the host's that is registered before the library's, as it is linked first, and logs.
static std::atomic<bool> gLogAtFork{false};
static void before_fork()
{
    if (gLogAtFork)
        log_msg(LOG_LEV_OFF, "parent", "f", 1, "fork\n");
}
[[maybe_unused]] static const int gicHandler = pthread_atfork(before_fork, nullptr, nullptr);

// A process's descriptors of one kind.
static size_t open_to(const std::string &kind, const std::string &process = "self")
{
    size_t found = 0;
    for (int fd = 0; fd < 1000; ++fd) {
        char what[256] = "";
        const std::string link = "/proc/" + process + "/fd/" + std::to_string(fd);
        (void)!readlink(link.c_str(), what, sizeof what - 1);
        found += strncmp(what, kind.c_str(), kind.size()) == 0;
    }
    return found;
}
static size_t gPipes; // 1 more than the test's own; 0: libevent has some

// In a forked child: uses what it has inherited, and then services of its own.
static void child_life()
{
    calls_stop();
    alarm(30); // a child that hangs ends by this
#if defined __SANITIZE_THREAD__ || defined __SANITIZE_ADDRESS__
    const bool watched = true;
#else
    const bool watched = getenv("KELVARA_EMULATED") != nullptr;
#endif
    if (watched)
        return; // by what cannot follow a child of several threads: its own locks may be held
    char msg[] = "C";
    log_msg(LOG_LEV_OFF, "child", "f", 1, "child\n");
    EXPECT_EQ(0U, open_to("anon_inode:[eventfd]")); // libevent's are made with locks only
    EXPECT_EQ(0, dmn_serv_tx_clit_msg(msg, 1) + self_feddog_exit() + dmn_server_exit() +
                     log_system_exit());
    if (gPipes != 0)
        EXPECT_EQ(gPipes, 1 + open_to("pipe:")) << "log pipe";
    static tLogCfg logCfg = {LOG_RUN_NEW_PTHREAD, LOG_FILE_TWO,  9,
                             LOG_SWITCH_OFF,      LOG_SWITCH_ON, ""};
    static tDmnServCfg cfg;
    const std::string name = "child" + std::to_string(getpid());
    set_path(cfg.dmNme, name);
    set_path(logCfg.saveLogPath, name);
    EXPECT_EQ(0, log_system_init(&logCfg) + dmn_server_init(&cfg));
    const int fd = unix_connect_soon(cfg.dmNme);
    EXPECT_TRUE(wait_until([&] {
        dmn_serv_tx_clit_msg(msg, 1);
        return recv(fd, msg, 1, MSG_DONTWAIT) == 1;
    })) << "the child's server serves nobody";
    log_msg(LOG_LEV_OFF, "child", "f", 1, "own\n");
    dmn_server_exit();
    log_system_exit();
    size_t lines = 0;
    for (const std::string end : {"", "-00.log", "-01.log"}) { // the turn is inherited
        lines += count_of(slurp((gDir / name) + end), "own\n");
        unlink(((gDir / name) + end).c_str());
    }
    EXPECT_EQ(1U, lines) << "in the child's own log";
}

// Forks on a thread of its own, and waits for the child.
struct tFork {
    std::atomic<bool> done{false};
    std::atomic<pid_t> child{0};
    int status = -1;
    std::thread thread{[this] {
        calls_uncounted([this] {
            const pid_t pid = fork();
            if (pid == 0) {
                child_life();
                fflush(stdout);
                leave(testing::Test::HasFailure());
            }
            child = pid;
            waitpid(pid, &status, 0);
            done = true;
        });
    }};
};

class Forks : public testing::TestWithParam<tScenario>
{
};

TEST_P(Forks, ChildIsForkedAtEachCall)
{
    const tScenario &scenario = GetParam();
    // As a thread may wait for a child; but the writer thread is waited for in vain.
    gAwaitMs = scenario.run == gicWriterLog.run ? 300 : 30000;
    normal_run(scenario);
    const tRest rest;
    gPipes = scenario.run == gicWriterLog.run ? 1 + open_to("pipe:") : 0;
    unsigned forks = 0, waited = 0;
    for (unsigned k = 1, idle = 0; idle < 2 && !HasFailure(); ++k) {
        SCOPED_TRACE(testing::Message() << "forked at call " << k);
        std::unique_ptr<tFork> forked;
        std::string name;
        const auto [said, worked] = live(scenario, [&](const tCall &call) {
            if (call.index == k) {
                name = call.name;
                forked = std::make_unique<tFork>();
                // A thread that is in the way of the fork goes on, and lets it be.
                if (wait_until([&] { return forked->child != 0; }, 30))
                    wait_until([&] { return forked->done.load(); }, 60000);
                else
                    ++waited;
                EXPECT_TRUE(name != "localtime_r" || forked->child == 0) << "inside the C library";
            }
            return spare(call);
        });
        SCOPED_TRACE(name);
        if (forked != nullptr) {
            forked->thread.join();
            EXPECT_EQ(0, forked->status) << said;
        }
        EXPECT_TRUE(worked) << said;
        rest.check();
        name.empty() ? ++idle : ++forks;
    }
    printf("%u forks, %u of them waited\n", forks, waited);
}

INSTANTIATE_TEST_SUITE_P(All, Forks,
                         testing::Values(gicDirectLog, gicWriterLog, gicServer, gicConsoleServer,
                                         gicDog),
                         testing::PrintToStringParamName());

// All services, with a watchdog and a client.
struct tParent {
    const std::string path;
    int dog = unix_listen(gDir / "d"), fed = -1, client = -1;
    char got[4096] = "";

    explicit tParent(eLogRunMod mode) : path(gDir / "parent" + std::to_string(mode))
    {
        static tDmnServCfg serv;
        static tFeddogCfg dogCfg = {0, 100, "forks", ""};
        tLogCfg cfg = {mode, LOG_FILE_TIME, ~0U, LOG_SWITCH_OFF, LOG_SWITCH_ON, ""};
        path.copy(cfg.saveLogPath, sizeof cfg.saveLogPath);
        set_path(serv.dmNme, "s");
        set_path(dogCfg.txFeddogHtDmNme, "d");
        output_of([&] { EXPECT_EQ(0, log_system_init(&cfg)); });
        EXPECT_EQ(0, dmn_server_init(&serv) + self_feddog_init(&dogCfg));
        fed = accept(dog, nullptr, nullptr);
        client = unix_connect_soon(serv.dmNme);
        EXPECT_TRUE(wait_until([&] { return send("P"), received() == "P"; }));
        const char *threads = mode == LOG_RUN_NEW_PTHREAD
                                  ? "kelvara_dog\nkelvara_log\nkelvara_serv\n"
                                  : "kelvara_dog\nkelvara_serv\n";
        EXPECT_EQ(threads,
                  output_of([] { (void)!system("sort /proc/$PPID/task/*/comm | grep kelvara_"); }));
    }
    static void send(std::string text)
    {
        dmn_serv_tx_clit_msg(&text[0], static_cast<int>(text.size()));
    }
    std::string received()
    {
        const ssize_t len = recv(client, got, sizeof got, MSG_DONTWAIT);
        return std::string(got, len > 0 ? static_cast<size_t>(len) : 0);
    }
    static int stop()
    {
        return self_feddog_exit() + dmn_server_exit() + log_system_exit();
    }
    // How often a text stands in the log files, which go.
    size_t logged(const std::string &text)
    {
        const std::string cat = "cat " + path + "*", rm = "rm " + path + "*";
        const std::string all = output_of([&] { (void)!system(cat.c_str()); });
        (void)!system(rm.c_str());
        for (const int fd : {dog, fed, client})
            close(fd);
        unlink((gDir / "d").c_str());
        return count_of(all, text);
    }
};

// While everything is busy.
TEST(Fork, UnderLoad)
{
    const char *pForks = getenv("KELVARA_FORKS");
    const unsigned forks = pForks != nullptr ? static_cast<unsigned>(atoi(pForks)) : 100;
    for (const eLogRunMod mode : {LOG_RUN_MAIN_PROGRESS, LOG_RUN_NEW_PTHREAD}) {
        tParent parent(mode);
        std::atomic<bool> run{true};
        std::vector<std::thread> busy;
        const auto log = [] { log_msg(LOG_LEV_OFF, "parent", "f", 1, "parent\n"); };
        const std::function<void()> work[] = {log, log, [] { tParent::send("P"); },
                                              [] { close(unix_connect(gDir / "s")); },
                                              [] { free(gen_random_string(99)); }};
        for (const auto &one : work)
            busy.emplace_back([&] {
                for (unsigned i = 1; run; ++i)
                    i % 8 != 0 ? one()
                               : std::this_thread::sleep_for(std::chrono::microseconds(200));
            });
        gLogAtFork = true;
        for (unsigned i = 0; i < forks; ++i) {
            const pid_t pid = fork();
            if (pid == 0) {
                alarm(60);
                log_msg(LOG_LEV_OFF, "child", "f", 1, "child\n");
                tParent::send("C");
                free(gen_random_number_string(1));
                leave(tParent::stop());
            }
            int status = -1;
            EXPECT_EQ(pid, waitpid(pid, &status, 0));
            EXPECT_EQ(std::string::npos, parent.received().find('C'));
            ASSERT_EQ(0, status) << i;
        }
        run = false;
        for (auto &one : busy)
            one.join();
        output_of([] { EXPECT_EQ(0, tParent::stop()); });
        gLogAtFork = false;
        EXPECT_EQ(forks, parent.logged("] child\n"));
    }
}

// Descendants append, wherever the owner has brought the end of the file, and even if the process
// between them has ended. They rotate once the owner has.
TEST(Fork, DescendantsAppendAndTheOwnerRotates)
{
    tLogCfg cfg = {LOG_RUN_MAIN_PROGRESS, LOG_FILE_TWO, 2, LOG_SWITCH_OFF, LOG_SWITCH_ON, ""};
    set_path(cfg.saveLogPath, "o");
    void *const shared = mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    std::atomic<int> &turn = *new (shared) std::atomic<int>(0);
    const auto log = [&](int mine, const std::vector<const char *> &lines) {
        if (!wait_until([&] { return turn == mine; }))
            leave(1);
        for (const char *line : lines)
            logger(0, 0, line);
        ++turn;
    };
    const pid_t owner = fork();
    if (owner == 0) {
        log_system_init(&cfg);
        if (fork() == 0) {
            if (fork() != 0)
                leave(0);
            log(1, {"a\n", "b\n", "c\n"});
            log(3, {"d\n"});
            log(6, {"e\n"});
            leave(0);
        }
        wait(nullptr);
        log(0, {"1\n"});
        log(2, {"2\n", "3\n", "4\n", "5\n"});
        log(4, {});
        leave(0);
    }
    waitpid(owner, nullptr, 0);
    log(5, {});
    EXPECT_TRUE(wait_until([&] { return turn == 7; }));
    EXPECT_EQ("5\nd\n", slurp(gDir / "o-00.log"));
    EXPECT_EQ("e\n", slurp(gDir / "o-01.log"));
}

// A parent's peers see its end although a child and a command live on; the child outlives the log
// pipe's reader.
TEST(Fork, ChildHoldsNothingOfItsParent)
{
    for (const eLogRunMod mode : {LOG_RUN_MAIN_PROGRESS, LOG_RUN_NEW_PTHREAD}) {
        tParent parent(mode);
        int command = 0, ends[2];
        FILE *shell = popen("sleep 60 >/dev/null & echo $!", "r");
        ASSERT_EQ(1, fscanf(shell, "%d", &command));
        pclose(shell);
        EXPECT_EQ(0U, open_to(gDir.path, std::to_string(command))) << "log file";
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
        const pid_t pid = fork();
        if (pid == 0) {
            alarm(60);
            signal(SIGPIPE, SIG_DFL);
            close(ends[1]);
            log_msg(LOG_LEV_OFF, "child", "f", 1, "child\n");
            (void)!write(ends[0], "", 1);
            (void)!read(ends[0], ends, 1);
            for (int i = 0; i < 700; ++i) // more than the pipe holds
                log_msg(LOG_LEV_OFF, "child", "f", 1, "%080d late\n", i);
            leave(tParent::stop());
        }
        close(ends[0]);
        EXPECT_EQ(1U, read_bytes(ends[1], 1).size());
        output_of([] { EXPECT_EQ(0, tParent::stop()); });
        EXPECT_EQ(-1, unix_connect(gDir / "s"));
        for (const int fd : {parent.fed, parent.client}) {
            timeval wait = {5, 0};
            setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
            ssize_t len = 1;
            while (len > 0)
                len = recv(fd, parent.got, sizeof parent.got, 0);
            EXPECT_EQ(0, len) << (fd == parent.fed ? "watchdog" : "client");
        }
        EXPECT_EQ(0, kill(command, SIGKILL));
        close(ends[1]);
        int status = -1;
        EXPECT_EQ(pid, waitpid(pid, &status, 0));
        EXPECT_EQ(0, status);
        EXPECT_EQ(mode == LOG_RUN_MAIN_PROGRESS ? 701U : 1U, parent.logged("child 0001]"));
    }
}
