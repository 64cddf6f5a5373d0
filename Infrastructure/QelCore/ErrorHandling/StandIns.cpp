// Stand-ins for services that come later in the library (see StandIns.h).
#include "Infrastructure/QelCore/ErrorHandling/StandIns.h"

#include "Infrastructure/QelCore/Platform/Platform.h"
#include "Infrastructure/QelCore/Time.h"

#include <atomic>

namespace Qel::Core::StandIns {
namespace {
std::atomic<unsigned> s_iFaultAdapterUsers{0};
} // namespace

std::shared_ptr<AlertInfo::ContextStack> CaptureCallStack(unsigned)
{
    return nullptr;
}

void ReleaseDebugHelp() {}

void FaultAdapterInitialize()
{
    ++s_iFaultAdapterUsers;
}

void FaultAdapterShutdown()
{
    // A shutdown at a count of 0 leaves the count alone.
    unsigned users = s_iFaultAdapterUsers.load();
    while (users > 0 && !s_iFaultAdapterUsers.compare_exchange_weak(users, users - 1)) {
    }
}

unsigned FaultAdapterUserCount()
{
    return s_iFaultAdapterUsers.load();
}

} // namespace Qel::Core::StandIns
