// SPDX-License-Identifier: MIT
#include "calls.h"
#include "support.h"
#include <common/popen2.h>
#include <common/self_log.h>
#include <csignal>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>

eLogLevl gLogLevl = LOG_LEV_ERROR;

#ifdef __SANITIZE_THREAD__
constexpr int gicHuge = 1000; // its shadow of a table is memory in use
#else
constexpr int gicHuge = 100000000; // 400 MB, if the table were touched
#endif
static std::string gSent; // the signals, each with what was held back when it came
static int gKillErr;

static std::string _held()
{
    std::string held = " holding";
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    for (int sig = 1; sig < 32; sig++)
        held += sigismember(&mask, sig) ? " " + std::to_string(sig) : "";
    return held;
}

static FILE *_open(std::string program, std::string type)
{
    return popen2(program.data(), type.data());
}

// Waits for any child: its exit status, or 1000 for one that a signal ended.
static int _reap()
{
    int status = 0;
    EXPECT_GT(wait(&status), 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000;
}

// Without some of the standard descriptors, and with a table that ends so many slots after the
// stream's descriptor. Each command ends only if it holds no copy of the host's end of the pipe.
[[noreturn]] static void _run(bool reads, int aicClosed, int aicBeyond)
{
    alarm(20);
    signal(SIGPIPE, SIG_DFL);
    for (int fd = 0; fd < 3; fd++)
        if (aicClosed & 1 << fd)
            close(fd);
    const int next = open("/", O_RDONLY);
    close(next);
    calls_watch(calls_fail("getdtablesize", 1, -next - aicBeyond)); // gives the negated number
    FILE *stream = _open(reads ? "echo word; exec yes" : "exit $(wc -c)", reads ? "r" : "w");
    char line[16] = "word\n";
    if (!stream || (reads ? !fgets(line, 16, stream) : fputs("seven\n\n", stream) < 0))
        leave(1);
    const bool known = pclose2(stream) == 0;
    if (known != (aicBeyond > 0) || known == gSent.empty() || (!known && fclose(stream) != 0))
        leave(2);
    rusage use;
    getrusage(RUSAGE_SELF, &use);
    leave(strcmp(line, "word\n") || _reap() != (reads ? 1000 : 7) || use.ru_maxrss > 300000);
}

// Nothing is really sent: who knows whom it would hit.
extern "C" int kill(pid_t pid, int sig) noexcept
{
    gSent += std::to_string(pid) + " gets " + std::to_string(sig) + _held();
    if (gKillErr == 0)
        return 0;
    errno = gKillErr;
    return -1;
}

TEST(Popen2, EndsTheProcessAfterTheShell)
{
    EXPECT_EQ(pclose2(stdin), -1); // there is no table yet
    sigset_t mine;
    sigemptyset(&mine);
    sigaddset(&mine, SIGUSR1);
    pthread_sigmask(SIG_SETMASK, &mine, nullptr);
    for (int err : {0, ESRCH, EPERM, 0}) {
        FILE *stream = _open("echo $$; exit 3", "r");
        char line[16] = "";
        EXPECT_TRUE(fgets(line, 16, stream) && fgetc(stream) == EOF);
        gSent.clear();
        gKillErr = err;
        errno = EDOM;
        EXPECT_EQ(pclose2(stream), err ? -1 : 0);
        EXPECT_EQ(errno, err ? err : EDOM);
        EXPECT_EQ(gSent, std::to_string(atoi(line) + 1) + " gets 15 holding 1 2 3 10");
        EXPECT_EQ(_held(), " holding 10");
        FILE *other = fopen("/dev/null", "w"); // on the same descriptor: its slot is clear
        EXPECT_EQ(pclose2(other), -1);
        EXPECT_EQ(fclose(other), 0);
        EXPECT_EQ(_reap(), 3); // the shell was left to us
    }
    // The number may be that of a thread of ours: the signal would end us.
    (void)threads_at_rest(); // a sanitizer starts one of its own along with the first one
    for (bool ours = false; !ours;) {
        FILE *stream = _open("echo $$", "r");
        char line[16] = "";
        gSent.clear();
        std::thread([&] {
            EXPECT_TRUE(fgets(line, 16, stream));
            ours = gettid() == atoi(line) + 1;
            EXPECT_EQ(pclose2(stream), ours ? -1 : 0);
            EXPECT_TRUE(!ours || errno == ESRCH);
        }).join();
        EXPECT_EQ(gSent.empty(), ours);
        _reap();
    }
}

TEST(Popen2, AnyDescriptorsAndAnyTableSize)
{
    for (int i = 0; i < 19; i++) {
        const int beyond = i < 16 ? 30 : (i == 16 ? 0 : i == 17 ? 1 : gicHuge);
        EXPECT_EXIT(_run(i % 2, i / 2 % 8, beyond), testing::ExitedWithCode(0), "") << i;
    }
}

TEST(Popen2, CommandHoldsEarlierEndsButNotItsOwn)
{
    FILE *first = _open("read line", "w");
    int ends[2]; // the next pipe gets the same descriptors
    ASSERT_EQ(pipe(ends), 0);
    std::string program = "for n in";
    for (int fd : {fileno(first), ends[0], ends[1]})
        program += " " + std::to_string(fd);
    close(ends[0]);
    close(ends[1]);
    EXPECT_EQ(pclose2(nullptr), -1);
    FILE *second =
        _open(program + "; do [ -e /proc/self/fd/$n ]; all=$all$?; done; exit $all", "r");
    EXPECT_EQ(_reap(), 11); // found, missing, missing
    EXPECT_EQ(pclose2(second) + pclose2(first), 0);
    EXPECT_EQ(_reap(), 1); // end of file instead of a line
}

TEST(Popen2, FailuresLeaveNothingBehind)
{
    calls_watch();
    for (const char *type : {"", "x", "rw", "wr", "r+", "w+", "re", "rr", "R", " r"})
        EXPECT_EQ(_open("exit 0", type), nullptr) << type;
    EXPECT_TRUE(calls_seen().empty());
    const size_t before = open_descriptors();
    for (std::string name : {"getdtablesize", "calloc", "pipe", "fdopen", "execl"})
        for (const char *type : {"r", "w"}) {
            calls_watch(calls_fail(name, 0, ENFILE));
            FILE *stream = _open("exit 9", type);
            EXPECT_EQ(stream != nullptr, name == "execl") << name;
            EXPECT_TRUE(stream ? pclose2(stream) == 0 : errno == ENFILE) << name;
            calls_stop();
            EXPECT_EQ(open_descriptors(), before) << name;
        }
    // Two shells ran without a stream, and two did not become one.
    EXPECT_EQ(_reap() + _reap() + _reap() + _reap(), 9 + 9 + 127 + 127);
    rlimit limit = {};
    getrlimit(RLIMIT_NPROC, &limit);
    const rlimit none = {0, limit.rlim_max};
    const uid_t user = geteuid();
    ASSERT_TRUE(user != 0 || setresuid(65534, 65534, 0) == 0); // root is not bound by the limit
    setrlimit(RLIMIT_NPROC, &none);
    EXPECT_EQ(_open("exit 0", "r"), nullptr);
    setrlimit(RLIMIT_NPROC, &limit);
    ASSERT_EQ(setresuid(user, user, user), 0);
    EXPECT_EQ(open_descriptors(), before);
}
