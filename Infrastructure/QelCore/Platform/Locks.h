// The waiting objects of the platform layer: a recursive lock with timed acquisition, an
// auto-reset event, a counting semaphore, the release-and-wait that no wake-up can slip between,
// and monotonic deadlines.
//
// Porting decisions taken here:
// - Time-outs run on the monotonic clock (std::chrono::steady_clock, which waits through
//   pthread_cond_clockwait on CLOCK_MONOTONIC); a change of the wall clock never shortens or
//   lengthens a wait. A deadline that has passed means "try once".
// - A waiting thread blocks (on a futex or a condition variable); nothing here spins. The
//   uncontended paths of the lock are one atomic operation on the owner word.
// - The kernel objects of the original platform (critical section, kernel mutex, event, semaphore)
//   become these small objects. A kernel mutex's "abandoned" result has no cause here: a thread
//   that ends while holding a lock leaves it held, as a pthread mutex does.
// - Wait results keep the original platform's codes, so that the callers' logic stays as it is.
#pragma once

#include "Infrastructure/QelCore/Platform/Platform.h"
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
// One 32-bit word holds the owner's kernel thread id and a "contended" bit; threads that wait
// sleep on that word in the kernel (futex) and are woken by the release that finds the bit set.
// Uncontended, a lock is one compare-and-swap and a release one exchange, as for a plain mutex.
class QEL_CORE_LOCAL RecursiveTimedLock
{
public:
    RecursiveTimedLock() = default;
    RecursiveTimedLock(const RecursiveTimedLock&) = delete;
    RecursiveTimedLock& operator=(const RecursiveTimedLock&) = delete;

    // Blocks until the lock is the caller's (true) or Abort was called (false).
    bool Lock() { return TryLock() || LockSlow(nullptr); }
    // Takes the lock if it is free or the caller's; never waits.
    bool TryLock()
    {
        std::uint32_t self = ThreadIdFast();
        std::uint32_t word = m_Word.load(std::memory_order_relaxed);
        if ((word & kOwnerMask) == self) {
            ++m_Depth;
            return true;
        }
        if (word == 0 && m_Word.compare_exchange_strong(word, self, std::memory_order_acquire,
                                                         std::memory_order_relaxed)) {
            m_Depth = 1;
            return true;
        }
        return false;
    }
    // Blocks until the lock is the caller's (true), the deadline passes or Abort was called
    // (false). A deadline that has passed makes one try.
    bool TryLockUntil(Deadline deadline) { return TryLock() || (!HasPassed(deadline) && LockSlow(&deadline)); }
    // Gives back one level; the caller must hold the lock.
    void Unlock()
    {
        if (m_Depth > 1) {
            --m_Depth;
            return;
        }
        m_Depth = 0;
        if (m_Word.exchange(0, std::memory_order_release) & kContended) WakeOne();
    }
    // Wakes every waiting thread for good: their waits give false from now on.
    void Abort();

    std::uint32_t Owner() const { return m_Word.load(std::memory_order_relaxed) & kOwnerMask; }

private:
    static constexpr std::uint32_t kContended = 1u << 31;
    static constexpr std::uint32_t kAborted = 1u << 30;
    static constexpr std::uint32_t kOwnerMask = kAborted - 1; // thread ids stay below 2^22

    bool LockSlow(const Deadline* deadline);
    void WakeOne();

    std::atomic<std::uint32_t> m_Word{0};
    std::uint32_t m_Depth = 0; // touched by the owner only
    std::atomic<bool> m_bAborted{false};
};

// An event that lets one waiter through per Set and then resets itself. As with the kernel event
// it stands for, a Set while threads wait releases one of them at once: the release belongs to
// that thread, and a later Reset cannot take it back. A Set with nobody waiting leaves the event
// set until somebody waits or Reset clears it.
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
    int WaitLocked(std::unique_lock<std::mutex>& gate, Deadline deadline);

    std::mutex m_Gate;
    std::condition_variable m_Wake;
    bool m_bSet = false;
    int m_Waiting = 0;  // threads inside a wait
    int m_Released = 0; // releases handed to waiting threads and not yet taken
};

// A counting semaphore with timed waits.
//
// One 64-bit word holds the units (low 40 bits) and the number of threads asleep in a wait (high
// 24 bits), so that a release is one atomic addition, and touches nothing more when nobody sleeps;
// a wait that finds a unit is one compare-and-swap. Only sleepers use the gate and the condition
// variable. A releaser adds its units and sees the sleepers in the same step; a waiter counts
// itself as a sleeper and then looks for units: one of the two always sees the other, so a unit
// is never left lying while a thread sleeps.
class QEL_CORE_LOCAL CountingSemaphore
{
public:
    explicit CountingSemaphore(std::uint32_t initialCount) : m_State(initialCount) {}
    // Gives threads that were released just before (and are still on their way out of a wait)
    // up to 5 seconds to leave, so that a semaphore may be destroyed right after its last Release.
    ~CountingSemaphore();
    void Release(std::uint32_t amount);
    // WAIT_SIGNALLED (one unit taken) or WAIT_TIMED_OUT.
    int WaitUntil(Deadline deadline);
    // As WaitUntil without a deadline (and without reading the clock).
    void Wait();
    // The units there are now.
    std::uint32_t Count() const;

private:
    static constexpr std::uint64_t kSleeper = std::uint64_t(1) << 40;
    static constexpr std::uint64_t kUnits = kSleeper - 1;

    // Takes a unit if there is one, without the gate.
    bool TryTake();
    void Sleep(std::unique_lock<std::mutex>& gate, const Deadline* deadline, bool& signalled);

    std::atomic<std::uint64_t> m_State;
    std::mutex m_Gate;
    std::condition_variable m_Wake;
    std::condition_variable m_Left;
    int m_Inside = 0; // threads in the slow path of a wait, under the gate
};

} // namespace Qel::Core::Platform
