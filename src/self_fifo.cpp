// SPDX-License-Identifier: MIT
#include <common/self_fifo.h>

#include "rwlock_internal.h"

#include <cstring>

struct tFill {
    const uint32_t count;
    uint32_t depth;
};

static tFill _look(tFifo *aipcFifo)
{
    rwlock_take(pthread_rwlock_tryrdlock, &aipcFifo->fifoRwLk);
    const tFill fill{aipcFifo->Counter, aipcFifo->Depth};
    (void)pthread_rwlock_unlock(&aipcFifo->fifoRwLk);
    return fill;
}

static void _write_lock(tFifo *aipcFifo)
{
    rwlock_take(pthread_rwlock_trywrlock, &aipcFifo->fifoRwLk);
}

// The callers hold the lock for writing.
static char *_slot(tFifo *aipcFifo, uint32_t index)
{
    const uint32_t offset = aipcFifo->ElementBytes * index;
    return static_cast<char *>(aipcFifo->Buff) + offset;
}

static uint32_t _next(const tFifo *aipcFifo, uint32_t index)
{
    return index + 1 >= aipcFifo->Depth ? 0 : index + 1;
}

void fifo_init(tFifo *aipcFifo, void *aipBuff, uint32_t aicElemBytes, uint32_t aicDepth)
{
    aipcFifo->Buff = aipBuff;
    aipcFifo->ElementBytes = aicElemBytes;
    aipcFifo->Depth = aicDepth;
    aipcFifo->Head = 0;
    aipcFifo->Tail = 0;
    aipcFifo->Counter = 0;
    (void)pthread_rwlock_init(&aipcFifo->fifoRwLk, nullptr);
}

int fifo_is_empty(tFifo *aipcFifo)
{
    return _look(aipcFifo).count == 0;
}

int fifo_is_full(tFifo *aipcFifo)
{
    const tFill fill = _look(aipcFifo);
    return fill.count == fill.depth;
}

uint32_t fifo_get_data_count(tFifo *aipcFifo)
{
    return _look(aipcFifo).count;
}

// Test and update are one critical section. Otherwise another producer could take the last free
// slot, or another consumer the last element, between the two.
int fifo_add_one(tFifo *aipcFifo, void *aipVal)
{
    _write_lock(aipcFifo);
    const uint32_t count = aipcFifo->Counter;
    const bool room = count != aipcFifo->Depth;
    if (room) {
        const uint32_t tail = aipcFifo->Tail;
        memcpy(_slot(aipcFifo, tail), aipVal, aipcFifo->ElementBytes);
        aipcFifo->Tail = _next(aipcFifo, tail);
        aipcFifo->Counter = count + 1;
    }
    (void)pthread_rwlock_unlock(&aipcFifo->fifoRwLk);
    return room;
}

uint32_t fifo_add(tFifo *aipcFifo, void *aipVals, uint32_t aicElemCntToAdd)
{
    auto *val = static_cast<char *>(aipVals);
    uint32_t done = 0;
    for (; done < aicElemCntToAdd && fifo_add_one(aipcFifo, val); done++)
        val += aipcFifo->ElementBytes;
    return done;
}

int fifo_get_one(tFifo *aipcFifo, void *aopVal)
{
    _write_lock(aipcFifo);
    const uint32_t count = aipcFifo->Counter;
    if (count != 0) {
        const uint32_t head = aipcFifo->Head;
        memcpy(aopVal, _slot(aipcFifo, head), aipcFifo->ElementBytes);
        aipcFifo->Head = _next(aipcFifo, head);
        aipcFifo->Counter = count - 1;
    }
    (void)pthread_rwlock_unlock(&aipcFifo->fifoRwLk);
    return count != 0;
}

uint32_t fifo_get(tFifo *aipcFifo, void *aopVals, uint32_t aicElemCntToRead)
{
    auto *val = static_cast<char *>(aopVals);
    uint32_t done = 0;
    for (; done < aicElemCntToRead && fifo_get_one(aipcFifo, val); done++)
        val += aipcFifo->ElementBytes;
    return done;
}

void fifo_clear(tFifo *aipcFifo)
{
    _write_lock(aipcFifo);
    aipcFifo->Counter = 0;
    aipcFifo->Head = 0;
    aipcFifo->Tail = 0;
    (void)pthread_rwlock_unlock(&aipcFifo->fifoRwLk);
}
