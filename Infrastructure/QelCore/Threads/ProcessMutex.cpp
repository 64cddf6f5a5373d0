// The process mutex: waits, slices and the warnings and errors of a named lock.
#include "Infrastructure/QelCore/ProcessMutex.h"

#include "Infrastructure/QelCore/Platform/NamedMutex.h"
#include "Infrastructure/QelCore/Platform/TimePlatform.h"
#include "Infrastructure/QelCore/Threads/MainThread.h"

#include <algorithm>

namespace Qel::Core {
namespace {

constexpr std::int64_t kSliceTicks = 100 * 10000; // 100 ms

} // namespace

ProcessMutex::ProcessMutex(const std::string& name) : m_sName(name)
{
    std::replace(m_sName.begin(), m_sName.end(), '\\', '/');
    m_hMutex = Platform::NamedMutex::Open(m_sName, m_nOpenError);
    QEL_ASSERT(m_hMutex != 0);
}

ProcessMutex::~ProcessMutex() = default;

void ProcessMutex::Lock(const Elapse& timeout)
{
    QEL_ASSERT(m_hMutex != 0);
    if (MainThread::IsMain()) {
        if (!TryLock(timeout)) QEL_RAISE_ERROR(LockTimeout(timeout.ToString()), "Qel.Core.ProcessMutex");
        return;
    }
    if (!m_hMutex) {
        QEL_RAISE_ERROR(WaitFailed(m_sName, Platform::SystemErrorText(m_nOpenError)), "Qel.Core.ProcessMutex");
        return;
    }
    Platform::Deadline deadline = Platform::DeadlineAfterTicks(timeout.GetRawTimerTicks());
    int error = 0;
    switch (m_hMutex->LockUntil(timeout == Elapse::Infinite() ? nullptr : &deadline, error)) {
    case Platform::NamedMutex::eACQUIRED: return;
    case Platform::NamedMutex::eABANDONED:
        QEL_RAISE_WARNING(ProcessMutexWaitAbandoned(m_sName), "Qel.Core.ProcessMutex");
        return;
    case Platform::NamedMutex::eTIMEOUT:
        QEL_RAISE_ERROR(LockTimeout(timeout.ToString()), "Qel.Core.ProcessMutex");
        return;
    default:
        QEL_RAISE_ERROR(WaitFailed(m_sName, Platform::SystemErrorText(error)), "Qel.Core.ProcessMutex");
        return;
    }
}

bool ProcessMutex::TryLock(const Elapse& timeout)
{
    QEL_ASSERT(m_hMutex != 0);
    const bool main = MainThread::IsMain();
    if (main && ++m_MainThreadDepth > GetMaxReentrancy()) {
        --m_MainThreadDepth;
        QEL_RAISE_ERROR(ExceededMaxReentrancy(), "Qel.Core.ProcessMutex.TryLock");
        return false;
    }
    const Platform::Deadline deadline = Platform::DeadlineAfterTicks(timeout.GetRawTimerTicks());
    bool acquired = false;
    do {
        const Platform::Deadline slice = Platform::DeadlineAfterTicks(kSliceTicks);
        int error = 0;
        Platform::NamedMutex::Result result =
            m_hMutex ? m_hMutex->LockUntil(&slice, error) : Platform::NamedMutex::eFAILED;
        if (result == Platform::NamedMutex::eACQUIRED || result == Platform::NamedMutex::eABANDONED) {
            acquired = true;
            if (result == Platform::NamedMutex::eABANDONED)
                QEL_RAISE_WARNING(ProcessMutexWaitAbandoned(m_sName), "Qel.Core.ProcessMutex");
            break;
        }
        if (main) MainThread::YieldHeldLocks();
    } while (!Platform::HasPassed(deadline));
    if (main) {
        --m_MainThreadDepth;
        if (acquired) MainThread::AddHeldLock(this);
    }
    return acquired;
}

void ProcessMutex::Unlock()
{
    QEL_ASSERT(m_hMutex != 0);
    if (MainThread::IsMain()) MainThread::RemoveHeldLock(this);
    if (m_hMutex) m_hMutex->Unlock();
}

} // namespace Qel::Core
