// A lock shared by name between the processes of a machine.
//
// ProcessMutex is an IMutex, so the Lock guard works on it. The lock is owned by a thread and
// nests: the thread that acquired it releases it, once for every acquisition. When the owning
// thread or its process ends without releasing it, the next acquirer gets the lock together with
// the warning ProcessMutexWaitAbandoned; what the lock guarded may then be half written.
//
// Blocking: Lock blocks up to its time-out (LockTimeout when the time is up; WaitFailed if the
// system fails the wait). TryLock waits in slices of 100 ms, so a zero time-out still waits up to
// 100 ms once and time-outs are rounded up to whole slices; it gives false when the time is up.
// On the main thread (see Mutex.h) both poll in those slices and yield the main thread's other
// locks between them.
//
// On Linux the lock lives in POSIX shared memory under a name derived from the given one
// (/dev/shm/qel.pm.<name>); it outlives the processes that used it, so an owner that died is
// reported at the next use even after every process has gone.
#pragma once

#include "Infrastructure/QelCore/Error.h"
#include "Infrastructure/QelCore/Mutex.h"
#include "Infrastructure/QelCore/QelCoreExport.h"

#include <cstdint>
#include <memory>
#include <string>

namespace Qel::Core {

namespace Platform {
class NamedMutex;
} // namespace Platform

QEL_DEFINE_WARNING_API(QEL_CORE_API, ProcessMutexWaitAbandoned, Warning,
                       "Acquired process lock named %1% after lock owner terminated before releasing lock",
                       std::string)
QEL_DEFINE_ERROR_API(QEL_CORE_API, WaitFailed, OSError, eERROR,
                     "Failed to acquire lock for process mutex named %1% due to following error: \n\n%2%",
                     std::string, std::string)

class QEL_CORE_API ProcessMutex : public IMutex
{
public:
    // Opens the lock of that name (every '\' taken as '/'), making it if it does not exist.
    explicit ProcessMutex(const std::string& name);
    // Closes this object's use of the lock; a lock still held counts as abandoned for the next
    // acquirer only when its owner thread ends.
    ~ProcessMutex() override;
    ProcessMutex(const ProcessMutex&) = delete;
    ProcessMutex& operator=(const ProcessMutex&) = delete;

    // The name, with forward slashes.
    const std::string& GetName() const { return m_sName; }

    void Lock(const Elapse& timeout = Elapse::Infinite()) override;
    bool TryLock(const Elapse& timeout = Elapse(0, Elapse::Seconds)) override;
    void Unlock() override;

private:
    std::string m_sName;
    std::shared_ptr<Platform::NamedMutex> m_hMutex;
    std::int32_t m_MainThreadDepth = 0; // main thread only
    int m_nOpenError = 0;               // why the lock could not be opened, if it could not
};

} // namespace Qel::Core
