// SPDX-License-Identifier: MIT
//
// gnssd: publishes the sentences of a GNSS receiver to every local client.
//
// Threads: the reader cuts the input into sentences, and makes no other call that may block. The
// main thread does the rest on one event loop: server, heartbeats, signals, log, and the
// broadcasts. So a heartbeat proves that sentences are sent. A FIFO connects the two, so a paced
// replay delays only the reader. A third thread only receives signals: they interrupt no other
// thread, including the log's, and end the program even if the other threads hang.
#include "framing.h"
#include "gnssd_cfg.h"
#include "heartbeat.h"
#include "nmea.h"
#include "sockfile.h"
#include "source.h"
#include "tool.h"

#include <common/buffer.h>
#include <common/dmn_serv.h>
#include <common/self_fifo.h>
#include <common/self_log.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <event2/event.h>
#include <getopt.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/eventfd.h>
#include <unistd.h>

eLogLevl gLogLevl = LOG_LEV_WARN;
static const eLogLevl gicDbLev = LOG_LEV_LOUD;

typedef struct _tOptions_ {
    const char *config;
    const char *input; // a file in place of the configured source
    int rate;          // replaces the configured one unless -1
    int level;         // replaces the configured one unless -1
    int delayMs;       // before the first sentence, for clients to connect
    int lingerMs;      // after the last one, for clients to read
} tOptions;

typedef struct _tSentence_ {
    const char *why; // what is wrong with it, null when it is valid
    uint64_t timeUs;
    uint32_t len;
    char text[gicNmeaMax];
} tSentence;

static constexpr uint32_t gicDepth = 64;             // sentences between reader and publisher
static constexpr int gicShown = 60;                  // characters of a bad sentence in the log
static constexpr uint64_t gicCatchUpNs = 100000000U; // by how much a paced replay may be late

// The services keep the records in it by pointer: it lives as long as the program.
static tGnssdCfg giCfg;
static const char *gipInput; // path or command
static tOptions giOpt = {nullptr, nullptr, -1, -1, 0, 0};

// Used by both threads.
static tFifo giFifo;
static tSentence giSlots[gicDepth];
static sem_t giFreeSlots;
static int giReadyFd = -1; // counts the sentences in the FIFO, and one more at the end of the input
static int giStopFd = -1;  // readable when the reader must end
static tSource giSource;

// Used by the reader, and after the join by the main thread.
static eSrcResult giEndedBy = SRC_STOP;
static int giReadErr; // an error number, for SRC_FAIL

// Used by the main thread.
static pthread_t giReader;
static bool gibReading; // the reader must be joined
static bool gibStop;    // a signal came
static tSockFile giSockFile;
static struct event_base *gipBase;
static struct event *gipSignalEt;
static struct event *gipReadyEt; // one-shot: a sentence is in the FIFO
static struct event *gipTimerEt; // the next sentence is due
static uint64_t giDueNs;         // when it is due, in a paced replay
static buffer_t *gipOut;         // the message to broadcast
static unsigned long giValidCnt;
static unsigned long giBadCnt;

// --- Options ------------------------------------------------------------------------------------

static const char gicUsage[] =
    "usage: gnssd --config FILE [OPTION]...\n"
    "Publishes the sentences of a GNSS receiver to every local client.\n"
    "\n"
    "  -c, --config FILE  the configuration; gnssd.conf explains it\n"
    "  -i, --input PATH   reads this file instead, or standard input for \"-\"\n"
    "  -r, --rate N       sentences a second; 0: as fast as they come\n"
    "  -d, --delay MS     waits before the first sentence, for clients to connect\n"
    "  -l, --linger MS    waits after the last one, for clients to read\n"
    "  -v, --level N      log threshold, 0 to 7\n"
    "  -h, --help         prints this\n"
    "  -V, --version      prints the version\n"
    "\n"
    "SIGINT, SIGTERM: ends; SIGHUP: begins a new log file, reads the log level again;\n"
    "SIGUSR1, SIGUSR2: raises, lowers the log level by one.\n";

static void _parse_options(int argc, char **argv)
{
    static const struct option options[] = {
        {"config", required_argument, nullptr, 'c'},
        {"input", required_argument, nullptr, 'i'},
        {"rate", required_argument, nullptr, 'r'},
        {"delay", required_argument, nullptr, 'd'},
        {"linger", required_argument, nullptr, 'l'},
        {"level", required_argument, nullptr, 'v'},
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},
        {nullptr, 0, nullptr, 0},
    };
    for (int opt; (opt = getopt_long(argc, argv, "c:i:r:d:l:v:hV", options, nullptr)) != -1;) {
        if (opt == 'c')
            giOpt.config = optarg;
        else if (opt == 'i')
            giOpt.input = optarg;
        else if (opt == 'r')
            giOpt.rate = tool_number("gnssd", "rate", optarg, 0, 1000000);
        else if (opt == 'd')
            giOpt.delayMs = tool_number("gnssd", "delay", optarg, 0, 3600000);
        else if (opt == 'l')
            giOpt.lingerMs = tool_number("gnssd", "linger", optarg, 0, 3600000);
        else if (opt == 'v')
            giOpt.level = tool_number("gnssd", "level", optarg, 0, LOG_LEV_MAX);
        else
            tool_answer(opt, "gnssd", gicUsage);
    }
    if (giOpt.config == nullptr || optind != argc)
        tool_answer('?', "gnssd", gicUsage);
}

static eLogLevl _level(const tGnssdCfg *aipcCfg)
{
    return static_cast<eLogLevl>(giOpt.level != -1 ? giOpt.level : aipcCfg->level);
}

static int _configure(void)
{
    const int result = gnssd_cfg_load(&giCfg, giOpt.config);
    gipInput = giOpt.input != nullptr ? giOpt.input : giCfg.path;
    if (giOpt.input != nullptr)
        giCfg.kind = SRC_FILE;
    if (giOpt.rate != -1)
        giCfg.rate = giOpt.rate;
    gLogLevl = _level(&giCfg);
    return result;
}

static void *_signal_thread(void *)
{
    (void)pthread_setname_np(pthread_self(), "gnssd signals"); // for top -H and core dumps
    for (;;)
        pause();
}

// Blocks signals in this thread and in the threads that it starts later.
static bool _start_signal_thread(void)
{
    pthread_t id;
    sigset_t all;
    errno = pthread_create(&id, nullptr, _signal_thread, nullptr);
    sigfillset(&all);
    (void)pthread_sigmask(SIG_SETMASK, &all, nullptr); // fails for a bad argument only
    return errno == 0;
}

// --- The reader ---------------------------------------------------------------------------------

static void _wake(const int aicFd)
{
    const uint64_t one = 1;
    (void)!write(aicFd, &one, sizeof one); // fails if the counter is full: then it is readable
}

// Waits for a slot while the FIFO is full: the publisher frees one at its pace, or at once after
// a stop, so nothing is dropped and the wait ends.
static void _pass_on(const tNmeaItem *aipItem)
{
    static tSentence sentence;
    sentence.why = aipItem->why;
    sentence.timeUs = tool_now_ns(CLOCK_REALTIME) / 1000;
    sentence.len = static_cast<uint32_t>(aipItem->len);
    memcpy(sentence.text, aipItem->text, sentence.len);
    while (sem_wait(&giFreeSlots) == -1)
        continue;
    fifo_add_one(&giFifo, &sentence);
    _wake(giReadyFd);
}

// Takes every complete sentence out of the buffer; only the start of an incomplete one remains.
static void _take_sentences(buffer_t *aipBuf, const bool aibLast)
{
    int pos = 0;
    tNmeaItem item;
    do {
        pos += nmea_next(aipBuf->ptr + pos, aipBuf->used - pos, aibLast, &item);
        if (item.kind != NMEA_MORE)
            _pass_on(&item);
    } while (item.kind != NMEA_MORE);
    buffer_shift(aipBuf, pos);
}

static void *_read_thread(void *)
{
    (void)pthread_setname_np(pthread_self(), "gnssd reader");
    buffer_t *buf = buffer_init(4096);
    giReadErr = ENOMEM;
    giEndedBy = buf != nullptr ? SRC_BYTES : SRC_FAIL;
    while (giEndedBy == SRC_BYTES) {
        giEndedBy = source_gather(&giSource, buf, giStopFd);
        giReadErr = errno;
        if (giEndedBy != SRC_STOP)
            _take_sentences(buf, giEndedBy != SRC_BYTES);
    }
    buffer_free(buf);
    _wake(giReadyFd); // without a sentence: the end of the input
    return nullptr;
}

static int _start_reader(void)
{
    const int err = pthread_create(&giReader, nullptr, _read_thread, nullptr);
    gibReading = err == 0;
    if (err == 0)
        return 0;
    LOG_MSG(LOG_LEV_ERROR, "pthread_create() err, msg:%s\n", strerror(err));
    return -ERR_PTHREAD_CREATE_DMN;
}

// --- The publisher: callbacks of the event loop -------------------------------------------------

static void _set_timer(const uint64_t aicNs)
{
    const struct timeval wait = {static_cast<time_t>(aicNs / 1000000000U),
                                 static_cast<suseconds_t>(aicNs / 1000U % 1000000U)};
    (void)event_add(gipTimerEt, &wait); // fails without memory: then sending stops
}

static void _broadcast(tSentence *aipSentence)
{
    static char lineEnd[] = "\r\n";
    gipOut->used = 0;
    if (giCfg.bFramed) {
        frame_write(gipOut, static_cast<uint32_t>(giValidCnt), aipSentence->timeUs,
                    aipSentence->text, aipSentence->len);
    } else {
        write_bytes(gipOut, aipSentence->text, aipSentence->len);
        write_bytes(gipOut, lineEnd, sizeof lineEnd - 1);
    }
    dmn_serv_tx_clit_msg(gipOut->ptr, gipOut->used);
    giValidCnt++;
    LOG_MSG(LOG_LEV_LOUD, "sent %.*s\n", static_cast<int>(aipSentence->len), aipSentence->text);
}

static void _input_ended(void)
{
    pthread_join(giReader, nullptr);
    gibReading = false;
    if (giEndedBy == SRC_FAIL)
        LOG_MSG(LOG_LEV_ERROR, "input %s err, msg:%s!!!!\n", gipInput, strerror(giReadErr));
    if (giEndedBy == SRC_END && !gibStop)
        _set_timer(static_cast<uint64_t>(giOpt.lingerMs) * 1000000U);
    else
        event_base_loopbreak(gipBase);
}

// Publishes one sentence and returns to the loop, so that signals, clients and heartbeats are
// served.
static void _ready_cb(int aiFd, short, void *)
{
    static tSentence sentence;
    uint64_t one;
    (void)!read(aiFd, &one, sizeof one); // it is readable, and no other thread reads it
    if (!fifo_get_one(&giFifo, &sentence)) {
        _input_ended();
        return;
    }
    sem_post(&giFreeSlots);
    if (sentence.why != nullptr) {
        giBadCnt++;
        const int len = static_cast<int>(sentence.len);
        LOG_MSG(LOG_LEV_WARN, "bad sentence, %s: %.*s\n", sentence.why,
                len < gicShown ? len : gicShown, sentence.text);
    } else {
        _broadcast(&sentence);
    }
    if (sentence.why != nullptr || giCfg.rate == 0) {
        (void)event_add(gipReadyEt, nullptr); // fails without memory, as above
        return;
    }
    // After a pause of the input, do not catch up with a burst.
    const uint64_t now = tool_now_ns(CLOCK_MONOTONIC);
    if (giDueNs + gicCatchUpNs < now)
        giDueNs = now;
    giDueNs += 1000000000U / static_cast<uint64_t>(giCfg.rate);
    _set_timer(giDueNs > now ? giDueNs - now : 0);
}

static void _timer_cb(int, short, void *)
{
    if (gibReading)
        (void)event_add(gipReadyEt, nullptr);
    else
        event_base_loopbreak(gipBase); // the linger time is over
}

// Sends the sentences already read, without pacing.
static void _stop(void)
{
    gibStop = true;
    giCfg.rate = 0;
    _wake(giStopFd);
    event_del(gipTimerEt);
    _timer_cb(-1, 0, nullptr);
}

// Only this thread logs, so the log service may be stopped and started again.
static void _renew_log(void)
{
    log_system_exit();
    if (log_system_init(&giCfg.log) != 0) {
        tLogCfg console = giCfg.log;
        console.logRunMd = LOG_RUN_MAIN_PROGRESS;
        console.stdoutLogSwt = LOG_SWITCH_ON;
        console.fileLogSwt = LOG_SWITCH_OFF;
        log_system_exit();
        (void)log_system_init(&console); // needs neither a file nor a pipe
        LOG_MSG(LOG_LEV_ERROR, "no log file, until the next SIGHUP!!!!\n");
    }
    static tGnssdCfg fresh;
    if (gnssd_cfg_load(&fresh, giOpt.config) == 0)
        set_global_log_level(_level(&fresh));
}

// Several pending signals of one kind are handled once, so that the rest of the loop is served.
static void _signal_cb(int aiFd, short, void *)
{
    uint64_t count;
    (void)!read(aiFd, &count, sizeof count); // it is readable, and no other thread reads it
    if (tool_signal_came(SIGINT) || tool_signal_came(SIGTERM)) {
        _stop();
        return;
    }
    if (tool_signal_came(SIGHUP))
        _renew_log();
    if (tool_signal_came(SIGUSR1) && gLogLevl < LOG_LEV_MAX)
        set_global_log_level(static_cast<eLogLevl>(gLogLevl + 1));
    if (tool_signal_came(SIGUSR2) && gLogLevl > LOG_LEV_OFF)
        set_global_log_level(static_cast<eLogLevl>(gLogLevl - 1));
}

// --- Start and stop -----------------------------------------------------------------------------

static int _init_loop(const int aicSignalFd)
{
    fifo_init(&giFifo, giSlots, sizeof giSlots[0], gicDepth);
    sem_init(&giFreeSlots, 0, gicDepth);
    giReadyFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE);
    giStopFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    gipOut = buffer_init(gicNmeaMax + static_cast<int>(gicFrameHead));
    gipBase = event_base_new();
    if (giReadyFd == -1 || giStopFd == -1 || gipOut == nullptr || gipBase == nullptr) {
        LOG_MSG(LOG_LEV_ERROR, "no event loop, msg:%s!!!!\n", strerror(errno));
        return -ERR_EVENT_NEW_BASE_DMN;
    }
    gipSignalEt = event_new(gipBase, aicSignalFd, EV_READ | EV_PERSIST, _signal_cb, nullptr);
    gipReadyEt = event_new(gipBase, giReadyFd, EV_READ, _ready_cb, nullptr);
    gipTimerEt = event_new(gipBase, -1, 0, _timer_cb, nullptr);
    if (gipSignalEt == nullptr || gipReadyEt == nullptr || gipTimerEt == nullptr ||
        event_add(gipSignalEt, nullptr) == -1) {
        LOG_MSG(LOG_LEV_ERROR, "event_new() err!!!!\n");
        return -ERR_EVENT_NEW_DMN;
    }
    return 0;
}

// On the program's own loop the call reports at once whether clients can connect.
static int _start_server(void)
{
    const char *const path = giCfg.server.dmNme;
    errno = sockfile_claim(path);
    const int result = errno == 0 ? _dmn_server_init(gipBase, &giCfg.server) : -ERR_SOCKET_BIND_DMN;
    if (result == 0) {
        sockfile_bound(&giSockFile, path);
        return 0;
    }
    // Standard error shows the failure even if the log goes to files only.
    fprintf(stderr, "gnssd: %s cannot be served: %s\n", path, strerror(errno));
    LOG_MSG(LOG_LEV_ERROR, "%s cannot be served, msg:%s!!!!\n", path, strerror(errno));
    return result;
}

static int _work(const int aicSignalFd)
{
    int result = _init_loop(aicSignalFd);
    if (result != 0 || (result = _start_server()) != 0 ||
        (result = heartbeat_start(gipBase, &giCfg.watchdog)) != 0 ||
        (result = _start_reader()) != 0)
        return result;
    LOG_MSG(LOG_LEV_RUN, "gnssd serves %s, input: %s------\n", giCfg.server.dmNme, gipInput);
    _set_timer(static_cast<uint64_t>(giOpt.delayMs) * 1000000U);
    event_base_dispatch(gipBase);
    return giEndedBy == SRC_FAIL ? -ERR_FREAD_DMN : 0;
}

static void _release(void)
{
    heartbeat_stop();
    dmn_server_exit();
    sockfile_remove(&giSockFile);
    struct event *const events[] = {gipSignalEt, gipReadyEt, gipTimerEt};
    for (struct event *et : events) {
        if (et != nullptr)
            event_free(et);
    }
    if (gipBase != nullptr)
        event_base_free(gipBase);
    buffer_free(gipOut);
}

static int _run(const int aicSignalFd)
{
    // A command starts before everything that it must not inherit.
    int result = source_open(&giSource, giCfg.kind, gipInput, giCfg.baudRate);
    if (result != 0)
        return result;
    result = _work(aicSignalFd);
    // A stop from a terminal or a service manager also reaches the command: this is not a failure
    // of the command.
    if (source_close(&giSource, giEndedBy == SRC_END && !gibStop) != 0 && result == 0)
        result = -ERR_FREAD_DMN;
    _release();
    return result;
}

int main(int argc, char **argv)
{
    static const int signals[] = {SIGHUP, SIGUSR1, SIGUSR2, 0};
    setvbuf(stdout, nullptr, _IOLBF, 0); // also a console that is a pipe or a file shows each line
    _parse_options(argc, argv);
    const int signalFd = tool_signals(signals); // early: SIGHUP would end the program
    if (signalFd == -1 || !_start_signal_thread()) {
        fprintf(stderr, "gnssd: no signals, msg:%s\n", strerror(errno));
        return EXIT_FAILURE;
    }
    if (_configure() != 0)
        return EXIT_FAILURE;
    if (log_system_init(&giCfg.log) != 0) {
        fprintf(stderr, "gnssd: no log, msg:%s\n", strerror(errno));
        log_system_exit();
        return EXIT_FAILURE;
    }
    const int result = _run(signalFd);
    const unsigned long read = giValidCnt + giBadCnt;
    LOG_MSG(LOG_LEV_RUN, "gnssd ends: read %lu valid %lu bad %lu broadcast %lu------\n", read,
            giValidCnt, giBadCnt, giValidCnt);
    log_system_exit();
    printf("gnssd: read %lu valid %lu bad %lu broadcast %lu\n", read, giValidCnt, giBadCnt,
           giValidCnt);
    if (result == 0)
        return EXIT_SUCCESS;
    fprintf(stderr, "gnssd: failed, the log has the reason\n");
    return EXIT_FAILURE;
}
