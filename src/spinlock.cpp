// SPDX-License-Identifier: MIT
#include <common/spinlock.h>

// Acquire and release, no more: on ARM one full barrier each, after the exchange and before the
// store.
static inline int _try_lock(spinlock_t *spin)
{
    return __atomic_exchange_n(&spin->v_, 1, __ATOMIC_ACQUIRE) == 0;
}

// Apart, so that who finds the lock free does not pay for a waiter's registers.
__attribute__((noinline)) static void _spinlock_wait(spinlock_t *spin)
{
    unsigned k = 0;
    do
        yield_k(k++);
    while (!_try_lock(spin));
}

void spinlock_init(spinlock_t *spin)
{
    spin->v_ = 0;
}

int spinlock_try_lock(spinlock_t *spin)
{
    return _try_lock(spin);
}

void spinlock_lock(spinlock_t *spin)
{
    if (!_try_lock(spin))
        _spinlock_wait(spin);
}

void spinlock_unlock(spinlock_t *spin)
{
    __atomic_store_n(&spin->v_, 0, __ATOMIC_RELEASE);
}
