// SPDX-License-Identifier: MIT
// The log service and the IPC server.
#include "bench.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <qb/qblog.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <common/dmn_serv.h>
#include <common/self_log.h>

static const eLogLevl gicDbLev = LOG_LEV_LOUD;

// A temporary folder that goes with its owner.
struct tFolder {
    std::string path = (std::filesystem::temp_directory_path() / "kelvara-XXXXXX").string();
    tFolder()
    {
        expect(mkdtemp(path.data()) != nullptr, "no temporary folder");
    }
    tFolder(const tFolder &) = delete;
    tFolder &operator=(const tFolder &) = delete;
    ~tFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    std::string operator/(const char *name) const
    {
        return path + "/" + name;
    }
};

// Waits for up to ten seconds.
template <typename tDone> static void wait_for(tDone done, const char *what)
{
    for (int i = 0; i < 200000 && !done(); ++i)
        usleep(50);
    if (!done()) // the text of an expectation would be an allocation
        expect(false, what);
}

// --- log lines --------------------------------------------------------------------------------

// One and the same line from everybody.
static constexpr int gicLine = __LINE__ + 3;
static void our_line()
{
    LOG_MSG(LOG_LEV_ERROR, "sensor %d: %d satellites, fix %s\n", 7, 12, "3D");
}

static int giHour = 9, giMin = 41, giSec = 7;
static long giUsec = 52311;

static size_t plain_line(char (&line)[1024])
{
    const int len = snprintf(
        line, sizeof line, "[%s:%02d:%02d:%02d.%08ld %15s %04d] sensor %d: %d satellites, fix %s\n",
        "ERR", giHour, giMin, giSec, giUsec, "services.cpp", gicLine, 7, 12, "3D");
    return static_cast<size_t>(len);
}

static void expect_line(const std::string &path)
{
    std::ifstream file(path);
    std::string got;
    std::getline(file, got);
    char line[1024];
    std::string wanted(line, plain_line(line) - 1);
    expect(got.size() == wanted.size() && got.substr(0, 5) == wanted.substr(0, 5) &&
               got.substr(22) == wanted.substr(22), // the time of day stands between
           "another line: " + got);
}

struct tLogService {
    tFolder folder;
    std::string path;
    explicit tLogService(eLogRunMod mode)
    {
        tLogCfg cfg = {};
        cfg.logRunMd = mode;
        cfg.logSaveMaxCnt = UINT32_MAX;
        cfg.fileLogSwt = LOG_SWITCH_ON;
        (folder / "log").copy(cfg.saveLogPath, sizeof cfg.saveLogPath - 1);
        expect(log_system_init(&cfg) == 0, "log_system_init() fails");
        path = std::filesystem::directory_iterator(folder.path)->path().string();
    }
    ~tLogService()
    {
        log_system_exit();
    }
    size_t written() const
    {
        struct stat now = {};
        return stat(path.c_str(), &now) == 0 ? static_cast<size_t>(now.st_size) : 0;
    }
};

[[gnu::noinline]] static void note(const char *, int)
{
    benchmark::ClobberMemory();
}

// Eight to an operation, so that the loop around them weighs little.
static tDuel suppressed_duel()
{
    return {each([] {
#pragma GCC unroll 8
                for (int i = 0; i < 8; ++i) {
                    LOG_MSG(LOG_LEV_INFO, "value %d\n", 7);
                    benchmark::ClobberMemory();
                }
            }),
            each([] {
#pragma GCC unroll 8
                for (int i = 0; i < 8; ++i) {
                    if (LOG_LEV_INFO <= gLogLevl)
                        note("value %d\n", 7);
                    benchmark::ClobberMemory();
                }
            })};
}

static tRun plain_lines(std::shared_ptr<tFolder> folder)
{
    std::shared_ptr<FILE> file(fopen((*folder / "plain").c_str(), "w+"), fclose);
    expect(file != nullptr, "no file");
    const tRun run = each([=] {
        char line[1024];
        const size_t len = plain_line(line);
        fwrite(line, 1, len, file.get());
        fflush(file.get());
    });
    run(1);
    expect_line(*folder / "plain");
    return run;
}

static tRun timed_lines(std::shared_ptr<tFolder> folder)
{
    std::shared_ptr<FILE> file(fopen((*folder / "plain").c_str(), "w+"), fclose);
    expect(file != nullptr, "no file");
    return each([=] {
        char line[1024];
        timeval now = {};
        tm local = {};
        gettimeofday(&now, nullptr);
        localtime_r(&now.tv_sec, &local);
        const int len =
            snprintf(line, sizeof line,
                     "[%s:%02d:%02d:%02d.%08ld %15s %04d] sensor %d: %d satellites, fix %s\n",
                     "ERR", local.tm_hour, local.tm_min, local.tm_sec,
                     static_cast<long>(now.tv_usec), "services.cpp", gicLine, 7, 12, "3D");
        fwrite(line, 1, static_cast<size_t>(len), file.get());
        fflush(file.get());
    });
}

static tRun spdlog_lines(std::shared_ptr<tFolder> folder)
{
    auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(*folder / "spdlog");
    auto log = std::make_shared<spdlog::logger>("bench", sink);
    const std::string padding(4 - std::to_string(gicLine).size(), '0');
    log->set_pattern("[ERR:%H:%M:%S.00%f %15s " + padding + "%#] %v");
    log->flush_on(spdlog::level::trace);
    const spdlog::source_loc here{"services.cpp", gicLine, "our_line"};
    const tRun run = each([=] {
        log->log(here, spdlog::level::err, "sensor {}: {} satellites, fix {}", 7, 12, "3D");
    });
    run(1);
    expect_line(*folder / "spdlog");
    return run;
}

// In a form as close as its format comes.
static tRun libqb_lines(std::shared_ptr<tFolder> folder)
{
    static bool bReady = false;
    if (!bReady) {
        qb_log_init("bench", LOG_USER, LOG_EMERG);
        qb_log_ctl(QB_LOG_SYSLOG, QB_LOG_CONF_ENABLED, QB_FALSE);
        bReady = true;
    }
    const int32_t target = qb_log_file_open((*folder / "libqb").c_str());
    expect(target >= 0, "qb_log_file_open() fails");
    qb_log_filter_ctl(target, QB_LOG_FILTER_ADD, QB_LOG_FILTER_FILE, "*", LOG_ERR);
    qb_log_format_set(target, "[ERR:%T %15f %l] %b");
    qb_log_ctl(target, QB_LOG_CONF_ENABLED, QB_TRUE);
    const std::shared_ptr<void> open(nullptr, [=](void *) { qb_log_file_close(target); });
    const tRun run = each([=] {
        (void)open;
        qb_log_from_external_source("our_line", "services.cpp", "sensor %d: %d satellites, fix %s",
                                    LOG_ERR, gicLine, 0, 7, 12, "3D");
    });
    run(1);
    std::ifstream file(*folder / "libqb");
    std::string got;
    std::getline(file, got);
    expect(got.find("sensor 7: 12 satellites, fix 3D") != std::string::npos, "no line: " + got);
    return run;
}

static tDuel direct_duel(tRun (*peer)(std::shared_ptr<tFolder>))
{
    auto service = std::make_shared<tLogService>(LOG_RUN_MAIN_PROGRESS);
    auto folder = std::make_shared<tFolder>();
    our_line();
    expect_line(service->path);
    return {each([=] { (void)service, our_line(); }), peer(folder)};
}

// A pipe that a thread of its own keeps empty.
struct tDrain {
    int ends[2] = {-1, -1};
    std::atomic<size_t> got{0};
    std::thread reader;
    tDrain()
    {
        expect(pipe(ends) == 0, "no pipe");
        reader = std::thread([this] {
            static char room[65536];
            for (ssize_t len = 0; (len = read(ends[0], room, sizeof room)) > 0;)
                got += static_cast<size_t>(len);
        });
    }
    tDrain(const tDrain &) = delete;
    tDrain &operator=(const tDrain &) = delete;
    ~tDrain()
    {
        close(ends[1]);
        reader.join();
        close(ends[0]);
    }
};

// `callers` threads log; a turn begins with both pipes empty and is short enough not to fill them.
static tDuel writer_duel(int threads)
{
    const size_t callers = static_cast<size_t>(threads);
    struct tState {
        tLogService service{LOG_RUN_NEW_PTHREAD};
        tDrain drain;
        size_t lines = 0, plain = 0; // sent so far
        std::unique_ptr<tTeam> team; // the last to come, the first to go
    };
    auto at = std::make_shared<tState>();
    const auto share = [=](tTeam::tJob job) -> tRun {
        if (callers == 1)
            return [=](size_t times) { job(0, times); };
        if (at->team == nullptr)
            at->team = std::make_unique<tTeam>(callers);
        return [=](size_t times) { at->team->work(&job, times / callers); };
    };
    const tRun ours = share([](size_t, size_t times) {
        for (size_t i = 0; i < times; ++i)
            our_line();
    });
    tState *to = at.get(); // the job's owner holds it
    const tRun its = share([to](size_t, size_t times) {
        for (size_t i = 0; i < times; ++i) {
            char line[1024];
            const size_t len = plain_line(line);
            (void)!write(to->drain.ends[1], line, len);
        }
    });
    char line[1024];
    const size_t len = plain_line(line);
    const auto count = [=](size_t times) { return times / callers * callers * len; };
    tDuel duel = {
        [=](size_t times) {
            ours(times);
            at->lines += count(times);
        },
        [=](size_t times) {
            its(times);
            at->plain += count(times);
        },
        [=] {
            wait_for(
                [=] { return at->service.written() == at->lines && at->drain.got == at->plain; },
                "lines are missing");
        },
        768, callers == 1 ? 1U : 768U};
    duel.subject(callers);
    duel.settle();
    expect_line(at->service.path);
    return duel;
}

// --- broadcasts -------------------------------------------------------------------------------

static constexpr size_t gicMsgLen = 200;

// A server with that many clients, all of them in this process.
struct tServer {
    tFolder folder;
    tDmnServCfg cfg = {};
    std::vector<int> clients;
    std::vector<int> accepted; // the server's ends
    std::array<char, gicMsgLen> message;

    explicit tServer(size_t count)
    {
        (folder / "socket").copy(cfg.dmNme, sizeof cfg.dmNme - 1);
        expect(dmn_server_init(&cfg) == 0, "dmn_server_init() fails");
        while (clients.size() < count)
            connect_one();
        // Clients are registered in their order: once the last one hears, all of them do.
        char byte = 0;
        wait_for(
            [&] {
                dmn_serv_tx_clit_msg(&byte, 1);
                return recv(clients.back(), &byte, 1, MSG_DONTWAIT) == 1;
            },
            "the clients are not served");
        for (int fd = 0; fd < 2 * (clients.back() + 10); ++fd)
            if (is_accepted(fd))
                accepted.push_back(fd);
        expect(accepted.size() == count, "not every client was accepted");
        message.fill('m');
        drain();
    }
    tServer(const tServer &) = delete;
    tServer &operator=(const tServer &) = delete;
    ~tServer()
    {
        dmn_server_exit();
        for (const int fd : clients)
            close(fd);
    }
    void connect_one()
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path, cfg.dmNme, sizeof address.sun_path - 1);
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        expect(fd != -1, "no socket");
        wait_for(
            [&] {
                return connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 ||
                       errno == EISCONN;
            },
            "no connection");
        clients.push_back(fd);
    }
    bool is_accepted(int fd) const
    {
        sockaddr_un name = {};
        socklen_t len = sizeof name;
        int bListens = 0;
        socklen_t flagLen = sizeof bListens;
        return getsockname(fd, reinterpret_cast<sockaddr *>(&name), &len) == 0 &&
               strncmp(name.sun_path, cfg.dmNme, sizeof name.sun_path) == 0 &&
               getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &bListens, &flagLen) == 0 && !bListens;
    }
    void drain()
    {
        static char room[65536];
        for (const int fd : clients)
            while (recv(fd, room, sizeof room, MSG_DONTWAIT) == sizeof room)
                ;
    }
    void expect_message()
    {
        char got[gicMsgLen + 1];
        for (const int fd : clients)
            expect(recv(fd, got, sizeof got, MSG_DONTWAIT) == gicMsgLen &&
                       memcmp(got, message.data(), gicMsgLen) == 0,
                   "another message");
    }
};

static tDuel broadcast_duel(int count)
{
    auto server = std::make_shared<tServer>(static_cast<size_t>(count));
    tDuel duel = {each([=] { dmn_serv_tx_clit_msg(server->message.data(), gicMsgLen); }), each([=] {
                      for (const int fd : server->accepted)
                          (void)!write(fd, server->message.data(), gicMsgLen);
                  }),
                  [=] { server->drain(); }, count > 256 ? 1U : 64U};
    duel.subject(1);
    server->expect_message();
    duel.yardstick(1);
    server->expect_message();
    return duel;
}

static tDuel direct_duel_beside(int count)
{
    tDuel duel = direct_duel(plain_lines);
    auto server = std::make_shared<tServer>(static_cast<size_t>(count));
    duel.settle = [=] { (void)server; };
    return duel;
}

void add_services()
{
    const std::string line = "log line, direct mode";
    const char *plain = "snprintf, fwrite, fflush";
    add_row({"suppressed LOG_MSG", "inlined branch", suppressed_duel, 0, 8});
    add_row({line, plain, [] { return direct_duel(plain_lines); }});
    add_row({line, "the same and reading the clock", [] { return direct_duel(timed_lines); }});
    add_row({line, "spdlog, flushing each line", [] { return direct_duel(spdlog_lines); }});
    add_row({line, "libqb", [] { return direct_duel(libqb_lines); }});
    for (const int count : {1, 2000}) {
        tRow row = {line + ", clients connected: " + std::to_string(count), plain,
                    [=] { return direct_duel_beside(count); }};
        row.family = "log line, by clients connected";
        row.size = count;
        add_row(row);
    }
    for (const int callers : {1, 4})
        if (callers == 1 || !gibBoard)
            add_row({"log line, writer thread, callers: " + std::to_string(callers),
                     "snprintf, write to a drained pipe", [=] { return writer_duel(callers); }});
    for (const int count : {1, 16, 256, 2000}) {
        tRow row = {"broadcast of 200 bytes, per client, clients: " + std::to_string(count),
                    "bare loop of writes", [=] { return broadcast_duel(count); }};
        row.parts = count;
        row.family = "broadcast, per client, by clients connected";
        row.size = row.parts;
        add_row(row);
    }
}
