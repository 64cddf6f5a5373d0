// A monitor: a lock and a wait queue in one object.
//
// A thread takes the lock (Condition is an IMutex, so a Lock guard works on it), looks at the
// shared state and calls Wait or TimedWait, which release the lock and wait as one step, so that a
// signal sent after the release is never lost. One Signal or Broadcast wakes every thread waiting
// at that moment; a signal with nobody waiting is dropped. Wait and TimedWait always return with
// the lock held again; callers check their own predicate in a loop. A waiter that vanishes (ended
// by Thread::Kill, or left in the parent by a fork) leaves nothing that later waits or the
// destructor depend on.
#pragma once

#include "Infrastructure/QelCore/Mutex.h"

#include <atomic>
#include <cstdint>
#include <memory>

// Warnings of waits whose lock owner ended, or that an asynchronous call interrupted. Neither has
// a cause on Linux: a lock is never abandoned and no call interrupts a wait; they exist for code
// that handles them.
QEL_DEFINE_WARNING_API(QEL_CORE_API, ConditionWaitAbandoned, Qel::Core::Warning,
                       "Acquired lock on Condition object after lock owner terminated before releasing lock")
QEL_DEFINE_WARNING_API(QEL_CORE_API, ConditionWaitEndedByAPC, Qel::Core::Warning,
                       "A wait on a Condition object was ended by a user mode APC")

namespace Qel::Core {

class QEL_CORE_API Condition : public IMutex
{
public:
    // With `broadcastOnNotify`, Notify broadcasts; else it signals (the same wake-up here).
    explicit Condition(bool broadcastOnNotify = true);
    Condition(const Condition&) = delete;
    Condition& operator=(const Condition&) = delete;
    ~Condition() override;

    // Blocks; raises LockTimeout (logger "Qel.Core.Condition") when a finite time-out is over.
    void Lock(const Elapse& timeout = Elapse::Infinite()) override;
    // False when the time is up. On the main thread it polls in 100 ms slices, at least one.
    bool TryLock(const Elapse& timeout = Elapse(0, Elapse::Seconds)) override;
    void Unlock() override;

    // The caller holds the lock (once). Blocks until woken; returns with the lock held.
    void Wait();
    // As Wait, for at most `timeout`: true when woken, false when the time is up. The time-out
    // is taken in whole milliseconds, modulo 2^32 (the infinite time-out is some 49.7 days here).
    bool TimedWait(const Elapse& timeout);
    // Wakes every thread waiting now; may be called with or without the lock.
    void Signal();
    void Broadcast();
    void Notify();

private:
    struct Impl;
    std::unique_ptr<Impl> m_pImpl;
    bool m_BroadcastOnNotify;
    std::atomic<std::int32_t> m_WaitCount;
    std::int32_t m_MainThreadDepth;
};

} // namespace Qel::Core
