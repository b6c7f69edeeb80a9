// SPDX-License-Identifier: MIT
// What the services have in common: calls that fail, stops and forks at each call, cancelled hosts.
#include "scenarios.h"

#include <common/popen2.h>
#include <event2/event.h>
#include <event2/thread.h>
#include <sys/resource.h>
#include <sys/wait.h>

eLogLevl gLogLevl = LOG_LEV_ERROR;

// What is to happen at a call; the other calls of a life go on as usual.
struct tSweep {
    std::function<bool(const tCall &)> counts; // whether it may happen at this one
    std::function<int(const tCall &)> happens; // 0, or the error that the call fails with
    std::function<void(const tLife &)> after = nullptr;
};

// Lives a scenario again and again, and lets it happen at one call after the other. Gives how often
// it did.
static unsigned sweep(const tScenario &scenario, const tSweep &what)
{
    normal_run(scenario); // the first one leaves what stays for good, such as the unwinder
    normal_run(scenario);
    const tRest rest;
    unsigned times = 0;
    // The lives of threads differ by a few calls.
    for (unsigned k = 1, idle = 0; idle < 3 && !testing::Test::HasFailure(); ++k) {
        std::atomic<unsigned> met{0};
        std::string name;
        const tLife life = live(scenario, [&](const tCall &call) {
            if (!what.counts(call) || ++met != k)
                return spare(call);
            name = call.name;
            return what.happens(call);
        });
        SCOPED_TRACE(testing::Message() << "at call " << k << ", " << name << "\n" << life.said);
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

// Each fails once, and is reported.
class Failures : public tScenarios
{
};

TEST_P(Failures, EachCallFailsOnce)
{
    static const struct {
        const char *scenario;
        std::string said;
    } reports[] = {
        {"direct_log", "fopen() err!!!!\n"},
        {"writer_log", "pthread_create() err, msg:Cannot allocate memory\n"},
        {"writer_log", "pipe() err, msg:Cannot allocate memory!!!!\n"},
        {"writer_log", "select()=-1, msg:Interrupted system call!!!!\n"},
        {"writer_log", "read() err, msg:Cannot allocate memory!!!!\n"},
        {"server", "ERR dmn_serv: pthread_create() err, msg:Cannot allocate memory\n"},
        {"server", "ERR dmn_serv: event_base_new() err!!!!\nOFF"},
        {"server", "ERR dmn_serv: socket() err, msg=Cannot allocate memory!!!!!!\n"
                   "ERR dmn_serv: _dmn_server_init() err!!!!\n"
                   "OFF dmn_serv: Wait _dmn_server_func_pth() pthread stop------\n"
                   "OFF dmn_serv: _dmn_server_func_pth() pthread already stop------\n"},
        {"server", "ERR dmn_serv: bind() err, msg=Cannot allocate memory!!!!!!\nERR"},
        {"server", "ERR dmn_serv: listen() err, msg=Cannot allocate memory!!!!!!\nERR"},
        {"server", "ERR dmn_serv: event_new() err!!!!\nERR"},
        {"server", "ERR dmn_serv: event_new() err!!!!\nOFF"},
        {"server", "ERR dmn_serv: accept() err, msg=Cannot allocate memory!!!!!!\n"},
        {"server", "ERR xfuncs: malloc() err!!!!\nERR dmn_serv: xzMalloc() err!!!!\n"},
        {"dog", "ERR self_dog: pthread_create() err, msg:Cannot allocate memory\n"},
        {"dog", "ERR self_dog: event_base_new() err!!!!\nOFF"},
        {"dog", "ERR self_dog: socket() err, msg:Cannot allocate memory!!!!\n"
                "ERR self_dog: _unix_socket_connect() err!!!!\n"
                "ERR self_dog: _feed_dog_init() err!!!!\n"
                "OFF self_dog: Wait _feddog_func_pth() pthread stop------\n"
                "OFF self_dog: _feddog_func_pth() pthread already stop------\n"},
        {"dog", "ERR self_dog: connect() err, msg:Cannot allocate memory!!!!!!ERR"},
        {"dog", "ERR self_dog: event_new() err!!!!\nERR"},
        {"dog", "ERR self_dog: evtimer_new() err!!!!\nERR"},
        {"dog", "ERR self_dog: event_new() err!!!!\nOFF"},
        {"dog", "ERR self_dog: read() err, msg:Cannot allocate memory!!!!\n"},
    };
    const tScenario &scenario = GetParam();
    std::string said;
    unsigned failed = 0;
    for (const int err : {EINTR, ENOMEM})
        failed += sweep(scenario, {any_call, [=](const tCall &) { return err; },
                                   [&](const tLife &life) { said += tagged(life.said); }});
    for (const auto &report : reports)
        if (report.scenario == std::string(scenario.name))
            EXPECT_NE(std::string::npos, said.find(report.said)) << report.said;
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
    const auto host = std::this_thread::get_id();
    std::atomic<bool> joining{false};
    const auto counts = [&](const tCall &call) {
        const std::string name = call.name;
        const bool ours = std::this_thread::get_id() != host;
        if (!ours && name == "pthread_join")
            joining = true;
        return ours && name != "localtime_r"; // there it is in the exit's way
    };
    const auto happens = [&](const tCall &) {
        gStopping = true;
        wait_until([&] { return joining.load(); });
        return 0;
    };
    EXPECT_GT(sweep(scenario, {counts, happens, [&](const tLife &) { joining = false; }}), 10U);
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

static const tScenario *gpStarved;
static size_t gLeft; // that many free descriptors

static bool starved_life()
{
    std::vector<int> taken;
    for (int fd = dup(0); fd != -1; fd = dup(0))
        taken.push_back(fd);
    for (size_t i = 0; i < gLeft; ++i)
        close(taken[i]);
    const bool worked = gpStarved->run();
    for (size_t i = gLeft; i < taken.size(); ++i)
        close(taken[i]);
    return worked;
}

// With any number of free descriptors a service starts, or reports that it cannot.
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
            SCOPED_TRACE(testing::Message() << gLeft << " for " << scenario.name);
            worked = live({scenario.name, starved_life}, spare).worked;
            rest.check();
        }
        EXPECT_TRUE(worked) << scenario.name;
    }
}

// Socket paths of 1 to 107 characters work; others are refused, and longer ones left alone. The
// last one has no terminator.
TEST(SetUp, PathLengths)
{
    event_base *base = event_base_new();
    for (const size_t len : {0U, 107U, 108U, 256U}) {
        SCOPED_TRACE(len);
        const std::string path =
            len == 0 ? "" : gDir / std::string(len - gDir.path.size() - 1, 'n');
        const std::string why = len == 0 ? "Invalid argument" : "File name too long";
        if (len > 107)
            std::ofstream(path) << "stays";
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
