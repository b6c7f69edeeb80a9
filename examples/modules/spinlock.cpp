// SPDX-License-Identifier: MIT
// Four threads count under one lock.
#include <common/self_log.h>
#include <common/spinlock.h>

#include <cstdio>
#include <pthread.h>

eLogLevl gLogLevl = LOG_LEV_ERROR;

static spinlock_t giCntLk; // zero is a free lock
static int giCnt;

static void *count(void *)
{
    for (int i = 0; i < 10000; i++) {
        spinlock_lock(&giCntLk);
        giCnt++;
        spinlock_unlock(&giCntLk);
    }
    return nullptr;
}

int main()
{
    pthread_t threads[4];
    for (pthread_t &thread : threads) {
        if (pthread_create(&thread, nullptr, count, nullptr) != 0)
            return 1;
    }
    for (pthread_t thread : threads)
        (void)pthread_join(thread, nullptr); // each was created just above
    printf("%d\n", giCnt);
    return spinlock_try_lock(&giCntLk) == 1 ? 0 : 1;
}
