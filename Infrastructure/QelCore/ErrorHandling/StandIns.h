// Stand-ins for the services that the error core calls but that come later in the library:
// call stacks and the fault adapter.
//
// Each stand-in sits behind the call the real service will answer, is safe to call at any time
// (load, unload, any thread) and does the least that keeps raising complete: with none of the real
// services present, a raised error is still pushed, counted, thrown with its exact class and
// carries all of its basic keys. Each later service replaces its stand-in here.
#pragma once

#include "Infrastructure/QelCore/Error.h"

#include <cstdint>
#include <memory>
#include <string>

namespace Qel::Core::StandIns {

// ---- debug help ----

// The call stack of the calling thread: null while no symbol engine is present.
std::shared_ptr<AlertInfo::ContextStack> CaptureCallStack(unsigned maxFrames);
// Lets go of the library's hold on the symbol engine.
void ReleaseDebugHelp();

// ---- fault adapter and system events ----

void FaultAdapterInitialize();
void FaultAdapterShutdown();
// Number of users of the fault adapter (Initialize calls less Shutdown calls).
QEL_CORE_API unsigned FaultAdapterUserCount();

} // namespace Qel::Core::StandIns
