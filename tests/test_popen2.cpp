// SPDX-License-Identifier: MIT
#include <common/popen2.h>

#include "calls.h"
#include "support.h"

#include <sys/resource.h>
#include <sys/wait.h>

static string gSent; // each signal, with the signals blocked at that time

static string blocked()
{
    string text;
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    for (int sig = 1; sig < 32; ++sig)
        if (sigismember(&mask, sig))
            text += " " + to_string(sig);
    return text;
}

// Sends nothing: the signal could reach any process.
extern "C" int kill(pid_t pid, int sig) noexcept
{
    gSent += to_string(pid) + " gets " + to_string(sig) + ", blocked:" + blocked();
    return 0;
}

static FILE *open_command(string program, string type)
{
    return popen2(program.data(), type.data());
}

static string line_of(FILE *stream)
{
    char line[16] = "";
    (void)!fgets(line, sizeof line, stream);
    return line;
}

// Waits for any child. Returns its exit status, or 1000 if a signal ended it.
static int reap()
{
    int status = 0;
    EXPECT_GT(wait(&status), 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000;
}

TEST(Popen2, EndsTheProcessAfterTheShell)
{
    EXPECT_EQ(-1, pclose2(stdin)); // before the first popen2()
    sigset_t mine;
    sigemptyset(&mine);
    sigaddset(&mine, SIGUSR1);
    pthread_sigmask(SIG_SETMASK, &mine, nullptr);
    for (const int err : {0, EPERM, 0}) {
        FILE *stream = open_command("echo $$; exit 3", "r");
        const int shell = std::stoi(line_of(stream));
        EXPECT_EQ(EOF, fgetc(stream));
        gSent.clear();
        calls_watch(calls_fail("kill", 0, err));
        errno = EDOM;
        EXPECT_EQ(err ? -1 : 0, pclose2(stream));
        EXPECT_EQ(err ? err : EDOM, errno);
        calls_stop();
        EXPECT_EQ(err ? "" : to_string(shell + 1) + " gets 15, blocked: 1 2 3 10", gSent);
        EXPECT_EQ(" 10", blocked());
        // A stream on the same descriptor, whose slot is empty by now; a stream without a
        // descriptor.
        for (FILE *other : {fopen("/dev/null", "w"), fmemopen(nullptr, 8, "w")}) {
            EXPECT_EQ(-1, pclose2(other));
            fclose(other);
        }
        EXPECT_EQ(3, reap()); // the shell is not reaped by pclose2()
    }
    EXPECT_EQ(-1, pclose2(nullptr));
    // The number may belong to a thread of this process: the signal would end the process.
    (void)threads_at_rest(); // a sanitizer starts its own thread with the first one
    for (bool ours = false; !ours;) {
        FILE *stream = open_command("echo $$", "r");
        gSent.clear();
        thread([&] {
            ours = gettid() == std::stoi(line_of(stream)) + 1;
            EXPECT_EQ(ours ? -1 : 0, pclose2(stream));
            EXPECT_TRUE(!ours || errno == ESRCH);
        }).join();
        EXPECT_EQ(ours, gSent.empty());
        reap();
    }
}

// With any standard descriptors closed, and with or without a slot for the stream in the table.
TEST(Popen2, AnyDescriptorsAndAnyTableSize)
{
    const auto life = [](const string &closed, bool reads, int slots) {
        alarm(20); // a command that inherits our end of the pipe never ends
        signal(SIGPIPE, SIG_DFL);
        for (const char fd : closed)
            close(fd - '0');
        int ends[2]; // the numbers that the command's pipe will have
        EXPECT_EQ(0, pipe(ends));
        close(ends[0]);
        close(ends[1]);
        calls_watch(calls_fail("getdtablesize", 1, -ends[reads ? 0 : 1] - slots)); // negated
        FILE *stream =
            open_command(reads ? "echo word; exec yes" : "exit $(wc -c)", reads ? "r" : "w");
        EXPECT_TRUE(reads ? line_of(stream) == "word\n" : fputs("12345\n\n", stream) >= 0);
        EXPECT_EQ(slots - 1, pclose2(stream));
        EXPECT_EQ(slots == 0, gSent.empty());
        if (slots == 0)
            fclose(stream);
        EXPECT_EQ(reads ? 1000 : 7, reap()) << "the command's end";
        leave(testing::Test::HasFailure());
    };
    const std::pair<string, int> cases[] = {{"", 0}, {"", 1}, {"0", 1}, {"1", 1}, {"01", 1}};
    for (const auto &[closed, slots] : cases)
        for (const bool reads : {true, false})
            EXPECT_EXIT(life(closed, reads, slots), testing::ExitedWithCode(0), "")
                << closed << " closed, " << slots << reads;
}

TEST(Popen2, FailuresLeaveNothingBehind)
{
    calls_watch();
    for (const char *type : {"", "x", "rw", "r+"})
        EXPECT_EQ(nullptr, open_command("exit 0", type)) << type;
    EXPECT_EQ(0U, calls_count("pipe"));
    const size_t before = open_descriptors();
    for (const string name : {"getdtablesize", "calloc", "pipe", "fdopen", "execl"}) {
        calls_watch(calls_fail(name, 0, ENFILE));
        FILE *stream = open_command("exit 9", "r");
        EXPECT_EQ(name == "execl", stream != nullptr) << name;
        EXPECT_TRUE(stream != nullptr ? pclose2(stream) == 0 : errno == ENFILE) << name;
        calls_stop();
        EXPECT_EQ(before, open_descriptors()) << name;
    }
    EXPECT_EQ(9 + 127, reap() + reap()); // a shell without a stream; a failed exec
    const uid_t user = geteuid();
    ASSERT_TRUE(user != 0 || setresuid(65534, 65534, 0) == 0); // the limit does not bind root
    rlimit limit = {};
    getrlimit(RLIMIT_NPROC, &limit);
    const rlimit none = {0, limit.rlim_max};
    setrlimit(RLIMIT_NPROC, &none);
    EXPECT_EQ(nullptr, open_command("exit 0", "r"));
    setrlimit(RLIMIT_NPROC, &limit);
    ASSERT_EQ(0, setresuid(user, user, user));
    EXPECT_EQ(before, open_descriptors());
}
