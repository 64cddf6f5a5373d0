// The counting semaphore and the barrier built on it.
#include "Infrastructure/QelCore/Semaphore.h"

#include "Infrastructure/QelCore/Platform/Locks.h"
#include "Infrastructure/QelCore/Threads/MainThread.h"

namespace Qel::Core {

struct Semaphore::Impl
{
    explicit Impl(unsigned int initialCount) : semaphore(initialCount) {}
    Platform::CountingSemaphore semaphore;
};

Semaphore::Semaphore(unsigned int initialCount)
    : m_pImpl(std::make_unique<Impl>(initialCount)), m_MainThreadDepth(0)
{
}

Semaphore::~Semaphore() = default;

unsigned int Semaphore::GetCount() const
{
    return m_pImpl->semaphore.Count();
}

void Semaphore::Post(unsigned int amount)
{
    if (amount == 0) {
        AssertFailed("amount > 0", QEL_CODE_CONTEXT());
        return;
    }
    m_pImpl->semaphore.Release(amount);
}

void Semaphore::Wait()
{
    if (MainThread::IsMain()) {
        (void)TimedWait(Elapse::Infinite());
        return;
    }
    // Without a deadline there is no time-out (the original's "Infinite wait timed out!" has no
    // cause here).
    m_pImpl->semaphore.Wait();
}

bool Semaphore::TimedWait(const Elapse& timeout)
{
    // Whole milliseconds, of which the low 32 bits count; a time-out that is over means one try.
    auto milliseconds = timeout.GetRawTimerTicks() <= 0
                            ? 0u
                            : static_cast<std::uint32_t>(static_cast<std::int64_t>(timeout.GetElapsed(Elapse::MilliSeconds)));
    Platform::Deadline deadline = Platform::DeadlineAfterTicks(static_cast<std::int64_t>(milliseconds) * 10000);
    int result;
    if (MainThread::IsMain()) {
        if (++m_MainThreadDepth > GetMaxReentrancy()) {
            --m_MainThreadDepth;
            QEL_RAISE_ERROR(ExceededMaxReentrancy(), "Qel.Core.Semaphore.TimedWait");
            return false;
        }
        Platform::CountingSemaphore& semaphore = m_pImpl->semaphore;
        auto busyWait = MainThread::CreateBusyWait(
            &semaphore, [&semaphore](Platform::Deadline until) { return semaphore.WaitUntil(until); }, deadline);
        result = busyWait->Wait();
        --m_MainThreadDepth;
    } else {
        result = m_pImpl->semaphore.WaitUntil(deadline);
    }
    // A taken unit has left the count already; the object is not touched after the wait.
    if (result == Platform::WAIT_SIGNALLED) return true;
    if (result == Platform::WAIT_TIMED_OUT) return false;
    QEL_RAISE_ERROR(OSError("Wait ended by unkown error"), "Qel.Core.Semaphore");
    return false;
}

bool Semaphore::TryWait()
{
    return TimedWait(Elapse(0, Elapse::Seconds));
}

// ---- MultiWait ----

MultiWait::MultiWait() : Semaphore(0), m_Waiters(0) {}

MultiWait::~MultiWait()
{
    try {
        releaseWaiters();
    } catch (...) {
    }
}

bool MultiWait::wait(Elapse* timeout)
{
    addWaiter();
    if (timeout == nullptr) {
        Wait();
        return true;
    }
    return TimedWait(*timeout);
}

void MultiWait::releaseWaiters()
{
    Lock guard(m_Mutex);
    if (m_Waiters != 0) {
        Post(m_Waiters);
        m_Waiters = 0;
    }
}

void MultiWait::addWaiter()
{
    Lock guard(m_Mutex);
    ++m_Waiters;
}

} // namespace Qel::Core
