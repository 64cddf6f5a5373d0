// The platform layer of QelCore on Linux.
//
// This is the only part of the library that includes POSIX, Linux or C-library-specific headers.
// Each function serves one need of the library ("the executable's path", "the debug output"),
// not one system call. Nothing here is installed; the few functions that tests or hosts need
// directly are exported and marked so.
//
// Porting decisions taken here:
// - Debug output: there is no debugger channel on Linux. Text goes to an installable hook (tests
//   use it); else, with QEL_DEBUG_OUTPUT=stderr, to the standard error stream; with any other
//   value of QEL_DEBUG_OUTPUT, appended to the file of that name; else it is dropped.
// - Type names: the raw name is the Itanium mangled name of the type information (stable and
//   unique per class); the readable name is its demangled form, without any "class " prefix.
// - Function names: the signature of a call site is the compiler's pretty function text; the
//   plain name is the qualified name cut out of it.
// - Thread ids are the kernel's thread ids (gettid), cached per thread.
#pragma once

#include "Infrastructure/QelCore/QelCoreExport.h"

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <typeinfo>

namespace Qel::Core::Platform {

// ---- debug output ----

// Receives each text sent to the debug output, exactly as sent.
using DebugOutputHook = std::function<void(const std::string&)>;

// Sends a text to the debug output (see above). Never throws, never blocks on anything but the
// write itself; a failed write is dropped.
QEL_CORE_API void DebugOutput(const std::string& text);

// Installs a hook that receives all debug output of the process in place of the environment's
// choice; an empty hook restores that choice. Returns the hook that was installed before.
QEL_CORE_API DebugOutputHook SetDebugOutputHook(DebugOutputHook hook);

// ---- process ----

// Full path of the running executable ("/proc/self/exe"); empty if it cannot be read.
std::string ExecutablePath();
// Leaf of the executable's path, without folders.
std::string ExecutableName();
// Id of the process.
std::uint32_t ProcessId();
// Kernel id of the calling thread, cached after the first call on each thread.
QEL_CORE_API std::uint32_t CurrentThreadId();

// The per-thread cache behind CurrentThreadId, for the library's hot paths (lock and unlock).
// Initial-exec TLS: one instruction to read, also when the library is loaded with dlopen (the
// four bytes come out of the static TLS reserve that the C library keeps for such loads).
extern constinit thread_local std::uint32_t t_iThreadIdCache __attribute__((tls_model("initial-exec")));
std::uint32_t FetchThreadId();
inline std::uint32_t ThreadIdFast()
{
    std::uint32_t id = t_iThreadIdCache;
    return __builtin_expect(id != 0, 1) ? id : FetchThreadId();
}
// Writes the text to the standard error stream and flushes it; failures are dropped.
void WriteStandardError(const std::string& text);
// Ends the process with the status through the C runtime's exit: exit handlers run.
[[noreturn]] void ExitProcess(int status);

// ---- types and call sites ----

// Raw (mangled) name of a type: stable per class and unique among classes.
std::string RawTypeName(const std::type_info& type);
// Readable (demangled) name of a type, such as "Qel::Core::LogicError".
std::string ReadableTypeName(const std::type_info& type);
// The qualified function name cut out of a pretty-function signature: for
// "void Qel::Core::Error::Throw()" it is "Qel::Core::Error::Throw".
std::string FunctionNameFromSignature(std::string_view signature);

// ---- memory ----

// Tells the leak checker of a sanitizer build that a heap block is kept on purpose for the life
// of the process (and left behind when the library is unloaded); nothing in other builds.
void KeepForever(const void* block);

} // namespace Qel::Core::Platform
