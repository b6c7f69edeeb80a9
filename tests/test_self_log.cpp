// SPDX-License-Identifier: MIT
#include <common/self_log.h>

#include "calls.h"
#include "support.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <regex>
#include <sys/resource.h>

eLogLevl gLogLevl = LOG_LEV_ERROR;
static const eLogLevl gicDbLev = LOG_LEV_INFO;

namespace
{
const char gicHead[] = R"(\[%s:\d\d:\d\d:\d\d\.00\d{6} %s %s\] )";

std::string head(const char *tag, const char *file, const char *line)
{
    char text[128];
    snprintf(text, sizeof text, gicHead, tag, file, line);
    return text;
}

tLogCfg file_cfg(const std::string &path, uint32_t max, eLogRunMod mode = LOG_RUN_MAIN_PROGRESS)
{
    tLogCfg cfg = {mode, LOG_FILE_TWO, max, LOG_SWITCH_OFF, LOG_SWITCH_ON, ""};
    path.copy(cfg.saveLogPath, sizeof cfg.saveLogPath - 1);
    return cfg;
}

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    for (size_t at = 0, end = 0; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
        lines.push_back(text.substr(at, end - at));
    return lines;
}
} // namespace

TEST(Log, LineHasTagTimeFileLineAndBody)
{
    const struct {
        eLogLevl level;
        const char *tag, *file;
        int line;
        const char *fileField, *lineField, *body;
    } table[] = {
        {LOG_LEV_OFF, "OFF", "dmn_serv", 200, "       dmn_serv", "0200", "7 bottles\n"},
        {LOG_LEV_ERROR, "ERR", "abcdefghijklmno", 7, "abcdefghijklmno", "0007", "7 bottles\n"},
        {LOG_LEV_RUN, "RUN", "twenty_characters_xx", 12345, "twenty_characters_xx", "12345",
         "7 bottles\n"},
        {LOG_LEV_WARN, "WAN", "a", 0, "              a", "0000", "7 bottles\n"},
        {LOG_LEV_TRACE, "TAE", "a", 1, "              a", "0001", "func\\(\\) start\n"},
        {LOG_LEV_INFO, "IFO", "a", 1, "              a", "0001", "7 bottles\n"},
        {LOG_LEV_LOUD, "LUD", "a", 1, "              a", "0001", "7 bottles\n"},
        {static_cast<eLogLevl>(4000000000U), "LUD", "a", 1, "              a", "0001",
         "7 bottles\n"},
    };
    for (const auto &row : table) {
        const std::string got = output_of(
            [&] { log_msg(row.level, row.file, "func", row.line, "%d %s\n", 7, "bottles"); });
        EXPECT_TRUE(std::regex_match(
            got, std::regex(head(row.tag, row.fileField, row.lineField) + row.body)))
            << got;
    }
}

TEST(Log, LineTimeIsTheLocalTime)
{
    setenv("TZ", "XYZ-5:30", 1);
    tzset();
    const time_t before = time(nullptr);
    const std::string got = output_of([] { log_msg(LOG_LEV_OFF, "a", "f", 1, "\n"); });
    char times[2][16];
    for (int i = 0; i < 2; ++i) {
        const time_t at = before + i;
        tm local;
        strftime(times[i], sizeof times[i], "%H:%M:%S", localtime_r(&at, &local));
    }
    EXPECT_TRUE(got.substr(5, 8) == times[0] || got.substr(5, 8) == times[1]) << got;
}

TEST(Log, TooLongIsCutAt1022)
{
    const std::string longText(2000, 'x');
    const std::string body =
        output_of([&] { log_msg(LOG_LEV_OFF, "a", "f", 1, "%s\n", longText.c_str()); });
    EXPECT_EQ(1022U, body.size());
    EXPECT_EQ('x', body.back());
    for (eLogLevl level : {LOG_LEV_OFF, LOG_LEV_TRACE}) {
        const std::string only =
            output_of([&] { log_msg(level, longText.c_str(), "f", 1, "body\n"); });
        EXPECT_EQ(1022U, only.size());
        EXPECT_EQ('x', only.back());
    }
}

TEST(Log, MacroObeysThresholdAndCeiling)
{
    const unsigned thresholds[] = {0, 1, 2, 3, 4, 5, 6, 7, 0xffffffffU};
    for (unsigned threshold : thresholds) {
        gLogLevl = static_cast<eLogLevl>(threshold);
        for (unsigned level = 0; level <= LOG_LEV_LOUD; ++level) {
            int evaluated = 0;
            const std::string got =
                output_of([&] { LOG_MSG(static_cast<eLogLevl>(level), "%d\n", ++evaluated); });
            const bool wanted = level <= threshold && level <= gicDbLev;
            EXPECT_EQ(wanted, !got.empty()) << threshold << " " << level;
            EXPECT_EQ(wanted ? 1 : 0, evaluated);
            EXPECT_EQ(wanted ? 1U : 0U, count_of(got, " test_self_log.cpp "));
        }
    }
}

TEST(Log, ThresholdChange)
{
    const std::string refused = "Input debug level(%) err, set 2 value\nNew gLogLevl=2\n";
    for (int value : {0, 1, 6, 7, 8, -1, INT_MIN}) {
        const bool good = value >= 0 && value <= 7;
        std::string wanted = "gLogLevl=" + std::to_string(value) + "\n";
        if (!good)
            wanted += std::regex_replace(refused, std::regex("%"), std::to_string(value));
        EXPECT_EQ(wanted, output_of([&] { set_global_log_level(static_cast<eLogLevl>(value)); }));
        EXPECT_EQ(good ? value : 2, static_cast<int>(gLogLevl));
    }
}

TEST(Log, LoggerDeliversAsIs)
{
    gLogLevl = LOG_LEV_OFF; // no threshold here
    EXPECT_EQ("abc%s\n", output_of([] { logger(99, -1, "abc%s\n"); }));
}

TEST(LogCfg, LoadsWhatIsThere)
{
    const tLogCfg preset = {LOG_RUN_MAX, LOG_FILE_MAX, 77, LOG_SWITCH_MAX, LOG_SWITCH_MAX, "kept"};
    const std::string longPath(300, 'p');
    const struct {
        std::string text;
        unsigned run, file, max, console, save;
        std::string path;
    } table[] = {
        {"log: {};", 2, 2, 77, 2, 2, "kept"},
        {"log: { logRunMd = 1; fileMod = 5; logSaveMaxCnt = -1; stdoutLogSwt = 1; fileLogSwt = 0;"
         " saveLogPath = \"/a\"; };",
         1, 5, 0xffffffffU, 1, 0, "/a"},
        {"log: { logRunMd = \"1\"; fileMod = \"x\"; saveLogPath = 3; };", 2, 2, 77, 2, 2, "kept"},
        {"log: { saveLogPath = \"" + longPath + "\"; };", 2, 2, 77, 2, 2, longPath.substr(0, 254)},
    };
    for (const auto &row : table) {
        tConfig config(row.text);
        tLogCfg cfg = preset;
        EXPECT_EQ(0, load_log_cfg(&cfg, "log", &config.cfg));
        EXPECT_EQ(row.run, cfg.logRunMd);
        EXPECT_EQ(row.file, cfg.fileMod);
        EXPECT_EQ(row.max, cfg.logSaveMaxCnt);
        EXPECT_EQ(row.console, cfg.stdoutLogSwt);
        EXPECT_EQ(row.save, cfg.fileLogSwt);
        EXPECT_EQ(row.path, cfg.saveLogPath);
    }
    tConfig config("log: { fileMod = 1; };");
    tLogCfg cfg = preset;
    gLogLevl = LOG_LEV_ERROR;
    const std::string got =
        output_of([&] { EXPECT_EQ(-5, load_log_cfg(&cfg, "daemon.log", &config.cfg)); });
    EXPECT_TRUE(std::regex_match(got, std::regex(head("ERR", "       self_log", "\\d{4}") +
                                                 "config_lookup\\(daemon.log\\) err!!!!\n")))
        << got;
    EXPECT_EQ(LOG_FILE_MAX, cfg.fileMod);
}

TEST(LogInit, SaysWhatItStarts)
{
    tTempDir dir;
    tLogCfg quiet = {LOG_RUN_MAX, static_cast<eLogFileMod>(7), 0, LOG_SWITCH_MAX, LOG_SWITCH_OFF,
                     ""};
    tLogCfg bad = file_cfg(dir / "b", 1);
    bad.fileMod = static_cast<eLogFileMod>(5);
    tLogCfg loud = file_cfg(dir / "l", 1);
    loud.stdoutLogSwt = LOG_SWITCH_ON;
    const struct {
        const tLogCfg *cfg;
        int ret;
        std::string said;
    } table[] = {
        {nullptr, -40960, "aipcLogCfg=NULL\n"},
        {&quiet, 0, "File log close\nStdout log close\nLog no create pthread\n"},
        {&bad, -40960, "Save log path=" + (dir / "b") + "\nfileMod=5 err!!!!\n"},
        {&loud, 0,
         "Save log path=" + (dir / "l") + "\nNew save log path=" + (dir / "l-00.log") +
             "\nLog no create pthread\n"},
    };
    EXPECT_EQ("", output_of([] { EXPECT_EQ(0, log_system_exit()); }));
    for (const auto &row : table) {
        EXPECT_EQ(row.said, output_of([&] { EXPECT_EQ(row.ret, log_system_init(row.cfg)); }));
        const std::string line = output_of([] { logger(0, 0, "line\n"); });
        EXPECT_EQ(row.cfg == nullptr || row.cfg == &loud ? "line\n" : "", line);
        EXPECT_EQ("", output_of([] { EXPECT_EQ(0, log_system_exit()); }));
        EXPECT_EQ(0, log_system_exit());
    }
    EXPECT_EQ("line\n", slurp(dir / "l-00.log"));
    EXPECT_EQ("late\n", output_of([] { logger(0, 0, "late\n"); }));
    EXPECT_EQ("line\n", slurp(dir / "l-00.log"));
}

TEST(LogInit, DefaultsForCountAndPath)
{
    const tLogCfg cfg = file_cfg("", 0);
    const std::string said = output_of([&] {
        calls_watch(calls_fail("fopen", 0, EACCES));
        EXPECT_EQ(-4, log_system_init(&cfg));
        calls_stop();
    });
    EXPECT_EQ("Save log path=/opt/v2x/log/v2xLog\nNew save log path=/opt/v2x/log/v2xLog-00.log\n"
              "fopen() err!!!!\n",
              said);
    tTempDir dir;
    const tLogCfg counted = file_cfg(dir / "d", 0);
    output_of([&] {
        log_system_init(&counted);
        for (int i = 0; i < 10001; ++i)
            logger(0, 0, "x\n");
        log_system_exit();
    });
    EXPECT_EQ(20000U, slurp(dir / "d-01.log").size());
    EXPECT_EQ("x\n", slurp(dir / "d-00.log"));
}

TEST(LogRotation, TwoFilesInTurn)
{
    tTempDir dir;
    const struct {
        uint32_t max;
        int writes;
        const char *even, *odd; // what the files named by an even and an odd count hold at the end
    } table[] = {
        {3, 3, "123", ""},
        {3, 4, "123", "4"},
        {3, 7, "7", "456"},
        {1, 3, "3", "2"},
        {0xffffffffU, 9, "123456789", ""},
    };
    int named = 0; // goes on over stops and starts
    for (const auto &row : table) {
        const std::string path = dir / ("r" + std::to_string(&row - table));
        const tLogCfg cfg = file_cfg(path, row.max);
        const int first = named++;
        const std::string said = output_of([&] {
            ASSERT_EQ(0, log_system_init(&cfg));
            for (int i = 1; i <= row.writes; ++i)
                logger(0, 0, std::to_string(i).c_str());
            log_system_exit();
        });
        const std::string names[] = {path + "-00.log", path + "-01.log"};
        EXPECT_EQ(row.even, slurp(names[first % 2])) << row.max << " " << row.writes;
        EXPECT_EQ(row.odd, slurp(names[(first + 1) % 2]));
        for (uint64_t i = 1; i * row.max < static_cast<unsigned>(row.writes); ++i)
            EXPECT_NE(std::string::npos,
                      said.find("logSaveMaxCnt=" + std::to_string(row.max) +
                                "\nrotate start\nNew save log path=" + names[named++ % 2] + "\n"));
    }
}

TEST(LogRotation, TimeNamesAndCutNames)
{
    tTempDir dir;
    tLogCfg cfg = file_cfg(dir / "t", 1);
    cfg.fileMod = LOG_FILE_TIME;
    const std::string said = output_of([&] {
        ASSERT_EQ(0, log_system_init(&cfg));
        for (int i = 0; i < 5; ++i)
            logger(0, 0, "x");
        log_system_exit();
    });
    time_t now = time(nullptr);
    tm local;
    localtime_r(&now, &local);
    const std::regex name("New save log path=" + (dir / "t") + "-" +
                          std::to_string(local.tm_year + 1900) +
                          R"(-[01]\d-[0-3]\d-[0-2]\d-[0-5]\d-[0-6]\d-0\d{5}\.log)");
    EXPECT_EQ(5, std::distance(std::sregex_iterator(said.begin(), said.end(), name), {}));
    // A base name of 250 characters leaves four for the ending.
    cfg = file_cfg((dir / "t") + std::string(250 - (dir / "t").size(), '/'), 1);
    const std::string cut = output_of([&] { (void)log_system_init(&cfg); });
    EXPECT_NE(std::string::npos,
              cut.find("New save log path=" + std::string(cfg.saveLogPath) + "-00.\n"));
    output_of([] { log_system_exit(); });
}

TEST(LogRotation, LostFolderEndsFileOutputOnly)
{
    tTempDir dir;
    const std::string sub = dir / "sub";
    ASSERT_EQ(0, system(("mkdir " + sub).c_str()));
    tLogCfg cfg = file_cfg(sub + "/f", 1);
    cfg.stdoutLogSwt = LOG_SWITCH_ON;
    output_of([&] { ASSERT_EQ(0, log_system_init(&cfg)); });
    ASSERT_EQ(0, system(("rm -r " + sub).c_str()));
    const std::string said = output_of([] {
        for (const char *text : {"1\n", "2\n", "3\n"})
            logger(0, 0, text);
        log_system_exit();
    });
    EXPECT_EQ("1\n2\nlogSaveMaxCnt=1\nrotate start\nNew save log path=" + sub +
                  "/f-01.log\nfopen() err!!!!\n3\n",
              said);
}

TEST(LogDirect, ManyThreadsLoseAndTearNothingAcrossRotations)
{
    tTempDir dir;
    constexpr int threads = 8, each = 500, max = 300;
    const tLogCfg cfg = file_cfg(dir / "m", max);
    output_of([&] {
        ASSERT_EQ(0, log_system_init(&cfg));
        std::vector<std::thread> pool;
        for (int t = 0; t < threads; ++t)
            pool.emplace_back([t] {
                for (int i = 0; i < each; ++i)
                    log_msg(LOG_LEV_OFF, "m", "f", t, "%d of a line that is whole\n", i);
            });
        for (auto &one : pool)
            one.join();
        log_system_exit();
    });
    // 4000 writes: thirteen full files of 300, of which the last one stays, and 100 in the next.
    auto older = lines_of(slurp(dir / "m-00.log")), newer = lines_of(slurp(dir / "m-01.log"));
    EXPECT_EQ(300U, older.size());
    EXPECT_EQ(100U, newer.size());
    older.insert(older.end(), newer.begin(), newer.end());
    const std::regex whole(head("OFF", "              m", "\\d{4}") +
                           "\\d+ of a line that is whole");
    for (auto &line : older)
        EXPECT_TRUE(std::regex_match(line, whole)) << line;
    for (auto &line : older)
        line.erase(0, line.find("m 0")); // the time apart, each line is unique
    std::sort(older.begin(), older.end());
    EXPECT_EQ(older.end(), std::unique(older.begin(), older.end()));
}

TEST(LogWriter, EveryLineArrivesWholeAndInOrderBeforeExitReturns)
{
    tTempDir dir;
    for (int round = 0; round < 5; ++round) {
        const tLogCfg cfg =
            file_cfg(dir / ("w" + std::to_string(round)), 1000000, LOG_RUN_NEW_PTHREAD);
        constexpr int threads = 4, each = 300;
        const size_t tasks = threads_at_rest(), fds = open_descriptors();
        const std::string said = output_of([&] {
            ASSERT_EQ(0, log_system_init(&cfg));
            std::vector<std::thread> pool;
            for (int t = 0; t < threads; ++t)
                pool.emplace_back([t] {
                    for (int i = 0; i < each; ++i)
                        log_msg(LOG_LEV_OFF, "w", "f", t, "%d\n", i);
                });
            for (auto &one : pool)
                one.join();
            log_system_exit();
        });
        EXPECT_TRUE(std::regex_search(said, std::regex("giLogPpFdAry=\\d+ \\d+\n")));
        EXPECT_EQ(1U, count_of(said, "Wait _rx_log_func_pth() pthread stop------\n"
                                     "_rx_log_func_pth() pthread already stop------\n"));
        const std::string name = std::string(cfg.saveLogPath) + "-0" + std::to_string(round % 2);
        const auto lines = lines_of(slurp(name + ".log"));
        EXPECT_EQ(static_cast<size_t>(threads * each), lines.size());
        std::vector<int> next(threads);
        for (const auto &line : lines) {
            int thread = -1, number = -1;
            ASSERT_EQ(2, sscanf(line.c_str() + 22, " w %d] %d", &thread, &number)) << line;
            EXPECT_EQ(next.at(static_cast<size_t>(thread))++, number);
        }
        EXPECT_TRUE(threads_settle_at(tasks));
        EXPECT_EQ(fds, open_descriptors());
        EXPECT_EQ("", output_of([] { logger(0, 0, "lost\n"); }));
    }
}

TEST(LogWriter, FailuresOfItsStart)
{
    tTempDir dir;
    const tLogCfg cfg = file_cfg(dir / "s", 10, LOG_RUN_NEW_PTHREAD);
    const struct {
        const char *call;
        int err, ret;
        std::string said;
    } table[] = {
        {"pthread_create", EAGAIN, -2,
         "pthread_create() err, msg:Resource temporarily unavailable\n"},
        {"pipe", ENFILE, -3, "pipe() err, msg:Too many open files in system!!!!\n"},
    };
    const size_t tasks = threads_at_rest(), fds = open_descriptors();
    for (const auto &row : table) {
        const std::string said = output_of([&] {
            calls_watch(calls_fail(row.call, 1, row.err));
            EXPECT_EQ(row.ret, log_system_init(&cfg));
            calls_stop();
        });
        EXPECT_NE(std::string::npos, said.find(row.said)) << said;
        const std::string stopped = output_of([] { log_system_exit(); });
        EXPECT_EQ(row.ret == -3 ? 1U : 0U, count_of(stopped, "already stop"));
        EXPECT_TRUE(threads_settle_at(tasks));
        EXPECT_EQ(fds, open_descriptors());
    }
}

TEST(LogWriter, RefusesADescriptorThatSelectCannotTake)
{
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max < 1200)
        GTEST_SKIP() << "this process may open " << limit.rlim_max << " files only";
    std::vector<int> used;
    while (used.empty() || used.back() < FD_SETSIZE - 1)
        used.push_back(dup(2));
    const tLogCfg cfg = {LOG_RUN_NEW_PTHREAD, LOG_FILE_TWO, 0, LOG_SWITCH_ON, LOG_SWITCH_OFF, ""};
    const size_t fds = open_descriptors();
    const std::string said = output_of([&] { EXPECT_EQ(-3, log_system_init(&cfg)); });
    EXPECT_NE(std::string::npos, said.find("pipe() err, msg:Too many open files!!!!\n")) << said;
    output_of([] { log_system_exit(); });
    EXPECT_EQ(fds, open_descriptors());
    for (int fd : used)
        close(fd);
    output_of([&] {
        EXPECT_EQ(0, log_system_init(&cfg));
        log_system_exit();
    });
}

TEST(LogWriter, GoesOnAfterFailingCalls)
{
    const tLogCfg cfg = {LOG_RUN_NEW_PTHREAD, LOG_FILE_TWO, 0, LOG_SWITCH_ON, LOG_SWITCH_OFF, ""};
    const std::string said = output_of([&] {
        calls_watch([](const tCall &call) {
            const std::string name = call.name;
            return name == "select" && call.nth == 2 ? EINTR
                   : name == "read" && call.nth == 1 ? EIO
                                                     : 0;
        });
        ASSERT_EQ(0, log_system_init(&cfg));
        ASSERT_TRUE(wait_until([] { return calls_count("select") > 3; }));
        logger(0, 0, "first\n");
        ASSERT_TRUE(wait_until([] { return calls_count("read") > 1; }));
        calls_stop();
        log_system_exit();
    });
    EXPECT_EQ(1U, count_of(said, "select()=-1, msg:Interrupted system call!!!!\n")) << said;
    EXPECT_EQ(1U, count_of(said, "read() err, msg:Input/output error!!!!\n"));
    EXPECT_EQ(1U, count_of(said, "first\n"));
}
