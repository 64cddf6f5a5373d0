// The System facts of a code position, internal to the library.
#pragma once

#include "Infrastructure/QelCore/AlertInfo.h"

namespace Qel::Core {

// Adds process name, process id, thread name, thread id, operating system and host, in this
// order and each only when it is not empty. Nothing while the library unloads or before System
// exists.
void AddSystemDetails(CodeContext& context);

} // namespace Qel::Core
