// The lock interface of the library and its everyday implementation.
//
// Every acquisition takes an Elapse time-out; the default is the infinite time-out. A Lock that
// runs out of time raises LockTimeout; a TryLock gives false. A Mutex may be destroyed while other
// threads wait for it: they get MutexDestroyedBeforeLockAcquired instead of touching freed memory.
//
// Threads that vanish: a lock held by a thread that Thread::Kill ended stays held. In the child of
// a fork (without exec) only the forking thread goes on; a lock that another thread held at the
// fork is free there (the next thread to ask takes it over), and what it guarded is as that thread
// left it.
//
// The main thread. A thread that a host names its main thread (the thread of its message loop)
// with SetMainThread never blocks blindly on the locks, conditions and semaphores of the library:
// while it waits it yields every lock it holds, pumps messages and takes the locks back, and it
// borrows a lock from a worker that holds it while that worker waits for the main thread to
// dispatch work. No thread is the main thread until the host calls SetMainThread; call it on that
// thread before it takes any lock of the library, for example right after InitializeQelCore.
#pragma once

#include "Infrastructure/QelCore/Elapse.h"
#include "Infrastructure/QelCore/Error.h"

#include <atomic>
#include <cstdint>
#include <memory>

namespace Qel::Core {

QEL_DEFINE_ERROR_API(QEL_CORE_API, LockTimeout, LogicError, eERROR,
                     "Attempt to lock mutex timed out after waiting for %1%", std::string)
QEL_DEFINE_ERROR_API(QEL_CORE_API, ExceededMaxReentrancy, LogicError, eERROR,
                     "Exceeded max reentrant count, possible live lock detected")
QEL_DEFINE_ERROR_API(QEL_CORE_API, MutexDestroyedBeforeLockAcquired, LogicError, eERROR,
                     "A mutex object was destroyed before its lock could be acquired")

// The lock interface: Mutex, Condition and the process mutex implement it.
class QEL_CORE_API IMutex
{
public:
    virtual ~IMutex();
    // Blocks until the lock is held or the time-out is over (LockTimeout).
    virtual void Lock(const Elapse& timeout = Elapse::Infinite()) = 0;
    // True when the lock is held within the time-out; false when the time is up. Never raises for
    // time; a zero time-out makes one attempt.
    virtual bool TryLock(const Elapse& timeout = Elapse(0, Elapse::Seconds)) = 0;
    virtual void Unlock() = 0;
};

// The reentrant in-process lock. Its owner may take it again any number of times and gives it
// back as many times. Waiting threads block (no spinning); time-outs run on the monotonic clock.
class QEL_CORE_API Mutex : public IMutex
{
public:
    Mutex();
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;
    // Takes the lock (up to 5 s), marks the mutex destroyed so that waiting threads give up with
    // MutexDestroyedBeforeLockAcquired, gives them up to 5 s to leave, and goes. Never throws.
    ~Mutex() override;

    // Untimed on a worker: blocks. Timed, or on the main thread: through TryLock, raising
    // LockTimeout "...after waiting for <time-out>" when the time is up. On a destroyed mutex it
    // returns at once without the lock.
    void Lock(const Elapse& timeout = Elapse::Infinite()) override;
    // Raises MutexDestroyedBeforeLockAcquired when the mutex is (or gets) destroyed, and
    // ExceededMaxReentrancy past 100 nested tries of the main thread.
    bool TryLock(const Elapse& timeout = Elapse(0, Elapse::Seconds)) override;
    // Gives back one acquisition; without one the assertion "0 <= --m_LockCount" fails.
    void Unlock() override;

    bool IsLocked() const;
    bool LockedByCurrentThread() const;

private:
    [[gnu::cold]] void ForgetLeftOverHold();

    // The platform lock lives inside the object (on the cache line of the counters below); its
    // type is the platform layer's own.
    alignas(8) unsigned char m_CriticalSection[16];
    std::atomic<std::int32_t> m_WaitingThreads;
    std::atomic<bool> m_Destroyed;
    std::atomic<std::int32_t> m_LockCount;
    std::atomic<std::uint32_t> m_OwnerThreadId;
    std::int32_t m_MainThreadTries;
    std::atomic<std::int32_t> m_BorrowedLocks;
};

// Scope guard on any IMutex.
class QEL_CORE_API Lock
{
public:
    // Locks the mutex; when that raises, the guard is not built.
    explicit Lock(const IMutex& mutex, const Elapse& timeout = Elapse::Infinite());
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
    ~Lock();
    // Unlocks what is held, if anything.
    void Release();
    // Holds `mutex` instead of what is held; nothing happens when it is held already.
    void Reset(const IMutex& mutex, const Elapse& timeout = Elapse::Infinite());

private:
    IMutex* m_Mutex;
};

// Sets a variable for the life of a scope and restores its earlier value after.
template <typename T>
class TempSet
{
public:
    TempSet(T& variable, const T& value) : m_pVariable(&variable), m_OldValue(variable) { variable = value; }
    TempSet(const TempSet&) = delete;
    TempSet& operator=(const TempSet&) = delete;
    virtual ~TempSet() { *m_pVariable = m_OldValue; }

private:
    T* m_pVariable;
    T m_OldValue;
};

// ---- the main thread ----

// Names the calling thread the main thread of the process (see above).
QEL_CORE_API void SetMainThread();
// Names the thread with this id the main thread; 0 names none.
QEL_CORE_API void SetMainThreadId(std::uint32_t threadId);
QEL_CORE_API std::uint32_t GetMainThreadId();
QEL_CORE_API bool IsMainThread();
// The limit of the main thread's nested waits on one lock, condition or semaphore: 100.
QEL_CORE_API int GetMaxReentrancy();

} // namespace Qel::Core
