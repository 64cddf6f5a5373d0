// The monitor: release-and-wait, the chained wake-up, and the main thread's polling waits.
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

struct Condition::Impl
{
    Platform::RecursiveTimedLock mutex;
    Platform::AutoResetEvent conditionSignal;
    Platform::AutoResetEvent broadcastCompleteSignal; // kept with the object; the wake-up does not use it
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

void Condition::FinishWait(int result)
{
    std::int32_t left = m_WaitCount.fetch_sub(1) - 1;
    // Each woken waiter wakes the next until all who waited have passed; a time-out clears a
    // wake-up that may be on its way.
    if (result != Platform::WAIT_SIGNALLED) m_pImpl->conditionSignal.Reset();
    else if (left > 0) m_pImpl->conditionSignal.Set();
    Lock(Elapse::Infinite());
}

void Condition::Wait()
{
    if (MainThread::IsMain()) {
        (void)TimedWait(Elapse::Infinite());
        return;
    }
    m_WaitCount.fetch_add(1);
    int result = m_pImpl->conditionSignal.ReleaseAndWaitUntil(m_pImpl->mutex,
                                                              Platform::DeadlineAfterTicks(Elapse::Infinite().GetRawTimerTicks()));
    FinishWait(result);
    if (result == Platform::WAIT_TIMED_OUT) QEL_RAISE_ERROR(OSError("Infinite wait timed out!"), "Qel.Core.Condition");
}

bool Condition::TimedWait(const Elapse& timeout)
{
    Platform::Deadline deadline = WaitDeadline(timeout);
    m_WaitCount.fetch_add(1);
    int result;
    if (MainThread::IsMain()) {
        if (++m_MainThreadDepth > GetMaxReentrancy()) {
            --m_MainThreadDepth;
            m_WaitCount.fetch_sub(1);
            QEL_RAISE_ERROR(ExceededMaxReentrancy(), "Qel.Core.Condition.TimedWait");
            return false;
        }
        Platform::AutoResetEvent& signal = m_pImpl->conditionSignal;
        auto busyWait = MainThread::CreateBusyWait(
            &signal, [&signal](Platform::Deadline until) { return signal.WaitUntil(until); }, deadline);
        Unlock();
        result = busyWait->Wait();
        --m_MainThreadDepth;
    } else {
        result = m_pImpl->conditionSignal.ReleaseAndWaitUntil(m_pImpl->mutex, deadline);
    }
    FinishWait(result);
    if (result == Platform::WAIT_SIGNALLED) return true;
    if (result == Platform::WAIT_TIMED_OUT) return false;
    QEL_RAISE_ERROR(OSError("Timed wait on signal ended by unkown error"), "Qel.Core.Condition");
    return false;
}

void Condition::Signal()
{
    if (m_WaitCount.load() > 0) m_pImpl->conditionSignal.Set();
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
