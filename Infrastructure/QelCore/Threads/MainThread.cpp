// The main thread: its id, the locks it holds, and its waits that never block blindly.
#include "Infrastructure/QelCore/Threads/MainThread.h"

#include "Infrastructure/QelCore/System.h"
#include "Infrastructure/QelCore/Platform/Platform.h"
#include "Infrastructure/QelCore/System/Frame.h"

#include <algorithm>
#include <chrono>
#include <list>
#include <map>

namespace Qel::Core {
namespace {

// Both belong to the main thread alone, so they have no lock.
std::list<IMutex*>& HeldLocks()
{
    static std::list<IMutex*> s_HeldLocks;
    return s_HeldLocks;
}

std::map<const void*, std::weak_ptr<MainThread::BusyWaitImpl>>& BusyWaits()
{
    static std::map<const void*, std::weak_ptr<MainThread::BusyWaitImpl>> s_BusyWaits;
    return s_BusyWaits;
}

// The main thread polls in 1 ms slices for the first 100 ms of a wait, then in 10 ms slices,
// yielding its locks and pumping messages between them.
constexpr std::int64_t kFastSliceTicks = 1 * 10000;
constexpr std::int64_t kSlowSliceTicks = 10 * 10000;
constexpr auto kFastPollPeriod = std::chrono::milliseconds(100);

} // namespace

void SetMainThread()
{
    MainThread::g_iMainThreadId.store(Platform::CurrentThreadId());
}

void SetMainThreadId(std::uint32_t threadId)
{
    MainThread::g_iMainThreadId.store(threadId);
}

std::uint32_t GetMainThreadId()
{
    return MainThread::g_iMainThreadId.load(std::memory_order_relaxed);
}

bool IsMainThread()
{
    return MainThread::IsMain();
}

int GetMaxReentrancy()
{
    return 100;
}

namespace MainThread {

std::atomic<std::uint32_t> g_iMainThreadId{0};

void AddHeldLock(IMutex* mutex)
{
    if (Frame::ShutdownBegun()) return;
    HeldLocks().push_back(mutex);
}

void RemoveHeldLock(IMutex* mutex)
{
    if (Frame::ShutdownBegun()) return;
    auto& held = HeldLocks();
    auto found = std::find(held.begin(), held.end(), mutex);
    if (found != held.end()) held.erase(found);
}

void YieldHeldLocks()
{
    if (Frame::ShutdownBegun()) return;
    // The main thread's own Unlock and Lock keep the list right as they go.
    std::list<IMutex*> held = HeldLocks();
    for (IMutex* mutex : held) mutex->Unlock();
    System::PumpMessages(10);
    for (IMutex* mutex : held) mutex->Lock(Elapse::Infinite());
}

BusyWaitImpl::BusyWaitImpl(Poll poll, Platform::Deadline deadline)
    : m_Poll(std::move(poll)), m_Deadline(deadline), m_Start(std::chrono::steady_clock::now())
{
}

int BusyWaitImpl::Wait()
{
    while (!m_bCompleted) {
        bool early = std::chrono::steady_clock::now() - m_Start < kFastPollPeriod;
        Platform::Deadline slice = Platform::DeadlineAfterTicks(early ? kFastSliceTicks : kSlowSliceTicks);
        bool last = m_Deadline <= slice;
        int result = m_Poll(last ? m_Deadline : slice);
        if (result == Platform::WAIT_SIGNALLED || (result == Platform::WAIT_TIMED_OUT && last)) {
            m_bTimedOut = result != Platform::WAIT_SIGNALLED;
            m_bCompleted = true;
            break;
        }
        if (result != Platform::WAIT_TIMED_OUT) return Platform::WAIT_FAILED_CODE;
        YieldHeldLocks();
    }
    return m_bTimedOut ? Platform::WAIT_TIMED_OUT : Platform::WAIT_SIGNALLED;
}

std::shared_ptr<BusyWaitImpl> CreateBusyWait(const void* object, BusyWaitImpl::Poll poll, Platform::Deadline deadline)
{
    auto& waits = BusyWaits();
    auto found = waits.find(object);
    if (found != waits.end()) {
        if (std::shared_ptr<BusyWaitImpl> pending = found->second.lock()) return pending;
    }
    for (auto it = waits.begin(); it != waits.end();) it = it->second.expired() ? waits.erase(it) : std::next(it);
    auto wait = std::make_shared<BusyWaitImpl>(std::move(poll), deadline);
    waits[object] = wait;
    return wait;
}

} // namespace MainThread
} // namespace Qel::Core
