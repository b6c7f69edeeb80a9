// SPDX-License-Identifier: MIT
#include <common/spinlock.h>

// The thread sanitizer does not understand barriers. With it, the accesses themselves acquire and
// release.
#ifdef __SANITIZE_THREAD__
static constexpr bool gicbBarriers = false;
#else
static constexpr bool gicbBarriers = true;
#endif

// A full barrier, not only acquire or release: stores before the release of a lock are visible
// before later loads of the same thread.
static inline void _barrier()
{
    if (gicbBarriers)
        __sync_synchronize();
}

static inline int _try_lock(spinlock_t *spin)
{
    const int was =
        __atomic_exchange_n(&spin->v_, 1, gicbBarriers ? __ATOMIC_RELAXED : __ATOMIC_ACQUIRE);
    _barrier();
    return was == 0;
}

// Out of line: the uncontended path must not save the registers that waiting needs.
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
    _barrier();
    __atomic_store_n(&spin->v_, 0, gicbBarriers ? __ATOMIC_RELAXED : __ATOMIC_RELEASE);
}
