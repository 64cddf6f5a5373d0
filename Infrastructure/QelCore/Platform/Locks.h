// The waiting objects of the platform layer: a recursive lock with timed acquisition, the
// sequence that condition waits sleep on, a counting semaphore, and monotonic deadlines; and the
// bookkeeping that keeps them whole when a waiter vanishes (a forced end, a fork).
//
// Porting decisions taken here:
// - Time-outs run on the monotonic clock (std::chrono::steady_clock; the kernel waits take absolute
//   CLOCK_MONOTONIC times); a change of the wall clock never shortens or lengthens a wait. A
//   deadline that has passed means "try once".
// - A waiting thread blocks on a futex; nothing here spins. The uncontended paths of the lock are
//   one atomic operation on the owner word.
// - The kernel objects of the original platform (critical section, kernel mutex, event, semaphore)
//   become these small objects. A kernel mutex's "abandoned" result has no cause here.
// - Wait results keep the original platform's codes, so that the callers' logic stays as it is.
// - A waiter leaves nothing in user space that a later wait or a destructor depends on: a thread
//   that sleeps is only in the kernel's futex queue, which the kernel cleans when the thread goes.
//   The counts of waiters that the objects keep (to spare a wake-up call when nobody waits, and to
//   let a destructor wait for threads on their way out) are given back by a thread that KillThread
//   ends in its wait (see WaitRecord), and counts made before a fork are not counted in the child.
// - Fork without exec: only the forking thread goes on in the child. A lock that another thread
//   held at the fork is free in the child (its owner word carries the fork generation in which it
//   was taken; a lock of an earlier generation whose owner is not the thread that forked is taken
//   over); what it guarded is as that thread left it. A lock that a thread ended by KillThread held
//   stays held, as the original platform's forced end leaves it.
// - The thread ids of locks are the library's (ThreadIdFast): the forking thread keeps its id in
//   the child, so that the locks it holds across the fork stay its own.
#pragma once

#include "Infrastructure/QelCore/Platform/Platform.h"
#include "Infrastructure/QelCore/QelCoreExport.h"

#include <atomic>
#include <chrono>
#include <cstdint>

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

// ---- fork generations ----

// The number of forks without exec that led to this process, counted by the library's child
// handler (0 in a process that nobody forked). Relaxed reads suffice: it changes only in a child
// that has one thread.
extern std::atomic<std::uint32_t> g_iForkGeneration;
// The library's id of the thread that made the latest fork: the one thread that goes on in the child.
extern std::atomic<std::uint32_t> g_iForkingThreadId;

inline std::uint32_t ForkGeneration()
{
    return g_iForkGeneration.load(std::memory_order_relaxed);
}

// ---- waits that a forced end may interrupt ----

// A count that a waiting thread holds on an object while it waits. KillThread ends a thread at
// once, without unwinding; a thread that it ends inside a wait gives its records back on its way
// out (newest first), so that no object keeps counting a dead waiter. Records live on the waiting
// thread's stack; they are pushed and popped in the order of the scopes.
struct WaitRecord
{
    void (*m_pGiveBack)(void* object);
    void* m_pObject;
    WaitRecord* m_pNext;
};

// Brackets the steps that take or give back a count together with its record: a forced end that
// comes in between is held back until the steps are done, and then ends the thread.
void BeginWaitBookkeeping() noexcept;
void EndWaitBookkeeping() noexcept;
// Between Begin and End: the record counts from now on / no more.
void PushWaitRecord(WaitRecord& record) noexcept;
void PopWaitRecord(WaitRecord& record) noexcept;

// For the forced end's signal handler, on the thread being ended: true when it may end now (its
// records given back); false when it is inside the bookkeeping, which ends it as it leaves.
bool PrepareForcedEnd() noexcept;
// Ends the calling thread through the kernel, giving its wait records back first.
[[noreturn]] void EndCallingThreadNow() noexcept;

// A waiter count of 32 bits with the fork generation in its upper bits: counts of an earlier
// generation (waiters that the fork left in the parent) read as 0.
namespace WaiterCount {
void Add(std::atomic<std::int32_t>& count) noexcept;
void Remove(std::atomic<std::int32_t>& count) noexcept;
std::int32_t Live(const std::atomic<std::int32_t>& count) noexcept;
} // namespace WaiterCount

// Holds one waiter on a WaiterCount for a scope, with its record (see above).
class QEL_CORE_LOCAL CountedWaiter
{
public:
    explicit CountedWaiter(std::atomic<std::int32_t>& count) noexcept;
    ~CountedWaiter();
    CountedWaiter(const CountedWaiter&) = delete;
    CountedWaiter& operator=(const CountedWaiter&) = delete;

private:
    static void GiveBack(void* count) noexcept;
    WaitRecord m_Record;
};

// ---- the objects ----

// A lock that its owner may take again and again, with untimed, try and timed acquisition.
// One 32-bit word holds the owner's thread id, the fork generation in which it was taken and a
// "contended" bit; threads that wait sleep on that word in the kernel (futex) and are woken by the
// release that finds the bit set. Uncontended, a lock is one compare-and-swap and a release one
// exchange, as for a plain mutex.
class QEL_CORE_LOCAL RecursiveTimedLock
{
public:
    RecursiveTimedLock() = default;
    RecursiveTimedLock(const RecursiveTimedLock&) = delete;
    RecursiveTimedLock& operator=(const RecursiveTimedLock&) = delete;

    // Blocks until the lock is the caller's (true) or Abort was called (false).
    bool Lock() { return TryLock() || LockSlow(nullptr); }
    // Takes the lock if it is free or the caller's (or left over from before a fork); never waits.
    bool TryLock()
    {
        std::uint32_t self = ThreadIdFast();
        std::uint32_t word = m_Word.load(std::memory_order_relaxed);
        if ((word & kOwnerMask) == self) {
            ++m_Depth;
            return true;
        }
        if (word == 0 && m_Word.compare_exchange_strong(word, self | Stamp(), std::memory_order_acquire,
                                                         std::memory_order_relaxed)) {
            m_Depth = 1;
            return true;
        }
        return word != 0 && TryTakeOver(word, self);
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
    // For the new owner: whether its acquisition took the lock over from a thread that a fork left
    // behind (once; the counts that the caller keeps beside the lock are that thread's then).
    bool ConsumeTakeOver()
    {
        if (!m_bTakenOver) [[likely]]
            return false;
        m_bTakenOver = false;
        return true;
    }

private:
    static constexpr std::uint32_t kContended = 1u << 31;
    static constexpr std::uint32_t kAborted = 1u << 30;
    static constexpr std::uint32_t kGenerationShift = 22; // thread ids stay below 2^22
    static constexpr std::uint32_t kGenerationMask = 0xFFu << kGenerationShift;
    static constexpr std::uint32_t kOwnerMask = (1u << kGenerationShift) - 1;

    static std::uint32_t Stamp() { return (ForkGeneration() << kGenerationShift) & kGenerationMask; }
    // Whether the word is the hold of a thread that a fork left behind.
    static bool IsLeftOver(std::uint32_t word, std::uint32_t self);
    bool TryTakeOver(std::uint32_t word, std::uint32_t self);
    bool LockSlow(const Deadline* deadline);
    void WakeOne();

    std::atomic<std::uint32_t> m_Word{0};
    std::uint32_t m_Depth = 0;    // touched by the owner only
    bool m_bTakenOver = false;    // touched by the owner only
    std::atomic<bool> m_bAborted{false};
};

// What condition waits sleep on: a counter that every wake-up moves on. A waiter reads it while it
// still holds its lock and sleeps while it has not moved; nothing of the waiter is kept here.
class QEL_CORE_LOCAL WakeSequence
{
public:
    std::uint32_t Current() const { return m_Sequence.load(std::memory_order_acquire); }
    // Sleeps while the sequence is still `seen`: WAIT_SIGNALLED once it has moved on,
    // WAIT_TIMED_OUT when the deadline (none: no limit) passed first.
    int WaitUntil(std::uint32_t seen, const Deadline* deadline);
    // Moves the sequence on and wakes every sleeper.
    void WakeAll();

private:
    std::atomic<std::uint32_t> m_Sequence{0};
};

// A counting semaphore with timed waits.
//
// One 64-bit word holds the units (low 32 bits, also the word that sleepers sleep on), the number
// of threads asleep in a wait (16 bits) and the fork generation of that number (16 bits), so that
// a release is one atomic addition and a wake-up call only when somebody sleeps. A waiter counts
// itself as a sleeper and sleeps while there are no units; it leaves and takes its unit in one
// step, after which it does not touch the object again.
class QEL_CORE_LOCAL CountingSemaphore
{
public:
    explicit CountingSemaphore(std::uint32_t initialCount);
    // Gives threads that were released just before (and are still on their way out of a wait)
    // up to 5 seconds to leave, so that a semaphore may be destroyed right after its last Release.
    // Dead waiters (ended by KillThread, or left in the parent by a fork) do not count.
    ~CountingSemaphore();
    void Release(std::uint32_t amount);
    // WAIT_SIGNALLED (one unit taken) or WAIT_TIMED_OUT.
    int WaitUntil(Deadline deadline);
    // As WaitUntil without a deadline (and without reading the clock).
    void Wait();
    // The units there are now.
    std::uint32_t Count() const;

private:
    static constexpr std::uint64_t kUnits = 0xFFFFFFFFu;
    static constexpr int kSleeperShift = 32;
    static constexpr std::uint64_t kSleeper = std::uint64_t(1) << kSleeperShift;
    static constexpr std::uint64_t kSleepers = std::uint64_t(0xFFFF) << kSleeperShift;
    static constexpr int kGenerationShift = 48;

    // Takes a unit if there is one, without sleeping.
    bool TryTake();
    // Takes a unit (true), or counts the caller as a sleeper (false).
    bool TakeOrSleep();
    // Leaves the sleepers, taking a unit if there is one (true).
    bool LeaveSleepers();
    static void GiveBackSleeper(void* semaphore) noexcept;
    int WaitSlow(const Deadline* deadline);
    std::atomic<std::uint32_t>& UnitsWord();

    std::atomic<std::uint64_t> m_State;
};

} // namespace Qel::Core::Platform
