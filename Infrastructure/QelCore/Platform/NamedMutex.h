// A lock shared by name between the processes of a machine.
//
// It is a robust, process-shared, recursive pthread mutex in a POSIX shared-memory object whose
// name is derived from the given name ("/qel.pm.<name>", with '/' and '%' escaped, too long names
// hashed). Ownership is by thread, with nesting. When the owning thread or its process ends
// without releasing the lock, the next acquirer gets it with the "abandoned" result, like a
// Windows mutex. The shared-memory object outlives its processes (/dev/shm), so an abandoned lock
// is reported at the next use even after all processes have gone.
//
// The mapping of a name is made once per process and kept for the process's life: a robust
// mutex that a thread of this process holds must stay mapped.
#pragma once

#include "Infrastructure/QelCore/Platform/Locks.h"
#include "Infrastructure/QelCore/QelCoreExport.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

namespace Qel::Core::Platform {

class QEL_CORE_API NamedMutex
{
public:
    // The results of a wait, with the numbers of the Windows wait results.
    enum Result : int
    {
        eACQUIRED = 0,
        eABANDONED = 128, // acquired; the previous owner ended without releasing
        eTIMEOUT = 258,
        eFAILED = -1,     // see LastError
    };

    // The lock of that name, made if it does not exist; null if the system refuses (errno-style
    // code in `error`).
    static std::shared_ptr<NamedMutex> Open(const std::string& name, int& error);
    // Removes the name from the system (tests); processes that have it open keep their lock.
    static bool Remove(const std::string& name);
    // The shared-memory name that carries `name`.
    static std::string ObjectName(const std::string& name);

    // Waits until the deadline (none: without limit). Blocks; never raises.
    Result LockUntil(const Deadline* deadline, int& error);
    // Words of shared memory beside the lock (sWORD_COUNT of them, 0 when the lock was made) in
    // which the holders of the lock keep state of their own; read and written under the lock.
    static constexpr int sWORD_COUNT = 2;
    std::atomic<std::uint64_t>* Words();
    // Releases one level of the calling thread's ownership; a thread that does not own the lock
    // changes nothing.
    void Unlock();

    struct Shared;
    explicit NamedMutex(Shared* shared) : m_pShared(shared) {}

private:
    Shared* m_pShared; // mapped for the process's life
};

} // namespace Qel::Core::Platform
