// The reentrant in-process lock with time-outs, the scope guard, and the main thread's waits.
#include "Infrastructure/QelCore/Mutex.h"

#include "Infrastructure/QelCore/Globals.h"
#include "Infrastructure/QelCore/Platform/Locks.h"
#include "Infrastructure/QelCore/Platform/Platform.h"
#include "Infrastructure/QelCore/System.h"
#include "Infrastructure/QelCore/Threads/MainThread.h"

#include <chrono>
#include <new>
#include <optional>
#include <thread>

namespace Qel::Core {

namespace {
// The main thread polls at about 1 ms for the first 100 ms of a wait, then in longer slices.
constexpr auto kFastPollPeriod = std::chrono::milliseconds(100);
constexpr std::int64_t kFastSliceTicks = 1 * 10000;   // 1 ms
constexpr std::int64_t kSlowSliceTicks = 10 * 10000;  // 10 ms
} // namespace

namespace {
Platform::RecursiveTimedLock& PlatformLock(unsigned char* storage)
{
    return *std::launder(reinterpret_cast<Platform::RecursiveTimedLock*>(storage));
}
} // namespace

IMutex::~IMutex() = default;

Mutex::Mutex()
    : m_WaitingThreads(0),
      m_Destroyed(false),
      m_LockCount(0),
      m_OwnerThreadId(0),
      m_MainThreadTries(0),
      m_BorrowedLocks(0)
{
    static_assert(sizeof(Platform::RecursiveTimedLock) <= sizeof(m_CriticalSection));
    static_assert(alignof(Platform::RecursiveTimedLock) <= 8);
    new (m_CriticalSection) Platform::RecursiveTimedLock();
}

Mutex::~Mutex()
{
    try {
        if (!IsFatalExit() && TryLock(Elapse(5, Elapse::Seconds))) {
            m_Destroyed.store(true);
            PlatformLock(m_CriticalSection).Abort();
            // Threads that wait see the mark and leave; they get 5 seconds in all.
            auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
            while (Platform::WaiterCount::Live(m_WaitingThreads) > 0 && std::chrono::steady_clock::now() < until)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            Unlock();
        }
    } catch (...) {
        // A destructor lets nothing out.
    }
    PlatformLock(m_CriticalSection).~RecursiveTimedLock();
}

namespace {
// The rare ends of Lock, kept out of its fast path.
[[gnu::noinline, gnu::cold]] void RaiseDestroyed()
{
    QEL_RAISE_ERROR(MutexDestroyedBeforeLockAcquired(), "Qel.Core.Mutex");
}

[[gnu::noinline, gnu::cold]] void RaiseTimeout(const Elapse& timeout)
{
    QEL_RAISE_ERROR(LockTimeout(timeout.ToString()), "Qel.Core.Mutex");
}
} // namespace

void Mutex::Lock(const Elapse& timeout)
{
    if (m_Destroyed.load(std::memory_order_relaxed)) return;
    if (!MainThread::IsMain() && timeout == Elapse::Infinite()) {
        Platform::RecursiveTimedLock& lock = PlatformLock(m_CriticalSection);
        if (!lock.TryLock()) [[unlikely]] {
            bool acquired, destroyed;
            {
                Platform::CountedWaiter waiting(m_WaitingThreads);
                acquired = lock.Lock();
                destroyed = m_Destroyed.load();
            } // the mutex may be gone from here on if it was destroyed
            if (!acquired || destroyed) RaiseDestroyed();
        }
        if (lock.ConsumeTakeOver()) [[unlikely]]
            ForgetLeftOverHold();
        std::int32_t count = m_LockCount.load(std::memory_order_relaxed) + 1;
        m_LockCount.store(count, std::memory_order_relaxed);
        if (count == 1) m_OwnerThreadId.store(Platform::ThreadIdFast(), std::memory_order_relaxed);
        return;
    }
    if (!TryLock(timeout)) RaiseTimeout(timeout);
}

bool Mutex::TryLock(const Elapse& timeout)
{
    if (m_Destroyed.load()) QEL_RAISE_ERROR(MutexDestroyedBeforeLockAcquired(), "Qel.Core.Mutex");

    bool main = MainThread::IsMain();
    if (main && ++m_MainThreadTries > GetMaxReentrancy()) {
        --m_MainThreadTries;
        QEL_RAISE_ERROR(ExceededMaxReentrancy(), "Qel.Core.Mutex.TryLock");
        return false;
    }

    Platform::RecursiveTimedLock& lock = PlatformLock(m_CriticalSection);
    Platform::Deadline deadline = Platform::DeadlineAfterTicks(timeout.GetRawTimerTicks());
    auto start = std::chrono::steady_clock::now();
    bool acquired = false;
    bool borrowed = false;
    std::optional<Platform::CountedWaiter> waiting(std::in_place, m_WaitingThreads);
    if (!main) {
        acquired = lock.TryLockUntil(deadline);
    } else {
        // The main thread never parks: it polls in short slices and yields what it holds between.
        for (;;) {
            if (lock.TryLock()) {
                acquired = true;
                break;
            }
            if (System::IsThreadWaitingOnDispatch(m_OwnerThreadId.load(std::memory_order_relaxed))) {
                // The owner waits for this thread to dispatch its work: borrow its lock.
                borrowed = true;
                break;
            }
            auto slice = std::chrono::steady_clock::now() - start < kFastPollPeriod ? kFastSliceTicks : kSlowSliceTicks;
            Platform::Deadline sliceEnd = std::min(deadline, Platform::DeadlineAfterTicks(slice));
            if (lock.TryLockUntil(sliceEnd)) {
                acquired = true;
                break;
            }
            MainThread::YieldHeldLocks();
            if (m_Destroyed.load() || Platform::HasPassed(deadline)) break;
        }
    }
    if (acquired && lock.ConsumeTakeOver()) ForgetLeftOverHold();
    if (acquired) {
        std::int32_t count = m_LockCount.load(std::memory_order_relaxed) + 1;
        m_LockCount.store(count, std::memory_order_relaxed);
        if (count == 1) m_OwnerThreadId.store(Platform::ThreadIdFast(), std::memory_order_relaxed);
    } else if (borrowed) {
        m_BorrowedLocks.fetch_add(1);
        m_LockCount.store(m_LockCount.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        acquired = true;
    }
    if (main) {
        --m_MainThreadTries;
        if (acquired) MainThread::AddHeldLock(this);
    }
    bool destroyed = m_Destroyed.load();
    if (destroyed && acquired) {
        // Got hold of a mutex that is going away: give it back and report it like the others.
        Unlock();
        acquired = false;
    }
    waiting.reset(); // the mutex may be gone from here on if it was destroyed
    if (destroyed) RaiseDestroyed();
    return acquired;
}

void Mutex::ForgetLeftOverHold()
{
    // The lock was held by a thread that a fork left in the parent: its counts go with it.
    m_LockCount.store(0, std::memory_order_relaxed);
    m_OwnerThreadId.store(0, std::memory_order_relaxed);
    m_BorrowedLocks.store(0);
}

namespace {
[[gnu::noinline, gnu::cold]] void AssertUnlockWithoutLock()
{
    AssertFailed("0 <= --m_LockCount", QEL_CODE_CONTEXT());
}
} // namespace

void Mutex::Unlock()
{
    bool main = MainThread::IsMain();
    std::int32_t count = m_LockCount.load(std::memory_order_relaxed) - 1;
    if (count < 0) [[unlikely]] {
        AssertUnlockWithoutLock();
        return;
    }
    m_LockCount.store(count, std::memory_order_relaxed);
    if (count == 0) {
        m_OwnerThreadId.store(0, std::memory_order_relaxed);
    } else if (m_BorrowedLocks.load() > 0) {
        if (main && Platform::ThreadIdFast() != m_OwnerThreadId.load(std::memory_order_relaxed)) {
            // The end of a loan: the lender still holds the lock itself.
            if (m_BorrowedLocks.fetch_sub(1) - 1 < 0) m_BorrowedLocks.store(0);
            MainThread::RemoveHeldLock(this);
            return;
        }
        m_BorrowedLocks.store(0);
    }
    if (main) MainThread::RemoveHeldLock(this);
    PlatformLock(m_CriticalSection).Unlock();
}

bool Mutex::IsLocked() const
{
    return m_LockCount.load(std::memory_order_relaxed) > 0;
}

bool Mutex::LockedByCurrentThread() const
{
    if (m_LockCount.load(std::memory_order_relaxed) < 1) return false;
    return m_OwnerThreadId.load(std::memory_order_relaxed) == Platform::ThreadIdFast();
}

// ---- Lock ----

Lock::Lock(const IMutex& mutex, const Elapse& timeout) : m_Mutex(const_cast<IMutex*>(&mutex))
{
    QEL_ASSERT(m_Mutex != 0);
    m_Mutex->Lock(timeout);
}

Lock::~Lock()
{
    try {
        Release();
    } catch (...) {
    }
}

void Lock::Release()
{
    if (m_Mutex != nullptr) {
        IMutex* mutex = m_Mutex;
        m_Mutex = nullptr;
        mutex->Unlock();
    }
}

void Lock::Reset(const IMutex& mutex, const Elapse& timeout)
{
    if (&mutex == m_Mutex) return;
    Release();
    IMutex* next = const_cast<IMutex*>(&mutex);
    next->Lock(timeout);
    m_Mutex = next;
}

} // namespace Qel::Core
