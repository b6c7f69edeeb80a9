// SPDX-License-Identifier: MIT
#include <common/spinlock.h>

#include "calls.h"
#include "support.h"

// The holder unlocks during back-off call number `last`. Every sleep is interrupted.
TEST(Spinlock, BackOff)
{
    vector<string> want(28, "sched_yield");
    for (unsigned k = 32; k < 60; ++k)
        want.push_back(k % 2 ? "sched_yield" : "nanosleep");
    spinlock_t lock{7};
    spinlock_init(&lock);
    for (const unsigned last : {1U, 29U, 30U, 56U}) {
        EXPECT_EQ(1, spinlock_try_lock(&lock));
        vector<string> seen;
        calls_watch([&](const tCall &call) {
            seen.push_back(call.name);
            if (seen.size() == last)
                spinlock_unlock(&lock);
            return call.name == "nanosleep" ? EINTR : 0;
        });
        spinlock_lock(&lock);
        calls_stop();
        EXPECT_EQ(vector<string>(&want[0], &want[last]), seen);
        EXPECT_EQ(0, spinlock_try_lock(&lock));
        spinlock_unlock(&lock);
        spinlock_unlock(&lock);
    }
}

TEST(Spinlock, OneAtATime)
{
    spinlock_t lock{0};
    long count = 0;
    in_threads(2, [&](int) {
        for (int i = 0; i < 50000; ++i) {
            if (i % 3 || !spinlock_try_lock(&lock))
                spinlock_lock(&lock);
            ++count;
            spinlock_unlock(&lock);
        }
    });
    EXPECT_EQ(100000, count);
}
