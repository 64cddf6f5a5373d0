// Stand-ins for services that come later in the library (see StandIns.h).
#include "Infrastructure/QelCore/ErrorHandling/StandIns.h"

#include "Infrastructure/QelCore/Platform/Platform.h"
#include "Infrastructure/QelCore/Time.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <vector>

namespace Qel::Core::StandIns {
namespace {
std::atomic<unsigned> s_iFaultAdapterUsers{0};
} // namespace

std::shared_ptr<AlertInfo::ContextStack> CaptureCallStack(unsigned)
{
    return nullptr;
}

void ReleaseDebugHelp() {}


void AddSystemDetails(CodeContext&) {}

bool LookupLocaleString(const std::string&, const std::string&, std::string&)
{
    return false;
}

void AddRootLocaleString(const std::string&, const std::string&, const std::string&) {}

void LogError(Error&) {}

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

void SignalSystemShutdown() {}

namespace {
std::mutex s_DispatchMutex;
std::vector<std::uint32_t> s_DispatchingThreads;
} // namespace

bool IsThreadWaitingOnDispatch(std::uint32_t threadId)
{
    std::lock_guard<std::mutex> guard(s_DispatchMutex);
    return std::find(s_DispatchingThreads.begin(), s_DispatchingThreads.end(), threadId) !=
           s_DispatchingThreads.end();
}

void BeginThreadDispatch()
{
    std::lock_guard<std::mutex> guard(s_DispatchMutex);
    s_DispatchingThreads.push_back(Platform::CurrentThreadId());
}

void EndThreadDispatch()
{
    std::lock_guard<std::mutex> guard(s_DispatchMutex);
    auto found = std::find(s_DispatchingThreads.begin(), s_DispatchingThreads.end(), Platform::CurrentThreadId());
    if (found != s_DispatchingThreads.end()) s_DispatchingThreads.erase(found);
}

std::function<void(int)>& Pump()
{
    static std::function<void(int)> s_Pump; // the main thread's alone
    return s_Pump;
}

void PumpMessages(int maxMessages)
{
    if (Pump()) Pump()(maxMessages);
}

std::function<void(int)> SetMessagePump(std::function<void(int)> pump)
{
    std::function<void(int)> previous = std::move(Pump());
    Pump() = std::move(pump);
    return previous;
}

} // namespace Qel::Core::StandIns
