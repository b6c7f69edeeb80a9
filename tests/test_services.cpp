// SPDX-License-Identifier: MIT
// What the services have in common: calls that fail, stops at any moment, cancelled hosts.
#include "scenarios.h"

#include <common/popen2.h>
#include <event2/event.h>
#include <event2/thread.h>
#include <sys/resource.h>
#include <sys/wait.h>

eLogLevl gLogLevl = LOG_LEV_ERROR;

// A normal run is counted, and then repeated with each of its calls failing once.
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
    for (unsigned k = 1; k <= calls && !HasFailure(); ++k)
        for (const int err : {EINTR, EAGAIN, EMFILE, ENOMEM}) {
            SCOPED_TRACE(testing::Message() << "call " << k << " fails: " << strerror(err));
            std::string name;
            live(scenario, [&](const tCall &call) {
                if (call.index != k)
                    return spare(call);
                name = call.name;
                return err;
            });
            SCOPED_TRACE(name);
            rest.check();
            failed += !name.empty();
        }
    normal_run(scenario);
    printf("%u calls failed\n", failed);
}

INSTANTIATE_TEST_SUITE_P(All, Failures,
                         testing::Values(gicDirectLog, gicWriterLog, gicConsoleLog, gicServer,
                                         gicDog),
                         testing::PrintToStringParamName());

// The host's exit call comes while the service's thread stands at each of its calls; with
// libevent's locks, and without.
class Stops : public testing::TestWithParam<std::tuple<tScenario, bool>>
{
};

TEST_P(Stops, ExitComesAtEachCallOfTheThread)
{
    const auto &[scenario, locked] = GetParam();
    if (locked)
        evthread_use_pthreads();
    normal_run(scenario);
    const tRest rest;
    const auto host = std::this_thread::get_id();
    unsigned stops = 0;
    for (unsigned k = 1, idle = 0; idle < 3 && !HasFailure(); ++k) {
        SCOPED_TRACE(testing::Message() << "stopped at call " << k);
        std::atomic<unsigned> stood{0};
        std::atomic<bool> joining{false};
        std::string name;
        live(scenario, [&](const tCall &call) {
            const std::string here = call.name;
            if (std::this_thread::get_id() == host) {
                joining = joining || here == "pthread_join";
            } else if (here != "localtime_r" && ++stood == k) { // there it is in the exit's way
                name = here;
                gStopping = true;
                wait_until([&] { return joining.load(); });
            }
            return 0;
        });
        name.empty() ? ++idle : ++stops; // the thread's life may have fewer calls
        SCOPED_TRACE(name);
        rest.check();
        normal_run(scenario);
    }
    EXPECT_GT(stops, 10U);
    printf("%u stops\n", stops);
}

INSTANTIATE_TEST_SUITE_P(All, Stops,
                         testing::Combine(testing::Values(gicWriterLog, gicServer,
                                                          gicServerThatCannot, gicDog,
                                                          gicDogThatCannot),
                                          testing::Bool()),
                         [](const auto &one) {
                             return std::string(std::get<0>(one.param).name) +
                                    (std::get<1>(one.param) ? "_locked" : "");
                         });

// All descriptors but so many.
static std::vector<int> taken_but(unsigned left)
{
    std::vector<int> taken;
    for (int fd = dup(0); fd != -1; fd = dup(0))
        taken.push_back(fd);
    for (; left > 0; --left) {
        close(taken.back());
        taken.pop_back();
    }
    return taken;
}

// What fails while a service is set up shows in the log only, exactly so; it is given back, the
// thread reaped once, and the next start works.
TEST(SetUp, FailuresShowInTheLogAlone)
{
    static tDmnServCfg serv;
    static tFeddogCfg dogCfg = {0, 1000, "setup", ""};
    set_path(serv.dmNme, "s");
    set_path(dogCfg.txFeddogHtDmNme, "d");
    const int dog = unix_listen(dogCfg.txFeddogHtDmNme);
    const rlimit some = {64, 64};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &some));
    const struct tService {
        std::function<int(bool)> init; // with a configuration, or without
        int (*exit)();
        std::string tag, thread;
    } server = {[](bool with) { return dmn_server_init(with ? &serv : nullptr); }, dmn_server_exit,
                " dmn_serv: ", "_dmn_server_func_pth()"},
      feeder = {[](bool with) { return self_feddog_init(with ? &dogCfg : nullptr); },
                self_feddog_exit, " self_dog: ", "_feddog_func_pth()"};
    const char servInit[] = "_dmn_server_init() err!!!!\n",
               dogInit[] = "_feed_dog_init() err!!!!\n",
               conn[] = "_unix_socket_connect() err!!!!\n",
               create[] = "pthread_create() err, msg:%m\n", base[] = "event_base_new() err!!!!\n";
    const struct {
        const tService &service;
        const char *call;
        unsigned nth;
        int err;
        std::vector<std::string> said; // with "%m" for the error's text
    } table[] = {
        {server, "event_base_new", 1, 1, {base}},
        {server, "free descriptor", 1, 1, {base}},
        {server, "free descriptor", 2, 1, {base}},
        {server, "free descriptor", 3, 1, {base}},
        {server, "free descriptor", 4, EMFILE, {"socket() err, msg=%m!!!!!!\n", servInit}},
        {server, "bind", 1, EACCES, {"bind() err, msg=%m!!!!!!\n", servInit}},
        {server, "listen", 1, EPERM, {"listen() err, msg=%m!!!!!!\n", servInit}},
        {server, "event_new", 1, 1, {"event_new() err!!!!\n", servInit}},
        {server, "event_new", 2, 1, {"event_new() err!!!!\n"}},
        {server, "event_add", 2, 1, {"event_new() err!!!!\n"}},
        {server, "event_base_dispatch", 1, 1, {}},
        {server, "none", 1, 1, {"aipArg err!!!!\n"}},
        {server, "pthread_create", 1, EPERM, {create}},
        {server, "backtrace", 1, ELIBACC, {create}},
        {server, "free descriptor", 0, EMFILE, {create}},
        {feeder, "event_base_new", 1, 1, {base}},
        {feeder, "free descriptor", 3, 1, {base}},
        {feeder, "free descriptor", 4, EMFILE, {"socket() err, msg:%m!!!!\n", conn, dogInit}},
        {feeder, "connect", 1, EPERM, {"connect() err, msg:%m!!!!!!", conn, dogInit}},
        {feeder, "event_new", 1, 1, {"event_new() err!!!!\n", dogInit}},
        {feeder, "event_new", 2, 1, {"evtimer_new() err!!!!\n", dogInit}},
        {feeder, "event_new", 3, 1, {"event_new() err!!!!\n"}},
        {feeder, "none", 1, 1, {"aipArg err!!!!\n"}},
        {feeder, "pthread_create", 1, EPERM, {create}},
    };
    const tRest rest;
    for (const auto &row : table) {
        const tService &service = row.service;
        SCOPED_TRACE(testing::Message() << row.call << " number " << row.nth << service.tag);
        const bool starts = row.said.empty() || row.said[0] != create;
        std::string wanted;
        for (std::string line : row.said) {
            if (const size_t at = line.find("%m"); at != std::string::npos)
                line.replace(at, 2, strerror(row.err));
            wanted += "ERR" + service.tag + line;
        }
        if (starts)
            wanted += "OFF" + service.tag + "Wait " + service.thread + " pthread stop------\nOFF" +
                      service.tag + service.thread + " pthread already stop------\n";
        EXPECT_EQ(wanted, tagged(output_of([&] {
                      std::vector<int> taken;
                      if (row.call == std::string("free descriptor"))
                          taken = taken_but(row.nth);
                      calls_watch(calls_fail(row.call, row.nth, row.err));
                      EXPECT_EQ(starts ? 0 : -11, service.init(row.call != std::string("none")));
                      EXPECT_TRUE(
                          wait_until([&] { return !starts || calls_count("pthread_exit") == 1; }));
                      calls_stop();
                      for (const int fd : taken)
                          close(fd);
                      timed_exit(service.exit);
                  })));
        if (starts)
            EXPECT_EQ(service.thread + " exit", calls_exit_text());
        rest.check();
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
        SCOPED_TRACE(testing::Message() << "a path of " << len);
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
        EXPECT_EQ(len == 0 ? -1 : 0, access(path.c_str(), F_OK));
    }
    event_base_free(base);
}

// A cancel that is pending on a host's thread takes effect behind the library's calls, not in the
// middle of a stop, a held lock, or a child that shares the host's memory.
TEST(Cancelled, HostThreadsFinishTheirCalls)
{
    const tLogCfg cfg = {LOG_RUN_NEW_PTHREAD, LOG_FILE_TWO, 2, LOG_SWITCH_ON, LOG_SWITCH_OFF, ""};
    static tDmnServCfg serv;
    set_path(serv.dmNme, "s");
    char program[] = "exit", type[] = "r";
    FILE *pStream = nullptr;
#define HOLDS(call) #call, [&] { return call; }
    const struct {
        const char *name;
        std::function<bool()> holds;
    } calls[] = {
        {HOLDS((pStream = popen2(program, type)) != nullptr)},
        {HOLDS(pclose2(pStream) == -1 && calls_count("fclose") == 1)},
        {HOLDS(dmn_serv_tx_clit_msg(program, 1) == 0)},
        {"logger()",
         [] {
             logger(0, 0, "kept\n");
             return true;
         }},
        {HOLDS(dmn_server_exit() == 0)},
        {HOLDS(self_feddog_exit() == 0)},
        {HOLDS(log_system_exit() == 0)},
    };
    const std::string said = output_of([&] {
        EXPECT_EQ(0, log_system_init(&cfg) + dmn_server_init(&serv));
        const int client = unix_connect_soon(serv.dmNme);
        calls_watch(spare);
        for (const auto &call : calls)
            std::thread([&] { // a cancel inside the call would end the whole process
                SCOPED_TRACE(call.name);
                pthread_cancel(pthread_self());
                EXPECT_TRUE(call.holds());
                int was = PTHREAD_CANCEL_DISABLE;
                pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &was);
                EXPECT_EQ(PTHREAD_CANCEL_ENABLE, was) << "cancellation is off for good";
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
