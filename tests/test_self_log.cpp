// SPDX-License-Identifier: MIT
#include <common/self_log.h>

#include "calls.h"
#include "support.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <fcntl.h>
#include <regex>
#include <sys/resource.h>

eLogLevl gLogLevl = LOG_LEV_ERROR;
static const eLogLevl gicDbLev = LOG_LEV_INFO;

static tTempDir gDir;
[[maybe_unused]] static const int gicZone = setenv("TZ", "XYZ-5:30", 1); // before the first line

static tLogCfg log_cfg(eLogRunMod mode, eLogSwitch console, const std::string &path = "",
                       uint32_t max = 0)
{
    tLogCfg cfg = {mode, LOG_FILE_TWO, max, console, LOG_SWITCH_ON, ""};
    if (path.empty())
        cfg.fileLogSwt = LOG_SWITCH_OFF;
    path.copy(cfg.saveLogPath, sizeof cfg.saveLogPath - 1);
    return cfg;
}
static tLogCfg file_cfg(const std::string &path, uint32_t max,
                        eLogRunMod mode = LOG_RUN_MAIN_PROGRESS)
{
    return log_cfg(mode, LOG_SWITCH_OFF, path, max);
}

// What is said while the service runs and `body` logs.
static std::string logged(const tLogCfg &cfg, const std::function<void()> &body, int ret = 0)
{
    return output_of([&] {
        EXPECT_EQ(ret, log_system_init(&cfg));
        body();
        EXPECT_EQ(0, log_system_exit());
    });
}

static std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    for (size_t at = 0, end = 0; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
        lines.push_back(text.substr(at, end - at));
    return lines;
}

TEST(Log, LineHasTagTimeFileLineAndBody)
{
    const struct {
        unsigned level;
        const char *file;
        int line;
        std::string wanted; // with "*" for the time
    } table[] = {
        {0, "dmn_serv", 200, "[OFF:*        dmn_serv 0200] 7 bottles\n"},
        {1, "abcdefghijklmno", 7, "[ERR:* abcdefghijklmno 0007] 7 bottles\n"},
        {2, "twenty_characters_xx", 12345, "[RUN:* twenty_characters_xx 12345] 7 bottles\n"},
        {3, "a", 0, "[WAN:*               a 0000] 7 bottles\n"},
        {4, "a", 1, "[TAE:*               a 0001] func() start\n"},
        {5, "a", 9999, "[IFO:*               a 9999] 7 bottles\n"},
        {6, "a", 10000, "[LUD:*               a 10000] 7 bottles\n"},
        {4000000000U, "a", -7, "[LUD:*               a -007] 7 bottles\n"},
    };
    for (const auto &row : table) {
        const time_t now = time(nullptr);
        std::string got = output_of([&] {
            log_msg(static_cast<eLogLevl>(row.level), row.file, "func", row.line, "%d %s\n", 7,
                    "bottles");
        });
        ASSERT_GT(got.size(), 23U);
        EXPECT_TRUE(std::regex_match(got.substr(13, 9), std::regex("\\.00\\d{6}"))) << got;
        bool timely = false;
        for (const time_t at : {now, now + 1}) {
            char text[16];
            strftime(text, sizeof text, "%T", localtime(&at));
            timely = timely || got.substr(5, 8) == text;
        }
        EXPECT_TRUE(timely) << got;
        EXPECT_EQ(row.wanted, got.replace(5, 17, "*"));
    }
}

TEST(Log, TooLongIsCutAt1022)
{
    const std::string longText(2000, 'x');
    for (const auto &log : std::initializer_list<std::function<void()>>{
             [&] { log_msg(LOG_LEV_OFF, "a", "f", 1, "%s\n", longText.c_str()); },
             [&] { log_msg(LOG_LEV_OFF, longText.c_str(), "f", 1, "body\n"); },
             [&] { log_msg(LOG_LEV_TRACE, longText.c_str(), "f", 1, "body\n"); }}) {
        const std::string line = output_of(log);
        EXPECT_EQ(1022U, line.size());
        EXPECT_EQ('x', line.back());
    }
}

// What this thread allocates, in the C library too.
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
        logged(log_cfg(mode, LOG_SWITCH_ON, gDir / "a"), [] {
            const auto log = [] { log_msg(LOG_LEV_OFF, "a", "f", 1, "%500s %f\n", "x", 0.1); };
            log(); // the first one looks at the time zone
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
            const std::string got =
                output_of([&] { LOG_MSG(static_cast<eLogLevl>(level), "%d\n", ++evaluated); });
            const bool wanted = level <= threshold && level <= gicDbLev;
            EXPECT_EQ(wanted ? 1 : 0, evaluated) << threshold << " " << level;
            EXPECT_EQ(wanted ? 1U : 0U, count_of(got, " test_self_log.cpp "));
        }
}

TEST(Log, ThresholdChange)
{
    for (const int value : {0, 1, 6, 7, 8, -1, INT_MIN}) {
        const bool good = value >= 0 && value <= 7;
        const std::string text = std::to_string(value);
        EXPECT_EQ(
            "gLogLevl=" + text + "\n" +
                (good ? "" : "Input debug level(" + text + ") err, set 2 value\nNew gLogLevl=2\n"),
            output_of([&] { set_global_log_level(static_cast<eLogLevl>(value)); }));
        EXPECT_EQ(good ? value : 2, static_cast<int>(gLogLevl));
    }
    gLogLevl = LOG_LEV_OFF; // is no threshold for a ready text
    EXPECT_EQ("abc%s\n", output_of([] { logger(99, -1, "abc%s\n"); }));
}

TEST(LogInit, SaysWhatItStartsAndStops)
{
    tLogCfg quiet = log_cfg(LOG_RUN_MAX, LOG_SWITCH_MAX), bad = file_cfg(gDir / "b", 1);
    quiet.fileMod = bad.fileMod = static_cast<eLogFileMod>(5); // looked at for a file only
    const tLogCfg loud = log_cfg(LOG_RUN_MAIN_PROGRESS, LOG_SWITCH_ON, gDir / "l", 1);
    const struct {
        const tLogCfg *cfg;
        int ret;
        std::string said, line;
    } table[] = {
        {nullptr, -40960, "aipcLogCfg=NULL\n", "line\n"},
        {&quiet, 0, "File log close\nStdout log close\nLog no create pthread\n", ""},
        {&bad, -40960, "Save log path=" + (gDir / "b") + "\nfileMod=5 err!!!!\n", ""},
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
    const std::string said = output_of([] {
        const tLogCfg cfg = log_cfg(LOG_RUN_MAIN_PROGRESS, LOG_SWITCH_OFF, std::string(1, '\0'));
        calls_watch(calls_fail("fopen", 0, EACCES));
        EXPECT_EQ(-4, log_system_init(&cfg));
        calls_stop();
    });
    EXPECT_EQ("Save log path=/opt/v2x/log/v2xLog\nNew save log path=/opt/v2x/log/v2xLog-00.log\n"
              "fopen() err!!!!\n",
              said);
    logged(file_cfg(gDir / "d", 0), [] {
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
        const char *even, *odd; // what the files named by an even and an odd count hold at the end
    } table[] = {
        {3, 3, "123", ""},
        {3, 4, "123", "4"},
        {3, 7, "7", "456"},
        {1, 3, "3", "2"},
        {0xffffffffU, 9, "123456789", ""},
    };
    // What was to be said is said before: no descriptor is free for long.
    calls_watch(
        [](const tCall &call) { return call.name == std::string("fclose") && puts("shut") < 0; });
    unsigned named = 0; // goes on over stops and starts
    for (const auto &row : table) {
        const std::string path = gDir / ("r" + std::to_string(&row - table));
        const std::string names[] = {path + "-00.log", path + "-01.log"};
        const unsigned first = named++;
        const std::string said = logged(file_cfg(path, row.max), [&] {
            for (unsigned i = 1; i <= row.writes; ++i)
                logger(0, 0, std::to_string(i).c_str());
        });
        EXPECT_EQ(row.even, slurp(names[first % 2])) << row.max << " " << row.writes;
        EXPECT_EQ(row.odd, slurp(names[(first + 1) % 2]));
        for (uint64_t i = 1; i * row.max < row.writes; ++i)
            EXPECT_NE(std::string::npos, said.find("logSaveMaxCnt=" + std::to_string(row.max) +
                                                   "\nrotate start\nNew save log path=" +
                                                   names[named++ % 2] + "\nshut\n"));
    }
    calls_stop();
}

TEST(LogRotation, TimeNamesAndCutNames)
{
    tLogCfg cfg = file_cfg(gDir / "t", 1);
    cfg.fileMod = LOG_FILE_TIME;
    const std::string said = logged(cfg, [] {
        for (int i = 0; i < 5; ++i)
            logger(0, 0, "x");
    });
    char day[32];
    const time_t now = time(nullptr);
    strftime(day, sizeof day, "%Y-%m-%d", localtime(&now));
    const std::regex name("New save log path=" + (gDir / "t") + "-" + day +
                          R"(-[0-2]\d-[0-5]\d-[0-6]\d-0\d{5}\.log\n)");
    EXPECT_EQ(5, std::distance(std::sregex_iterator(said.begin(), said.end(), name), {}));
    // A base name of 250 characters leaves four for the ending: "-YYY" of "-YYYY", or "-00.".
    const std::string base = (gDir / "t") + std::string(250 - (gDir / "t").size(), '/');
    cfg = file_cfg(base, 1);
    EXPECT_EQ(1U, count_of(logged(
                               cfg, [] {}, -4),
                           "New save log path=" + base + "-00.\n"));
    cfg.fileMod = LOG_FILE_TIME;
    day[3] = '\0';
    EXPECT_EQ(1U, count_of(logged(
                               cfg, [] {}, -4),
                           "New save log path=" + base + "-" + day + "\n"));
}

// On 32 bits a time and a place in a file need more than a word.
TEST(LogRotation, Year2040AndTwoGigabytes)
{
    const std::string path = gDir / "big", wanted = path + "-2040-01-01-05-30-00-0";
    tLogCfg cfg = file_cfg(path, 2);
    cfg.fileMod = LOG_FILE_TIME;
    char text[256] = "";
    const std::string said = output_of([&] {
        calls_watch([](const tCall &call) { return strstr(call.name, "time") != nullptr; });
        const int file = dup(0); // the log file gets this number
        close(file);
        EXPECT_EQ(0, log_system_init(&cfg));
        EXPECT_EQ(0, ftruncate64(file, 0x7ffffff0));
        log_msg(LOG_LEV_OFF, "a", "f", 1, "%040d\n", 1);
        log_msg(LOG_LEV_OFF, "a", "f", 1, "%040d\n", 2);
        EXPECT_LT(0, pread64(file, text, sizeof text - 1, 0x7ffffff0));
        log_system_exit();
        calls_stop();
    });
    EXPECT_EQ(1U, count_of(said, "New save log path=" + wanted)) << said;
    EXPECT_EQ(1U, count_of(text, "[OFF:05:30:00.")) << text;
    EXPECT_EQ(1U, count_of(text, "[OFF:05:30:01.")) << text;
}

TEST(LogRotation, LostFolderEndsFileOutputOnly)
{
    const std::string sub = gDir / "sub";
    ASSERT_EQ(0, system(("mkdir " + sub).c_str()));
    const std::string said =
        logged(log_cfg(LOG_RUN_MAIN_PROGRESS, LOG_SWITCH_ON, sub + "/f", 1), [&] {
            EXPECT_EQ(0, system(("rm -r " + sub).c_str()));
            for (const char *text : {"1\n", "2\n", "3\n"})
                logger(0, 0, text);
        });
    EXPECT_EQ(1U, count_of(said, "1\n2\nlogSaveMaxCnt=1\nrotate start\nNew save log path=" + sub +
                                     "/f-01.log\nfopen() err!!!!\n3\n"))
        << said;
}

TEST(LogDirect, ManyThreadsLoseAndTearNothingAcrossRotations)
{
    logged(file_cfg(gDir / "m", 300), [] {
        in_threads(8, [](int t) {
            for (int i = 0; i < 500; ++i)
                log_msg(LOG_LEV_OFF, "m", "f", t, "%d of a line that is whole\n", i);
        });
    });
    // 4000 writes: thirteen full files of 300, of which the last one stays, and 100 in the next.
    const std::string older = slurp(gDir / "m-00.log"), newer = slurp(gDir / "m-01.log");
    EXPECT_EQ(300U, count_of(older, "\n"));
    EXPECT_EQ(100U, count_of(newer, "\n"));
    auto lines = lines_of(older + newer);
    for (auto &line : lines)
        line.erase(5, 17); // the time apart, each one is unique
    const std::regex whole("\\[OFF: +m \\d{4}\\] \\d+ of a line that is whole");
    for (auto &line : lines)
        EXPECT_TRUE(std::regex_match(line, whole)) << line;
    std::sort(lines.begin(), lines.end());
    EXPECT_EQ(lines.end(), std::unique(lines.begin(), lines.end()));
}

TEST(LogWriter, StopsWithoutWaitingForItsTurnToEnd)
{
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 20; ++i)
        logged(log_cfg(LOG_RUN_NEW_PTHREAD, LOG_SWITCH_ON), [] { nap(1); });
    EXPECT_LT(ms_since(start), 1000); // a turn takes 100 ms
}

// They break the rule that no thread logs any more, and the exit ends all the same: it kills
// nobody, loses nothing that the file or the pipe took, leaves the lines whole and in order, and
// lets none into a descriptor opened since.
TEST(Log, ThreadsThatGoOnMeetTheExit)
{
    static std::atomic<int> pipeSignals{0};
    signal(SIGPIPE, [](int) { ++pipeSignals; });
    const struct {
        const char *what;
        eLogRunMod mode;
        unsigned lines;   // have been logged before the exit; 700 are more than the pipe holds
        const char *slow; // this call takes a while
        bool late;        // once the exit has begun
        bool stuck;       // and until it has ended
    } table[] = {
        {"direct", LOG_RUN_MAIN_PROGRESS, 100, "none", false, false},
        {"direct, slow file", LOG_RUN_MAIN_PROGRESS, 1, "fwrite", false, false},
        {"writer", LOG_RUN_NEW_PTHREAD, 100, "none", false, false},
        {"writer, full pipe", LOG_RUN_NEW_PTHREAD, 700, "fwrite", false, false},
        {"writer, late callers", LOG_RUN_NEW_PTHREAD, 100, "write", true, false},
        {"writer, callers too late", LOG_RUN_NEW_PTHREAD, 100, "write", true, true},
    };
    for (size_t round = 0; round < 26; ++round) { // the last row once: it takes a second
        const auto &row = table[round % 5 + round / 25 * 5];
        SCOPED_TRACE(row.what);
        const std::string path = gDir / ("go" + std::to_string(round));
        const size_t tasks = threads_at_rest(), fds = open_descriptors();
        std::atomic<bool> leaving{false}, stands{false}, left{false}, stop{false};
        calls_watch([&](const tCall &call) {
            if (call.name == std::string(row.slow) && leaving >= row.late) {
                stands = true;
                row.stuck ? (void)wait_until([&] { return left.load(); }) : nap(2);
            }
            return 0;
        });
        const tLogCfg cfg = file_cfg(path, 1000000, row.mode);
        std::string said = output_of([&] { EXPECT_EQ(0, log_system_init(&cfg)); });
        std::thread loggers([&] {
            in_threads(4, [&](int t) {
                for (int i = 0; !stop; ++i) {
                    std::string line = std::to_string(t) + " " + std::to_string(i);
                    line.resize(100, ' ');
                    logger(0, 0, (line + "\n").c_str());
                }
            });
        });
        const auto logged = [&] {
            return calls_count(row.mode == LOG_RUN_NEW_PTHREAD ? "write" : "fwrite");
        };
        EXPECT_TRUE(wait_until([&] { return logged() >= row.lines; }));
        leaving = true;
        EXPECT_TRUE(wait_until([&] { return stands || !row.late; }));
        const auto start = std::chrono::steady_clock::now();
        said += output_of([] { EXPECT_EQ(0, log_system_exit()); });
        EXPECT_LT(ms_since(start), row.stuck ? 900 : 9000);
        const std::regex pipe("giLogPpFdAry=\\d+ \\d+\n"
                              "Wait _rx_log_func_pth\\(\\) pthread stop------\n"
                              "_rx_log_func_pth\\(\\) pthread already stop------\n$");
        EXPECT_EQ(row.mode == LOG_RUN_NEW_PTHREAD, std::regex_search(said, pipe)) << said;
        left = true;
        int foreign[2] = {};
        for (int &fd : foreign)
            fd = open((gDir / "foreign").c_str(), O_CREAT | O_RDWR | O_APPEND | O_CLOEXEC, 0600);
        nap(3);
        stop = true;
        loggers.join();
        calls_stop();
        EXPECT_EQ("", slurp(gDir / "foreign"));
        for (const int fd : foreign)
            close(fd);
        EXPECT_TRUE(threads_settle_at(tasks));
        EXPECT_EQ(fds + (row.stuck ? 2 : 0), open_descriptors());
        EXPECT_EQ("", output_of([] { logger(0, 0, "lost\n"); }));
        EXPECT_EQ(0, pipeSignals);

        int next[4] = {};
        const auto lines = lines_of(slurp(path + "-0" + std::to_string(round % 2) + ".log"));
        for (const auto &line : lines) {
            const unsigned thread = static_cast<unsigned>(line[0] - '0') % 4;
            ASSERT_EQ(std::to_string(thread) + " " + std::to_string(next[thread]++) + " ",
                      line.substr(0, line.find(' ', 2) + 1));
        }
        if (!row.stuck)
            EXPECT_EQ(logged(), lines.size());
    }
}

TEST(LogWriter, FailuresOfItsStart)
{
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    const bool high = limit.rlim_max > 1200;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    const struct {
        const char *call;
        int err, ret;
        std::string said;
    } table[] = {
        {"pthread_create", EPERM, -2, "pthread_create() err, msg:Operation not permitted\n"},
        {"backtrace", ELIBACC, -2,
         "pthread_create() err, msg:Can not access a needed shared library\n"},
        {"pipe", ENFILE, -3, "pipe() err, msg:Too many open files in system!!!!\n"},
        {"none", 0, -3, "pipe() err, msg:Too many open files!!!!\n"}, // beyond select()'s reach
    };
    const size_t tasks = threads_at_rest(), fds = open_descriptors();
    for (const auto &row : table) {
        std::vector<int> used;
        while (row.err == 0 && high && (used.empty() || used.back() < FD_SETSIZE - 1))
            used.push_back(dup(2));
        if (row.err == 0 && !high)
            continue;
        const std::string said = output_of([&] {
            calls_watch(calls_fail(row.call, 1, row.err));
            const tLogCfg cfg = log_cfg(LOG_RUN_NEW_PTHREAD, LOG_SWITCH_ON);
            EXPECT_EQ(row.ret, log_system_init(&cfg));
            calls_stop();
            log_system_exit();
        });
        EXPECT_EQ(1U, count_of(said, row.said)) << said;
        EXPECT_EQ(row.ret == -3 ? 1U : 0U, count_of(said, "already stop"));
        for (int fd : used)
            close(fd);
        EXPECT_TRUE(threads_settle_at(tasks));
        EXPECT_EQ(fds, open_descriptors());
    }
}

TEST(LogWriter, GoesOnAfterFailingCalls)
{
    calls_watch([](const tCall &call) {
        const std::string name = call.name;
        return name == "select" && call.nth == 2 ? EINTR
               : name == "read" && call.nth == 1 ? EIO
                                                 : 0;
    });
    const std::string said = logged(log_cfg(LOG_RUN_NEW_PTHREAD, LOG_SWITCH_ON), [] {
        EXPECT_TRUE(wait_until([] { return calls_count("select") > 3; }));
        logger(0, 0, "first\n");
        EXPECT_TRUE(wait_until([] { return calls_count("read") > 1; }));
        calls_stop();
    });
    EXPECT_EQ(1U, count_of(said, "select()=-1, msg:Interrupted system call!!!!\n")) << said;
    EXPECT_EQ(1U, count_of(said, "read() err, msg:Input/output error!!!!\n"));
    EXPECT_EQ(1U, count_of(said, "first\n"));

    output_of([] {
        const tLogCfg cfg = log_cfg(LOG_RUN_NEW_PTHREAD, LOG_SWITCH_ON);
        const int lowest = dup(0); // which the pipe gets
        close(lowest);
        EXPECT_EQ(0, log_system_init(&cfg));
        close(lowest);
        calls_watch();
        nap(300);
        calls_stop();
        log_system_exit();
    });
    EXPECT_LT(calls_count("select"), 12U); // it pauses rather than to take a whole core
}
