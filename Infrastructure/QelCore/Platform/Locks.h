// The waiting objects of the platform layer: a recursive lock with timed acquisition, an
// auto-reset event, a counting semaphore, the release-and-wait that no wake-up can slip between,
// and monotonic deadlines.
//
// Porting decisions taken here:
// - Time-outs run on the monotonic clock (std::chrono::steady_clock, which waits through
//   pthread_cond_clockwait on CLOCK_MONOTONIC); a change of the wall clock never shortens or
//   lengthens a wait. A deadline that has passed means "try once".
// - A waiting thread blocks on a condition variable; nothing here spins. The uncontended paths are
//   one atomic operation on the owner word.
// - The kernel objects of the original platform (critical section, kernel mutex, event, semaphore)
//   become these small objects. A kernel mutex's "abandoned" result has no cause here: a thread
//   that ends while holding a lock leaves it held, as a pthread mutex does.
// - Wait results keep the original platform's codes, so that the callers' logic stays as it is.
#pragma once

#include "Infrastructure/QelCore/QelCoreExport.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace Qel::Core::Platform {

using Deadline = std::chrono::steady_clock::time_point;

// Results of a wait, with the values of the original platform.
constexpr int WAIT_SIGNALLED = 0;
constexpr int WAIT_TIMED_OUT = 258;
constexpr int WAIT_FAILED_CODE = -1;

// The deadline that lies `ticks` (100 ns each) from now; a negative count means now.
Deadline DeadlineAfterTicks(std::int64_t ticks);
// Ticks (100 ns) left until the deadline, 0 once it has passed.
std::int64_t TicksLeft(Deadline deadline);
inline bool HasPassed(Deadline deadline)
{
    return std::chrono::steady_clock::now() >= deadline;
}

// A lock that its owner may take again and again, with untimed, try and timed acquisition.
// The thread id is the kernel's (CurrentThreadId).
class QEL_CORE_LOCAL RecursiveTimedLock
{
public:
    RecursiveTimedLock() = default;
    RecursiveTimedLock(const RecursiveTimedLock&) = delete;
    RecursiveTimedLock& operator=(const RecursiveTimedLock&) = delete;

    // Blocks until the lock is the caller's (true) or Abort was called (false).
    bool Lock();
    // Takes the lock if it is free or the caller's; never waits.
    bool TryLock();
    // Blocks until the lock is the caller's (true), the deadline passes or Abort was called
    // (false). A deadline that has passed makes one try.
    bool TryLockUntil(Deadline deadline);
    // Gives back one level; the caller must hold the lock.
    void Unlock();
    // Releases every level the caller holds and returns how many that was.
    std::uint32_t UnlockAll();
    // Wakes every waiting thread for good: their TryLockUntil returns false from now on.
    void Abort();

    std::uint32_t Owner() const { return m_Owner.load(std::memory_order_relaxed); }

private:
    bool TryAcquire(std::uint32_t self);

    std::atomic<std::uint32_t> m_Owner{0};
    std::uint32_t m_Depth = 0; // touched by the owner only
    std::atomic<int> m_Sleepers{0};
    std::atomic<bool> m_bAborted{false};
    std::mutex m_Gate;
    std::condition_variable m_Wake;
};

// An event that lets one waiter through per Set and then resets itself. A Set with nobody waiting
// stays set until somebody waits.
class QEL_CORE_LOCAL AutoResetEvent
{
public:
    void Set();
    void Reset();
    // WAIT_SIGNALLED or WAIT_TIMED_OUT.
    int WaitUntil(Deadline deadline);
    // Releases `lock` once and waits for the event, as one step: a Set made after the release
    // is never lost. Returns WAIT_SIGNALLED or WAIT_TIMED_OUT; the lock is not taken back.
    int ReleaseAndWaitUntil(RecursiveTimedLock& lock, Deadline deadline);

private:
    std::mutex m_Gate;
    std::condition_variable m_Wake;
    bool m_bSet = false;
};

// A counting semaphore with timed waits.
class QEL_CORE_LOCAL CountingSemaphore
{
public:
    explicit CountingSemaphore(std::uint32_t initialCount) : m_Count(initialCount) {}
    // Gives threads that were released just before (and are still on their way out of WaitUntil)
    // up to 5 seconds to leave, so that a semaphore may be destroyed right after its last Release.
    ~CountingSemaphore();
    void Release(std::uint32_t amount);
    // WAIT_SIGNALLED (one unit taken) or WAIT_TIMED_OUT. A taken unit is also subtracted from
    // `mirror`, in the same step, so that the caller need not touch its object after the wait.
    int WaitUntil(Deadline deadline, std::atomic<unsigned int>* mirror = nullptr);

private:
    std::mutex m_Gate;
    std::condition_variable m_Wake;
    std::condition_variable m_Left;
    std::uint64_t m_Count;
    int m_Inside = 0;
};

} // namespace Qel::Core::Platform
