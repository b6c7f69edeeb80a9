// SPDX-License-Identifier: MIT
// What the parts of the bench share: a row of the table is a duel of two sides that take turns.
#pragma once
#include <benchmark/benchmark.h>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using tRun = std::function<void(size_t)>; // does an operation that many times

struct tDuel {
    tRun subject;
    tRun yardstick;
    std::function<void()> settle = [] {};             // after each turn, not timed
    size_t most = std::numeric_limits<size_t>::max(); // operations in one turn
    size_t least = 1;                                 // so that waking threads weighs little
};

struct tRow {
    std::string subject;
    std::string yardstick;
    std::function<tDuel()> make; // sets both sides up and compares what they do
    double bytes = 0;            // an operation's bytes; 0: not counted in bytes
    double parts = 1;            // an operation's equal parts; the time of one is shown
    bool allocates = false;      // the subject may call the allocator
    std::string family = {};     // rows of one family differ in size only
    double size = 0;
};

// On the board a nanosecond is an instruction, and a thread's own time is what counts: with one
// processor emulated at a time, what two threads do against each other means nothing there.
extern bool gibBoard;

void add_row(tRow row);
void add_codecs();
void add_containers();
void add_services();

// Calls of malloc(), calloc() and realloc() by all threads while counting is switched on.
void count_allocations(bool on);
uint64_t allocations();

// Ends the row, and in the end the program, with a failure.
inline void expect(bool ok, const std::string &what)
{
    if (!ok)
        throw std::runtime_error(what);
}

template <typename tOp> tRun each(tOp op)
{
    return [op](size_t times) {
        for (size_t i = 0; i < times; ++i) {
            op();
            benchmark::ClobberMemory();
        }
    };
}

// Threads that wait for work and do it together.
class tTeam
{
  public:
    using tJob = std::function<void(size_t who, size_t times)>;
    explicit tTeam(size_t members)
    {
        for (size_t who = 0; who < members; ++who)
            threads.emplace_back([this, who] { serve(who); });
    }
    tTeam(const tTeam &) = delete;
    tTeam &operator=(const tTeam &) = delete;
    ~tTeam()
    {
        work(nullptr, 0);
        for (std::thread &one : threads)
            one.join();
    }
    // Every member does `todo`, with `each_times` of its own; returns when all are done.
    void work(const tJob *todo, size_t each_times)
    {
        std::unique_lock<std::mutex> hold(lock);
        job = todo;
        times = each_times;
        busy = threads.size();
        ++turn;
        go.notify_all();
        done.wait(hold, [this] { return busy == 0; });
    }

  private:
    void serve(size_t who)
    {
        for (size_t seen = 0;;) {
            std::unique_lock<std::mutex> hold(lock);
            go.wait(hold, [&] { return turn != seen; });
            seen = turn;
            const tJob *todo = job;
            const size_t mine = times;
            hold.unlock();
            if (todo != nullptr)
                (*todo)(who, mine);
            hold.lock();
            if (--busy == 0)
                done.notify_one();
            if (todo == nullptr)
                return;
        }
    }
    std::mutex lock;
    std::condition_variable go, done;
    const tJob *job = nullptr;
    size_t times = 0, busy = 0, turn = 0;
    std::vector<std::thread> threads;
};

// A team's work as one side of a duel: the operations are shared out evenly.
inline tRun together(std::shared_ptr<tTeam> team, size_t members, tTeam::tJob job)
{
    return [=](size_t times) { team->work(&job, (times + members - 1) / members); };
}
