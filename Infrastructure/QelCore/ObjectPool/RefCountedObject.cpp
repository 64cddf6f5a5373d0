// The waitable user count.
#include "Infrastructure/QelCore/RefCountedObject.h"

#include "Infrastructure/QelCore/Platform/Locks.h"

namespace Qel::Core {

RefCountedObject::RefCountedObject() : m_refCount(0) {}

RefCountedObject::~RefCountedObject()
{
    try {
        Lock guard(m_Lock);
        QEL_ASSERT(m_refCount == 0);
    } catch (...) {
        // A destructor lets nothing out.
    }
}

int RefCountedObject::AddRef()
{
    Lock guard(m_Lock);
    return ++m_refCount;
}

int RefCountedObject::Release()
{
    Lock guard(m_Lock);
    --m_refCount;
    QEL_ASSERT(m_refCount >= 0);
    return m_refCount;
}

int RefCountedObject::GetRefCount() const
{
    Lock guard(m_Lock);
    return m_refCount;
}

bool RefCountedObject::PollForZeroRefCount(const Elapse& timeout, const Elapse& pollInterval)
{
    const Platform::Deadline deadline = Platform::DeadlineAfterTicks(timeout.GetRawTimerTicks());
    bool bGoOn = false;
    do {
        // What was seen before the sleep decides: one more interval is slept after the count
        // reached 0 or the deadline passed.
        bGoOn = GetRefCount() > 0 && !Platform::HasPassed(deadline);
        QelSleep(pollInterval);
    } while (bGoOn);
    return GetRefCount() == 0;
}

} // namespace Qel::Core
