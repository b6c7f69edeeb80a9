// SPDX-License-Identifier: MIT
// Tests of all services: failing calls, a stop or a fork at each call, cancelled host threads.
#include "scenarios.h"

#include <common/popen2.h>
#include <common/xfuncs.h>
#include <event2/thread.h>
#include <map>
#include <mutex>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

// An event that happens at one call of a scenario.
struct tSweep {
    function<bool(const tCall &)> counts; // whether it may happen at this call
    function<int(const tCall &)>
        happens; // the event: gives 0, or the error that the call fails with
    function<void(const tLife &)> after = nullptr;
};

// Runs a scenario repeatedly. The event happens at the first call in the first run, at the second
// call in the second run, and so on. Returns the number of events.
static unsigned sweep(const tScenario &scenario, const tSweep &what)
{
    normal_run(scenario); // the first run loads what stays loaded, such as the unwinder
    normal_run(scenario);
    const tRest rest;
    unsigned times = 0;
    // The number of calls differs a little between runs.
    for (unsigned k = 1, idle = 0; idle < 3 && !testing::Test::HasFailure(); ++k) {
        atomic<unsigned> met{0};
        string name;
        const tLife life = live(scenario, [&](const tCall &call) {
            if (!what.counts(call) || ++met != k)
                return spare(call);
            name = call.name;
            return what.happens(call);
        });
        SCOPED_TRACE(Message() << "at call " << k << ", " << name << "\n" << life.said);
        if (what.after)
            what.after(life);
        rest.check();
        idle = name.empty() ? idle + 1 : 0;
        times += !name.empty();
    }
    normal_run(scenario);
    return times;
}

static bool any_call(const tCall &)
{
    return true;
}

using tScenarios = testing::TestWithParam<tScenario>;

// Each call fails once, and the failure is reported.
class Failures : public tScenarios
{
};

TEST_P(Failures, EachCallFailsOnce)
{
    const std::multimap<string, string> reports = {
        {"direct_log", "fopen() err!!!!\n"},
        {"writer_log", "pthread_create() err, msg:NOMEM\n"},
        {"writer_log", "pthread_create() err, msg:LIBACC"},
        {"writer_log", "pipe() err, msg:NOMEM!!!!\n"},
        {"writer_log", "select()=-1, msg:Interrupted system call!!!!\n"},
        {"writer_log", "read() err, msg:NOMEM!!!!\n"},
        {"server", "pthread_create() err, msg:NOMEM\n"},
        {"server", "pthread_create() err, msg:LIBACC"},
        {"server", "event_base_new() err!!!!\nOFF"},
        {"server", "socket() err, msg=NOMEM!!!!!!\nERR dmn_serv: _dmn_server_init() err!!!!\n"
                   "OFF dmn_serv: Wait _dmn_server_func_pth() pthread stop------\n"
                   "OFF dmn_serv: _dmn_server_func_pth() pthread already stop------\n"},
        {"server", "bind() err, msg=NOMEM!!!!!!\nERR"},
        {"server", "listen() err, msg=NOMEM!!!!!!\nERR"},
        {"server", "event_new() err!!!!\nERR"},
        {"server", "event_new() err!!!!\nOFF"},
        {"server", "accept() err, msg=NOMEM!!!!!!\n"},
        {"server", "malloc() err!!!!\nERR dmn_serv: xzMalloc() err!!!!\n"},
        {"dog", "socket() err, msg:NOMEM!!!!\nERR self_dog: _unix_socket_connect() err!!!!\n"
                "ERR self_dog: _feed_dog_init() err!!!!\n"
                "OFF self_dog: Wait _feddog_func_pth() pthread stop------\n"
                "OFF self_dog: _feddog_func_pth() pthread already stop------\n"},
        {"dog", "connect() err, msg:NOMEM!!!!!!ERR"},
        {"dog", "event_new() err!!!!\nERR"},
        {"dog", "evtimer_new() err!!!!\nERR"},
        {"dog", "event_new() err!!!!\nOFF"},
        {"dog", "read() err, msg:NOMEM!!!!\n"},
    };
    const tScenario &scenario = GetParam();
    string said;
    const auto after = [&](const tLife &life) { said += tagged(life.said); };
    const auto host = std::this_thread::get_id();
    for (const int err : {EINTR, ENOMEM})
        for (const bool hosts : {true, false}) { // the order of threads differs between runs
            const auto counts = [=](const tCall &) {
                return (std::this_thread::get_id() == host) == hosts;
            };
            sweep(scenario, {counts, [=](const tCall &) { return err; }, after});
        }
    said = std::regex_replace(said, std::regex(strerror(ENOMEM)), "NOMEM");
    said = std::regex_replace(said, std::regex(strerror(ELIBACC)), "LIBACC");
    const auto [first, last] = reports.equal_range(scenario.name);
    for (auto at = first; at != last; ++at)
        EXPECT_NE(string::npos, said.find(at->second)) << at->second;
}

INSTANTIATE_TEST_SUITE_P(All, Failures,
                         testing::Values(gicDirectLog, gicWriterLog, gicConsoleLog, gicServer,
                                         gicDog),
                         testing::PrintToStringParamName());

// The host calls the exit function while the service's thread is in each of its calls; without and
// with libevent's locks.
class Stops : public tScenarios
{
};

TEST_P(Stops, ExitComesAtEachCallOfTheThread)
{
    const auto host = std::this_thread::get_id();
    atomic<bool> joining{false};
    const auto counts = [&](const tCall &call) {
        const bool ours = std::this_thread::get_id() != host;
        if (!ours && call.name == "pthread_join")
            joining = true;
        // In these two it would block the exit call, or a sender.
        return ours && call.name != "localtime_r" && call.name != "pthread_rwlock_trywrlock";
    };
    const auto happens = [&](const tCall &) {
        gStopping = true;
        wait_until([&] { return joining.load(); });
        return 0;
    };
    const tSweep stop = {counts, happens, [&](const tLife &) { joining = false; }};
    EXPECT_GT(sweep(GetParam(), stop), 10U);
    evthread_use_pthreads();
    EXPECT_GT(sweep(GetParam(), stop), 10U);
}

INSTANTIATE_TEST_SUITE_P(All, Stops,
                         testing::Values(gicWriterLog, gicServer, gicServerThatCannot, gicDog,
                                         gicDogThatCannot),
                         testing::PrintToStringParamName());

// A fork handler of the host that logs. It is registered early, as in a statically linked host.
static bool gbLogAtFork;
static void before_fork()
{
    if (gbLogAtFork)
        log_msg(LOG_LEV_OFF, "parent", "f", 1, "fork\n");
}
__attribute__((constructor(200))) static void meet_forks()
{
    pthread_atfork(before_fork, nullptr, nullptr);
}

// Counts descriptors of one kind; of this process only those open for writing.
static size_t open_to(const string &kind, const string &process = "self")
{
    size_t found = 0;
    for (int fd = 0; fd < 1000; ++fd) {
        char what[256] = "";
        const string link = "/proc/" + process + "/fd/" + to_string(fd);
        (void)!readlink(link.c_str(), what, sizeof what - 1);
        if (process != "self" || (fcntl(fd, F_GETFL) & O_ACCMODE) != O_RDONLY)
            found += strncmp(what, kind.c_str(), kind.size()) == 0;
    }
    return found;
}
static size_t gPipes = ~0U; // those of the test itself; checked where libevent has none

// The forked child uses the inherited services, and then its own.
static void child_life()
{
    calls_stop();
    alarm(30); // ends a child that hangs
    if (getenv("KELVARA_WATCHED") != nullptr)
        return; // a sanitizer's or emulator's own locks may be held in the child
    char msg[] = "C";
    log_msg(LOG_LEV_OFF, "child", "f", 1, "child\n");
    EXPECT_EQ(0U, open_to("anon_inode:[eventfd]")); // libevent makes them only with locks
    EXPECT_EQ(0, dmn_serv_tx_clit_msg(msg, 1) + self_feddog_exit() + dmn_server_exit() +
                     log_system_exit());
    EXPECT_GE(gPipes, open_to("pipe:"));
    EXPECT_EQ(0U, open_to(gDir.path)) << "log file";
    gDir.path = gDir / to_string(getpid());
    EXPECT_EQ(0, mkdir(gDir.path.c_str(), 0700));
    EXPECT_TRUE(gicDirectLog.run()) << "a log of the child's own";
    EXPECT_TRUE(gicServer.run()) << "a server of the child's own";
    rmdir(gDir.path.c_str());
}

// Forks on another thread, and waits for the child.
struct tFork {
    atomic<bool> done{false};
    atomic<pid_t> child{0};
    int status = -1;
    thread forker{[this] {
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

static bool random_life()
{
    char *text = gen_random_number_string(3);
    free(text);
    return text != nullptr;
}

class Forks : public tScenarios
{
};

TEST_P(Forks, ChildIsForkedAtEachCall)
{
    gAwaitMs = 30000; // a thread may wait for a child
    if (GetParam().run == gicWriterLog.run)
        gPipes = open_to("pipe:");
    std::unique_ptr<tFork> forked;
    const auto happens = [&](const tCall &call) {
        gbLogAtFork = true;
        forked = std::make_unique<tFork>();
        // A thread that blocks the fork must continue, so do not wait for the child.
        if (wait_until([&] { return forked->child != 0; }, 30))
            wait_until([&] { return forked->done.load(); }, 60000);
        EXPECT_TRUE((call.name != "localtime_r" && call.name != "rand") || forked->child == 0)
            << "inside the C library";
        return spare(call);
    };
    const auto after = [&](const tLife &life) {
        if (forked == nullptr)
            return;
        forked->forker.join();
        EXPECT_EQ(0, forked->status);
        EXPECT_TRUE(life.worked);
        forked = nullptr;
        gbLogAtFork = false;
    };
    EXPECT_GT(sweep(GetParam(), {any_call, happens, after}), 4U);
}

INSTANTIATE_TEST_SUITE_P(All, Forks,
                         testing::Values(gicDirectLog, gicWriterLog, gicServer, gicConsoleServer,
                                         gicDog, tScenario{"random", random_life}),
                         testing::PrintToStringParamName());

// Descendants append at the present end of the file, even if the process between them and the owner
// has ended. They rotate only after the owner has ended.
TEST(Descendants, AppendAndTheOwnerRotates)
{
    tLogCfg cfg = {LOG_RUN_MAIN_PROGRESS, LOG_FILE_TWO, 2, LOG_SWITCH_OFF, LOG_SWITCH_ON, ""};
    set_path(cfg.saveLogPath, "o");
    void *const shared = mmap(nullptr, sizeof(atomic<int>), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    atomic<int> &turn = *new (shared) atomic<int>(0);
    const auto log = [&](int mine, const vector<const char *> &lines) {
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

// Children and commands of a daemon keep none of its descriptors: its peers see its end, and a
// child does not block on a log pipe that nothing reads.
TEST(Descendants, HoldNothingOfTheDaemon)
{
    static tDmnServCfg serv;
    static tFeddogCfg dogCfg = {0, 100, "forks", ""};
    tLogCfg cfg = {LOG_RUN_NEW_PTHREAD, LOG_FILE_TWO, ~0U, LOG_SWITCH_OFF, LOG_SWITCH_ON, ""};
    set_path(cfg.saveLogPath, "p");
    set_path(serv.dmNme, "s");
    set_path(dogCfg.txFeddogHtDmNme, "d");
    const int dog = unix_listen(dogCfg.txFeddogHtDmNme);
    const auto stop = [] { return self_feddog_exit() + dmn_server_exit() + log_system_exit(); };
    output_of([&] {
        EXPECT_EQ(0, log_system_init(&cfg) + dmn_server_init(&serv) + self_feddog_init(&dogCfg));
    });
    const int peers[] = {accept(dog, nullptr, nullptr), unix_connect_soon(serv.dmNme)};
    EXPECT_TRUE(wait_until([&] {
        char byte[] = "P";
        dmn_serv_tx_clit_msg(byte, 1);
        return recv(peers[1], byte, 1, MSG_DONTWAIT) == 1;
    }));
    EXPECT_EQ("kelvara_dog\nkelvara_log\nkelvara_serv\n",
              output_of([] { (void)!system("sort /proc/$PPID/task/*/comm | grep kelvara_"); }));
    int command = 0;
    FILE *shell = popen("sleep 60 >/dev/null & echo $!", "r");
    ASSERT_EQ(1, fscanf(shell, "%d", &command));
    pclose(shell);
    EXPECT_EQ(0U, open_to(gDir.path, to_string(command))) << "log file";
    int ends[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
    const pid_t child = fork();
    if (child == 0) {
        alarm(20);
        signal(SIGPIPE, SIG_DFL);
        close(ends[1]);
        log_msg(LOG_LEV_OFF, "child", "f", 1, "child\n");
        (void)!write(ends[0], "", 1);
        (void)!read(ends[0], ends, 1);
        for (int i = 0; i < 700; ++i) // do not fit into the pipe
            log_msg(LOG_LEV_OFF, "child", "f", 1, "%080d late\n", i);
        leave(stop());
    }
    close(ends[0]);
    EXPECT_EQ(1U, read_bytes(ends[1], 1).size());
    output_of([&] { EXPECT_EQ(0, stop()); });
    EXPECT_EQ(-1, unix_connect(serv.dmNme));
    for (const int fd : peers) {
        (void)read_bytes(fd, 1 << 20); // up to the end of the stream
        close(fd);
    }
    close(ends[1]);
    int status = -1;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status) << "the child hangs where a command keeps the log pipe open";
    EXPECT_EQ(0, kill(command, SIGKILL));
    EXPECT_EQ(1U, count_of(slurp(gDir / "p-00.log"), "child 0001]"));
    close(dog);
}

static const tScenario *gpStarved;
static size_t gLeft; // free descriptors

static bool starved_life()
{
    vector<int> taken;
    for (int fd = dup(0); fd != -1; fd = dup(0))
        taken.push_back(fd);
    for (size_t i = 0; i < gLeft; ++i)
        close(taken[i]);
    const bool worked = gpStarved->run();
    for (size_t i = gLeft; i < taken.size(); ++i)
        close(taken[i]);
    return worked;
}

// With any number of free descriptors a service starts or reports its failure.
TEST(SetUp, FewDescriptors)
{
    const rlimit some = {64, 64};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &some));
    for (const tScenario &scenario : {gicServer, gicDogThatCannot, gicWriterLog}) {
        gpStarved = &scenario;
        normal_run(scenario);
        const tRest rest;
        bool worked = false;
        for (gLeft = 0; gLeft < 20; ++gLeft) {
            SCOPED_TRACE(Message() << gLeft << " for " << scenario.name);
            worked = live({scenario.name, starved_life}, spare).worked;
            rest.check();
        }
        EXPECT_TRUE(worked) << scenario.name;
    }
}

// Socket paths of 1 to 107 characters work; others are refused. The last one has no terminator.
TEST(SetUp, PathLengths)
{
    event_base *base = event_base_new();
    for (const size_t len : {0U, 107U, 108U, 256U}) {
        SCOPED_TRACE(len);
        const string path = (gDir / string(256, 'n')).substr(0, len);
        const string why = strerror(len == 0 ? EINVAL : ENAMETOOLONG);
        tDmnServCfg serv = {};
        tFeddogCfg dogCfg = {1, 0, "path", ""};
        path.copy(serv.dmNme, len);
        path.copy(dogCfg.txFeddogHtDmNme, len);
        EXPECT_EQ(len == 107 ? ""
                             : "ERR dmn_serv: bind() err, msg=" + why +
                                   "!!!!!!\nERR self_dog: connect() err, msg:" + why +
                                   "!!!!!!ERR self_dog: _unix_socket_connect() err!!!!\n",
                  tagged(output_of([&] {
                      EXPECT_EQ(len == 107 ? 0 : -4100, _dmn_server_init(base, &serv));
                      EXPECT_EQ(len == 107 ? 0 : -4098, _feed_dog_init(base, &dogCfg));
                      EXPECT_EQ(0, self_feddog_exit() + dmn_server_exit());
                  })));
    }
    event_base_free(base);
}

// A pending cancel of a host's thread takes effect after a call of the library: not during a stop,
// with a lock held, or in a child that shares the host's memory.
TEST(Cancelled, HostThreadsFinishTheirCalls)
{
    const tLogCfg cfg = {LOG_RUN_NEW_PTHREAD, LOG_FILE_TWO, 2, LOG_SWITCH_ON, LOG_SWITCH_OFF, ""};
    static tDmnServCfg serv;
    set_path(serv.dmNme, "s");
    char program[] = "exit", type[] = "r";
    FILE *pStream = nullptr;
    const function<bool()> calls[] = {
        [&] { return (pStream = popen2(program, type)) != nullptr; },
        [&] { return pclose2(pStream) == -1 && calls_count("fclose") == 1; },
        [&] { return dmn_serv_tx_clit_msg(program, 1) == 0; },
        [] {
            logger(0, 0, "kept\n");
            return true;
        },
        [] {
            log_msg(LOG_LEV_ERROR, "file", "function", 1, "kept\n");
            return true;
        },
        [] { return dmn_server_exit() == 0; },
        [] { return self_feddog_exit() == 0; },
        [] { return log_system_exit() == 0; },
        [&] { return log_system_init(&cfg) == 0; },
        [] { return log_system_exit() == 0; },
    };
    const string said = output_of([&] {
        EXPECT_EQ(0, log_system_init(&cfg) + dmn_server_init(&serv));
        const int client = unix_connect_soon(serv.dmNme);
        calls_watch(spare);
        for (const auto &call : calls)
            thread([&] { // a cancel inside a call would end the process
                SCOPED_TRACE(Message() << "call " << &call - calls);
                pthread_cancel(pthread_self());
                EXPECT_TRUE(call());
                int was = PTHREAD_CANCEL_DISABLE;
                pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &was);
                EXPECT_EQ(PTHREAD_CANCEL_ENABLE, was) << "cancellation is off for good";
            })
                .join();
        calls_stop();
        dmn_serv_tx_clit_msg(program, 1);
        close(client);
    });
    EXPECT_EQ(2U, count_of(said, "kept\n"));
    while (wait(nullptr) > 0)
        continue;
}

// All services together are started and stopped repeatedly: log service in both modes with
// rotation, server with short-lived clients, watchdog client, senders, loggers, threshold changes.
TEST(Storm, StartsAndStopsOfEverything)
{
    static tDmnServCfg serv;
    static tFeddogCfg dogCfg = {0, 500, "storm", ""};
    tLogCfg cfg = {LOG_RUN_MAX, LOG_FILE_TWO, 5, LOG_SWITCH_OFF, LOG_SWITCH_ON, ""};
    set_path(cfg.saveLogPath, "l");
    set_path(serv.dmNme, "s");
    set_path(dogCfg.txFeddogHtDmNme, "d");
    const tRest rest;
    const int dog = unix_listen(dogCfg.txFeddogHtDmNme);
    fcntl(dog, F_SETFL, O_NONBLOCK);
    atomic<bool> run{true};
    std::mutex logging; // no thread may log while the service starts or stops
    char text[300] = "";
    const function<void()> peers[] = {
        [&] { close(accept(dog, nullptr, nullptr)); },
        [&] {
            const int fd = unix_connect(serv.dmNme);
            send(fd, text, sizeof text, MSG_NOSIGNAL);
            close(fd);
        },
        [&] { dmn_serv_tx_clit_msg(text, sizeof text); },
        [&] {
            const std::lock_guard<std::mutex> hold(logging);
            log_msg(LOG_LEV_OFF, "storm", "f", 1, "line\n");
            set_global_log_level(LOG_LEV_RUN);
        },
    };
    const string said = output_of([&] {
        thread busy(in_threads, 4, [&](int t) {
            while (run)
                peers[t]();
        });
        static std::mt19937 random;
        for (int round = 0; round < 100; ++round) {
            cfg.logRunMd = static_cast<eLogRunMod>(random() % 2);
            std::unique_lock<std::mutex> hold(logging);
            EXPECT_EQ(0, log_system_init(&cfg));
            hold.unlock();
            EXPECT_EQ(0, dmn_server_init(&serv) + self_feddog_init(&dogCfg));
            usleep(static_cast<useconds_t>(random() % 1500));
            self_feddog_exit();
            dmn_server_exit();
            hold.lock();
            log_system_exit();
        }
        run = false;
        busy.join();
    });
    EXPECT_EQ(0U, count_of(said, "select()")) << said.substr(0, 2000);
    close(dog);
    rest.check();
}
