// The load hook of the library.
//
// This source stands last in the library's list of sources, so that its initialiser runs after
// every other static initialiser of the library. It registers the unload handler with the
// library's own list of exit handlers: registered after every static object, the handler runs
// before all of their destructors, at dlclose or at the end of the process.
#include "Infrastructure/QelCore/System/Frame.h"

#include <cstdlib>

namespace Qel::Core {

namespace {
void UnloadHandler()
{
    Frame::OnLibraryUnload();
}

__attribute__((constructor)) void LibraryLoadHook()
{
    Frame::OnLibraryLoad();
}
} // namespace

void Frame::OnLibraryLoad()
{
    // Within a shared library, atexit registers with the library's own handle: the handler runs
    // when the library is unloaded, or when the process ends if it never is.
    std::atexit(&UnloadHandler);
    // There are no per-thread attach and detach calls to refuse on this platform.
}

} // namespace Qel::Core
