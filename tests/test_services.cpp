// SPDX-License-Identifier: MIT
// Two drivers over tables of scenarios, and a storm.
//
// Failures: a normal run is counted, and then repeated with each of its calls failing once.
// Stops: the host's exit call strikes while the service's thread stands at each of its calls.
// Forks: a child is forked while any thread stands at each of the calls.
// After every single one nothing is left behind, and a normal run works.
#include <common/dmn_serv.h>
#include <common/popen2.h>
#include <common/self_dog.h>
#include <common/self_log.h>

#include "calls.h"
#include "support.h"

#include <atomic>
#include <cerrno>
#include <event2/event.h>
#include <event2/thread.h>
#include <fcntl.h>
#include <random>
#include <shared_mutex>
#include <sys/wait.h>

eLogLevl gLogLevl = LOG_LEV_ERROR;

static tTempDir gDir;
static std::atomic<bool> gStruck{false}; // the scenario shall go straight to its exit call
static long gExitMs;                     // how long that took
static int gAwaitMs = 300;

// Waits for something of the service's, unless the stop strikes or a failure has made it vain.
static bool await(const std::function<bool()> &done)
{
    bool met = false;
    calls_uncounted([&] { met = wait_until([&] { return gStruck || done(); }, gAwaitMs); });
    return met && !gStruck;
}

static void timed_exit(int (*exitCall)())
{
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, exitCall());
    gExitMs = ms_since(start);
}

// --- scenarios: each a whole life, which tells whether all of it worked -----------------------

static bool log_life(eLogRunMod mode)
{
    tLogCfg cfg = {mode, LOG_FILE_TWO, 2, LOG_SWITCH_ON, LOG_SWITCH_ON, ""};
    snprintf(cfg.saveLogPath, sizeof cfg.saveLogPath, "%s/log", gDir.path.c_str());
    const int ret = log_system_init(&cfg);
    EXPECT_TRUE(ret == 0 || ret == -2 || ret == -3 || ret == -4) << ret;
    for (unsigned i = 1; i <= 3; ++i) {
        logger(0, 0, "line\n");
        if (mode == LOG_RUN_NEW_PTHREAD && ret == 0)
            await([=] { return calls_count("read") >= i; });
    }
    timed_exit(log_system_exit);
    size_t lines = 0;
    calls_uncounted([&] {
        for (const char *name : {"log-00.log", "log-01.log"})
            lines += count_of(slurp(gDir / name), "line\n");
        (void)!system(("rm -f " + (gDir / "log") + "*").c_str());
    });
    if (gStruck)
        EXPECT_EQ(3U, lines); // a stop loses nothing, wherever it strikes
    return ret == 0 && lines == 3;
}
static bool direct_log_life()
{
    return log_life(LOG_RUN_MAIN_PROGRESS);
}
static bool writer_log_life()
{
    return log_life(LOG_RUN_NEW_PTHREAD);
}

// What is opened gets the console's numbers, and has to move away from them.
static bool closed_console_life()
{
    int saved[2] = {};
    calls_uncounted([&] {
        saved[0] = fcntl(0, F_DUPFD_CLOEXEC, 3);
        saved[1] = fcntl(2, F_DUPFD_CLOEXEC, 3);
        close(0);
        close(2);
    });
    const bool worked = writer_log_life();
    calls_uncounted([&] {
        dup2(saved[0], 0);
        dup2(saved[1], 2);
        close(saved[0]);
        close(saved[1]);
    });
    return worked;
}

static bool server_life()
{
    static tDmnServCfg cfg;
    snprintf(cfg.dmNme, sizeof cfg.dmNme, "%s/serv", gDir.path.c_str());
    const int ret = dmn_server_init(&cfg);
    EXPECT_TRUE(ret == 0 || ret == -11) << ret;
    int stays = -1, leaves = -1;
    char msg[] = "message", got = 0;
    const auto connected = [&](int *fd) {
        return await([&] {
            if (*fd == -1 && (*fd = unix_connect(gDir / "serv")) == -1)
                return false;
            char byte[] = "?";
            dmn_serv_tx_clit_msg(byte, 1);
            return recv(*fd, &got, 1, MSG_DONTWAIT) == 1;
        });
    };
    bool worked = ret == 0 && connected(&stays) && connected(&leaves);
    if (worked) {
        calls_uncounted([&] { send(stays, "to be thrown away", 17, MSG_NOSIGNAL); });
        calls_uncounted([&] { close(leaves); });
        leaves = -1;
        dmn_serv_tx_clit_msg(msg, sizeof msg);
        worked = await([&] { return recv(stays, &got, 1, MSG_DONTWAIT) == 1 && got == 'm'; });
    }
    timed_exit(dmn_server_exit);
    calls_uncounted([&] {
        EXPECT_EQ(std::string::npos, read_bytes(stays, 9999).find('C')) << "a child's broadcast";
        close(stays);
        close(leaves);
        unlink(cfg.dmNme);
    });
    return worked;
}

// Ends on its own: there is nothing to bind to, or no configuration at all.
static bool server_that_cannot()
{
    static tDmnServCfg cfg = {"/no/such/folder/serv"};
    for (tDmnServCfg *pCfg : {&cfg, static_cast<tDmnServCfg *>(nullptr)}) {
        dmn_server_init(pCfg);
        await([] { return calls_count("pthread_exit") > 0; });
        timed_exit(dmn_server_exit);
    }
    return true;
}

static bool dog_life()
{
    static tFeddogCfg cfg = {0, 1000, "driver", ""};
    snprintf(cfg.txFeddogHtDmNme, sizeof cfg.txFeddogHtDmNme, "%s/dog", gDir.path.c_str());
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
    calls_uncounted([&] { close(fd); });
    if (worked) // it notices, and goes on beating into the void
        await([] { return calls_count("close") > 0 && calls_count("write") > 3; });
    timed_exit(self_feddog_exit);
    calls_uncounted([&] {
        close(dog);
        unlink(cfg.txFeddogHtDmNme);
    });
    return worked;
}

static bool dog_that_cannot()
{
    static tFeddogCfg cfg = {0, 1000, "driver", "/no/such/folder/dog"};
    self_feddog_init(&cfg);
    await([] { return calls_count("pthread_exit") > 0; });
    timed_exit(self_feddog_exit);
    return true;
}

struct tScenario {
    const char *name;
    bool (*run)();
};

struct tRest { // nothing more than this may be there after a run
    size_t threads = threads_at_rest(), fds = open_descriptors();
    void check(const std::string &after) const
    {
        EXPECT_TRUE(threads_settle_at(threads)) << after;
        EXPECT_EQ(fds, open_descriptors()) << after;
        EXPECT_LT(gExitMs, 1000) << after;
    }
};

// pclose2() signals whatever process comes after the shell; not here. And each log line has a
// second of its own, or the calls that it makes would depend on the clock.
static int spare(const tCall &call)
{
    const std::string name = call.name;
    return name == "kill" ? ESRCH : name == "gettimeofday" ? EINVAL : 0;
}

// A normal run that must work.
static void normal_run(const tScenario &scenario)
{
    gStruck = false;
    bool worked = false;
    const int usual = gAwaitMs;
    gAwaitMs = 10000; // nothing is waited for in vain here, and the machine may be busy
    const std::string said = output_of([&] {
        calls_watch(spare);
        worked = scenario.run();
        calls_stop();
    });
    gAwaitMs = usual;
    EXPECT_TRUE(worked) << scenario.name << ":\n" << said;
}
class Failures : public testing::TestWithParam<tScenario>
{
};

TEST_P(Failures, EachCallFailsOnce)
{
    const tScenario &scenario = GetParam();
    normal_run(scenario); // the first one leaves what stays for good, such as the unwinder
    normal_run(scenario);
    const size_t calls = calls_seen().size();
    const tRest rest;
    unsigned failed = 0;
    for (unsigned k = 1; k <= calls; ++k)
        for (const int err : {EINTR, EAGAIN, EMFILE, ENOMEM}) {
            std::string name;
            gStruck = false;
            (void)output_of([&] {
                calls_watch([&](const tCall &call) {
                    if (call.index != k)
                        return spare(call);
                    name = call.name;
                    return err;
                });
                scenario.run();
                calls_stop();
            });
            const std::string what = std::string(scenario.name) + ", call " + std::to_string(k) +
                                     " (" + name + ") failing with " + strerror(err);
            rest.check(what);
            failed += !name.empty();
            if (HasFailure())
                return;
        }
    normal_run(scenario);
    printf("%u calls failed\n", failed);
}

INSTANTIATE_TEST_SUITE_P(All, Failures,
                         testing::Values(tScenario{"direct_log", direct_log_life},
                                         tScenario{"writer_log", writer_log_life},
                                         tScenario{"closed_console_log", closed_console_life},
                                         tScenario{"server", server_life},
                                         tScenario{"dog", dog_life}),
                         [](const auto &one) { return std::string(one.param.name); });

class Stops : public testing::TestWithParam<std::tuple<tScenario, bool>>
{
};

TEST_P(Stops, ExitStrikesAtEachCallOfTheThread)
{
    const tScenario &scenario = std::get<0>(GetParam());
    if (std::get<1>(GetParam()))
        evthread_use_pthreads();
    normal_run(scenario);
    const tRest rest;
    const auto host = std::this_thread::get_id();
    unsigned struck = 0;
    for (unsigned k = 1, idle = 0; idle < 3; ++k) {
        std::atomic<unsigned> stood{0};
        std::atomic<bool> joining{false};
        std::string name;
        gStruck = false;
        output_of([&] {
            calls_watch([&](const tCall &call) {
                if (std::this_thread::get_id() == host) {
                    joining = joining || call.name == std::string("pthread_join");
                } else if (call.name !=
                               std::string("localtime_r") && // where it is in the exit's way
                           ++stood == k) {
                    name = call.name;
                    gStruck = true;
                    wait_until([&] { return joining.load(); }, 2000);
                }
                return 0;
            });
            scenario.run();
            calls_stop();
        });
        if (!name.empty())
            ++struck;
        else
            ++idle; // the thread's life has fewer calls
        rest.check(std::string(scenario.name) + ", struck at call " + std::to_string(k) + ", " +
                   name);
        normal_run(scenario);
        if (HasFailure())
            return;
    }
    EXPECT_GT(struck, 10U);
    printf("%u stops struck\n", struck);
}

INSTANTIATE_TEST_SUITE_P(
    All, Stops,
    testing::Combine(testing::Values(tScenario{"writer_log", writer_log_life},
                                     tScenario{"server", server_life},
                                     tScenario{"server_that_cannot", server_that_cannot},
                                     tScenario{"dog", dog_life},
                                     tScenario{"dog_that_cannot", dog_that_cannot}),
                     testing::Bool()),
    [](const auto &one) {
        return std::string(std::get<0>(one.param).name) + (std::get<1>(one.param) ? "_locked" : "");
    });

// In a forked child: uses what it has inherited, and then services of its own. 0 when all went
// well.
static int child_life()
{
    calls_stop();
    alarm(30); // a child that hangs ends by this
#if defined __SANITIZE_THREAD__ || defined __SANITIZE_ADDRESS__
    const bool watched = true;
#else
    const bool watched = getenv("KELVARA_EMULATED") != nullptr;
#endif
    if (watched)
        return 0; // by what cannot follow a child of several threads: its own locks may be held
    char msg[] = "C";
    log_msg(LOG_LEV_OFF, "child", "f", 1, "child\n");
    if (dmn_serv_tx_clit_msg(msg, 1) + self_feddog_exit() + dmn_server_exit() + log_system_exit())
        return 1;
    static tLogCfg logCfg = {LOG_RUN_NEW_PTHREAD, LOG_FILE_TWO,  9,
                             LOG_SWITCH_OFF,      LOG_SWITCH_ON, ""};
    static tDmnServCfg cfg;
    const std::string own = gDir / "child" + std::to_string(getpid());
    own.copy(cfg.dmNme, sizeof cfg.dmNme);
    own.copy(logCfg.saveLogPath, sizeof logCfg.saveLogPath);
    if (log_system_init(&logCfg) + dmn_server_init(&cfg) != 0)
        return 2;
    const int fd = unix_connect_soon(own);
    if (!wait_until(
            [&] { return dmn_serv_tx_clit_msg(msg, 1), recv(fd, msg, 1, MSG_DONTWAIT) == 1; }))
        return 3;
    log_msg(LOG_LEV_OFF, "child", "f", 1, "own\n");
    dmn_server_exit();
    log_system_exit();
    size_t lines = 0;
    for (const std::string end : {"", "-00.log", "-01.log"}) { // the turn is inherited
        lines += count_of(slurp(own + end), "own\n");
        unlink((own + end).c_str());
    }
    return lines == 1 ? 0 : 4;
}

// Forks on a thread of its own, and waits for the child.
struct tFork {
    std::atomic<bool> done{false};
    std::atomic<pid_t> child{0};
    int status = -1;
    std::thread thread{[this] {
        calls_uncounted([this] {
            const pid_t pid = fork();
            if (pid == 0)
                leave(child_life());
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
    gAwaitMs = scenario.run == writer_log_life ? 300 : 30000;
    normal_run(scenario);
    const tRest rest;
    unsigned forks = 0, waited = 0;
    for (unsigned k = 1, idle = 0; idle < 2; ++k) {
        std::unique_ptr<tFork> forked;
        std::string name;
        bool worked = false;
        gStruck = false;
        const std::string said = output_of([&] {
            calls_watch([&](const tCall &call) {
                if (call.index == k) {
                    name = call.name;
                    forked = std::make_unique<tFork>();
                    // A thread that is in the way of the fork goes on, and lets it be.
                    if (wait_until([&] { return forked->child != 0; }, 30))
                        wait_until([&] { return forked->done.load(); });
                    else
                        ++waited;
                    EXPECT_TRUE(name != "localtime_r" || forked->child == 0)
                        << "inside the C library";
                }
                return spare(call);
            });
            worked = scenario.run();
            calls_stop();
            if (forked != nullptr)
                forked->thread.join();
        });
        const std::string what =
            std::string(scenario.name) + ", forked at call " + std::to_string(k) + ", " + name;
        if (forked != nullptr)
            EXPECT_EQ(0, forked->status) << what;
        EXPECT_TRUE(worked) << what << said;
        gExitMs = 0; // it may have waited for the child
        rest.check(what);
        name.empty() ? ++idle : ++forks;
        if (HasFailure())
            return;
    }
    printf("%u forks, %u of them waited\n", forks, waited);
}

INSTANTIATE_TEST_SUITE_P(All, Forks,
                         testing::Values(tScenario{"direct_log", direct_log_life},
                                         tScenario{"writer_log", writer_log_life},
                                         tScenario{"server", server_life},
                                         tScenario{"dog", dog_life}),
                         [](const auto &one) { return std::string(one.param.name); });

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
        (gDir / "s").copy(serv.dmNme, sizeof serv.dmNme);
        (gDir / "d").copy(dogCfg.txFeddogHtDmNme, sizeof dogCfg.txFeddogHtDmNme);
        output_of([&] { EXPECT_EQ(0, log_system_init(&cfg)); });
        EXPECT_EQ(0, dmn_server_init(&serv) + self_feddog_init(&dogCfg));
        fed = accept(dog, nullptr, nullptr);
        client = unix_connect_soon(serv.dmNme);
        EXPECT_TRUE(wait_until([&] { return send("P"), received() == "P"; }));
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
                                              [] { close(unix_connect(gDir / "s")); }};
        for (const auto &one : work)
            busy.emplace_back([&] {
                for (unsigned i = 1; run; ++i)
                    i % 8 != 0 ? one()
                               : std::this_thread::sleep_for(std::chrono::microseconds(200));
            });
        for (unsigned i = 0; i < forks; ++i) {
            const pid_t pid = fork();
            if (pid == 0) {
                alarm(60);
                log_msg(LOG_LEV_OFF, "child", "f", 1, "child\n");
                tParent::send("C");
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
        EXPECT_EQ(forks, parent.logged("] child\n"));
    }
}

// A child whose parent has ended rotates by itself.
TEST(Fork, OrphanRotates)
{
    tLogCfg cfg = {LOG_RUN_MAIN_PROGRESS, LOG_FILE_TWO, 1, LOG_SWITCH_OFF, LOG_SWITCH_ON, ""};
    (gDir / "o").copy(cfg.saveLogPath, sizeof cfg.saveLogPath);
    output_of([&] { EXPECT_EQ(0, log_system_init(&cfg)); });
    logger(0, 0, "parent\n");
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    if (fork() == 0) {
        const pid_t child = getpid();
        if (fork() != 0)
            _exit(0);
        const bool orphan = wait_until([=] { return getppid() != child; });
        logger(0, 0, "orphan\n");
        (void)!write(ends[1], "", orphan);
        leave(0);
    }
    EXPECT_EQ(1, read(ends[0], ends, 1));
    EXPECT_EQ("orphan\n", slurp(gDir / "o-01.log"));
    wait(nullptr);
    output_of(log_system_exit);
}

// A parent's peers see its end although a child lives on; the child outlives the log pipe's reader.
TEST(Fork, ChildHoldsNothingOfItsParent)
{
    for (const eLogRunMod mode : {LOG_RUN_MAIN_PROGRESS, LOG_RUN_NEW_PTHREAD}) {
        tParent parent(mode);
        int ends[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
        const pid_t pid = fork();
        if (pid == 0) {
            alarm(60);
            signal(SIGPIPE, SIG_DFL);
            close(ends[1]);
            log_msg(LOG_LEV_OFF, "child", "f", 1, "child\n");
            (void)!write(ends[0], "", 1);
            (void)!read(ends[0], ends, 1);
            log_msg(LOG_LEV_OFF, "child", "f", 1, "late\n");
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
        close(ends[1]);
        int status = -1;
        EXPECT_EQ(pid, waitpid(pid, &status, 0));
        EXPECT_EQ(0, status);
        EXPECT_EQ(mode == LOG_RUN_MAIN_PROGRESS ? 2U : 1U, parent.logged("child 0001]"));
    }
}

// What fails while a service is set up shows in the log only, exactly so; it is given back, the
// thread reaped once, and the next start works.
TEST(SetUp, FailuresShowInTheLogAlone)
{
    static tDmnServCfg serv;
    static tFeddogCfg dogCfg = {0, 1000, "setup", ""};
    snprintf(serv.dmNme, sizeof serv.dmNme, "%s/s", gDir.path.c_str());
    snprintf(dogCfg.txFeddogHtDmNme, sizeof dogCfg.txFeddogHtDmNme, "%s/d", gDir.path.c_str());
    const int dog = unix_listen(gDir / "d");
    const struct tService {
        std::function<int(bool)> init; // with a configuration, or without
        int (*exit)();
        std::string tag, stop;
    } serving = {[](bool with) { return dmn_server_init(with ? &serv : nullptr); }, dmn_server_exit,
                 "ERR dmn_serv: ", "_dmn_server_func_pth()"},
      feeding = {[](bool with) { return self_feddog_init(with ? &dogCfg : nullptr); },
                 self_feddog_exit, "ERR self_dog: ", "_feddog_func_pth()"};
    const std::string servInit = "_dmn_server_init() err!!!!\n",
                      dogInit = "_feed_dog_init() err!!!!\n",
                      conn = "_unix_socket_connect() err!!!!\n";
    const struct {
        const tService &service;
        const char *call;
        unsigned nth;
        int err;
        std::vector<std::string> said;
    } table[] = {
        {serving, "event_base_new", 1, 1, {"event_base_new() err!!!!\n"}},
        {serving, "socket", 1, EMFILE, {"socket() err, msg=Too many open files!!!!!!\n", servInit}},
        {serving, "bind", 1, EACCES, {"bind() err, msg=Permission denied!!!!!!\n", servInit}},
        {serving,
         "listen",
         1,
         EPERM,
         {"listen() err, msg=Operation not permitted!!!!!!\n", servInit}},
        {serving, "event_new", 1, 1, {"event_new() err!!!!\n", servInit}},
        {serving, "event_new", 2, 1, {"event_new() err!!!!\n"}},
        {serving, "event_add", 2, 1, {"event_new() err!!!!\n"}},
        {serving, "event_base_dispatch", 1, 1, {}},
        {serving, "no call", 1, 1, {"aipArg err!!!!\n"}},
        {serving,
         "pthread_create",
         1,
         EPERM,
         {"pthread_create() err, msg:Operation not permitted\n"}},
        {serving, "eventfd", 1, EMFILE, {"pthread_create() err, msg:Too many open files\n"}},
        {feeding, "event_base_new", 1, 1, {"event_base_new() err!!!!\n"}},
        {feeding,
         "socket",
         1,
         EMFILE,
         {"socket() err, msg:Too many open files!!!!\n", conn, dogInit}},
        {feeding,
         "connect",
         1,
         EPERM,
         {"connect() err, msg:Operation not permitted!!!!!!", conn, dogInit}},
        {feeding, "event_new", 1, 1, {"event_new() err!!!!\n", dogInit}},
        {feeding, "event_new", 2, 1, {"evtimer_new() err!!!!\n", dogInit}},
        {feeding, "event_new", 3, 1, {"event_new() err!!!!\n"}},
        {feeding, "no call", 1, 1, {"aipArg err!!!!\n"}},
        {feeding,
         "pthread_create",
         1,
         EPERM,
         {"pthread_create() err, msg:Operation not permitted\n"}},
    };
    const tRest rest;
    for (const auto &row : table) {
        const bool starts = row.said.empty() || row.said[0].find("pthread") != 0;
        std::string wanted;
        for (const auto &line : row.said)
            wanted += row.service.tag + line;
        if (starts)
            wanted += "OFF" + row.service.tag.substr(3) + "Wait " + row.service.stop +
                      " pthread stop------\nOFF" + row.service.tag.substr(3) + row.service.stop +
                      " pthread already stop------\n";
        EXPECT_EQ(wanted, tagged(output_of([&] {
                      calls_watch(calls_fail(row.call, row.nth, row.err));
                      EXPECT_EQ(starts ? 0 : -11, row.service.init(row.call[0] != 'n'));
                      EXPECT_TRUE(!starts || wait_until([] {
                          return calls_count("pthread_exit") == 1;
                      })) << row.call;
                      calls_stop();
                      timed_exit(row.service.exit);
                  })));
        EXPECT_TRUE(!starts || calls_exit_text() == row.service.stop + " exit")
            << calls_exit_text();
        rest.check(row.call);
    }
    close(dog);
}

// Socket paths of 1 to 107 characters work; others are refused, and longer ones left alone. The
// last one has no terminator.
TEST(SetUp, PathLengths)
{
    event_base *base = event_base_new();
    for (const size_t len : {0U, 106U, 107U, 108U, 109U, 250U, 256U}) {
        const std::string path =
            len == 0 ? "" : gDir / std::string(len - gDir.path.size() - 1, 'n');
        const bool fits = len == 106 || len == 107;
        const std::string why = len == 0 ? "Invalid argument" : "File name too long";
        if (len > 107)
            std::ofstream(path) << "stays";
        tDmnServCfg serv = {};
        tFeddogCfg dogCfg = {1, 0, "path", ""};
        path.copy(serv.dmNme, len);
        path.copy(dogCfg.txFeddogHtDmNme, len);
        EXPECT_EQ(fits ? ""
                       : "ERR dmn_serv: bind() err, msg=" + why +
                             "!!!!!!\nERR self_dog: connect() err, msg:" + why +
                             "!!!!!!ERR self_dog: _unix_socket_connect() err!!!!\n",
                  tagged(output_of([&] {
                      EXPECT_EQ(fits ? 0 : -4100, _dmn_server_init(base, &serv));
                      EXPECT_EQ(fits ? 0 : -4098, _feed_dog_init(base, &dogCfg));
                      EXPECT_EQ(0, self_feddog_exit() + dmn_server_exit());
                  })));
        EXPECT_EQ(len == 0 ? -1 : 0, access(path.c_str(), F_OK)) << len;
    }
    event_base_free(base);
}

// A cancel that is pending on a host's thread takes effect behind the library's calls, not in the
// middle of a stop, a held lock, or a child that shares the host's memory.
TEST(Cancelled, HostThreadsFinishTheirCalls)
{
    const tLogCfg cfg = {LOG_RUN_NEW_PTHREAD, LOG_FILE_TWO, 2, LOG_SWITCH_ON, LOG_SWITCH_OFF, ""};
    tDmnServCfg serv = {};
    (gDir / "s").copy(serv.dmNme, sizeof serv.dmNme);
    char program[] = "exit", type[] = "r";
    FILE *pStream = nullptr;
    const std::function<bool()> bodies[] = {
        [&] { return (pStream = popen2(program, type)) != nullptr; },
        [&] { return pclose2(pStream) == -1 && calls_count("fclose") == 1; },
        [&] { return dmn_serv_tx_clit_msg(program, 1) == 0; },
        [&] {
            logger(0, 0, "kept\n");
            return true;
        },
        [&] { return dmn_server_exit() == 0; },
        [&] { return self_feddog_exit() == 0; },
        [&] { return log_system_exit() == 0; },
    };
    const std::string said = output_of([&] {
        EXPECT_EQ(0, log_system_init(&cfg) + dmn_server_init(&serv));
        const int client = unix_connect_soon(serv.dmNme);
        calls_watch(spare);
        for (const auto &body : bodies)
            std::thread([&] { // one that is struck ends the whole process
                pthread_cancel(pthread_self());
                EXPECT_TRUE(body()) << &body - bodies;
                int was = PTHREAD_CANCEL_DISABLE; // may be struck again
                pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &was);
                EXPECT_EQ(PTHREAD_CANCEL_ENABLE, was);
            })
                .join();
        calls_stop();
        dmn_serv_tx_clit_msg(program, 1);
        close(client);
    });
    EXPECT_EQ(1U, count_of(said, "kept\n"));
    while (wait(nullptr) > 0)
        continue;
}

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
    snprintf(serv.dmNme, sizeof serv.dmNme, "%s/s", gDir.path.c_str());
    snprintf(dogCfg.txFeddogHtDmNme, sizeof dogCfg.txFeddogHtDmNme, "%s/d", gDir.path.c_str());

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
        snprintf(cfg.saveLogPath, sizeof cfg.saveLogPath, "%s/l", gDir.path.c_str());
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
