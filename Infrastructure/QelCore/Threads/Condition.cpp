// The monitor: release-and-wait on a wake-up sequence, and the main thread's polling waits.
#include "Infrastructure/QelCore/Condition.h"

#include "Infrastructure/QelCore/Platform/Locks.h"
#include "Infrastructure/QelCore/Platform/Platform.h"
#include "Infrastructure/QelCore/Threads/MainThread.h"

namespace Qel::Core {

namespace {
constexpr std::int64_t kMainThreadSliceTicks = 100 * 10000; // 100 ms

// A time-out in whole milliseconds, of which the low 32 bits count, as a deadline. A time-out
// that is over (zero or negative) means one try, never a wrapped, huge wait.
Platform::Deadline WaitDeadline(const Elapse& timeout)
{
    if (timeout.GetRawTimerTicks() <= 0) return Platform::DeadlineAfterTicks(0);
    auto milliseconds = static_cast<std::uint32_t>(static_cast<std::int64_t>(timeout.GetElapsed(Elapse::MilliSeconds)));
    return Platform::DeadlineAfterTicks(static_cast<std::int64_t>(milliseconds) * 10000);
}
} // namespace

// A waiter reads the sequence while it holds the lock and sleeps until it moves on; a wake-up
// moves it on. Nothing of a waiter stays behind in the object when it vanishes (a forced end, a
// fork): the count of waiters only spares a wake-up call when nobody waits, and a dead waiter's
// count is given back (see the platform layer).
struct Condition::Impl
{
    Platform::RecursiveTimedLock mutex;
    Platform::WakeSequence wake;
};

Condition::Condition(bool broadcastOnNotify)
    : m_pImpl(std::make_unique<Impl>()), m_BroadcastOnNotify(broadcastOnNotify), m_WaitCount(0), m_MainThreadDepth(0)
{
}

Condition::~Condition() = default;

void Condition::Lock(const Elapse& timeout)
{
    if (MainThread::IsMain()) {
        if (!TryLock(timeout)) QEL_RAISE_ERROR(LockTimeout(timeout.ToString()), "Qel.Core.Condition");
        return;
    }
    if (timeout == Elapse::Infinite()) {
        m_pImpl->mutex.Lock();
        return;
    }
    if (!m_pImpl->mutex.TryLockUntil(WaitDeadline(timeout)))
        QEL_RAISE_ERROR(LockTimeout(timeout.ToString()), "Qel.Core.Condition");
}

bool Condition::TryLock(const Elapse& timeout)
{
    if (!MainThread::IsMain()) {
        if (timeout == Elapse::Infinite()) return m_pImpl->mutex.Lock();
        return m_pImpl->mutex.TryLockUntil(WaitDeadline(timeout));
    }
    if (++m_MainThreadDepth > GetMaxReentrancy()) {
        --m_MainThreadDepth;
        QEL_RAISE_ERROR(ExceededMaxReentrancy(), "Qel.Core.Condition.TryLock");
        return false;
    }
    Platform::Deadline deadline = Platform::DeadlineAfterTicks(timeout.GetRawTimerTicks());
    do {
        if (m_pImpl->mutex.TryLockUntil(Platform::DeadlineAfterTicks(kMainThreadSliceTicks))) {
            --m_MainThreadDepth;
            MainThread::AddHeldLock(this);
            return true;
        }
        MainThread::YieldHeldLocks();
    } while (Platform::TicksLeft(deadline) > 0);
    --m_MainThreadDepth;
    return false;
}

void Condition::Unlock()
{
    // Only the owner can give the lock back; a release by another thread changes nothing.
    if (m_pImpl->mutex.Owner() == Platform::ThreadIdFast()) m_pImpl->mutex.Unlock();
    if (MainThread::IsMain()) MainThread::RemoveHeldLock(this);
}

void Condition::Wait()
{
    if (MainThread::IsMain()) {
        (void)TimedWait(Elapse::Infinite());
        return;
    }
    {
        // Counted and the sequence read before the lock goes: a wake-up after the release is
        // never lost.
        Platform::CountedWaiter counted(m_WaitCount);
        std::uint32_t seen = m_pImpl->wake.Current();
        m_pImpl->mutex.Unlock();
        m_pImpl->wake.WaitUntil(seen, nullptr);
    }
    Lock(Elapse::Infinite());
}

bool Condition::TimedWait(const Elapse& timeout)
{
    Platform::Deadline deadline = WaitDeadline(timeout);
    int result;
    if (MainThread::IsMain()) {
        if (++m_MainThreadDepth > GetMaxReentrancy()) {
            --m_MainThreadDepth;
            QEL_RAISE_ERROR(ExceededMaxReentrancy(), "Qel.Core.Condition.TimedWait");
            return false;
        }
        {
            Platform::CountedWaiter counted(m_WaitCount);
            std::uint32_t seen = m_pImpl->wake.Current();
            Platform::WakeSequence& wake = m_pImpl->wake;
            auto busyWait = MainThread::CreateBusyWait(
                &wake, [&wake, seen](Platform::Deadline until) { return wake.WaitUntil(seen, &until); }, deadline);
            Unlock();
            result = busyWait->Wait();
        }
        --m_MainThreadDepth;
    } else {
        Platform::CountedWaiter counted(m_WaitCount);
        std::uint32_t seen = m_pImpl->wake.Current();
        m_pImpl->mutex.Unlock();
        result = m_pImpl->wake.WaitUntil(seen, &deadline);
    }
    Lock(Elapse::Infinite());
    return result == Platform::WAIT_SIGNALLED;
}

void Condition::Signal()
{
    if (Platform::WaiterCount::Live(m_WaitCount) > 0) m_pImpl->wake.WakeAll();
}

void Condition::Broadcast()
{
    Signal();
}

void Condition::Notify()
{
    if (m_BroadcastOnNotify) Broadcast();
    else Signal();
}

} // namespace Qel::Core
