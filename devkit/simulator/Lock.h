// A lock for std::lock_guard. std::mutex can't be used here: libwinpthread allocates for it through an import table
// that may be redirected.
#pragma once

#include <mutex>

#include <windows.h>

namespace Simulator {

/// Not recursive. A thread must not be killed while it holds one: waiting threads never do.
class Lock {
public:
    void lock() { AcquireSRWLockExclusive(&m_lock); }
    void unlock() { ReleaseSRWLockExclusive(&m_lock); }

private:
    SRWLOCK m_lock = SRWLOCK_INIT;
};
using LockGuard = std::lock_guard<Lock>;

}  // namespace Simulator
