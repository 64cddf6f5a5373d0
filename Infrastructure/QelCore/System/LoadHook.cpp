// The load hook of the library.
//
// This source stands last in the library's list of sources, so that its initialiser runs after
// every other static initialiser of the library. It registers the unload handler with the
// library's own list of exit handlers: registered after every static object, the handler runs
// before all of their destructors, at dlclose or at the end of the process.
#include "Infrastructure/QelCore/System/Frame.h"

#include <cxxabi.h>

#include <locale>

// The handle of this library, which the compiler's runtime gives every shared object.
extern "C" void* __dso_handle __attribute__((__visibility__("hidden")));

namespace Qel::Core {

namespace {
void UnloadHandler(void*)
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
    // Registered with the library's own handle: the handler runs when the library is unloaded, or
    // when the process ends if it never is. This is what atexit does within a shared library, said
    // directly: the thread sanitizer runs handlers given to atexit only after every one given to
    // __cxa_atexit by then, which would put the handler behind the destructors of the statics.
    abi::__cxa_atexit(&UnloadHandler, nullptr, &__dso_handle);
    // There are no per-thread attach and detach calls to refuse on this platform.

    // The standard library fills the narrow-character table of a ctype facet lazily, on first
    // use, and alert messages are formatted on any thread: fill it now, while one thread runs.
    const auto& ctype = std::use_facet<std::ctype<char>>(std::locale());
    char wide[256];
    char narrow[256];
    for (int i = 0; i < 256; ++i) wide[i] = static_cast<char>(i);
    ctype.narrow(wide, wide + 256, '?', narrow);
}

} // namespace Qel::Core
