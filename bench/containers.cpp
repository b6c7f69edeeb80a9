// SPDX-License-Identifier: MIT
// The FIFO, the spinlock and the byte buffer.
#include "bench.h"

#include <array>
#include <cstring>
#include <deque>
#include <glib.h>
#include <pthread.h>
#include <sched.h>

#include <common/buffer.h>
#include <common/self_fifo.h>
#include <common/spinlock.h>

// --- FIFO -------------------------------------------------------------------------------------

using tElement = std::array<uint32_t, 8>;
static constexpr uint32_t gicDepth = 256;

struct tOurFifo {
    std::array<tElement, gicDepth> slots;
    tFifo fifo;
    tOurFifo()
    {
        fifo_init(&fifo, slots.data(), sizeof(tElement), gicDepth);
    }
    bool add(tElement &element)
    {
        return fifo_add_one(&fifo, &element) == 1;
    }
    bool get(tElement &element)
    {
        return fifo_get_one(&fifo, &element) == 1;
    }
};

// As bounded as ours, under a mutex.
struct tPeerFifo {
    std::mutex lock;
    std::deque<tElement> queue;
    bool add(tElement &element)
    {
        const std::lock_guard<std::mutex> hold(lock);
        if (queue.size() == gicDepth)
            return false;
        queue.push_back(element);
        return true;
    }
    bool get(tElement &element)
    {
        const std::lock_guard<std::mutex> hold(lock);
        if (queue.empty())
            return false;
        element = queue.front();
        queue.pop_front();
        return true;
    }
};

// One thread: as many in as out, the ring half full.
template <typename tQueue> static tRun alone(std::shared_ptr<tQueue> queue)
{
    tElement element = {};
    for (element[0] = 0; element[0] < gicDepth / 2; ++element[0])
        expect(queue->add(element), "the queue is full");
    for (uint32_t i = 0; i < gicDepth / 2; ++i) {
        expect(queue->get(element) && element[0] == i, "not in order");
        expect(queue->add(element), "the queue is full");
    }
    return each([=] {
        tElement one = element;
        queue->add(one);
        queue->get(one);
        benchmark::DoNotOptimize(one);
    });
}

// Two threads, producer and consumer; whoever cannot go on lets the other one run.
template <typename tQueue> static tRun between_two(std::shared_ptr<tQueue> queue)
{
    auto team = std::make_shared<tTeam>(2);
    auto fault = std::make_shared<bool>(false);
    const tTeam::tJob job = [=](size_t who, size_t times) {
        tElement element = {};
        for (uint32_t i = 0; i < times; ++i) {
            if (who == 0)
                element[0] = i;
            while (who == 0 ? !queue->add(element) : !queue->get(element))
                sched_yield();
            if (element[0] != i)
                *fault = true;
        }
    };
    team->work(&job, 1000);
    expect(!*fault, "not in order");
    return [=](size_t times) { team->work(&job, times); };
}

static tDuel fifo_duel(bool two)
{
    auto ours = std::make_shared<tOurFifo>();
    auto its = std::make_shared<tPeerFifo>();
    if (!two)
        return {alone(ours), alone(its)};
    tDuel duel = {between_two(ours), between_two(its)};
    duel.least = 10000;
    return duel;
}

// --- spinlock ---------------------------------------------------------------------------------

struct tOurSpin {
    spinlock_t lock_ = {};
    void lock()
    {
        spinlock_lock(&lock_);
    }
    void unlock()
    {
        spinlock_unlock(&lock_);
    }
};

struct tPosixSpin {
    pthread_spinlock_t lock_;
    tPosixSpin()
    {
        pthread_spin_init(&lock_, PTHREAD_PROCESS_PRIVATE);
    }
    void lock()
    {
        pthread_spin_lock(&lock_);
    }
    void unlock()
    {
        pthread_spin_unlock(&lock_);
    }
};

struct tPosixMutex {
    pthread_mutex_t lock_ = PTHREAD_MUTEX_INITIALIZER;
    void lock()
    {
        pthread_mutex_lock(&lock_);
    }
    void unlock()
    {
        pthread_mutex_unlock(&lock_);
    }
};

template <typename tLock> struct alignas(64) tCounter {
    tLock lock;
    uint64_t count = 0;
};

template <typename tLock> static tRun uncontended()
{
    auto counter = std::make_shared<tCounter<tLock>>();
    return each([=] {
        counter->lock.lock();
        counter->count++;
        counter->lock.unlock();
    });
}

template <typename tLock> static tRun contended()
{
    auto counter = std::make_shared<tCounter<tLock>>();
    auto team = std::make_shared<tTeam>(2);
    const tTeam::tJob job = [=](size_t, size_t times) {
        for (size_t i = 0; i < times; ++i) {
            counter->lock.lock();
            counter->count++;
            counter->lock.unlock();
        }
    };
    team->work(&job, 10000);
    expect(counter->count == 20000, "the lock does not exclude");
    return together(team, 2, job);
}

// --- buffer -----------------------------------------------------------------------------------

static tDuel buffer_duel()
{
    std::shared_ptr<buffer_t> ours(buffer_init(0), buffer_free);
    std::shared_ptr<GByteArray> its(g_byte_array_new(), g_byte_array_unref);
    const tRun write = each([=] {
        buffer_reset(ours.get());
        for (uint32_t i = 0; i < 16; ++i)
            write_uint32(ours.get(), i * 0x01020304);
    });
    const tRun append = each([=] {
        g_byte_array_set_size(its.get(), 0);
        for (uint32_t i = 0; i < 16; ++i) {
            const uint32_t value = GUINT32_TO_BE(i * 0x01020304);
            g_byte_array_append(its.get(), reinterpret_cast<const guint8 *>(&value), 4);
        }
    });
    write(1);
    append(1);
    expect(ours->used == 64 && its->len == 64 && memcmp(ours->ptr, its->data, 64) == 0,
           "the outputs differ");
    return {write, append};
}

void add_containers()
{
    const char *deque = "mutex and std::deque";
    add_row({"FIFO add and get, one thread", deque, [] { return fifo_duel(false); }});
    add_row({"spinlock, uncontended", "pthread_spin", [] {
                 return tDuel{uncontended<tOurSpin>(), uncontended<tPosixSpin>()};
             }});
    add_row({"buffer, 16 × write_uint32, reused", "GByteArray", buffer_duel});
    if (gibBoard)
        return;
    add_row({"FIFO add and get, two threads", deque, [] { return fifo_duel(true); }});
    add_row({"spinlock, two threads", "pthread_mutex", [] {
                 tDuel duel = {contended<tOurSpin>(), contended<tPosixMutex>()};
                 duel.least = 20000;
                 return duel;
             }});
}
