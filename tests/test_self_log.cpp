// SPDX-License-Identifier: MIT

#include "calls.h"
#include "support.h"

#include <climits>
#include <sstream>
#include <sys/resource.h>
#include <sys/wait.h>

static const eLogLevl gicDbLev = LOG_LEV_INFO;

[[maybe_unused]] static const int gicZone = setenv("TZ", "XYZ-5:30", 1); // before the first line

static const tLogCfg gicToConsole = {LOG_RUN_NEW_PTHREAD, LOG_FILE_TWO,   0,
                                     LOG_SWITCH_ON,       LOG_SWITCH_OFF, ""};
static tLogCfg to_file(const string &path, uint32_t max, eLogRunMod mode = LOG_RUN_MAIN_PROGRESS)
{
    tLogCfg cfg = {mode, LOG_FILE_TWO, max, LOG_SWITCH_OFF, LOG_SWITCH_ON, ""};
    path.copy(cfg.saveLogPath, sizeof cfg.saveLogPath - 1);
    return cfg;
}

// The output while the service runs `body`.
static string logged(
    const tLogCfg &cfg, const function<void()> &body = [] {}, int ret = 0)
{
    return output_of([&] {
        EXPECT_EQ(ret, log_system_init(&cfg));
        body();
        EXPECT_EQ(0, log_system_exit());
    });
}

// Fails the clock calls, which then show 05:30:00 on 1 January 2040 and later.
static int late_clock(const tCall &call)
{
    return call.name.find("time") != string::npos;
}

TEST(Log, LineHasTagTimeFileLineAndBody)
{
    const struct {
        unsigned level;
        const char *file;
        int line;
        string wanted;
    } table[] = {
        {0, "dmn_serv", 200, "[OFF:05:30:00.00070942        dmn_serv 0200] 7 bottles\n"},
        {1, "abcdefghijklmno", 7, "[ERR:05:30:00.00070942 abcdefghijklmno 0007] 7 bottles\n"},
        {2, "sixteen_letters_", 12345,
         "[RUN:05:30:00.00070942 sixteen_letters_ 12345] 7 bottles\n"},
        {3, "a", 0, "[WAN:05:30:00.00070942               a 0000] 7 bottles\n"},
        {4, "a", 9999, "[TAE:05:30:00.00070942               a 9999] func() start\n"},
        {5, "a", 10000, "[IFO:05:30:00.00070942               a 10000] 7 bottles\n"},
        {6, "a", -7, "[LUD:05:30:00.00070942               a -007] 7 bottles\n"},
        {~0U, "a", 1, "[LUD:05:30:00.00070942               a 0001] 7 bottles\n"},
    };
    for (const auto &row : table) {
        calls_watch(late_clock);
        EXPECT_EQ(row.wanted, output_of([&] {
                      log_msg(static_cast<eLogLevl>(row.level), row.file, "func", row.line,
                              "%d %s\n", 7, "bottles");
                  }));
        calls_stop();
    }
}

TEST(Log, TooLongIsCutAt1022)
{
    const string longText(2000, 'x');
    for (const auto &log : std::initializer_list<function<void()>>{
             [&] { log_msg(LOG_LEV_OFF, "a", "f", 1, "%s\n", longText.c_str()); },
             [&] { log_msg(LOG_LEV_OFF, longText.c_str(), "f", 1, "body\n"); },
             [&] { log_msg(LOG_LEV_TRACE, longText.c_str(), "f", 1, "body\n"); }}) {
        const string line = output_of(log);
        EXPECT_EQ(1022U, line.size());
        EXPECT_EQ('x', line.back());
    }
}

// The allocations of this thread, including those of the C library.
static thread_local unsigned gAllocated;
#if !defined __SANITIZE_ADDRESS__ && !defined __SANITIZE_THREAD__
extern "C" void *__libc_malloc(size_t);
extern "C" void *malloc(size_t size)
{
    ++gAllocated;
    return __libc_malloc(size);
}
#endif

TEST(Log, AllocatesNothing)
{
    for (const eLogRunMod mode : {LOG_RUN_MAIN_PROGRESS, LOG_RUN_NEW_PTHREAD})
        logged(to_file(gDir / "a", 0, mode), [] {
            const auto log = [] { log_msg(LOG_LEV_OFF, "a", "f", 1, "%500s %f\n", "x", 0.1); };
            log(); // the first call reads the time zone
            const unsigned before = gAllocated;
            log();
            EXPECT_EQ(before, gAllocated);
        });
}

TEST(Log, MacroObeysThresholdAndCeiling)
{
    for (const unsigned threshold : {0U, 1U, 2U, 3U, 4U, 5U, 6U, 7U, 0xffffffffU})
        for (unsigned level = 0; level <= LOG_LEV_LOUD; ++level) {
            gLogLevl = static_cast<eLogLevl>(threshold);
            int evaluated = 0;
            const string got =
                output_of([&] { LOG_MSG(static_cast<eLogLevl>(level), "%d\n", ++evaluated); });
            const bool wanted = level <= threshold && level <= gicDbLev;
            EXPECT_EQ(wanted ? 1 : 0, evaluated) << threshold << " " << level;
            EXPECT_EQ(wanted ? 1U : 0U, count_of(got, " test_self_log.cpp "));
        }
}

TEST(Log, ThresholdChange)
{
    for (const int value : {0, 7, 8, -1, INT_MIN}) {
        const bool good = value >= 0 && value <= 7;
        const string text = to_string(value);
        EXPECT_EQ(
            "gLogLevl=" + text + "\n" +
                (good ? "" : "Input debug level(" + text + ") err, set 2 value\nNew gLogLevl=2\n"),
            output_of([&] { set_global_log_level(static_cast<eLogLevl>(value)); }));
        EXPECT_EQ(good ? value : 2, static_cast<int>(gLogLevl));
    }
    gLogLevl = LOG_LEV_OFF; // does not apply to logger()
    EXPECT_EQ("abc%s\n", output_of([] { logger(99, -1, "abc%s\n"); }));
}

TEST(LogInit, SaysWhatItStartsAndStops)
{
    tLogCfg quiet = {LOG_RUN_MAX, LOG_FILE_MAX, 1, LOG_SWITCH_MAX, LOG_SWITCH_MAX, ""};
    tLogCfg bad = to_file(gDir / "b", 1);
    bad.fileMod = LOG_FILE_MAX;
    tLogCfg loud = to_file(gDir / "l", 1);
    loud.stdoutLogSwt = LOG_SWITCH_ON;
    const struct {
        const tLogCfg *cfg;
        int ret;
        string said, line;
    } table[] = {
        {nullptr, -40960, "aipcLogCfg=NULL\n", "line\n"},
        {&quiet, 0, "File log close\nStdout log close\nLog no create pthread\n", ""},
        {&bad, -40960, "Save log path=" + (gDir / "b") + "\nfileMod=2 err!!!!\n", ""},
        {&loud, 0,
         "Save log path=" + (gDir / "l") + "\nNew save log path=" + (gDir / "l-00.log") +
             "\nLog no create pthread\n",
         "line\n"},
    };
    EXPECT_EQ("", output_of([] { EXPECT_EQ(0, log_system_exit()); }));
    for (const auto &row : table) {
        EXPECT_EQ(row.said, output_of([&] { EXPECT_EQ(row.ret, log_system_init(row.cfg)); }));
        EXPECT_EQ(row.line, output_of([] { logger(0, 0, "line\n"); }));
        EXPECT_EQ("", output_of([] { EXPECT_EQ(0, log_system_exit() + log_system_exit()); }));
    }
    EXPECT_EQ("late\n", output_of([] { logger(0, 0, "late\n"); }));
    EXPECT_EQ("line\n", slurp(gDir / "l-00.log"));
}

TEST(LogInit, DefaultsForCountAndPath)
{
    calls_watch(calls_fail("fopen", 0, EACCES));
    EXPECT_EQ("Save log path=/opt/v2x/log/v2xLog\n"
              "New save log path=/opt/v2x/log/v2xLog-00.log\n"
              "fopen() err!!!!\n",
              logged(
                  to_file("", 0), [] {}, -4));
    calls_stop();
    logged(to_file(gDir / "d", 0), [] {
        for (int i = 0; i < 10001; ++i)
            logger(0, 0, "x\n");
    });
    EXPECT_EQ(20000U, slurp(gDir / "d-01.log").size());
    EXPECT_EQ("x\n", slurp(gDir / "d-00.log"));
}

TEST(LogRotation, TwoFilesInTurn)
{
    const struct {
        uint32_t max, writes;
        const char *even, *odd; // final contents of the file of even counts, and of odd counts
    } table[] = {{3, 3, "123", ""}, {3, 7, "7", "456"}, {1, 3, "3", "2"}, {~0U, 5, "12345", ""}};
    // The messages come before fclose(): after it another thread could take the descriptor.
    calls_watch([](const tCall &call) { return call.name == "fclose" && puts("shut") < 0; });
    unsigned named = 0; // names formed; not reset by a restart
    for (const auto &row : table) {
        const string path = gDir / ("r" + to_string(&row - table));
        const string names[] = {path + "-00.log", path + "-01.log"};
        const unsigned first = named++;
        const string said = logged(to_file(path, row.max), [&] {
            for (unsigned i = 1; i <= row.writes; ++i)
                logger(0, 0, to_string(i).c_str());
        });
        EXPECT_EQ(row.even, slurp(names[first % 2])) << row.max << " " << row.writes;
        EXPECT_EQ(row.odd, slurp(names[(first + 1) % 2]));
        for (uint64_t i = 1; i * row.max < row.writes; ++i)
            EXPECT_NE(string::npos, said.find("logSaveMaxCnt=" + to_string(row.max) +
                                              "\nrotate start\nNew save log path=" +
                                              names[named++ % 2] + "\nshut\n"));
    }
    calls_stop();
}

// On 32-bit machines such a time, and such an offset in a file, need more than a word.
TEST(LogRotation, TimeNamesAfter2038AndBeyondTwoGigabytes)
{
    const string path = gDir / "t";
    tLogCfg cfg = to_file(path, 2);
    cfg.fileMod = LOG_FILE_TIME;
    char text[256] = "";
    string said = output_of([&] {
        calls_watch(late_clock);
        const int file = dup(0); // the descriptor that the log file will get
        close(file);
        EXPECT_EQ(0, log_system_init(&cfg));
        EXPECT_EQ(0, ftruncate64(file, 0x7ffffff0));
        log_msg(LOG_LEV_OFF, "a", "f", 1, "%040d\n", 1);
        log_msg(LOG_LEV_OFF, "a", "f", 1, "%040d\n", 2);
        EXPECT_LT(0, pread64(file, text, sizeof text - 1, 0x7ffffff0));
        logger(0, 0, "in the next file");
        log_system_exit();
        calls_stop();
    });
    const std::regex name("New save log path=" + path + R"(-2040-01-01-05-30-00-0\d{5}\.log\n)");
    EXPECT_EQ(2, std::distance(std::sregex_iterator(said.begin(), said.end(), name), {})) << said;
    EXPECT_EQ(1U, count_of(text, "[OFF:05:30:00.")) << text;
    EXPECT_EQ(1U, count_of(text, "[OFF:05:30:01.")) << text;
    // After a base name of 250 characters, four are left for the rest of the name.
    const string base = path + string(250 - path.size(), '/');
    for (const eLogFileMod mode : {LOG_FILE_TWO, LOG_FILE_TIME}) {
        cfg = to_file(base, 1);
        cfg.fileMod = mode;
        said = logged(
            cfg, [] {}, -4);
        EXPECT_EQ(1U, count_of(said, base + (mode == LOG_FILE_TWO ? "-00.\n" : "-20")));
    }
}

TEST(LogRotation, NoLineIsLostWhenTheProcessIsKilled)
{
    const tLogCfg cfg = to_file(gDir / "k", 9);
    if (fork() == 0) {
        log_system_init(&cfg);
        logger(0, 0, "line\n");
        kill(getpid(), SIGKILL);
    }
    wait(nullptr);
    EXPECT_EQ("line\n", slurp(gDir / "k-00.log"));
}

TEST(LogWriter, StopsWithoutWaitingForItsTurnToEnd)
{
    const auto start = now_ms();
    for (int i = 0; i < 50; ++i)
        logged(gicToConsole, [] { nap(1); });
    EXPECT_LT(now_ms() - start, 2500); // half the time of 50 full turns
}

// Threads keep logging during rotations and log_system_exit(): it returns in time, without SIGPIPE,
// lost or torn lines, or writes to a reused descriptor.
TEST(Log, ThreadsThatGoOnMeetRotationAndExit)
{
    signal(SIGPIPE, [](int) { FAIL() << "SIGPIPE"; });
    const struct {
        const char *name;
        eLogRunMod mode;
        unsigned lines;   // written before the exit; 700 do not fit into the pipe
        const char *slow; // this call is slow
        bool stuck;       // or blocks until the exit call has returned
    } table[] = {
        {"direct", LOG_RUN_MAIN_PROGRESS, 1000, "none", false},
        {"writer, full pipe", LOG_RUN_NEW_PTHREAD, 700, "fwrite", false},
        {"writer, slow callers", LOG_RUN_NEW_PTHREAD, 20, "write", false},
        {"writer, stuck callers", LOG_RUN_NEW_PTHREAD, 20, "write", true},
    };
    for (const auto &row : table) {
        SCOPED_TRACE(row.name);
        const string path = gDir / ("go" + to_string(&row - table));
        const bool writer = row.mode == LOG_RUN_NEW_PTHREAD;
        const tRest rest;
        atomic<bool> leaving{false};
        atomic<bool> stands{false};
        atomic<bool> left{false};
        calls_watch([&](const tCall &call) {
            if (call.name != row.slow)
                return 0;
            if (row.stuck && leaving) {
                stands = true;
                wait_until([&] { return left.load(); });
            } else {
                nap(1);
            }
            return 0;
        });
        const auto writes = [&] { return calls_count(writer ? "write" : "fwrite"); };
        tLogCfg cfg = to_file(path, writer ? ~0U : row.lines / 3, row.mode);
        cfg.fileMod = LOG_FILE_TIME;
        const string said = output_of([&] {
            EXPECT_EQ(0, log_system_init(&cfg));
            atomic<bool> stop{false};
            thread loggers(in_threads, 4, [&](int t) {
                for (int i = 0; !stop; ++i) {
                    char line[128];
                    snprintf(line, sizeof line, "%d %d %99s\n", t, i, "end");
                    logger(0, 0, line);
                }
            });
            EXPECT_TRUE(wait_until([&] { return writes() > row.lines; }));
            leaving = true;
            EXPECT_TRUE(wait_until([&] { return stands || !row.stuck; }));
            const auto start = now_ms();
            EXPECT_EQ(0, log_system_exit());
            EXPECT_TRUE(!row.stuck || now_ms() - start >= 500) << "gives the caller its time";
            EXPECT_LT(calls_count("poll"), 500U) << "of 2 ms: it has waited twice";
            left = true;
            int foreign[2] = {};
            for (int &fd : foreign)
                fd = open((gDir / "foreign").c_str(), O_CREAT | O_RDWR | O_APPEND, 0600);
            nap(3);
            stop = true;
            loggers.join();
            logger(0, 0, "lost\n");
            for (const int fd : foreign)
                close(fd);
        });
        calls_stop();
        EXPECT_EQ("", slurp(gDir / "foreign"));
        rest.check(row.stuck ? 2 : 0);
        EXPECT_EQ(writer ? 1U : 0U,
                  count_of(said, "_rx_log_func_pth() pthread already stop------\n"));

        // All lines, in the order of the files.
        string text;
        const std::regex opened("New save log path=(.*)\n");
        for (std::sregex_iterator at(said.begin(), said.end(), opened), end; at != end; ++at)
            text += slurp((*at)[1]);
        std::istringstream lines(text);
        int next[4] = {};
        size_t count = 0;
        size_t thread;
        string last;
        for (int number; lines >> thread >> number >> last; ++count) {
            ASSERT_EQ(next[thread % 4], number) << "of thread " << thread;
            ++next[thread % 4];
        }
        EXPECT_TRUE(lines.eof()) << "torn";
        EXPECT_TRUE(row.stuck || writes() == count) << writes() << " and " << count;
    }
}

// The pipe's descriptor may be too high for select().
TEST(LogWriter, HighDescriptors)
{
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    const string said = output_of([] {
        for (int fd = 0; fd != -1 && fd < FD_SETSIZE - 1;)
            fd = dup(2);
        const tRest rest;
        EXPECT_EQ(-3, log_system_init(&gicToConsole));
        EXPECT_EQ(0, log_system_exit());
        rest.check();
    });
    EXPECT_EQ(1U, count_of(said, "pipe() err, msg:Too many open files!!!!\n")) << said;
}

// The thread must not spin when select() fails.
TEST(LogWriter, PausesWhenSelectFails)
{
    output_of([] {
        const int lowest = dup(0); // the descriptor that the pipe will get
        close(lowest);
        EXPECT_EQ(0, log_system_init(&gicToConsole));
        close(lowest);
        calls_watch();
        nap(300);
        calls_stop();
        log_system_exit();
    });
    EXPECT_LT(calls_count("select"), 12U); // a thread that spins makes thousands
}
