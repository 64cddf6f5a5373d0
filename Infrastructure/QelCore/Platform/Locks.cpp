// The waiting objects of the platform layer (see Locks.h).
#include "Infrastructure/QelCore/Platform/Locks.h"

#include "Infrastructure/QelCore/Platform/Platform.h"

namespace Qel::Core::Platform {

Deadline DeadlineAfterTicks(std::int64_t ticks)
{
    Deadline now = std::chrono::steady_clock::now();
    if (ticks <= 0) return now;
    // Clamp far deadlines (the infinite time-out is some 68 years) below the clock's end.
    constexpr std::int64_t kMaxTicks = std::int64_t(1) << 60;
    if (ticks > kMaxTicks / 100) ticks = kMaxTicks / 100;
    return now + std::chrono::nanoseconds(ticks * 100);
}

std::int64_t TicksLeft(Deadline deadline)
{
    auto left = deadline - std::chrono::steady_clock::now();
    if (left.count() <= 0) return 0;
    return std::chrono::duration_cast<std::chrono::nanoseconds>(left).count() / 100;
}

// ---- RecursiveTimedLock ----

bool RecursiveTimedLock::TryAcquire(std::uint32_t self)
{
    std::uint32_t expected = 0;
    if (m_Owner.compare_exchange_strong(expected, self, std::memory_order_seq_cst, std::memory_order_relaxed)) {
        m_Depth = 1;
        return true;
    }
    return false;
}

bool RecursiveTimedLock::TryLock()
{
    std::uint32_t self = CurrentThreadId();
    if (m_Owner.load(std::memory_order_relaxed) == self) {
        ++m_Depth;
        return true;
    }
    return TryAcquire(self);
}

bool RecursiveTimedLock::Lock()
{
    if (TryLock()) return true;
    std::uint32_t self = CurrentThreadId();
    bool acquired = false;
    m_Sleepers.fetch_add(1, std::memory_order_seq_cst);
    {
        std::unique_lock<std::mutex> gate(m_Gate);
        while (!(acquired = TryAcquire(self)) && !m_bAborted.load(std::memory_order_relaxed)) m_Wake.wait(gate);
    }
    m_Sleepers.fetch_sub(1, std::memory_order_relaxed);
    return acquired;
}

bool RecursiveTimedLock::TryLockUntil(Deadline deadline)
{
    if (TryLock()) return true;
    std::uint32_t self = CurrentThreadId();
    bool acquired = false;
    m_Sleepers.fetch_add(1, std::memory_order_seq_cst);
    {
        std::unique_lock<std::mutex> gate(m_Gate);
        // The owner word is tested while the gate is held: an Unlock that frees the lock after the
        // test has to take the gate to wake sleepers, so its wake-up cannot pass unseen.
        while (!(acquired = TryAcquire(self))) {
            if (m_bAborted.load(std::memory_order_relaxed)) break;
            if (m_Wake.wait_until(gate, deadline) == std::cv_status::timeout) {
                acquired = TryAcquire(self);
                break;
            }
        }
    }
    m_Sleepers.fetch_sub(1, std::memory_order_relaxed);
    return acquired;
}

void RecursiveTimedLock::Unlock()
{
    if (m_Depth > 1) {
        --m_Depth;
        return;
    }
    m_Depth = 0;
    m_Owner.store(0, std::memory_order_seq_cst);
    if (m_Sleepers.load(std::memory_order_seq_cst) > 0) {
        std::lock_guard<std::mutex> gate(m_Gate);
        m_Wake.notify_one();
    }
}

std::uint32_t RecursiveTimedLock::UnlockAll()
{
    std::uint32_t depth = m_Depth;
    m_Depth = 1;
    Unlock();
    return depth;
}

void RecursiveTimedLock::Abort()
{
    std::lock_guard<std::mutex> gate(m_Gate);
    m_bAborted.store(true, std::memory_order_relaxed);
    m_Wake.notify_all();
}

// ---- AutoResetEvent ----

void AutoResetEvent::Set()
{
    std::lock_guard<std::mutex> gate(m_Gate);
    m_bSet = true;
    m_Wake.notify_one();
}

void AutoResetEvent::Reset()
{
    std::lock_guard<std::mutex> gate(m_Gate);
    m_bSet = false;
}

int AutoResetEvent::WaitUntil(Deadline deadline)
{
    std::unique_lock<std::mutex> gate(m_Gate);
    if (!m_Wake.wait_until(gate, deadline, [this] { return m_bSet; })) return WAIT_TIMED_OUT;
    m_bSet = false;
    return WAIT_SIGNALLED;
}

int AutoResetEvent::ReleaseAndWaitUntil(RecursiveTimedLock& lock, Deadline deadline)
{
    std::unique_lock<std::mutex> gate(m_Gate);
    // The event's gate is held from before the release: a Set after the release waits for it.
    lock.Unlock();
    if (!m_Wake.wait_until(gate, deadline, [this] { return m_bSet; })) return WAIT_TIMED_OUT;
    m_bSet = false;
    return WAIT_SIGNALLED;
}

// ---- CountingSemaphore ----

void CountingSemaphore::Release(std::uint32_t amount)
{
    std::lock_guard<std::mutex> gate(m_Gate);
    m_Count += amount;
    if (amount == 1) m_Wake.notify_one();
    else m_Wake.notify_all();
}

int CountingSemaphore::WaitUntil(Deadline deadline, std::atomic<unsigned int>* mirror)
{
    std::unique_lock<std::mutex> gate(m_Gate);
    ++m_Inside;
    bool signalled = m_Wake.wait_until(gate, deadline, [this] { return m_Count > 0; });
    if (signalled) {
        --m_Count;
        if (mirror != nullptr) mirror->fetch_sub(1);
    }
    --m_Inside;
    m_Left.notify_all();
    return signalled ? WAIT_SIGNALLED : WAIT_TIMED_OUT;
}

CountingSemaphore::~CountingSemaphore()
{
    // A waiter takes its unit and leaves the count of those inside in one step under the gate, so
    // once no unit is left for a thread inside, every released thread is out. Threads still
    // inside then had no unit coming: their wait outliving the object is the destroyer's fault.
    std::unique_lock<std::mutex> gate(m_Gate);
    m_Left.wait_for(gate, std::chrono::seconds(5), [this] { return m_Inside == 0 || m_Count == 0; });
}

} // namespace Qel::Core::Platform
