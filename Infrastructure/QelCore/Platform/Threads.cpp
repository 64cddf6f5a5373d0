// Operating-system threads (see Threads.h for the decisions behind each function).
#include "Infrastructure/QelCore/Platform/Threads.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <atomic>
#include <exception>
#include <new>
#include <mutex>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

#include "Infrastructure/QelCore/Platform/Locks.h"
#include "Infrastructure/QelCore/Platform/Platform.h"
#include "Infrastructure/QelCore/Platform/TimePlatform.h"
#include "Infrastructure/QelCore/Utilities/Immortal.h"

namespace Qel::Core::Platform {
namespace {

static_assert(sizeof(pthread_t) <= sizeof(ThreadHandle), "a pthread_t must fit a ThreadHandle");

constexpr std::size_t kMinStackSize = 1u << 20;

pthread_t ToPthread(ThreadHandle handle)
{
    pthread_t thread;
    std::memcpy(&thread, &handle, sizeof thread);
    return thread;
}

ThreadHandle FromPthread(pthread_t thread)
{
    ThreadHandle handle = 0;
    std::memcpy(&handle, &thread, sizeof thread);
    return handle;
}

std::atomic<int> g_iFinishing{0};
thread_local bool t_bFinishing = false;

struct StartBlock
{
    ThreadEntry entry;
    void* argument;
};

// Takes the mark of a finishing thread away when the thread leaves its entry, also when the C
// library unwinds it (pthread_exit, cancellation).
struct FinishingMark
{
    ~FinishingMark()
    {
        if (t_bFinishing) {
            t_bFinishing = false;
            g_iFinishing.fetch_sub(1);
        }
    }
};

void* ThreadMain(void* data)
{
    StartBlock block = *static_cast<StartBlock*>(data);
    delete static_cast<StartBlock*>(data);
    FinishingMark mark;
    block.entry(block.argument);
    return nullptr;
}

int KillSignal()
{
    return SIGRTMIN + 5;
}

// Ends the calling thread through the kernel: nothing of the thread's user-space state runs.
// Threads that closed their own handles, to be joined by someone else.
struct Graves
{
    std::mutex m_Mutex;
    std::vector<pthread_t> m_Threads;
};

Graves& EndedThreads()
{
    static Utilities::Immortal<Graves> s_Graves;
    return s_Graves.Get();
}

void KillHandler(int)
{
    // A thread in the middle of a wait's bookkeeping ends as soon as it is through.
    if (PrepareForcedEnd()) EndCallingThreadNow();
}

// ---- fork ----

constexpr int kMaxForkHandlers = 8;
constinit std::atomic<void (*)()> g_ForkHandlers[kMaxForkHandlers] = {};
constinit std::atomic<int> g_iForkHandlers{0};

void ChildAfterFork()
{
    // The library's id of the forking thread: the locks it holds stay its own in the child.
    g_iForkingThreadId.store(ThreadIdFast());
    g_iForkGeneration.fetch_add(1);
    // The parent's threads are not in the child: forget those that closed their own handles
    // (their descriptors are the parent's) and those that were on their way out. The list's
    // lock may have been held by one of them: the list starts afresh.
    Graves& graves = EndedThreads();
    if (graves.m_Threads.capacity() > 0) KeepForever(graves.m_Threads.data());
    new (&graves) Graves();
    g_iFinishing.store(t_bFinishing ? 1 : 0);
    int count = g_iForkHandlers.load();
    for (int i = 0; i < count && i < kMaxForkHandlers; ++i)
        if (void (*handler)() = g_ForkHandlers[i].load()) handler();
}

void InstallForkHandler()
{
    static std::once_flag s_Installed;
    std::call_once(s_Installed, [] { ::pthread_atfork(nullptr, nullptr, &ChildAfterFork); });
}

// Installed at load, so that every fork counts.
[[maybe_unused]] const bool s_bForkHandlerInstalled = (InstallForkHandler(), true);

void InstallKillHandler()
{
    static std::once_flag s_Installed;
    std::call_once(s_Installed, [] {
        struct sigaction action;
        std::memset(&action, 0, sizeof action);
        action.sa_handler = &KillHandler;
        sigemptyset(&action.sa_mask);
        ::sigaction(KillSignal(), &action, nullptr);
    });
}

} // namespace

bool StartThread(std::uint32_t stackSize, ThreadEntry entry, void* argument, ThreadHandle& handle)
{
    handle = 0;
    ReapThreads(false);
    pthread_attr_t attributes;
    if (::pthread_attr_init(&attributes) != 0) return false;
    std::size_t size = stackSize < kMinStackSize ? kMinStackSize : stackSize;
    ::pthread_attr_setstacksize(&attributes, size);
    auto* block = new StartBlock{entry, argument};
    pthread_t thread;
    int status = ::pthread_create(&thread, &attributes, &ThreadMain, block);
    ::pthread_attr_destroy(&attributes);
    if (status != 0) {
        delete block;
        errno = status;
        return false;
    }
    handle = FromPthread(thread);
    return true;
}

void CloseThread(ThreadHandle& handle, bool threadHasEnded)
{
    if (handle == 0) return;
    pthread_t thread = ToPthread(handle);
    handle = 0;
    if (::pthread_equal(thread, ::pthread_self())) {
        Graves& graves = EndedThreads();
        std::lock_guard<std::mutex> guard(graves.m_Mutex);
        graves.m_Threads.push_back(thread);
    } else if (threadHasEnded) {
        ::pthread_join(thread, nullptr);
    } else {
        ::pthread_detach(thread);
    }
}

void MarkThreadFinishing()
{
    if (t_bFinishing) return;
    t_bFinishing = true;
    g_iFinishing.fetch_add(1);
}

void FinishThreads(int milliseconds)
{
    for (int waited = 0; g_iFinishing.load() > 0 && waited < milliseconds; ++waited) ::usleep(1000);
    ReapThreads(true);
}

void ReapThreads(bool wait)
{
    Graves& graves = EndedThreads();
    std::lock_guard<std::mutex> guard(graves.m_Mutex);
    auto& threads = graves.m_Threads;
    for (auto it = threads.begin(); it != threads.end();) {
        if (::pthread_equal(*it, ::pthread_self())) {
            ++it; // a thread that unloads the library on its own way out
        } else if (wait ? ::pthread_join(*it, nullptr) == 0 : ::pthread_tryjoin_np(*it, nullptr) == 0) {
            it = threads.erase(it);
        } else {
            ++it;
        }
    }
}

bool IsCallingThread(ThreadHandle handle)
{
    return handle != 0 && ::pthread_equal(ToPthread(handle), ::pthread_self());
}

bool SetThreadPriorityStep(std::uint32_t threadId, int step)
{
    int nice;
    if (step <= -15) nice = 19;
    else if (step <= -2) nice = 10;
    else if (step == -1) nice = 5;
    else if (step == 0) nice = 0;
    else if (step == 1) nice = -5;
    else if (step <= 2) nice = -10;
    else nice = -20;
    // On Linux a nice value belongs to a thread when it is given the thread's kernel id.
    return ::setpriority(PRIO_PROCESS, static_cast<id_t>(threadId), nice) == 0;
}

bool KillThread(ThreadHandle& handle, std::uint32_t threadId)
{
    if (handle == 0) return false;
    InstallKillHandler();
    int status = ::pthread_kill(ToPthread(handle), KillSignal());
    if (status != 0) {
        errno = status;
        return false;
    }
    // The handler runs as soon as the thread is scheduled; the kernel then removes the thread.
    pid_t process = ::getpid();
    for (int i = 0; i < 100000; ++i) {
        if (::syscall(SYS_tgkill, process, static_cast<pid_t>(threadId), 0) != 0 && errno == ESRCH) break;
        ::usleep(100);
    }
    handle = 0; // abandoned, never joined: see above
    return true;
}

bool HasThreadEnded(ThreadHandle& handle)
{
    if (handle == 0) return false;
    if (::pthread_tryjoin_np(ToPthread(handle), nullptr) != 0) return false;
    handle = 0;
    return true;
}

std::string LastSystemErrorText()
{
    return SystemErrorText(errno);
}

void RethrowIfThreadEnding()
{
    // The C library's unwinding is not a C++ exception, and std::current_exception has no object
    // to give for such an exception. No exception of another language may be swallowed either.
    if (!std::current_exception()) throw;
}

void AtForkChild(void (*function)())
{
    InstallForkHandler();
    int slot = g_iForkHandlers.fetch_add(1);
    if (slot < kMaxForkHandlers) g_ForkHandlers[slot].store(function);
}

} // namespace Qel::Core::Platform
