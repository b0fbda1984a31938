// POSIX building blocks shared by the lock classes: creation of the mutexes
// and monotonic condition variables, timed mutex locking, and a condition wait
// that stays safe when the waiting thread is cancelled.
#pragma once

#include <cstdint>
#include <ctime>
#include <pthread.h>

namespace Halvern {
namespace CommonCpp {
namespace Osal {

void osalInitMutex(pthread_mutex_t& mutex, int type);
void osalInitMonotonicCondition(pthread_cond_t& condition);

// The mutexes' lock(int32_t): negative waits, 0 tries, positive waits until
// a CLOCK_REALTIME deadline (the clock pthread_mutex_timedlock requires).
bool osalLockMutex(pthread_mutex_t& mutex, int32_t timeoutMs);

// Waits on the condition until ready() holds or the deadline (CLOCK_MONOTONIC,
// null for none) passes; returns ready(). The caller holds the mutex, and holds
// it again afterwards, except when the wait is left by cancellation or an
// exception: then the mutex is released before the unwinding goes on.
template <typename Ready>
bool osalWaitFor(pthread_mutex_t& mutex, pthread_cond_t& condition, const timespec* deadline,
                 Ready ready)
{
    try {
        while (!ready()) {
            if (deadline == nullptr) {
                pthread_cond_wait(&condition, &mutex);
            } else if (pthread_cond_timedwait(&condition, &mutex, deadline) != 0) {
                break;
            }
        }
    } catch (...) {
        pthread_mutex_unlock(&mutex);
        throw;
    }
    return ready();
}

} // namespace Osal
} // namespace CommonCpp
} // namespace Halvern
