// SPDX-License-Identifier: MIT
// Helpers of the test programs: a temporary folder, captured output, waiting, counting.
#pragma once
#include <common/self_log.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <event2/event.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <poll.h>
#include <random>
#include <regex>
#include <string>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

using std::atomic;
using std::function;
using std::string;
using std::thread;
using std::to_string;
using std::vector;
using testing::Message;

eLogLevl gLogLevl = LOG_LEV_ERROR; // defined by the host; each test program is one source

// Ends a forked child, and saves its counts in a coverage build.
extern "C" void __gcov_dump(void) __attribute__((weak));
[[noreturn]] inline void leave(int status)
{
    if (__gcov_dump != nullptr)
        __gcov_dump();
    _exit(status);
}

// A temporary folder, removed with the object.
struct tTempDir {
    string path;
    tTempDir()
    {
        char name[] = "/tmp/kelvara-XXXXXX";
        path = mkdtemp(name);
    }
    ~tTempDir()
    {
        std::filesystem::remove_all(path);
    }
    string operator/(const string &name) const
    {
        return path + "/" + name;
    }
};
inline tTempDir gDir;

inline string slurp(const string &path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// The standard output of the process while `body` runs.
inline string output_of(const function<void()> &body)
{
    testing::internal::CaptureStdout();
    body();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

// Pseudo-random bytes, the same in each run.
inline string noise(size_t len, unsigned seed = 1)
{
    std::mt19937 random(seed);
    string bytes(len, '\0');
    for (char &c : bytes)
        c = static_cast<char>(random());
    return bytes;
}

// The end of accessible memory: the byte there is out of bounds.
inline char *wall()
{
    constexpr size_t page = 65536; // a multiple of any real page size
    void *at = mmap(nullptr, 2 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    EXPECT_EQ(0, mprotect(at, page, PROT_READ | PROT_WRITE));
    return static_cast<char *>(at) + page;
}

// Runs `body` on `count` threads and waits for them.
inline void in_threads(int count, const function<void(int)> &body)
{
    vector<thread> pool;
    for (int t = 0; t < count; ++t)
        pool.emplace_back(body, t);
    for (auto &one : pool)
        one.join();
}

inline void nap(int ms)
{
    poll(nullptr, 0, ms);
}

inline int64_t now_ms()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

inline bool wait_until(const function<bool()> &done, int ms = 10000)
{
    for (const int64_t end = now_ms() + ms; !done(); nap(1))
        if (now_ms() > end)
            return false;
    return true;
}

inline bool set_priority(pthread_t thread, int priority) // 0: none
{
    const sched_param param = {priority};
    return pthread_setschedparam(thread, priority == 0 ? SCHED_OTHER : SCHED_FIFO, &param) == 0;
}

// On one processor, a thread of low real-time priority repeats `call` without a pause, and one of
// high priority does so every 100 us. Every call must return.
inline void between_priorities(const function<void()> &call)
{
    atomic<bool> stop{false};
    atomic<int> ended{0};
    if (!set_priority(pthread_self(), 90)) // the watchdog's
        GTEST_SKIP() << "real-time priorities need a privilege";
    const auto repeat = [&](int priority) {
        cpu_set_t first;
        CPU_ZERO(&first);
        CPU_SET(0, &first);
        EXPECT_EQ(0, sched_setaffinity(0, sizeof first, &first));
        set_priority(pthread_self(), priority);
        while (!stop) {
            call();
            if (priority == 80)
                usleep(100);
        }
        ++ended;
    };
    thread slow(repeat, 10);
    thread quick(repeat, 80);
    nap(700);
    stop = true;
    EXPECT_TRUE(wait_until([&] { return ended == 2; })) << "a call hangs";
    set_priority(quick.native_handle(), 0); // lets the slow thread run, too
    quick.join();
    slow.join();
    set_priority(pthread_self(), 0);
}

// Shortens the header of each log line to its tag and module: "ERR dmn_serv: text".
inline string tagged(const string &said)
{
    return std::regex_replace(said, std::regex(R"(\[(...):\S+ +(\S+) \d+\] )"), "$1 $2: ");
}

inline size_t count_of(const string &text, const string &part)
{
    size_t found = 0;
    for (size_t at = text.find(part); at != string::npos; at = text.find(part, at + 1))
        ++found;
    return found;
}

inline size_t entries_of(const char *folder)
{
    const std::filesystem::directory_iterator first(folder);
    return static_cast<size_t>(std::distance(first, {}));
}
inline size_t open_descriptors()
{
    return entries_of("/proc/self/fd");
}
// The number of threads, including one that a sanitizer starts with the first thread.
inline size_t threads_at_rest()
{
    thread([] {}).join();
    nap(20);
    return entries_of("/proc/self/task");
}

struct tRest { // what exists now; check() finds anything left behind
    size_t threads = threads_at_rest();
    size_t fds = open_descriptors();
    void check(size_t more = 0) const // descriptors that are allowed
    {
        // A joined thread leaves the list a little later.
        EXPECT_TRUE(wait_until([this] { return entries_of("/proc/self/task") == threads; }));
        EXPECT_EQ(fds + more, open_descriptors());
    }
};

inline sockaddr_un unix_name(const string &path)
{
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    path.copy(addr.sun_path, sizeof addr.sun_path - 1);
    return addr;
}

// A host's own event loop. At the end no event or descriptor may be left.
struct tLoop {
    event_base *base = event_base_new();
    size_t fds = open_descriptors();
    string turn() const
    {
        return tagged(output_of([this] { event_base_loop(base, EVLOOP_ONCE); }));
    }
    ~tLoop()
    {
        EXPECT_EQ(fds, open_descriptors());
        EXPECT_EQ(0, event_base_get_num_events(base, EVENT_BASE_COUNT_ADDED));
        event_base_free(base);
    }
};

// A connected client, or -1.
inline int unix_connect(const string &path)
{
    const sockaddr_un addr = unix_name(path);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) == 0)
        return fd;
    close(fd);
    return -1;
}

// Connects to a server that is starting.
inline int unix_connect_soon(const string &path)
{
    int fd = -1;
    EXPECT_TRUE(wait_until([&] { return (fd = unix_connect(path)) != -1; })) << path;
    return fd;
}

inline int unix_listen(const string &path)
{
    const sockaddr_un addr = unix_name(path);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(0, bind(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr));
    EXPECT_EQ(0, listen(fd, 4));
    return fd;
}

// Reads `len` bytes, or fewer at the end of the stream. Fails after ten seconds without data.
inline string read_bytes(int fd, size_t len)
{
    timeval wait = {10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    string got(len, '\0');
    const ssize_t n = len == 0 ? 0 : recv(fd, &got[0], len, MSG_WAITALL);
    EXPECT_FALSE(n == -1 && errno == EAGAIN) << "neither bytes nor the end of the stream";
    got.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return got;
}
