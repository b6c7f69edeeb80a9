// SPDX-License-Identifier: MIT
// Each operation and its yardstick, as a pair of Google Benchmarks: "NAME" is this library's, "NAME
// | YARDSTICK" the other. scripts/bench runs them in an empty folder and prints the table.
#include <common/aes.h>
#include <common/bbase64.h>
#include <common/buffer.h>
#include <common/dmn_serv.h>
#include <common/md5.h>
#include <common/self_fifo.h>
#include <common/self_log.h>
#include <common/sha256.h>
#include <common/spinlock.h>
#include <common/xfuncs.h>

#include <algorithm>
#include <array>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <glib.h>
#include <gnu/libc-version.h>
#include <modp_b64.h>
#include <mutex>
#include <openssl/aes.h>
#include <openssl/evp.h>
#include <pthread.h>
#include <random>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

eLogLevl gLogLevl = LOG_LEV_ERROR;
static const eLogLevl gicDbLev = LOG_LEV_LOUD;

static constexpr size_t gicBatch = 64; // operations between two readings of the clock
static constexpr size_t gicSize = 4096;
using tBytes = std::array<unsigned char, 2 * gicSize>;
alignas(64) static tBytes giIn;    // random bytes
alignas(64) static tBytes giSpoil; // the same, until an operation changes them
alignas(64) static tBytes giText;  // gicSize characters of Base64
alignas(64) static tBytes giOut;   // an operation's output, to be compared

static char *text(tBytes &bytes)
{
    return reinterpret_cast<char *>(bytes.data());
}

static void must(bool ok, const std::string &what)
{
    if (ok)
        return;
    fprintf(stderr, "%s\n", what.c_str());
    _exit(1);
}

// --- rows -------------------------------------------------------------------------------------

template <typename tOp>
static benchmark::internal::Benchmark *add(const std::string &name, tOp op,
                                           const std::function<void()> &ready)
{
    return benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State &state) {
        while (state.KeepRunningBatch(gicBatch)) {
            if (ready) {
                state.PauseTiming();
                ready();
                state.ResumeTiming();
            }
            for (size_t i = 0; i < gicBatch; ++i) {
                op();
                benchmark::ClobberMemory();
            }
        }
    });
}

// A row of the table. ready() runs before each batch and is not measured. With `contend` there is a
// second row, of two threads that do the same.
template <typename tOurs, typename tIts>
static void row(const std::string &name, tOurs ours, const std::string &yardstick, tIts its,
                const std::function<void()> &ready = {}, bool contend = false)
{
    if (ready)
        ready();
    giOut.fill(0);
    ours();
    const tBytes got = giOut;
    giOut.fill(0);
    its();
    must(got == giOut, name + ": the outputs differ");
    add(name, ours, ready);
    add(name + " | " + yardstick, its, ready);
    if (contend) {
        add(name + ", two threads", ours, ready)->Threads(2)->MinTime(0.05);
        add(name + ", two threads | " + yardstick, its, ready)->Threads(2)->MinTime(0.05);
    }
}

// --- codecs -----------------------------------------------------------------------------------

struct tDigest {
    const char *name;
    void *(*ours)(const char *data, size_t len, void *result);
};

static void add_digest(const tDigest &digest)
{
    EVP_MD_CTX *const context = EVP_MD_CTX_new();
    const EVP_MD *const kind = EVP_MD_fetch(nullptr, digest.name, nullptr);
    const auto add_one = [&](const char *what, size_t len, size_t offset) {
        row(
            digest.name + std::string(what),
            [=] { digest.ours(text(giIn) + offset, len, giOut.data()); }, "OpenSSL EVP",
            [=] {
                EVP_DigestInit_ex(context, kind, nullptr);
                EVP_DigestUpdate(context, &giIn[offset], len);
                EVP_DigestFinal_ex(context, giOut.data(), nullptr);
            });
    };
    add_one(", 64 B", 64, 0);
    add_one(", 4 KiB", gicSize, 0);
    add_one(", 4 KiB at an odd address", gicSize, 1);
}

static void evp_cbc(bool encrypt)
{
    static EVP_CIPHER_CTX *const context = EVP_CIPHER_CTX_new();
    static const EVP_CIPHER *const kind = EVP_CIPHER_fetch(nullptr, "AES-128-CBC", nullptr);
    int got = 0;
    EVP_CipherInit_ex(context, kind, nullptr, &giIn[0], &giIn[16], encrypt);
    EVP_CIPHER_CTX_set_padding(context, 0);
    EVP_CipherUpdate(context, giOut.data(), &got, giIn.data(), gicSize);
}

static void add_aes()
{
    static AES_KEY key;
    row(
        "AES ECB encrypt, key and block",
        [] { AES128_ECB_encrypt(&giIn[16], &giIn[0], giOut.data()); }, "OpenSSL low level",
        [] {
            AES_set_encrypt_key(&giIn[0], 128, &key);
            AES_encrypt(&giIn[16], giOut.data(), &key);
        });
    row(
        "AES ECB decrypt, key and block",
        [] { AES128_ECB_decrypt(&giIn[16], &giIn[0], giOut.data()); }, "OpenSSL low level",
        [] {
            AES_set_decrypt_key(&giIn[0], 128, &key);
            AES_decrypt(&giIn[16], giOut.data(), &key);
        });
    row(
        "AES CBC encrypt, 4 KiB",
        [] {
            AES128_CBC_encrypt_buffer(giOut.data(), giSpoil.data(), gicSize, &giIn[0], &giIn[16]);
        },
        "OpenSSL EVP", [] { evp_cbc(true); });
    row(
        "AES CBC decrypt, 4 KiB",
        [] { AES128_CBC_decrypt_buffer(giOut.data(), giIn.data(), gicSize, &giIn[0], &giIn[16]); },
        "OpenSSL EVP", [] { evp_cbc(false); });
}

static void add_base64()
{
    row(
        "Base64 encode, 4 KiB",
        [] { bbase64_encode(giIn.data(), gicSize, text(giOut), giOut.size()); }, "modp_b64",
        [] { modp_b64_encode(text(giOut), text(giIn), gicSize); });
    row(
        "Base64 decode, 4 KiB",
        [] { bbase64_decode(text(giText), gicSize, giOut.data(), giOut.size()); }, "modp_b64",
        [] { modp_b64_decode(text(giOut), text(giText), gicSize); });
}

static void add_check_byte(const char *name, size_t len)
{
    row(
        name,
        [=] {
            const char sum = xorCheckSum(text(giIn), text(giIn) + len - 1);
            giOut[0] = static_cast<unsigned char>(sum);
        },
        "byte loop",
        [=] {
            unsigned char sum = 0;
            for (size_t i = 0; i < len; ++i)
                sum = static_cast<unsigned char>(sum ^ giIn[i]);
            giOut[0] = sum;
        });
}

// --- containers -------------------------------------------------------------------------------

static void add_fifo()
{
    using tElement = std::array<uint32_t, 8>;
    static constexpr uint32_t depth = 256;
    static tElement slots[depth];
    static tElement half[depth / 2];
    static tFifo ours;
    static std::mutex lock;
    static std::deque<tElement> its(std::begin(half), std::end(half));
    fifo_init(&ours, slots, sizeof(tElement), depth);
    fifo_add(&ours, half, depth / 2);
    row(
        "FIFO add and get",
        [] {
            tElement element = {};
            fifo_add_one(&ours, &element);
            fifo_get_one(&ours, &element);
            benchmark::DoNotOptimize(element);
        },
        "mutex and std::deque",
        [] {
            tElement element = {};
            {
                const std::lock_guard<std::mutex> hold(lock);
                if (its.size() < depth)
                    its.push_back(element);
            }
            const std::lock_guard<std::mutex> hold(lock);
            if (!its.empty()) {
                element = its.front();
                its.pop_front();
            }
            benchmark::DoNotOptimize(element);
        },
        {}, true);
}

static void add_spinlock()
{
    static spinlock_t ours;
    static pthread_spinlock_t its;
    static uint64_t count;
    pthread_spin_init(&its, PTHREAD_PROCESS_PRIVATE);
    row(
        "spinlock",
        [] {
            spinlock_lock(&ours);
            ++count;
            spinlock_unlock(&ours);
        },
        "pthread_spin",
        [] {
            pthread_spin_lock(&its);
            ++count;
            pthread_spin_unlock(&its);
        },
        {}, true);
}

static void add_buffer()
{
    static buffer_t *const ours = buffer_init(0);
    static GByteArray *const its = g_byte_array_new();
    row(
        "buffer, 16 × write_uint32",
        [] {
            buffer_reset(ours);
            for (uint32_t i = 0; i < 16; ++i)
                write_uint32(ours, i * 0x01020304);
        },
        "GByteArray",
        [] {
            g_byte_array_set_size(its, 0);
            for (uint32_t i = 0; i < 16; ++i) {
                const uint32_t value = GUINT32_TO_BE(i * 0x01020304);
                g_byte_array_append(its, reinterpret_cast<const guint8 *>(&value), 4);
            }
        });
    must(std::equal(its->data, its->data + its->len, ours->ptr, ours->ptr + ours->used), "buffer");
}

// --- broadcast --------------------------------------------------------------------------------

static tDmnServCfg giServCfg = {"socket"};
static std::vector<int> giClients; // connected to the server
static std::vector<int> giEnds;    // of as many socket pairs, for the yardstick
static std::vector<int> giFarEnds; // what is written to them is read here

static int connected()
{
    const sockaddr_un address = {AF_UNIX, "socket"};
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    for (int i = 0; i < 10000; ++i) {
        if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
            return fd;
        usleep(1000);
    }
    must(false, "connect()");
    return -1;
}

static void stop_server()
{
    dmn_server_exit();
    for (std::vector<int> *const all : {&giClients, &giEnds, &giFarEnds}) {
        std::for_each(all->begin(), all->end(), close);
        all->clear();
    }
}

// The server with `count` clients, nothing left to read.
static void start_server(size_t count)
{
    static char room[gicBatch * 1024];
    if (giClients.size() != count) {
        stop_server();
        must(dmn_server_init(&giServCfg) == 0, "dmn_server_init()");
        while (giClients.size() < count) {
            int pair[2];
            must(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair) == 0, "socketpair()");
            giClients.push_back(connected());
            giEnds.push_back(pair[0]);
            giFarEnds.push_back(pair[1]);
        }
        // Clients are registered in their order: when the last one receives, all of them do.
        while (recv(giClients.back(), room, 1, MSG_DONTWAIT) != 1) {
            usleep(1000);
            dmn_serv_tx_clit_msg(room, 1);
        }
    }
    for (const std::vector<int> *const all : {&giClients, &giFarEnds})
        for (const int fd : *all)
            (void)recv(fd, room, sizeof room, MSG_DONTWAIT); // usually nothing
}

static void add_broadcast(size_t count)
{
    static constexpr int len = 200;
    row(
        "broadcast of 200 B, clients: " + std::to_string(count),
        [] { dmn_serv_tx_clit_msg(text(giIn), len); }, "loop of writes",
        [] {
            for (const int fd : giEnds)
                must(write(fd, text(giIn), len) == len, "write()");
        },
        [=] { start_server(count); });
}

// --- log --------------------------------------------------------------------------------------

// The log service in that mode, with an empty pipe. It starts before the server, because its pipe
// needs descriptors below 1024, and the server's thread logs.
static void start_log(eLogRunMod mode)
{
    static tLogCfg cfg = {};
    if (cfg.fileLogSwt != LOG_SWITCH_ON || cfg.logRunMd != mode) {
        stop_server();
        log_system_exit();
        cfg.logRunMd = mode;
        cfg.logSaveMaxCnt = UINT32_MAX;
        cfg.fileLogSwt = LOG_SWITCH_ON;
        strcpy(cfg.saveLogPath, "log");
        must(log_system_init(&cfg) == 0, "log_system_init()");
    }
    if (mode == LOG_RUN_NEW_PTHREAD)
        usleep(1000);
}

static void our_line()
{
    LOG_MSG(LOG_LEV_ERROR, "sensor %d: %d satellites, fix %s\n", 7, 12, "3D");
}

// The write end of a pipe that a thread reads empty.
static int drained_pipe()
{
    int ends[2];
    must(pipe(ends) == 0, "pipe()");
    std::thread([from = ends[0]] {
        static char room[65536];
        while (read(from, room, sizeof room) > 0)
            continue;
    }).detach();
    return ends[1];
}

static void add_log()
{
    static const auto spdlog = spdlog::basic_logger_mt("bench", "spdlog");
    static constexpr spdlog::source_loc here = {"bench.cpp", __LINE__, "our_line"};
    static const int fd = drained_pipe();
    static volatile int time[4] = {9, 41, 7, 52311};
    spdlog->set_pattern("[ERR:%H:%M:%S.00%f %15s 0%#] %v");
    spdlog->flush_on(spdlog::level::trace);
    row(
        "suppressed LOG_MSG", [] { LOG_MSG(LOG_LEV_INFO, "value %d\n", 7); }, "inlined branch",
        [] {
            if (LOG_LEV_INFO <= gLogLevl)
                must(false, "suppressed LOG_MSG");
        });
    row(
        "log line, direct mode", our_line, "spdlog, flushing each line",
        [] {
            spdlog->log(here, spdlog::level::err, "sensor {}: {} satellites, fix {}", 7, 12, "3D");
        },
        [] { start_log(LOG_RUN_MAIN_PROGRESS); });
    row(
        "log line, writer thread", our_line, "snprintf, write to a drained pipe",
        [] {
            char line[1024];
            const int len = snprintf(
                line, sizeof line,
                "[%s:%02d:%02d:%02d.%08d %15s %04d] sensor %d: %d satellites, fix %s\n", "ERR",
                time[0], time[1], time[2], time[3], here.filename, here.line, 7, 12, "3D");
            must(write(fd, line, static_cast<size_t>(len)) == len, "write()");
        },
        [] { start_log(LOG_RUN_NEW_PTHREAD); });
}

int main(int argc, char **argv)
{
    std::generate(giIn.begin(), giIn.end(), std::minstd_rand());
    giSpoil = giIn;
    modp_b64_encode(text(giText), text(giIn), gicSize / 4 * 3);
    benchmark::Initialize(&argc, argv);
    benchmark::AddCustomContext("built", "GCC " __VERSION__ " -O2, glibc " +
                                             std::string(gnu_get_libc_version()) + ", " +
                                             OpenSSL_version(OPENSSL_VERSION) + ", GLib 2." +
                                             std::to_string(glib_minor_version) + ", spdlog 1." +
                                             std::to_string(SPDLOG_VER_MINOR));
    add_digest({"MD5", md5_buffer});
    add_digest({"SHA-256", sha256_buffer});
    add_aes();
    add_base64();
    add_check_byte("XOR check byte, 64 B", 64);
    add_check_byte("XOR check byte, 4 KiB", gicSize);
    add_fifo();
    add_spinlock();
    add_buffer();
    add_log(); // starts the service, which keeps the server's notices off the console
    for (const size_t count : {1U, 16U, 256U, 2000U})
        add_broadcast(count);
    benchmark::RunSpecifiedBenchmarks();
    stop_server();
    log_system_exit();
    return 0;
}
