// Internals of the library frame shared by its sources.
#pragma once

#include "Infrastructure/QelCore/Globals.h"

#include <list>

namespace Qel::Core::Frame {

// The list of registered singletons (newest first) and its lock, built at load in their place of
// the start-up order.
std::list<ISingletonRegistryEntry*>& SingletonList();
FrameMutex& SingletonMutex();

// Whether Shutdown has begun; it never goes back.
bool ShutdownBegun();

// Destroys every registered singleton, newest first, outside the registry's lock.
void DestroyAllSingletons();

// Runs once when the library is loaded, after every static initialiser of the library.
void OnLibraryLoad();
// Runs as the library's first exit handler when it is unloaded or the process ends.
void OnLibraryUnload();

} // namespace Qel::Core::Frame
