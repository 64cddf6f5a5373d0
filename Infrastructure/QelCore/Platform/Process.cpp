// Process and thread facts, the standard error stream and the process exit.
#include "Infrastructure/QelCore/Platform/Platform.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <sys/types.h>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace Qel::Core::Platform {

std::string ExecutablePath()
{
    char buffer[PATH_MAX + 1];
    ssize_t length = ::readlink("/proc/self/exe", buffer, PATH_MAX);
    if (length <= 0) return std::string();
    return std::string(buffer, static_cast<std::size_t>(length));
}

std::string ExecutableName()
{
    std::string path = ExecutablePath();
    std::string::size_type slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::uint32_t ProcessId()
{
    return static_cast<std::uint32_t>(::getpid());
}

// The system call costs some 80 ns; the id of a thread never changes.
constinit thread_local std::uint32_t t_iThreadIdCache __attribute__((tls_model("initial-exec"))) = 0;

std::uint32_t FetchThreadId()
{
    t_iThreadIdCache = static_cast<std::uint32_t>(::gettid());
    return t_iThreadIdCache;
}

std::uint32_t CurrentThreadId()
{
    return ThreadIdFast();
}

void WriteStandardError(const std::string& text)
{
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
}

void KeepForever(const void* block)
{
#if defined(__SANITIZE_ADDRESS__)
    __lsan_ignore_object(block);
#else
    (void)block;
#endif
}

void ExitProcess(int status)
{
    std::exit(status);
}

} // namespace Qel::Core::Platform
