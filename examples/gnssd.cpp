// SPDX-License-Identifier: MIT
//
// gnssd: publishes the sentences of a GNSS receiver to every local client.
//
//     gnssd --config FILE [--input PATH] [--rate N] [--delay MS] [--linger MS] [--level N]
//
// The configuration file (gnssd.conf shows one) has a group for each service of the library, and
// the group "gnss" of this program. Threads: main starts everything and then waits for a signal or
// for the end of the input; the reader cuts the input into sentences; the publisher broadcasts
// them. A FIFO stands between the two, so that a paced replay holds up the reader and nobody else.
#include "framing.h"
#include "nmea.h"
#include "source.h"

#include <common/buffer.h>
#include <common/dmn_serv.h>
#include <common/self_dog.h>
#include <common/self_fifo.h>
#include <common/self_log.h>
#include <common/xfuncs.h>

#include <errno.h>
#include <getopt.h>
#include <libconfig.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

eLogLevl gLogLevl = LOG_LEV_WARN;
static const eLogLevl gicDbLev = LOG_LEV_LOUD;

typedef struct _tGnssCfg_ {
    eSrcKind kind;
    char path[512];
    int baudRate;
    bool bFramed;
    int rate; // sentences a second; 0: as fast as they come
} tGnssCfg;

typedef struct _tOptions_ {
    const char *config;
    const char *input; // replaces source and path
    int rate;          // replaces the configured one unless -1
    int delayMs;       // before the first sentence, for clients to connect
    int lingerMs;      // after the last one, for clients to read
} tOptions;

typedef struct _tSentence_ {
    uint64_t timeUs;
    uint32_t len;
    char text[gicNmeaMax];
} tSentence;

static constexpr uint32_t gicDepth = 64;             // sentences between reader and publisher
static constexpr int gicShown = 60;                  // characters of a bad sentence in the log
static constexpr uint64_t gicCatchUpNs = 100000000U; // by how much a paced replay may be late

// The records that the services keep by pointer live as long as the program.
static tLogCfg giLogCfg;
static tDmnServCfg giServCfg;
static tFeddogCfg giDogCfg;
static tGnssCfg giCfg;
static tOptions giOpt = {nullptr, nullptr, -1, 0, 0};

static int giStopFd = -1; // readable from the first signal on
static int giDoneFd = -1; // readable when the publisher has ended
static tSource giSource;
static eSrcResult giEndedBy = SRC_STOP; // the reader's last result
static tFifo giFifo;
static tSentence giSlots[gicDepth];
static sem_t giFreeSlots;
static sem_t giSentences; // one more than there are, once the reader has ended

// Counted by the reader (broadcast: by the publisher), read when both have been joined.
static unsigned long giValidCnt;
static unsigned long giBadCnt;
static unsigned long giSentCnt;

// --- Time and signals ---------------------------------------------------------------------------

static uint64_t _now_ns(clockid_t aicClock)
{
    struct timespec now;
    clock_gettime(aicClock, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000U + static_cast<uint64_t>(now.tv_nsec);
}

// Waits until the monotonic clock shows aicUntilNs, or for a stop; true: stop.
static bool _wait_until(const uint64_t aicUntilNs)
{
    struct pollfd stop = {giStopFd, POLLIN, 0};
    for (;;) {
        const uint64_t now = _now_ns(CLOCK_MONOTONIC);
        const uint64_t left = now < aicUntilNs ? aicUntilNs - now : 0;
        const struct timespec timeout = {static_cast<time_t>(left / 1000000000U),
                                         static_cast<long>(left % 1000000000U)};
        if (ppoll(&stop, 1, &timeout, nullptr) > 0)
            return true;
        if (left == 0)
            return false;
    }
}

static bool _wait_ms(const int aicMs)
{
    return _wait_until(_now_ns(CLOCK_MONOTONIC) + static_cast<uint64_t>(aicMs) * 1000000U);
}

static void _wake(const int aicFd)
{
    const uint64_t one = 1;
    if (write(aicFd, &one, sizeof(one)) == -1)
        return; // only a full counter refuses, and that one is readable
}

static void _on_signal(int)
{
    const int saved = errno;
    _wake(giStopFd);
    errno = saved;
}

// Only main takes the signals: they are blocked while other threads are made, which inherit that.
static void _mask_signals(const int aicHow)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(aicHow, &set, nullptr);
}

static int _init_signals(void)
{
    giStopFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    giDoneFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (giStopFd == -1 || giDoneFd == -1) {
        LOG_MSG(LOG_LEV_ERROR, "eventfd() err, msg:%s!!!!\n", strerror(errno));
        return -ERR_CREATE_PIPE_DMN;
    }
    struct sigaction action = {};
    action.sa_handler = _on_signal;
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    return 0;
}

// --- Options and configuration ------------------------------------------------------------------

static int _parse_number(const char *aicpcText, const int aicMax, int *aopValue)
{
    char *end = nullptr;
    errno = 0;
    const long value = strtol(aicpcText, &end, 10);
    if (errno != 0 || end == aicpcText || *end != '\0' || value < 0 || value > aicMax)
        return -ERR_PARAM_CONTENT_DMN;
    *aopValue = static_cast<int>(value);
    return 0;
}

static int _parse_options(int argc, char **argv)
{
    static const struct option options[] = {
        {"config", required_argument, nullptr, 'c'},
        {"input", required_argument, nullptr, 'i'},
        {"rate", required_argument, nullptr, 'r'},
        {"delay", required_argument, nullptr, 'd'},
        {"linger", required_argument, nullptr, 'l'},
        {"level", required_argument, nullptr, 'v'},
        {nullptr, 0, nullptr, 0},
    };
    int result = 0;
    int level = static_cast<int>(gLogLevl);
    for (int opt; (opt = getopt_long(argc, argv, "c:i:r:d:l:v:", options, nullptr)) != -1;) {
        if (opt == 'c')
            giOpt.config = optarg;
        else if (opt == 'i')
            giOpt.input = optarg;
        else if (opt == 'r')
            result |= _parse_number(optarg, 1000000, &giOpt.rate);
        else if (opt == 'd')
            result |= _parse_number(optarg, 3600000, &giOpt.delayMs);
        else if (opt == 'l')
            result |= _parse_number(optarg, 3600000, &giOpt.lingerMs);
        else if (opt == 'v')
            result |= _parse_number(optarg, LOG_LEV_MAX, &level);
        else
            result = -ERR_PARAM_CONTENT_DMN;
    }
    if (result == 0 && giOpt.config != nullptr && optind == argc) {
        gLogLevl = static_cast<eLogLevl>(level);
        return 0;
    }
    fprintf(stderr, "usage: gnssd --config FILE [--input PATH|-] [--rate SENTENCES_A_SECOND]\n"
                    "             [--delay MS] [--linger MS] [--level 0..7]\n");
    return -ERR_PARAM_CONTENT_DMN;
}

// The index of the key's value among aicpcWords; without the key the first one.
static int _lookup_word(const config_setting_t *aipcGroup, const char *aicpcKey,
                        const char *const *aicpcWords, const int aicWordCnt)
{
    const char *value = aicpcWords[0];
    (void)config_setting_lookup_string(aipcGroup, aicpcKey, &value);
    for (int i = 0; i < aicWordCnt; i++) {
        if (strcmp(value, aicpcWords[i]) == 0)
            return i;
    }
    LOG_MSG(LOG_LEV_ERROR, "\"%s\" is nothing that %s can be!!!!\n", value, aicpcKey);
    return -ERR_PARAM_CONTENT_DMN;
}

static int _load_gnss_cfg(const config_t *aipcCfg)
{
    static const char *const kinds[SRC_MAX] = {"file", "serial", "command"};
    static const char *const records[] = {"text", "framed"};
    const config_setting_t *group = config_lookup(aipcCfg, "gnss");
    if (group == nullptr) {
        LOG_MSG(LOG_LEV_ERROR, "no group gnss!!!!\n");
        return -ERR_LIBCFG_CFG_LOOKUP_DMN;
    }
    const int kind =
        giOpt.input != nullptr ? SRC_FILE : _lookup_word(group, "source", kinds, SRC_MAX);
    const int record = _lookup_word(group, "records", records, 2);
    if (kind < 0 || record < 0)
        return -ERR_PARAM_CONTENT_DMN;
    giCfg.kind = static_cast<eSrcKind>(kind);
    giCfg.bFramed = record == 1;

    const char *path = "-";
    (void)config_setting_lookup_string(group, "path", &path);
    (void)config_setting_lookup_int(group, "baudRate", &giCfg.baudRate);
    (void)config_setting_lookup_int(group, "rate", &giCfg.rate);
    if (giOpt.input != nullptr)
        path = giOpt.input;
    if (giOpt.rate != -1)
        giCfg.rate = giOpt.rate;
    snprintf(giCfg.path, sizeof(giCfg.path), "%s", path);
    return 0;
}

// What the file does not say keeps the start value; a missing group is an error.
static int _load_cfg(const char *aicpcPath)
{
    giLogCfg.stdoutLogSwt = LOG_SWITCH_ON;
    giDogCfg.feddogSec = 1;
    snprintf(giDogCfg.feddogNme, sizeof(giDogCfg.feddogNme), "gnssd");
    giCfg.baudRate = 9600;

    config_t cfg;
    config_init(&cfg);
    int result = -ERR_LIBCFG_READ_FILE_DMN;
    if (config_read_file(&cfg, aicpcPath) != CONFIG_TRUE) {
        LOG_MSG(LOG_LEV_ERROR, "%s line %d: %s!!!!\n", aicpcPath, config_error_line(&cfg),
                config_error_text(&cfg));
    } else if ((result = load_log_cfg(&giLogCfg, "log", &cfg)) == 0 &&
               (result = load_dmn_serv_cfg(&giServCfg, "server", &cfg)) == 0 &&
               (result = load_feeddog_cfg(&giDogCfg, "watchdog", &cfg)) == 0) {
        result = _load_gnss_cfg(&cfg);
    }
    config_destroy(&cfg);
    return result;
}

// --- The reader ---------------------------------------------------------------------------------

// Waits for a slot while the FIFO is full: the publisher frees one at its pace, or at once after
// a stop, so nothing is dropped and the wait ends.
static void _pass_on(const tNmeaItem *aipItem)
{
    static tSentence sentence;
    sentence.timeUs = _now_ns(CLOCK_REALTIME) / 1000;
    sentence.len = static_cast<uint32_t>(aipItem->len);
    memcpy(sentence.text, aipItem->text, sentence.len);
    while (sem_wait(&giFreeSlots) == -1)
        continue;
    fifo_add_one(&giFifo, &sentence);
    sem_post(&giSentences);
}

// Takes every complete sentence out of the buffer; of what stays, only the start of one.
static void _take_sentences(buffer_t *aipBuf, const bool aibLast)
{
    int pos = 0;
    tNmeaItem item;
    while (pos += nmea_next(aipBuf->ptr + pos, aipBuf->used - pos, aibLast, &item),
           item.kind != NMEA_MORE) {
        if (item.kind == NMEA_VALID) {
            giValidCnt++;
            _pass_on(&item);
        } else {
            giBadCnt++;
            LOG_MSG(LOG_LEV_WARN, "bad sentence, %s: %.*s\n", item.why,
                    item.len < gicShown ? item.len : gicShown, item.text);
        }
    }
    buffer_shift(aipBuf, pos);
}

static void *_read_thread(void *)
{
    buffer_t *buf = buffer_init(4096);
    giEndedBy = buf != nullptr ? SRC_BYTES : SRC_FAIL;
    while (giEndedBy == SRC_BYTES) {
        giEndedBy = source_gather(&giSource, buf, giStopFd);
        if (giEndedBy != SRC_STOP)
            _take_sentences(buf, giEndedBy != SRC_BYTES);
    }
    buffer_free(buf);
    sem_post(&giSentences);
    return nullptr;
}

// --- The publisher ------------------------------------------------------------------------------

static void _broadcast(buffer_t *aipBuf, tSentence *aipSentence)
{
    static char lineEnd[] = "\r\n";
    const uint32_t seq = static_cast<uint32_t>(giSentCnt);
    aipBuf->used = 0;
    if (giCfg.bFramed) {
        frame_write(aipBuf, seq, aipSentence->timeUs, aipSentence->text, aipSentence->len);
    } else {
        write_bytes(aipBuf, aipSentence->text, aipSentence->len);
        write_bytes(aipBuf, lineEnd, sizeof(lineEnd) - 1);
    }
    dmn_serv_tx_clit_msg(aipBuf->ptr, aipBuf->used);
    giSentCnt++;
    LOG_MSG(LOG_LEV_LOUD, "sent %.*s\n", static_cast<int>(aipSentence->len), aipSentence->text);
}

// After a stop the sentences that were read are still sent, without pacing.
static void *_publish_thread(void *aipArg)
{
    static tSentence sentence;
    buffer_t *buf = static_cast<buffer_t *>(aipArg);
    _wait_ms(giOpt.delayMs);
    uint64_t due = _now_ns(CLOCK_MONOTONIC);
    for (;;) {
        while (sem_wait(&giSentences) == -1)
            continue;
        if (!fifo_get_one(&giFifo, &sentence))
            break;
        sem_post(&giFreeSlots);
        if (giCfg.rate > 0) {
            // What a pause of the input delayed is not made up for by a burst.
            const uint64_t now = _now_ns(CLOCK_MONOTONIC);
            if (due + gicCatchUpNs < now)
                due = now;
            _wait_until(due);
            due += 1000000000U / static_cast<uint64_t>(giCfg.rate);
        }
        _broadcast(buf, &sentence);
    }
    _wake(giDoneFd);
    return nullptr;
}

// --- Start and stop -----------------------------------------------------------------------------

// Runs both threads until a signal or the end of the input; the buffer is the publisher's.
static int _work(buffer_t *aipBuf)
{
    pthread_t reader;
    pthread_t publisher;
    int err = pthread_create(&publisher, nullptr, _publish_thread, aipBuf);
    if (err != 0) {
        LOG_MSG(LOG_LEV_ERROR, "pthread_create() err, msg:%s\n", strerror(err));
        return -ERR_PTHREAD_CREATE_DMN;
    }
    err = pthread_create(&reader, nullptr, _read_thread, nullptr);
    if (err != 0) {
        LOG_MSG(LOG_LEV_ERROR, "pthread_create() err, msg:%s\n", strerror(err));
        sem_post(&giSentences); // without a sentence: the end
    }
    _mask_signals(SIG_UNBLOCK);
    struct pollfd wait[] = {{giStopFd, POLLIN, 0}, {giDoneFd, POLLIN, 0}};
    while (poll(wait, 2, -1) == -1 && errno == EINTR)
        continue;
    if (err == 0)
        pthread_join(reader, nullptr);
    pthread_join(publisher, nullptr);
    if (err != 0)
        return -ERR_PTHREAD_CREATE_DMN;
    if (giEndedBy == SRC_END)
        _wait_ms(giOpt.lingerMs);
    return giEndedBy == SRC_FAIL ? -ERR_FREAD_DMN : 0;
}

static int _run(void)
{
    (void)system_set_rlimit(); // logged; the limit that we have will mostly do
    fifo_init(&giFifo, giSlots, sizeof(giSlots[0]), gicDepth);
    sem_init(&giFreeSlots, 0, gicDepth);
    sem_init(&giSentences, 0, 0);

    // A command is started before everything that it should not inherit, our signal mask included.
    _mask_signals(SIG_UNBLOCK);
    int result = source_open(&giSource, giCfg.kind, giCfg.path, giCfg.baudRate);
    _mask_signals(SIG_BLOCK);
    if (result != 0)
        return result;

    buffer_t *buf = buffer_init(gicNmeaMax + static_cast<int>(gicFrameHead));
    if (buf == nullptr)
        result = -ERR_MALLOC_DMN;
    else if ((result = dmn_server_init(&giServCfg)) == 0 &&
             (result = self_feddog_init(&giDogCfg)) == 0)
        result = _work(buf);
    if (source_close(&giSource, giEndedBy == SRC_END) != 0 && result == 0)
        result = -ERR_FREAD_DMN;
    self_feddog_exit();
    dmn_server_exit();
    buffer_free(buf);
    return result;
}

int main(int argc, char **argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0); // also a console that is a pipe or a file shows each line
    if (_parse_options(argc, argv) != 0)
        return 2;
    if (_load_cfg(giOpt.config) != 0 || _init_signals() != 0)
        return EXIT_FAILURE;
    _mask_signals(SIG_BLOCK);
    if (log_system_init(&giLogCfg) != 0) {
        log_system_exit();
        return EXIT_FAILURE;
    }
    LOG_MSG(LOG_LEV_RUN, "gnssd starts, input: %s------\n", giCfg.path);
    const int result = _run();
    LOG_MSG(LOG_LEV_RUN, "gnssd ends: read %lu valid %lu bad %lu broadcast %lu------\n",
            giValidCnt + giBadCnt, giValidCnt, giBadCnt, giSentCnt);
    log_system_exit();
    printf("gnssd: read %lu valid %lu bad %lu broadcast %lu\n", giValidCnt + giBadCnt, giValidCnt,
           giBadCnt, giSentCnt);
    return result == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
