// Debug output: the Linux stand-in for the debugger channel of the original platform.
#include "Infrastructure/QelCore/Platform/Platform.h"

#include "Infrastructure/QelCore/Platform/Threads.h"
#include "Infrastructure/QelCore/Utilities/Immortal.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <new>
#include <unistd.h>

namespace Qel::Core::Platform {
namespace {

// The hook is guarded by a plain mutex: debug output is rare, and it is sent from paths (unload,
// failed assertions) where the library's own locks may already be gone.
// Never destroyed: the unload message is sent after the library's static destructors may have run.
std::mutex& HookMutex()
{
    static Utilities::Immortal<std::mutex> s_Mutex;
    return s_Mutex.Get();
}

// A fork's child starts with the hook's lock free: a thread of the parent may have held it.
void ResetHookLockInChild()
{
    new (&HookMutex()) std::mutex();
}

[[maybe_unused]] const bool s_bForkHandlerRegistered = (AtForkChild(&ResetHookLockInChild), true);

DebugOutputHook& Hook()
{
    static Utilities::Immortal<DebugOutputHook> s_Hook;
    return s_Hook.Get();
}

// Writes all of the text to the descriptor, looping on short counts and interruptions.
void WriteAll(int fd, const char* data, std::size_t size)
{
    while (size > 0) {
        ssize_t written = ::write(fd, data, size);
        if (written < 0) {
            if (errno == EINTR) continue;
            return;
        }
        data += written;
        size -= static_cast<std::size_t>(written);
    }
}

} // namespace

void DebugOutput(const std::string& text)
{
    try {
        DebugOutputHook hook;
        {
            std::lock_guard<std::mutex> guard(HookMutex());
            hook = Hook();
        }
        if (hook) {
            hook(text);
            return;
        }
        const char* target = std::getenv("QEL_DEBUG_OUTPUT");
        if (target == nullptr || *target == '\0') return;
        if (std::strcmp(target, "stderr") == 0) {
            WriteAll(STDERR_FILENO, text.data(), text.size());
            return;
        }
        int fd = ::open(target, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (fd < 0) return;
        WriteAll(fd, text.data(), text.size());
        ::close(fd);
    } catch (...) {
        // Debug output never takes its caller down.
    }
}

DebugOutputHook SetDebugOutputHook(DebugOutputHook hook)
{
    std::lock_guard<std::mutex> guard(HookMutex());
    DebugOutputHook previous = std::move(Hook());
    Hook() = std::move(hook);
    return previous;
}

} // namespace Qel::Core::Platform
