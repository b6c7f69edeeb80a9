// SPDX-License-Identifier: MIT
#include "calls.h"
#include "support.h"

#include <common/self_log.h>
#include <common/spinlock.h>

eLogLevl gLogLevl = LOG_LEV_ERROR;

// Another holder lets go during the back-off call number `last`; every sleep is interrupted.
TEST(Spinlock, BackOff)
{
    std::vector<std::string> want(28, "sched_yield");
    for (unsigned k = 32; k < 60; k++)
        want.push_back(k % 2 ? "sched_yield" : "nanosleep");
    spinlock_t lock{7};
    spinlock_init(&lock);
    for (unsigned last : {1u, 28u, 29u, 30u, 56u}) {
        SCOPED_TRACE(last);
        EXPECT_EQ(lock.v_, 0);
        EXPECT_EQ(spinlock_try_lock(&lock), 1);
        calls_watch([&](const tCall &call) {
            if (call.index == last)
                spinlock_unlock(&lock);
            return call.name == std::string("nanosleep") ? EINTR : 0;
        });
        spinlock_lock(&lock);
        calls_stop();
        EXPECT_EQ(calls_seen(), std::vector<std::string>(want.begin(), want.begin() + int(last)));
        EXPECT_EQ(spinlock_try_lock(&lock), 0);
        EXPECT_EQ(lock.v_, 1);
        spinlock_unlock(&lock);
        spinlock_unlock(&lock);
    }
}

TEST(Spinlock, OneAtATime)
{
    spinlock_t lock{0};
    long count = 0;
    auto work = [&] {
        for (int i = 0; i < 50000; i++, spinlock_unlock(&lock)) {
            if (i % 3 || !spinlock_try_lock(&lock))
                spinlock_lock(&lock);
            count++;
        }
    };
    std::thread other(work);
    work();
    other.join();
    EXPECT_EQ(count, 100000);
}
