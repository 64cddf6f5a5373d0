// The waiting objects of the platform layer (see Locks.h).
#include "Infrastructure/QelCore/Platform/Locks.h"

#include "Infrastructure/QelCore/Platform/Platform.h"

#include <climits>
#include <ctime>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

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

namespace {

// Sleeps while the word holds `expected`, until woken or the absolute monotonic deadline (none:
// no limit). Spurious returns are fine: callers look at the word again.
void FutexWait(std::atomic<std::uint32_t>& word, std::uint32_t expected, const Deadline* deadline)
{
    struct timespec until {};
    struct timespec* timeout = nullptr;
    if (deadline != nullptr) {
        auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(deadline->time_since_epoch()).count();
        until.tv_sec = static_cast<time_t>(ns / 1000000000);
        until.tv_nsec = static_cast<long>(ns % 1000000000);
        timeout = &until;
    }
    // FUTEX_WAIT_BITSET takes an absolute time on CLOCK_MONOTONIC, the clock of steady_clock.
    ::syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&word), FUTEX_WAIT_BITSET | FUTEX_PRIVATE_FLAG, expected,
              timeout, nullptr, FUTEX_BITSET_MATCH_ANY);
}

void FutexWake(std::atomic<std::uint32_t>& word, int count)
{
    ::syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&word), FUTEX_WAKE | FUTEX_PRIVATE_FLAG, count, nullptr,
              nullptr, 0);
}

} // namespace

bool RecursiveTimedLock::LockSlow(const Deadline* deadline)
{
    std::uint32_t self = ThreadIdFast();
    for (;;) {
        if (m_bAborted.load(std::memory_order_acquire)) return false;
        std::uint32_t word = m_Word.load(std::memory_order_relaxed);
        if (word == 0) {
            // Taken from the waiting path, the lock stays marked contended: others may sleep.
            if (m_Word.compare_exchange_weak(word, self | kContended, std::memory_order_acquire,
                                             std::memory_order_relaxed)) {
                m_Depth = 1;
                return true;
            }
            continue;
        }
        if (!(word & kContended)) {
            if (!m_Word.compare_exchange_weak(word, word | kContended, std::memory_order_relaxed)) continue;
            word |= kContended;
        }
        if (deadline != nullptr && HasPassed(*deadline)) return false;
        FutexWait(m_Word, word, deadline);
    }
}

void RecursiveTimedLock::WakeOne()
{
    FutexWake(m_Word, 1);
}

void RecursiveTimedLock::Abort()
{
    m_bAborted.store(true, std::memory_order_release);
    // Changing the word makes a sleeper that has not gone down yet return at once.
    m_Word.fetch_or(kAborted, std::memory_order_release);
    FutexWake(m_Word, INT_MAX);
}

// ---- AutoResetEvent ----

void AutoResetEvent::Set()
{
    std::lock_guard<std::mutex> gate(m_Gate);
    if (m_Waiting > m_Released) {
        ++m_Released;
        m_Wake.notify_one();
    } else {
        m_bSet = true;
    }
}

void AutoResetEvent::Reset()
{
    std::lock_guard<std::mutex> gate(m_Gate);
    m_bSet = false;
}

int AutoResetEvent::WaitLocked(std::unique_lock<std::mutex>& gate, Deadline deadline)
{
    if (m_bSet) {
        m_bSet = false;
        return WAIT_SIGNALLED;
    }
    ++m_Waiting;
    // A release handed out while this thread waited is taken even if the time ran out meanwhile.
    bool released = m_Wake.wait_until(gate, deadline, [this] { return m_Released > 0; });
    if (released) --m_Released;
    --m_Waiting;
    return released ? WAIT_SIGNALLED : WAIT_TIMED_OUT;
}

int AutoResetEvent::WaitUntil(Deadline deadline)
{
    std::unique_lock<std::mutex> gate(m_Gate);
    return WaitLocked(gate, deadline);
}

int AutoResetEvent::ReleaseAndWaitUntil(RecursiveTimedLock& lock, Deadline deadline)
{
    std::unique_lock<std::mutex> gate(m_Gate);
    // The event's gate is held from before the release: a Set after the release waits for it.
    lock.Unlock();
    return WaitLocked(gate, deadline);
}

// ---- CountingSemaphore ----

void CountingSemaphore::Release(std::uint32_t amount)
{
    std::uint64_t before = m_State.fetch_add(amount);
    if (before < kSleeper) return; // nobody asleep: nothing more to touch
    // A sleeper can only leave its wait through the gate, so the object lives while it is held.
    std::lock_guard<std::mutex> gate(m_Gate);
    if (amount == 1) m_Wake.notify_one();
    else m_Wake.notify_all();
}

bool CountingSemaphore::TryTake()
{
    std::uint64_t state = m_State.load();
    while ((state & kUnits) != 0) {
        if (m_State.compare_exchange_weak(state, state - 1)) return true;
    }
    return false;
}

void CountingSemaphore::Sleep(std::unique_lock<std::mutex>& gate, const Deadline* deadline, bool& signalled)
{
    ++m_Inside;
    m_State.fetch_add(kSleeper);
    if (deadline == nullptr) {
        m_Wake.wait(gate, [this] { return TryTake(); });
        signalled = true;
    } else {
        signalled = m_Wake.wait_until(gate, *deadline, [this] { return TryTake(); });
    }
    m_State.fetch_sub(kSleeper);
    --m_Inside;
    m_Left.notify_all();
}

int CountingSemaphore::WaitUntil(Deadline deadline)
{
    if (TryTake()) return WAIT_SIGNALLED;
    std::unique_lock<std::mutex> gate(m_Gate);
    bool signalled = false;
    Sleep(gate, &deadline, signalled);
    return signalled ? WAIT_SIGNALLED : WAIT_TIMED_OUT;
}

void CountingSemaphore::Wait()
{
    if (TryTake()) return;
    std::unique_lock<std::mutex> gate(m_Gate);
    bool signalled = false;
    Sleep(gate, nullptr, signalled);
}

std::uint32_t CountingSemaphore::Count() const
{
    return static_cast<std::uint32_t>(m_State.load(std::memory_order_relaxed) & kUnits);
}

CountingSemaphore::~CountingSemaphore()
{
    // A waiter takes its unit and leaves the count of those inside in one step under the gate, so
    // once no unit is left for a thread inside, every released thread is out. Threads still
    // inside then had no unit coming: their wait outliving the object is the destroyer's fault.
    std::unique_lock<std::mutex> gate(m_Gate);
    m_Left.wait_for(gate, std::chrono::seconds(5), [this] { return m_Inside == 0 || (m_State.load() & kUnits) == 0; });
}

} // namespace Qel::Core::Platform
