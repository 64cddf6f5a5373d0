// The main thread's machinery, internal to the library: the list of locks that the main thread
// holds, the yield of those locks while it waits, and its polling wait on a waiting object.
#pragma once

#include "Infrastructure/QelCore/Mutex.h"
#include "Infrastructure/QelCore/Platform/Locks.h"
#include "Infrastructure/QelCore/Platform/Platform.h"

#include <atomic>
#include <cstdint>

#include <functional>
#include <memory>

namespace Qel::Core::MainThread {

// The id of the main thread; 0 while no thread is.
extern std::atomic<std::uint32_t> g_iMainThreadId;

// IsMainThread for the library's hot paths: with no main thread named, one load.
inline bool IsMain()
{
    std::uint32_t main = g_iMainThreadId.load(std::memory_order_relaxed);
    return main != 0 && main == Platform::ThreadIdFast();
}

// Appends an acquisition of the main thread (nothing once shutdown has begun).
void AddHeldLock(IMutex* mutex);
// Removes the first entry of the mutex, if any (nothing once shutdown has begun).
void RemoveHeldLock(IMutex* mutex);
// Gives up every lock the main thread holds, pumps messages, and takes the locks back.
void YieldHeldLocks();

// One pending wait of the main thread on a waiting object. A nested wait on the same object (from
// a message handler run while the outer one yields) shares the pending one.
class BusyWaitImpl
{
public:
    // Tries the object once within the given deadline; gives a platform wait code.
    using Poll = std::function<int(Platform::Deadline)>;
    BusyWaitImpl(Poll poll, Platform::Deadline deadline);
    // Polls in short slices, yielding held locks between polls, until the object is signalled
    // (0) or the deadline passes (258).
    int Wait();

private:
    Poll m_Poll;
    Platform::Deadline m_Deadline;
    Platform::Deadline m_Start;
    bool m_bCompleted = false;
    bool m_bTimedOut = false;
};

// The pending wait on `object`, shared while it lasts.
std::shared_ptr<BusyWaitImpl> CreateBusyWait(const void* object, BusyWaitImpl::Poll poll, Platform::Deadline deadline);

} // namespace Qel::Core::MainThread
