// SPDX-License-Identifier: MIT
#include <common/spinlock.h>

static_assert(sizeof(spinlock_t) == sizeof(int), "the lock is one word");

namespace
{
// The full barrier behind the exchange. On x86 that is one itself, and only the compiler must be
// held back. Elsewhere the older builtin: gcc has no fence that it accepts under the thread
// sanitizer.
inline void _barrier_behind_exchange()
{
#if defined __x86_64__ || defined __i386__
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
#else
    __sync_synchronize();
#endif
}

inline int _try_lock(spinlock_t *spin)
{
    int was = __atomic_exchange_n(&spin->v_, 1, __ATOMIC_ACQUIRE);
    _barrier_behind_exchange();
    return was == 0;
}
} // namespace

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
    for (unsigned k = 0; !_try_lock(spin); k++)
        yield_k(k);
}

void spinlock_unlock(spinlock_t *spin)
{
    __sync_synchronize();
    __atomic_store_n(&spin->v_, 0, __ATOMIC_RELEASE);
}
