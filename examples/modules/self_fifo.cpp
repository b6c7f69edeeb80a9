// SPDX-License-Identifier: MIT
// One thread produces, another consumes. The producer waits while the ring is full.
#include <common/self_fifo.h>
#include <common/self_log.h>

#include <cstdio>
#include <sched.h>

eLogLevl gLogLevl = LOG_LEV_ERROR;

struct tSample {
    uint32_t number;
    uint32_t square;
};

static tSample giSlots[8];
static tFifo giFifo;
static constexpr uint32_t gicSamples = 1000;

static void *produce(void *)
{
    for (uint32_t i = 0; i < gicSamples; i++) {
        tSample sample = {i, i * i};
        while (fifo_add_one(&giFifo, &sample) == 0)
            (void)sched_yield(); // a real daemon drops, counts, or waits on a semaphore
    }
    return nullptr;
}

int main()
{
    pthread_t producer;
    uint32_t next = 0;
    fifo_init(&giFifo, giSlots, sizeof giSlots[0], 8);
    if (pthread_create(&producer, nullptr, produce, nullptr) != 0)
        return 1;
    while (next < gicSamples) {
        tSample some[4];
        const uint32_t got = fifo_get(&giFifo, some, 4);
        for (uint32_t i = 0; i < got; i++, next++) {
            if (some[i].number != next || some[i].square != next * next)
                return 1;
        }
        if (got == 0)
            (void)sched_yield();
    }
    (void)pthread_join(producer, nullptr); // it was created just above
    printf("%u samples in order, ring empty: %d\n", next, fifo_is_empty(&giFifo));
    return 0;
}
