// The report file and the guards of the fatal way out (see FatalExit.h).
#include "Infrastructure/QelCore/Platform/FatalExit.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

namespace Qel::Core::Platform {

// ---- the report file ----

ReportFile::~ReportFile()
{
    Close();
}

bool ReportFile::Open(const std::string& path)
{
    Close();
    do {
        m_iFile = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    } while (m_iFile < 0 && errno == EINTR);
    return m_iFile >= 0;
}

bool ReportFile::Write(const std::string& bytes)
{
    if (m_iFile < 0) return false;
    const char* data = bytes.data();
    std::size_t left = bytes.size();
    while (left > 0) {
        ssize_t written = ::write(m_iFile, data, left);
        if (written < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data += written;
        left -= static_cast<std::size_t>(written);
    }
    return true;
}

void ReportFile::Close()
{
    if (m_iFile >= 0) ::close(m_iFile);
    m_iFile = -1;
}

// ---- the guards ----

namespace {

std::atomic<bool> s_bGuardsArmed{false};
// Read by the signal handler and the watchdog; written once before either can run.
volatile std::sig_atomic_t s_iExitStatus = 255;
int s_iLimitSeconds = 0;

void WriteRaw(const char* text, std::size_t size)
{
    while (size > 0) {
        ssize_t written = ::write(STDERR_FILENO, text, size);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return;
        text += written;
        size -= static_cast<std::size_t>(written);
    }
}

// Only async-signal-safe calls: the handler may run in the middle of anything.
void EndOnSignal(int)
{
    ::_exit(s_iExitStatus);
}

void* Watchdog(void*)
{
    struct timespec left = {s_iLimitSeconds, 0};
    while (::nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
    char text[128];
    int size = std::snprintf(text, sizeof text, "Fatal exit still running after %d s: ending the process now\n",
                             s_iLimitSeconds);
    if (size > 0) WriteRaw(text, static_cast<std::size_t>(size) < sizeof text ? static_cast<std::size_t>(size) : sizeof text - 1);
    ::_exit(s_iExitStatus);
}

// An alternate stack for the arming thread, so that the handler also runs after a stack overflow
// of that thread. A thread that has one already keeps it.
alignas(16) char s_AlternateStack[64 * 1024];

void UseAlternateStack()
{
    stack_t current{};
    if (::sigaltstack(nullptr, &current) != 0 || (current.ss_flags & SS_DISABLE) == 0) return;
    stack_t stack{};
    stack.ss_sp = s_AlternateStack;
    stack.ss_size = sizeof s_AlternateStack;
    stack.ss_flags = 0;
    (void)::sigaltstack(&stack, nullptr);
}

} // namespace

void ArmFatalExitGuards(int status, int limitSeconds)
{
    if (s_bGuardsArmed.exchange(true)) return;
    s_iExitStatus = status & 0xff;
    s_iLimitSeconds = limitSeconds;

    UseAlternateStack();
    struct sigaction action{};
    action.sa_handler = &EndOnSignal;
    action.sa_flags = SA_ONSTACK | SA_NODEFER;
    sigemptyset(&action.sa_mask);
    for (int signal : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGTRAP}) (void)::sigaction(signal, &action, nullptr);

    if (limitSeconds <= 0) return;
    pthread_attr_t attributes;
    if (::pthread_attr_init(&attributes) != 0) return;
    (void)::pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    (void)::pthread_attr_setstacksize(&attributes, 256 * 1024);
    // The watchdog takes no signal: they stay with the threads that expect them.
    sigset_t all, previous;
    sigfillset(&all);
    (void)::pthread_sigmask(SIG_SETMASK, &all, &previous);
    pthread_t thread;
    (void)::pthread_create(&thread, &attributes, &Watchdog, nullptr);
    (void)::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    (void)::pthread_attr_destroy(&attributes);
}

void QuickExit(int status)
{
    ::_exit(status & 0xff);
}

void ParkThread()
{
    for (;;) ::pause();
}

} // namespace Qel::Core::Platform
