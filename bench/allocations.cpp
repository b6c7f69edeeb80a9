// SPDX-License-Identifier: MIT
// The allocator's entry points, counted on the way to the C library's own.
#include "bench.h"

#include <atomic>

static std::atomic<bool> giCounting;
static std::atomic<uint64_t> giCalls;

void count_allocations(bool on)
{
    giCalls = 0;
    giCounting = on;
}

uint64_t allocations()
{
    return giCalls;
}

static void note()
{
    if (giCounting.load(std::memory_order_relaxed))
        giCalls.fetch_add(1, std::memory_order_relaxed);
}

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t members, size_t size);
void *__libc_realloc(void *old, size_t size);

void *malloc(size_t size)
{
    note();
    return __libc_malloc(size);
}

void *calloc(size_t members, size_t size)
{
    note();
    return __libc_calloc(members, size);
}

void *realloc(void *old, size_t size)
{
    note();
    return __libc_realloc(old, size);
}
}
