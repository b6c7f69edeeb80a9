// SPDX-License-Identifier: MIT
#include "calls.h"
#include "support.h"

#include <atomic>
#include <common/self_fifo.h>
#include <common/self_log.h>

eLogLevl gLogLevl = LOG_LEV_ERROR;

// Random batches against a string. The slots, and what is handed in or out, end at a wall.
TEST(Fifo, RandomBatches)
{
    std::mt19937 rng(3);
    char *slots = wall(), *outside = wall();
    for (uint32_t depth = 0; depth < 40; depth++) {
        const uint32_t size = 1 + uint32_t(rng() % 33);
        std::string want;
        tFifo fifo;
        fifo_init(&fifo, slots - depth * size, size, depth);
        for (unsigned i = 0; i < 1000; i++) {
            const bool adds = rng() % 2;
            const size_t count = rng() % (i % 2 ? 3 : depth + 3), held = want.size() / size;
            const size_t done = std::min(count, adds ? depth - held : held), bytes = done * size;
            std::string after = noise(count * size, i);
            char *vals = outside - after.size();
            after.copy(vals, after.size());
            calls_watch();
            SCOPED_TRACE(testing::Message() << (adds ? "fifo_add " : "fifo_get ") << count
                                            << " with " << held << " in " << depth);
            ASSERT_EQ((adds ? fifo_add : fifo_get)(&fifo, vals, uint32_t(count)), done);
            ASSERT_EQ(calls_seen().size(), std::min(count, done + 1)) << "rounds of the lock";
            if (adds)
                want += after.substr(0, bytes);
            else
                after.replace(0, bytes, want, 0, bytes);
            want.erase(0, adds ? 0 : bytes);
            ASSERT_EQ(std::string(vals, after.size()), after);
            if (i % 100 == 99) {
                fifo_clear(&fifo);
                want.clear();
                ASSERT_TRUE(fifo.Head == 0 && fifo.Tail == 0);
            }
            ASSERT_EQ(pthread_rwlock_trywrlock(&fifo.fifoRwLk), 0) << "a call has kept the lock";
            pthread_rwlock_unlock(&fifo.fifoRwLk);
            ASSERT_EQ(fifo_get_data_count(&fifo), want.size() / size);
            ASSERT_EQ(fifo_is_empty(&fifo), want.empty());
            ASSERT_EQ(fifo_is_full(&fifo), want.size() == depth * size);
            ASSERT_EQ(calls_count("pthread_rwlock_tryrdlock"), 3u);
            calls_stop();
        }
    }
}

// Just before the lock is taken another thread's call takes the last room, or the last element.
TEST(Fifo, TestAndUpdateAreOneStep)
{
    int slots[2] = {}, mine = 1, other = 2;
    tFifo fifo;
    fifo_init(&fifo, slots, sizeof mine, 2);
    EXPECT_EQ(fifo_add_one(&fifo, &mine), 1);
    for (const auto call : {fifo_add_one, fifo_get_one}) {
        calls_watch([&](const tCall &) { return call(&fifo, &other) - 1; });
        EXPECT_EQ(call(&fifo, &mine), 0);
        calls_stop();
        EXPECT_EQ(slots[1], 2);
        EXPECT_EQ(fifo_get_one(&fifo, &mine), call == fifo_add_one) << "leaves one, or none";
    }
    EXPECT_TRUE(mine == 1 && other == 2);
    calls_watch([&](const tCall &) { return fifo_add_one(&fifo, &other) - 1; });
    fifo_clear(&fifo);
    calls_stop();
    EXPECT_EQ(fifo_get_data_count(&fifo), 0u) << "one was added before the clear";
}

// Every element arrives once, and those of one producer in its order.
TEST(Fifo, ManyProducersAndConsumers)
{
    unsigned slots[2];
    tFifo fifo;
    fifo_init(&fifo, slots, sizeof slots[0], 2);
    std::atomic<unsigned> sum{0}, disorder{0};
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 4; t++)
        threads.emplace_back([&, t] {
            unsigned last[4] = {};
            for (unsigned i = 1; i <= 20000; i++) {
                unsigned v = i * 4 + t;
                for (const auto call : {fifo_add_one, fifo_get_one})
                    while (!call(&fifo, &v))
                        sched_yield();
                disorder += v <= std::exchange(last[v % 4], v);
                sum += v;
            }
        });
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(disorder, 0u);
    EXPECT_EQ(sum, 16u * 10000 * 20001 + 6 * 20000);
}

TEST(Fifo, NoPriorityKeepsAnotherFromItsStep)
{
    int slots[16];
    tFifo fifo;
    fifo_init(&fifo, slots, sizeof slots[0], 16);
    between_priorities([&] {
        int one = 1;
        fifo_get(&fifo, &one, fifo_add(&fifo, &one, 1));
    });
}
