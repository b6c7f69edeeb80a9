// SPDX-License-Identifier: MIT
// Measures the library against its yardsticks and prints one table, in time or, with --board, in
// instructions.
//
// Each row is one Google Benchmark. An iteration of it is a round: subject and yardstick each get
// a turn of about a tenth of a millisecond, one behind the other, so that whatever else the machine
// is doing meets both. A repetition gives the medians of its rounds, the repetitions of all rows
// are shuffled over the whole run, and the table shows the medians of the repetitions.
#include "bench.h"

#include <algorithm>
#include <common/self_log.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <map>
#include <regex>
#include <sys/resource.h>
#include <unistd.h>

eLogLevl gLogLevl = LOG_LEV_ERROR;

bool gibBoard;

static int giRounds = 40;
static int giRepetitions = 15;
static double giTurnNs = 1e5;
static constexpr double gicFlat = 1.10; // how much more than the yardstick's a cost may grow

static std::vector<tRow> giRows;
static FILE *gipOut; // what was standard output; the library's own notices go nowhere

void add_row(tRow row)
{
    giRows.push_back(std::move(row));
}

static std::string name_of(const tRow &row)
{
    return row.subject + " | " + row.yardstick;
}

// --- one row ----------------------------------------------------------------------------------

static double median(std::vector<double> values)
{
    const auto mid = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), mid, values.end());
    return *mid;
}

static double now_ns()
{
    timespec now = {};
    (void)clock_gettime(gibBoard ? CLOCK_THREAD_CPUTIME_ID : CLOCK_MONOTONIC, &now); // both exist
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

static double turn_ns(const tDuel &duel, const tRun &side, size_t times)
{
    const double begin = now_ns();
    side(times);
    const double took = now_ns() - begin;
    duel.settle();
    return took;
}

static size_t times_in_turn(const tDuel &duel, const tRun &side)
{
    size_t times = duel.least;
    while (times < duel.most && turn_ns(duel, side, times) < giTurnNs)
        times *= 2;
    return std::min(times, duel.most);
}

static double allocations_each(const tDuel &duel, const tRun &side, size_t times)
{
    count_allocations(true);
    side(times);
    duel.settle(); // what a service thread does later counts as well
    const uint64_t calls = allocations();
    count_allocations(false);
    return static_cast<double>(calls) / static_cast<double>(times);
}

static void run_row(benchmark::State &state, const tRow &row)
{
    const tDuel duel = row.make();
    const size_t ours = times_in_turn(duel, duel.subject);
    const size_t its = times_in_turn(duel, duel.yardstick);
    const double calls = allocations_each(duel, duel.subject, ours);
    expect(row.allocates || calls == 0, "calls the allocator");

    std::vector<double> subject;
    std::vector<double> yardstick;
    std::vector<double> ratio;
    bool first = false;
    for (auto _ : state) {
        double a = 0;
        double b = 0;
        first = !first;
        if (first)
            a = turn_ns(duel, duel.subject, ours) / static_cast<double>(ours);
        b = turn_ns(duel, duel.yardstick, its) / static_cast<double>(its);
        if (!first)
            a = turn_ns(duel, duel.subject, ours) / static_cast<double>(ours);
        subject.push_back(a / row.parts);
        yardstick.push_back(b / row.parts);
        ratio.push_back(a / b);
        state.SetIterationTime(a * 1e-9);
    }
    state.counters["subject"] = median(subject);
    state.counters["yardstick"] = median(yardstick);
    state.counters["ratio"] = median(ratio);
    state.counters["calls"] = calls;
}

static void run_row_or_fail(benchmark::State &state, const tRow &row)
{
    try {
        run_row(state, row);
    } catch (const std::runtime_error &fault) {
        state.SkipWithError(fault.what());
    }
}

// --- the tables -------------------------------------------------------------------------------

struct tResult {
    double subject, yardstick, ratio, calls;
};

class tTables : public benchmark::BenchmarkReporter
{
  public:
    bool failed = false;
    std::map<std::string, tResult> results;

    bool ReportContext(const Context &) override
    {
        return true;
    }
    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &run : runs) {
            const std::string &name = run.run_name.function_name;
            if (run.error_occurred) {
                fprintf(stderr, "%s: FAILED: %s\n", name.c_str(), run.error_message.c_str());
                failed = true;
            } else if (run.aggregate_name == "median" || run.repetitions == 1) {
                const auto &at = run.counters;
                results[name] = {at.at("subject"), at.at("yardstick"), at.at("ratio"),
                                 at.at("calls")};
            }
        }
    }
};

static std::string speed(const tRow &row, double ns)
{
    char text[32];
    if (gibBoard && row.bytes > 0)
        (void)snprintf(text, sizeof text, "%.2f a byte", ns / row.bytes);
    else if (gibBoard)
        (void)snprintf(text, sizeof text, ns < 100 ? "%.1f" : "%.0f", ns);
    else if (row.bytes > 0)
        (void)snprintf(text, sizeof text, "%.0f MB/s", row.bytes / ns * 1e3);
    else
        (void)snprintf(text, sizeof text, ns < 100 ? "%.2f ns" : "%.0f ns", ns);
    return text;
}

static void print_rows(const tTables &tables)
{
    const char *unit = gibBoard ? "instructions" : "its speed";
    fprintf(gipOut,
            "| subject | %s | yardstick | %s | ratio | allocations |\n"
            "| --- | ---: | --- | ---: | ---: | ---: |\n",
            unit, unit);
    for (const tRow &row : giRows) {
        const auto at = tables.results.find(name_of(row));
        if (at == tables.results.end())
            continue;
        const tResult &got = at->second;
        fprintf(gipOut, "| %s | %s | %s | %s | %.2f | %.3g |\n", row.subject.c_str(),
                speed(row, got.subject).c_str(), row.yardstick.c_str(),
                speed(row, got.yardstick).c_str(), got.ratio, got.calls);
    }
}

// A family's smallest and largest size: the time per part, or per byte, and how both sides' grow.
static void print_growth(const tTables &tables)
{
    std::map<std::string, std::map<double, const tRow *>> families;
    for (const tRow &row : giRows)
        if (!row.family.empty() && tables.results.count(name_of(row)) != 0)
            families[row.family][row.size] = &row;
    const char *head = "\n| cost | from | to | its growth | the yardstick's | flat |\n"
                       "| --- | ---: | ---: | ---: | ---: | --- |\n";
    for (const auto &[family, sizes] : families) {
        if (sizes.size() < 2)
            continue;
        fputs(head, gipOut);
        head = "";
        const tRow &small = *sizes.begin()->second;
        const tRow &large = *sizes.rbegin()->second;
        const tResult &from = tables.results.at(name_of(small));
        const tResult &to = tables.results.at(name_of(large));
        const double scale = small.bytes > 0 ? small.bytes / large.bytes : 1;
        const double ours = to.subject / from.subject * scale;
        const double its = to.yardstick / from.yardstick * scale;
        fprintf(gipOut, "| %s | %.0f: %s | %.0f: %s | %.2f | %.2f | %s |\n", family.c_str(),
                small.size, speed(small, from.subject).c_str(), large.size,
                speed(large, to.subject).c_str(), ours, its,
                ours < gicFlat * std::max(its, 1.0) ? "yes" : "**no**");
    }
}

// --- the program ------------------------------------------------------------------------------

// The peers look at these while the program is loaded: so the program starts once more.
static void use_scalar_peers(char **argv)
{
    if (getenv("NETTLE_FAT_OVERRIDE") != nullptr)
        return;
#ifdef __arm__
    setenv("OPENSSL_armcap", "0", 1);
    setenv("NETTLE_FAT_OVERRIDE", "arch:5", 1);
#else
    setenv("OPENSSL_ia32cap", "0:0", 1);
    setenv("NETTLE_FAT_OVERRIDE", "vendor:other", 1);
#endif
    execv("/proc/self/exe", argv);
    perror("execv");
    exit(1);
}

static void set_up_process()
{
    gipOut = fdopen(dup(1), "w");
    const int none = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (gipOut == nullptr || none == -1 || dup2(none, 1) == -1) {
        perror("standard output");
        exit(1);
    }
    rlimit files = {};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max; // both ends of 2000 connections
    setrlimit(RLIMIT_NOFILE, &files);
}

int main(int argc, char **argv)
{
    use_scalar_peers(argv);
    gibBoard = argc > 1 && strcmp(argv[1], "--board") == 0;
    if (gibBoard) { // exact: the median of three is there for what the kernel does meanwhile
        giRounds = 3;
        giRepetitions = 1;
        giTurnNs = 4e6;
        --argc;
        ++argv;
    }
    const bool list = argc == 2 && strcmp(argv[1], "--list") == 0;
    const bool only = argc == 3 && strcmp(argv[1], "--only") == 0;
    if (argc != 1 && !list && !only) {
        fputs("usage: kelvara_bench [--board] [--list | --only REGEX]\n", stderr);
        return 2;
    }
    set_up_process();
    add_codecs();
    add_services();
    add_containers();

    const std::regex wanted(only ? argv[2] : ".", std::regex::extended | std::regex::icase);
    size_t rows = 0;
    for (const tRow &row : giRows) {
        if (!std::regex_search(name_of(row), wanted))
            continue;
        ++rows;
        if (list)
            fprintf(gipOut, "%s\n", name_of(row).c_str());
        benchmark::RegisterBenchmark(name_of(row).c_str(), run_row_or_fail, row)
            ->Iterations(giRounds)
            ->Repetitions(giRepetitions)
            ->UseManualTime();
    }
    if (list)
        return fflush(gipOut) == 0 ? 0 : 1;
    if (rows == 0) {
        fputs("no row matches\n", stderr);
        return 2;
    }
    char program[] = "kelvara_bench";
    char shuffle[] = "--benchmark_enable_random_interleaving=true";
    char *flags[] = {program, shuffle, nullptr};
    int count = 2;
    benchmark::Initialize(&count, flags);
    tTables tables;
    benchmark::RunSpecifiedBenchmarks(&tables);
    print_rows(tables);
    print_growth(tables);
    return tables.failed || fflush(gipOut) != 0 ? 1 : 0;
}
