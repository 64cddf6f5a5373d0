// Stand-ins for the services that the error core calls but that come later in the library:
// call stacks, the log, the system facts of a code
// position, the locale's wording of alerts, the fault adapter and the system's shutdown event.
//
// Each stand-in sits behind the call the real service will answer, is safe to call at any time
// (load, unload, any thread) and does the least that keeps raising complete: with none of the real
// services present, a raised error is still pushed, counted, thrown with its exact class and
// carries all of its basic keys. Each later service replaces its stand-in here.
#pragma once

#include "Infrastructure/QelCore/Error.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace Qel::Core::StandIns {

// ---- debug help ----

// The call stack of the calling thread: null while no symbol engine is present.
std::shared_ptr<AlertInfo::ContextStack> CaptureCallStack(unsigned maxFrames);
// Lets go of the library's hold on the symbol engine.
void ReleaseDebugHelp();

// ---- system facts of a code position ----

// Adds process, thread, OS and host details to a position: nothing while no System exists.
void AddSystemDetails(CodeContext& context);

// ---- locale ----

// Looks a string up in the current locale: none until locales exist.
bool LookupLocaleString(const std::string& table, const std::string& key, std::string& value);
// Adds a default string to the root locale's table, if the root has such a table.
void AddRootLocaleString(const std::string& table, const std::string& key, const std::string& value);

// ---- log ----

// Writes an error to the log: nothing until the log exists.
void LogError(Error& error);

// ---- fault adapter and system events ----

void FaultAdapterInitialize();
void FaultAdapterShutdown();
// Number of users of the fault adapter (Initialize calls less Shutdown calls).
QEL_CORE_API unsigned FaultAdapterUserCount();
void SignalSystemShutdown();

// ---- dispatch to the main thread and its message pump ----

// Whether the thread stands between BeginThreadDispatch and EndThreadDispatch: a worker that has
// handed work to the main thread and blocks until it is done.
bool IsThreadWaitingOnDispatch(std::uint32_t threadId);
// Marks the calling thread as waiting on dispatch, and unmarks it.
QEL_CORE_API void BeginThreadDispatch();
QEL_CORE_API void EndThreadDispatch();
// Dispatches at most `maxMessages` messages: Linux threads have no message queue, so nothing
// until a pump is installed.
void PumpMessages(int maxMessages);
// Installs a pump (empty: none) and returns the one before.
QEL_CORE_API std::function<void(int)> SetMessagePump(std::function<void(int)> pump);

} // namespace Qel::Core::StandIns
