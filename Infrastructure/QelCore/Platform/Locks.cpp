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

// ---- fork generations ----

constinit std::atomic<std::uint32_t> g_iForkGeneration{0};
constinit std::atomic<std::uint32_t> g_iForkingThreadId{0};

// ---- waits that a forced end may interrupt ----

namespace {

// Read by the forced end's signal handler on the same thread: plain words behind signal fences,
// in initial-exec storage that a signal handler may touch (no lazy allocation).
constinit thread_local WaitRecord* t_pWaitRecords __attribute__((tls_model("initial-exec"))) = nullptr;
constinit thread_local volatile int t_iBookkeeping __attribute__((tls_model("initial-exec"))) = 0;
constinit thread_local volatile int t_iEndPending __attribute__((tls_model("initial-exec"))) = 0;

void Fence()
{
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

} // namespace

void BeginWaitBookkeeping() noexcept
{
    t_iBookkeeping = t_iBookkeeping + 1;
    Fence();
}

void EndWaitBookkeeping() noexcept
{
    Fence();
    t_iBookkeeping = t_iBookkeeping - 1;
    Fence();
    if (t_iBookkeeping == 0 && t_iEndPending != 0) EndCallingThreadNow();
}

void PushWaitRecord(WaitRecord& record) noexcept
{
    record.m_pNext = t_pWaitRecords;
    Fence();
    t_pWaitRecords = &record;
    Fence();
}

void PopWaitRecord(WaitRecord& record) noexcept
{
    Fence();
    t_pWaitRecords = record.m_pNext;
    Fence();
}

bool PrepareForcedEnd() noexcept
{
    if (t_iBookkeeping != 0) {
        t_iEndPending = 1;
        return false;
    }
    return true;
}

void EndCallingThreadNow() noexcept
{
    for (WaitRecord* record = t_pWaitRecords; record != nullptr; record = record->m_pNext)
        record->m_pGiveBack(record->m_pObject);
    t_pWaitRecords = nullptr;
    for (;;) ::syscall(SYS_exit, 0);
}

namespace WaiterCount {
namespace {
constexpr int kGenerationShift = 20;
constexpr std::uint32_t kCountMask = (1u << kGenerationShift) - 1;

std::uint32_t Generation(std::uint32_t word)
{
    return word >> kGenerationShift;
}

std::uint32_t CurrentGeneration()
{
    return ForkGeneration() & ((1u << (32 - kGenerationShift)) - 1);
}
} // namespace

void Add(std::atomic<std::int32_t>& count) noexcept
{
    std::uint32_t generation = CurrentGeneration();
    std::int32_t word = count.load();
    for (;;) {
        std::uint32_t value = static_cast<std::uint32_t>(word);
        std::uint32_t next = Generation(value) == generation ? value + 1 : (generation << kGenerationShift) | 1u;
        if (count.compare_exchange_weak(word, static_cast<std::int32_t>(next))) return;
    }
}

void Remove(std::atomic<std::int32_t>& count) noexcept
{
    std::uint32_t generation = CurrentGeneration();
    std::int32_t word = count.load();
    for (;;) {
        std::uint32_t value = static_cast<std::uint32_t>(word);
        // A count of an earlier generation does not hold this thread: nothing to give back.
        if (Generation(value) != generation || (value & kCountMask) == 0) return;
        if (count.compare_exchange_weak(word, static_cast<std::int32_t>(value - 1))) return;
    }
}

std::int32_t Live(const std::atomic<std::int32_t>& count) noexcept
{
    std::uint32_t value = static_cast<std::uint32_t>(count.load());
    if (Generation(value) != CurrentGeneration()) return 0;
    return static_cast<std::int32_t>(value & kCountMask);
}
} // namespace WaiterCount

CountedWaiter::CountedWaiter(std::atomic<std::int32_t>& count) noexcept : m_Record{&CountedWaiter::GiveBack, &count, nullptr}
{
    BeginWaitBookkeeping();
    WaiterCount::Add(count);
    PushWaitRecord(m_Record);
    EndWaitBookkeeping();
}

CountedWaiter::~CountedWaiter()
{
    BeginWaitBookkeeping();
    PopWaitRecord(m_Record);
    GiveBack(m_Record.m_pObject);
    EndWaitBookkeeping();
}

void CountedWaiter::GiveBack(void* count) noexcept
{
    WaiterCount::Remove(*static_cast<std::atomic<std::int32_t>*>(count));
}

// ---- kernel waits ----

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

// Wakes up to `count` sleepers of the word. Only the address is given to the kernel, which does
// not read it: the call is harmless on an object that a woken thread has destroyed meanwhile.
void FutexWake(std::atomic<std::uint32_t>& word, int count)
{
    ::syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&word), FUTEX_WAKE | FUTEX_PRIVATE_FLAG, count, nullptr,
              nullptr, 0);
}

} // namespace

// ---- RecursiveTimedLock ----

bool RecursiveTimedLock::IsLeftOver(std::uint32_t word, std::uint32_t self)
{
    if (ForkGeneration() == 0 || (word & kAborted) != 0) return false;
    std::uint32_t owner = word & kOwnerMask;
    if ((word & kGenerationMask) == Stamp() || owner == self) return false;
    // The thread that forked goes on in the child with the locks it held.
    return owner != g_iForkingThreadId.load(std::memory_order_relaxed);
}

bool RecursiveTimedLock::TryTakeOver(std::uint32_t word, std::uint32_t self)
{
    if (!IsLeftOver(word, self)) return false;
    if (!m_Word.compare_exchange_strong(word, self | Stamp() | (word & kContended), std::memory_order_acquire,
                                        std::memory_order_relaxed))
        return false;
    m_Depth = 1;
    m_bTakenOver = true;
    return true;
}

bool RecursiveTimedLock::LockSlow(const Deadline* deadline)
{
    std::uint32_t self = ThreadIdFast();
    for (;;) {
        if (m_bAborted.load(std::memory_order_acquire)) return false;
        std::uint32_t word = m_Word.load(std::memory_order_relaxed);
        if (word == 0) {
            // Taken from the waiting path, the lock stays marked contended: others may sleep.
            if (m_Word.compare_exchange_weak(word, self | Stamp() | kContended, std::memory_order_acquire,
                                             std::memory_order_relaxed)) {
                m_Depth = 1;
                return true;
            }
            continue;
        }
        if (IsLeftOver(word, self)) {
            if (TryTakeOver(word, self)) return true;
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

// ---- WakeSequence ----

int WakeSequence::WaitUntil(std::uint32_t seen, const Deadline* deadline)
{
    while (m_Sequence.load(std::memory_order_acquire) == seen) {
        if (deadline != nullptr && HasPassed(*deadline)) return WAIT_TIMED_OUT;
        FutexWait(m_Sequence, seen, deadline);
    }
    return WAIT_SIGNALLED;
}

void WakeSequence::WakeAll()
{
    m_Sequence.fetch_add(1, std::memory_order_release);
    FutexWake(m_Sequence, INT_MAX);
}

// ---- CountingSemaphore ----

namespace {
constexpr std::uint64_t kSemaphoreGenerationMask = 0xFFFF;

std::uint64_t SemaphoreGeneration()
{
    return ForkGeneration() & kSemaphoreGenerationMask;
}
} // namespace

CountingSemaphore::CountingSemaphore(std::uint32_t initialCount)
    : m_State(initialCount | (SemaphoreGeneration() << kGenerationShift))
{
}

std::atomic<std::uint32_t>& CountingSemaphore::UnitsWord()
{
    // The low half of the state on this little-endian machine.
    static_assert(sizeof(std::atomic<std::uint64_t>) == 8 && sizeof(std::atomic<std::uint32_t>) == 4);
    return *reinterpret_cast<std::atomic<std::uint32_t>*>(&m_State);
}

void CountingSemaphore::Release(std::uint32_t amount)
{
    std::uint64_t before = m_State.fetch_add(amount);
    // Sleepers of an earlier generation were left in the parent by a fork: nobody to wake.
    if ((before & kSleepers) == 0 || (before >> kGenerationShift) != SemaphoreGeneration()) return;
    // The last touch of the object: only its address goes to the kernel.
    FutexWake(UnitsWord(), amount >= static_cast<std::uint32_t>(INT_MAX) ? INT_MAX : static_cast<int>(amount));
}

bool CountingSemaphore::TryTake()
{
    std::uint64_t state = m_State.load();
    while ((state & kUnits) != 0) {
        if (m_State.compare_exchange_weak(state, state - 1)) return true;
    }
    return false;
}

bool CountingSemaphore::TakeOrSleep()
{
    std::uint64_t generation = SemaphoreGeneration();
    std::uint64_t state = m_State.load();
    for (;;) {
        std::uint64_t next;
        if ((state & kUnits) != 0) next = state - 1;
        else if ((state >> kGenerationShift) != generation) next = (generation << kGenerationShift) | kSleeper;
        else next = state + kSleeper;
        if (m_State.compare_exchange_weak(state, next)) return (state & kUnits) != 0;
    }
}

bool CountingSemaphore::LeaveSleepers()
{
    std::uint64_t generation = SemaphoreGeneration();
    std::uint64_t state = m_State.load();
    for (;;) {
        std::uint64_t next = state;
        if ((state >> kGenerationShift) == generation && (state & kSleepers) != 0) next -= kSleeper;
        bool take = (state & kUnits) != 0;
        if (take) next -= 1;
        if (next == state) return false;
        if (m_State.compare_exchange_weak(state, next)) return take;
    }
}

void CountingSemaphore::GiveBackSleeper(void* semaphore) noexcept
{
    auto* self = static_cast<CountingSemaphore*>(semaphore);
    std::uint64_t generation = SemaphoreGeneration();
    std::uint64_t state = self->m_State.load();
    while ((state >> kGenerationShift) == generation && (state & kSleepers) != 0) {
        if (self->m_State.compare_exchange_weak(state, state - kSleeper)) return;
    }
}

int CountingSemaphore::WaitSlow(const Deadline* deadline)
{
    for (;;) {
        WaitRecord record{&CountingSemaphore::GiveBackSleeper, this, nullptr};
        BeginWaitBookkeeping();
        bool took = TakeOrSleep();
        if (!took) PushWaitRecord(record);
        EndWaitBookkeeping();
        if (took) return WAIT_SIGNALLED;
        if (deadline == nullptr || !HasPassed(*deadline)) FutexWait(UnitsWord(), 0, deadline);
        BeginWaitBookkeeping();
        PopWaitRecord(record);
        took = LeaveSleepers();
        EndWaitBookkeeping();
        // After leaving, the object is not touched again.
        if (took) return WAIT_SIGNALLED;
        if (deadline != nullptr && HasPassed(*deadline)) return WAIT_TIMED_OUT;
    }
}

int CountingSemaphore::WaitUntil(Deadline deadline)
{
    if (TryTake()) return WAIT_SIGNALLED;
    return WaitSlow(&deadline);
}

void CountingSemaphore::Wait()
{
    if (TryTake()) return;
    WaitSlow(nullptr);
}

std::uint32_t CountingSemaphore::Count() const
{
    return static_cast<std::uint32_t>(m_State.load(std::memory_order_relaxed) & kUnits);
}

CountingSemaphore::~CountingSemaphore()
{
    // A released waiter takes its unit and leaves the sleepers in one step, so once no unit is
    // left while somebody sleeps, every released thread is out. Threads still asleep then had no
    // unit coming: their wait outliving the object is the destroyer's fault.
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    for (;;) {
        std::uint64_t state = m_State.load();
        bool waitersOnTheirWayOut = (state >> kGenerationShift) == SemaphoreGeneration() && (state & kSleepers) != 0 &&
                                    (state & kUnits) != 0;
        if (!waitersOnTheirWayOut || std::chrono::steady_clock::now() >= until) return;
        ::usleep(1000);
    }
}

} // namespace Qel::Core::Platform
