// SPDX-License-Identifier: MIT
#include <common/self_fifo.h>

#include "calls.h"
#include "support.h"

// Random batches, compared with a string. The slots and the caller's array end at a wall.
TEST(Fifo, RandomBatches)
{
    std::mt19937 rng(3);
    char *slots = wall();
    char *outside = wall();
    tFifo fifo; // not cleared between the depths
    for (uint32_t depth = 0; depth < 40; ++depth) {
        const size_t size = 1 + rng() % 33;
        string held;
        fifo_init(&fifo, slots - depth * size, static_cast<uint32_t>(size), depth);
        for (unsigned i = 0; i < 1000; ++i) {
            const bool adds = rng() % 2;
            const size_t count = rng() % (i % 2 ? 3 : depth + 3);
            const size_t bytes =
                std::min(count * size, adds ? depth * size - held.size() : held.size());
            string after = noise(count * size, i);
            char *vals = outside - after.size();
            after.copy(vals, after.size());
            SCOPED_TRACE(Message()
                         << (adds ? "fifo_add " : "fifo_get ") << count << " of " << depth);
            ASSERT_EQ(bytes / size,
                      (adds ? fifo_add : fifo_get)(&fifo, vals, static_cast<uint32_t>(count)));
            if (adds) {
                held += after.substr(0, bytes);
            } else {
                after.replace(0, bytes, held, 0, bytes);
                held.erase(0, bytes);
            }
            ASSERT_EQ(after, string(vals, after.size()));
            if (i % 100 == 50) {
                fifo_clear(&fifo);
                held.clear();
            }
            ASSERT_EQ(held.size() / size, fifo_get_data_count(&fifo));
            ASSERT_EQ(held.empty(), fifo_is_empty(&fifo));
            ASSERT_EQ(held.size() == depth * size, fifo_is_full(&fifo));
        }
    }
}

// Right before the lock is taken, another call takes the last free slot or the last element.
TEST(Fifo, TestAndUpdateAreOneStep)
{
    int slots[2] = {};
    int mine = 1;
    int other = 2;
    tFifo fifo;
    fifo_init(&fifo, slots, sizeof mine, 2);
    EXPECT_EQ(1, fifo_add_one(&fifo, &mine));
    for (const auto call : {fifo_add_one, fifo_get_one}) {
        calls_watch([&](const tCall &) { return call(&fifo, &other) - 1; });
        EXPECT_EQ(0, call(&fifo, &mine));
        calls_stop();
        EXPECT_EQ(call == fifo_add_one, fifo_get_one(&fifo, &mine)) << "leaves one, or none";
    }
    calls_watch([&](const tCall &) { return fifo_add_one(&fifo, &other) - 1; });
    fifo_clear(&fifo);
    calls_stop();
    EXPECT_EQ(0U, fifo_get_data_count(&fifo)) << "one was added before the clear";
    // fifo_clear() waits for a reader.
    pthread_rwlock_rdlock(&fifo.fifoRwLk);
    calls_watch([&](const tCall &call) {
        return call.name == "nanosleep" ? pthread_rwlock_unlock(&fifo.fifoRwLk) : 0;
    });
    fifo_clear(&fifo);
    calls_stop();
    EXPECT_EQ(1U, calls_count("nanosleep"));
}

// Every element arrives once.
TEST(Fifo, ManyProducersAndConsumers)
{
    unsigned slots[2];
    tFifo fifo;
    fifo_init(&fifo, slots, sizeof slots[0], 2);
    atomic<unsigned> sum{0};
    in_threads(4, [&](int t) {
        for (unsigned i = 1; i <= 20000; ++i) {
            unsigned v = i * 4 + static_cast<unsigned>(t);
            for (const auto call : {fifo_add_one, fifo_get_one})
                while (!call(&fifo, &v))
                    sched_yield();
            sum += v;
        }
    });
    EXPECT_EQ(16U * 10000 * 20001 + 6 * 20000, sum);
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
