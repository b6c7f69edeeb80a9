// SPDX-License-Identifier: MIT
#include "calls.h"

#include <atomic>
#include <common/self_fifo.h>
#include <common/self_log.h>
#include <cstring>
#include <deque>
#include <gtest/gtest.h>
#include <numeric>
#include <random>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>

eLogLevl gLogLevl = LOG_LEV_ERROR;

namespace
{
char *_wall()
{
    auto page = size_t(sysconf(_SC_PAGESIZE));
    void *at = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    EXPECT_EQ(mprotect(static_cast<char *>(at) + page, page, PROT_NONE), 0);
    return static_cast<char *>(at) + page;
}

// Random batches against a deque. The slots, and what is handed in or out, end at a wall.
TEST(self_fifo, model)
{
    std::mt19937 rng(3);
    char *slots = _wall(), *outside = _wall();
    for (uint32_t depth = 0; depth < 40; depth++) {
        uint32_t bytes = 1 + uint32_t(rng() % 33), tail = 0;
        std::deque<std::string> want;
        tFifo fifo;
        fifo_init(&fifo, slots - depth * bytes, bytes, depth);
        for (int i = 0; i < 1000; i++) {
            auto count = uint32_t(rng() % (i % 2 ? 3 : depth + 3));
            char *vals = outside - count * bytes;
            for (char *c = vals; c < outside; c++)
                *c = char(rng());
            std::string after(vals, count * bytes);
            bool adds = rng() % 2;
            uint32_t done = std::min(count, uint32_t(adds ? depth - want.size() : want.size()));
            calls_watch();
            ASSERT_EQ((adds ? fifo_add : fifo_get)(&fifo, vals, count), done);
            ASSERT_EQ(calls_seen().size(), std::min(count, done + 1)) << "rounds of the lock";
            for (uint32_t at = 0; at < done * bytes; at += bytes) {
                if (adds) {
                    want.push_back(after.substr(at, bytes));
                } else {
                    after.replace(at, bytes, want.front());
                    want.pop_front();
                }
            }
            ASSERT_EQ(std::string(vals, count * bytes), after);
            tail = adds && done ? (tail + done) % depth : tail;
            ASSERT_EQ(fifo.Tail, tail);
            if (i % 100 == 99) {
                fifo_clear(&fifo);
                want.clear();
                tail = 0;
            }
            ASSERT_EQ(fifo_get_data_count(&fifo), want.size());
            ASSERT_EQ(fifo_is_empty(&fifo), want.empty());
            ASSERT_EQ(fifo_is_full(&fifo), want.size() == depth);
            ASSERT_EQ(calls_count("pthread_rwlock_rdlock"), 3u);
            calls_stop();
        }
    }
}

// Just before the lock is taken another thread's call takes the last room, or the last element.
TEST(self_fifo, test_and_update_are_one_step)
{
    int slots[2] = {}, mine = 1, other = 2;
    tFifo fifo;
    fifo_init(&fifo, slots, sizeof mine, 2);
    EXPECT_EQ(fifo_add_one(&fifo, &mine), 1);
    calls_watch([&](const tCall &) { return fifo_add_one(&fifo, &other) - 1; });
    EXPECT_EQ(fifo_add_one(&fifo, &mine), 0);
    calls_stop();
    EXPECT_EQ(fifo_get_one(&fifo, &mine), 1);
    calls_watch([&](const tCall &) { return fifo_get_one(&fifo, &other) - 1; });
    EXPECT_EQ(fifo_get_one(&fifo, &mine), 0);
    calls_stop();
    EXPECT_TRUE(slots[1] == 2 && mine == 1 && other == 2 && fifo.Counter == 0);
}

// Every element arrives once, and those of one producer in its order.
TEST(self_fifo, many_producers_and_consumers)
{
    constexpr unsigned gicEach = 20000;
    unsigned slots[7];
    tFifo fifo;
    fifo_init(&fifo, slots, sizeof slots[0], 7);
    std::vector<std::atomic<unsigned>> seen(4 * gicEach);
    std::atomic<unsigned> left{4 * gicEach}, disorder{0};
    std::thread threads[8];
    for (unsigned t = 0; t < 8; t++)
        threads[t] = std::thread([&, t] {
            unsigned id = t * gicEach, end = id + gicEach, some[3], last[4] = {};
            for (; t < 4 ? id < end : left > 0; sched_yield()) {
                std::iota(some, some + 3, id);
                if (t < 4)
                    id += fifo_add(&fifo, some, std::min(3u, end - id));
                for (unsigned k = t < 4 ? 0 : fifo_get(&fifo, some, 3), at = 0; at < k; at++) {
                    disorder += some[at] < std::exchange(last[some[at] / gicEach], some[at]);
                    seen[some[at]]++;
                    left--;
                }
            }
        });
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(disorder, 0u);
    for (auto &times : seen)
        ASSERT_EQ(times, 1u);
}
} // namespace
