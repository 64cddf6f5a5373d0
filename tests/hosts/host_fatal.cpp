// A host that dies: each mode ends the process through the library's terminate handler.
//   host_fatal escape         an error of the host's class escapes main
//   host_fatal thread         main raises and catches one class; another escapes a std::thread
//   host_fatal terminate      std::terminate() with no error ever raised
//   host_fatal noreports      SetMaxFatalErrorReports(0), then an error escapes main
//   host_fatal listener       a listener prints "Heard <type> <report path>", then an error escapes
//   host_fatal info           two AddFatalErrorInfo keys, then an error escapes main
//   host_fatal reenter N      SetMaxFatalErrorReports(N); a listener calls std::terminate() the
//                             first time it hears of the fatal error
//   host_fatal noexcept       an error raised in a noexcept function
//   host_fatal joinable       a joinable std::thread is destroyed
//   host_fatal busy N         threads log and raise while main's error escapes; with N=0 no report
//                             is written and the log's worker still runs at the exit
//   host_fatal deadlock       an exit handler waits for a thread that waits for a lock the dying
//                             thread holds; the way out is limited to 2 s
//   host_fatal crash          a static destructor of the host crashes on the way out
//   host_fatal log N          N entries are logged just before the error escapes
// The program prints "started" on standard output first; nothing else goes to standard error.
#include <Infrastructure/QelCore/QelCore.h>

#include "Infrastructure/QelCore/ErrorHandling/FatalError.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <thread>
#include <vector>

using namespace Qel::Core;

QEL_DEFINE_ERROR(HostFatalError, LogicError, eERROR, "host error %1% escaped", int)
QEL_DEFINE_ERROR(HostCaughtError, IOError, eERROR, "caught and handled")
QEL_DEFINE_ERROR(HostThreadError, LogicError, eCRITICAL, "escaped thread %1%", int)

namespace {

const char* const sLOGGER = "Qel.Host.Fatal";

[[noreturn]] void Escape(int number)
{
    QEL_RAISE_ERROR(HostFatalError(number), sLOGGER);
    std::abort(); // not reached: the error is thrown
}

struct HearingListener : AlertListener
{
    HearingListener() { AlertManager::Instance()->AddAlertListener(*this); }
    void UncaughtFatalError(Error& error, const std::string& reportPath) override
    {
        std::printf("Heard %s %s\n", error.GetData(AlertInfo::sTYPE_NAME).c_str(), reportPath.c_str());
        std::fflush(stdout);
        if (m_bTerminate) {
            m_bTerminate = false;
            std::terminate();
        }
    }
    bool m_bTerminate = false;
};

void RaisesInNoexcept() noexcept
{
    QEL_RAISE_ERROR(HostFatalError(9), sLOGGER);
}

// Crashes in its destructor, which runs among the host's static destructors at exit.
struct CrashOnExit
{
    ~CrashOnExit()
    {
        if (m_bArmed) {
            // An address in the first page, which is never mapped (not null, which the
            // undefined-behaviour sanitizer would catch before the fault).
            volatile std::uintptr_t address = 16;
            *reinterpret_cast<volatile int*>(address) = 1;
        }
    }
    bool m_bArmed = false;
};
CrashOnExit s_CrashOnExit;

Mutex* s_pHeldByTheDying = nullptr;
std::thread* s_pWaiter = nullptr;

} // namespace

int main(int argc, char** argv)
{
    const char* mode = argc > 1 ? argv[1] : "escape";
    int number = argc > 2 ? std::atoi(argv[2]) : 0;
    std::printf("started\n");
    std::fflush(stdout);

    if (std::strcmp(mode, "escape") == 0) Escape(1);
    if (std::strcmp(mode, "thread") == 0) {
        try {
            QEL_RAISE_ERROR(HostCaughtError(), sLOGGER);
        } catch (HostCaughtError&) {
        }
        std::thread worker([] { QEL_RAISE_ERROR(HostThreadError(2), sLOGGER); });
        worker.join();
    }
    if (std::strcmp(mode, "terminate") == 0) std::terminate();
    if (std::strcmp(mode, "noreports") == 0) {
        AlertManager::SetMaxFatalErrorReports(0);
        static HearingListener listener;
        Escape(3);
    }
    if (std::strcmp(mode, "listener") == 0) {
        static HearingListener listener;
        Escape(4);
    }
    if (std::strcmp(mode, "info") == 0) {
        AlertManager::Instance()->AddFatalErrorInfo("Station", "Bench 4");
        AlertManager::Instance()->AddFatalErrorInfo("Operator", "Ada & Grace");
        Escape(5);
    }
    if (std::strcmp(mode, "reenter") == 0) {
        AlertManager::SetMaxFatalErrorReports(number);
        static HearingListener listener;
        listener.m_bTerminate = true;
        Escape(6);
    }
    if (std::strcmp(mode, "noexcept") == 0) RaisesInNoexcept();
    if (std::strcmp(mode, "joinable") == 0) {
        std::thread sleeper([] { std::this_thread::sleep_for(std::chrono::seconds(30)); });
        // Destroyed while joinable.
    }
    if (std::strcmp(mode, "busy") == 0) {
        if (number == 0) AlertManager::SetMaxFatalErrorReports(0);
        std::atomic<int> ready{0};
        for (int i = 0; i < 4; ++i) {
            std::thread([i, &ready] {
                std::shared_ptr<Logger> logger = LogManager::Instance()->GetLogger("Qel.Host.Busy");
                ++ready;
                for (int n = 0;; ++n) {
                    if (logger) logger->WriteLog(QelLogError, "busy %d entry %d", i, n);
                    try {
                        QEL_RAISE_ERROR(HostCaughtError(), sLOGGER);
                    } catch (Error&) {
                    }
                }
            }).detach();
        }
        while (ready.load() < 4) std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        Escape(7);
    }
    if (std::strcmp(mode, "deadlock") == 0) {
        FatalErrors::SetExitLimit(2);
        s_pHeldByTheDying = new Mutex();
        s_pHeldByTheDying->Lock();
        std::atomic<bool> waiting{false};
        s_pWaiter = new std::thread([&waiting] {
            waiting = true;
            Lock guard(*s_pHeldByTheDying); // never gets it
        });
        while (!waiting.load()) std::this_thread::yield();
        std::atexit([] { s_pWaiter->join(); });
        Escape(8);
    }
    if (std::strcmp(mode, "crash") == 0) {
        s_CrashOnExit.m_bArmed = true;
        Escape(10);
    }
    if (std::strcmp(mode, "log") == 0) {
        std::shared_ptr<Logger> logger = LogManager::Instance()->GetLogger("Qel.Host.Queued");
        for (int n = 0; n < number; ++n) logger->WriteLog(QelLogError, "queued entry %d", n);
        Escape(11);
    }
    std::printf("returned\n");
    return 0;
}
