// A counting semaphore, and MultiWait, a barrier built on it.
#pragma once

#include "Infrastructure/QelCore/Mutex.h"

#include <atomic>
#include <cstdint>
#include <memory>

namespace Qel::Core {

class QEL_CORE_API Semaphore
{
public:
    explicit Semaphore(unsigned int initialCount = 0);
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;
    virtual ~Semaphore();

    // What was posted and not yet taken; a snapshot for display (it lags the waiting object a little).
    unsigned int GetCount() const;
    // Adds `amount` units; 0 fails the assertion "amount > 0".
    void Post(unsigned int amount = 1);
    // Blocks until a unit is taken.
    void Wait();
    // Takes a unit within the time-out (true) or gives false; whole milliseconds, modulo 2^32.
    bool TimedWait(const Elapse& timeout);
    // Takes a unit if one is there; never waits.
    bool TryWait();

private:
    struct Impl;
    std::unique_ptr<Impl> m_pImpl;
    std::int32_t m_MainThreadDepth;
};

// Any number of threads wait; one releaseWaiters lets through exactly those registered until then.
// A thread that gave up on a time-out stays counted until the next release, which leaves its unit
// behind for a later wait.
class QEL_CORE_API MultiWait : private Semaphore
{
public:
    MultiWait();
    // Releases the threads that wait.
    ~MultiWait() override;

    // Registers the caller and waits: without limit for a null time-out (then true), else the
    // result of a timed wait.
    bool wait(Elapse* timeout);
    void releaseWaiters();

private:
    void addWaiter();

    Mutex m_Mutex;
    std::uint32_t m_Waiters;
};

} // namespace Qel::Core
