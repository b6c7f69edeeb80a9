// SPDX-License-Identifier: MIT
#include "rwlock_internal.h"

#include "thread_internal.h"

#include <ctime>
#include <sched.h>

static constexpr unsigned gicYields = 16;
static constexpr timespec gicNap = {0, 50000};

void rwlock_wait(int (*aicpTry)(pthread_rwlock_t *), pthread_rwlock_t *aiopLk)
{
    for (unsigned tries = 0; aicpTry(aiopLk) != 0; tries++) {
        if (tries < gicYields) {
            (void)sched_yield();
            continue;
        }
        const int was = thread_defer_cancel(); // a cancel could take effect in the sleep
        (void)nanosleep(&gicNap, nullptr);     // a signal may end it early
        thread_restore_cancel(was);
    }
}
