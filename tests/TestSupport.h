// Helpers shared by the unit tests: capture of the debug output and a counting alert observer.
#pragma once

#include <Infrastructure/QelCore/QelCore.h>

#include "Infrastructure/QelCore/ErrorHandling/StandIns.h"
#include "Infrastructure/QelCore/Platform/Platform.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

namespace QelTest {

// The whole content of a file; empty if it cannot be read.
inline std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// Replaces the file's content with the text.
inline void WriteFile(const std::string& path, const std::string& text)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

// Polls the condition every 5 ms until it holds (true) or the limit passes (its last value).
inline bool Eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds limit = std::chrono::seconds(20))
{
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// Ends the test program with status 124 and a line on standard error when the scope does not end
// within the limit: a regression that hangs fails instead of stalling the run.
class Watchdog
{
public:
    Watchdog(std::chrono::milliseconds limit, std::string what) : m_What(std::move(what))
    {
        m_Thread = std::thread([this, limit] {
            std::unique_lock<std::mutex> guard(m_Mutex);
            if (!m_Done.wait_for(guard, limit, [this] { return m_bDone; })) {
                std::fprintf(stderr, "watchdog: %s did not end in time\n", m_What.c_str());
                std::fflush(stderr);
                std::_Exit(124);
            }
        });
    }
    // The same, named first: Watchdog guard("what", std::chrono::seconds(60)).
    explicit Watchdog(const char* what, std::chrono::seconds limit = std::chrono::seconds(120))
        : Watchdog(std::chrono::milliseconds(limit), what)
    {
    }
    ~Watchdog()
    {
        {
            std::lock_guard<std::mutex> guard(m_Mutex);
            m_bDone = true;
        }
        m_Done.notify_all();
        m_Thread.join();
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    std::string m_What;
    std::mutex m_Mutex;
    std::condition_variable m_Done;
    bool m_bDone = false;
    std::thread m_Thread;
};

// Runs the body in a forked child that an alarm ends after `seconds`; the child exits with the
// body's result (through _exit, so that nothing of the parent's test run happens twice). Gives
// "exit N", or "signal N" for a child that a signal ended (14, SIGALRM: it hung).
inline std::string RunInChild(const std::function<int()>& body, unsigned seconds = 20)
{
    std::fflush(nullptr);
    pid_t child = ::fork();
    if (child < 0) return "fork failed";
    if (child == 0) {
        ::alarm(seconds);
        int result = 1;
        try {
            result = body();
        } catch (...) {
            result = 3;
        }
        std::fflush(nullptr);
        ::_exit(result);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
    }
    if (WIFEXITED(status)) return "exit " + std::to_string(WEXITSTATUS(status));
    if (WIFSIGNALED(status)) return "signal " + std::to_string(WTERMSIG(status));
    return "status " + std::to_string(status);
}

// Collects the debug output while it lives.
class DebugCapture
{
public:
    DebugCapture()
    {
        m_Previous = Qel::Core::Platform::SetDebugOutputHook([this](const std::string& text) {
            std::lock_guard<std::mutex> guard(m_Mutex);
            m_Texts.push_back(text);
        });
    }
    ~DebugCapture() { Qel::Core::Platform::SetDebugOutputHook(m_Previous); }
    std::vector<std::string> Texts()
    {
        std::lock_guard<std::mutex> guard(m_Mutex);
        return m_Texts;
    }

private:
    std::mutex m_Mutex;
    std::vector<std::string> m_Texts;
    Qel::Core::Platform::DebugOutputHook m_Previous;
};

// Takes every log entry that reaches the log service while it lives (registered as a handler of
// the process's log manager, so the default log file sees none of them).
class LogCapture : public IQelLogHandler
{
public:
    LogCapture() { Qel::Core::LogManager::Instance()->RegisterHandler(this); }
    ~LogCapture() override { Qel::Core::LogManager::Instance()->UnregisterHandler(this); }
    void OnLogTreeChange() override {}
    void WriteLog(const QelLogEntry& entry) override
    {
        std::lock_guard<std::mutex> guard(m_Mutex);
        m_Entries.push_back(entry);
    }
    std::vector<QelLogEntry> Entries()
    {
        std::lock_guard<std::mutex> guard(m_Mutex);
        return m_Entries;
    }
    // Whether an entry's message holds the text.
    bool Holds(const std::string& text)
    {
        for (const QelLogEntry& entry : Entries())
            if (entry.m_Message.find(text) != std::string::npos) return true;
        return false;
    }

private:
    std::mutex m_Mutex;
    std::vector<QelLogEntry> m_Entries;
};

// Records every alert the alert manager broadcasts while it lives, and can take raised errors in
// place (a handler on the base class of all errors).
class AlertRecorder : public Qel::Core::AlertListener
{
public:
    struct Event
    {
        std::string kind;
        std::string message;
        std::string typeName;
        const void* object;
    };

    AlertRecorder() { Qel::Core::AlertManager::Instance()->AddAlertListener(*this); }
    ~AlertRecorder() override
    {
        HandleInPlace(false);
        RemoveAllNotificationSources();
    }

    void ErrorRaised(Qel::Core::Error& error) override { Add("raised", error); }
    void ErrorHandled(Qel::Core::Error& error) override { Add("handled", error); }
    void WarningRaised(Qel::Core::Warning& warning) override { Add("warning", warning); }

    void HandleInPlace(bool handle)
    {
        auto* manager = Qel::Core::AlertManager::Instance();
        std::string errorClass = Qel::Core::TypeName(typeid(Qel::Core::Error));
        if (handle) manager->AddErrorHandler(errorClass, m_spHandler);
        else manager->RemoveErrorHandler(errorClass, m_spHandler);
    }
    std::vector<Event> Events()
    {
        std::lock_guard<std::mutex> guard(m_Mutex);
        return m_Events;
    }
    std::size_t Count(const std::string& kind)
    {
        std::lock_guard<std::mutex> guard(m_Mutex);
        std::size_t count = 0;
        for (const Event& event : m_Events) count += event.kind == kind;
        return count;
    }

private:
    struct TakeAll : Qel::Core::ErrorHandler
    {
        bool Handle(Qel::Core::Error&) override { return true; }
    };

    void Add(const std::string& kind, Qel::Core::AlertInfo& alert)
    {
        std::lock_guard<std::mutex> guard(m_Mutex);
        m_Events.push_back({kind, alert.GetMessageA(), alert.GetData(Qel::Core::AlertInfo::sTYPE_NAME), &alert});
    }

    std::mutex m_Mutex;
    std::vector<Event> m_Events;
    std::shared_ptr<Qel::Core::ErrorHandler> m_spHandler = std::make_shared<TakeAll>();
};

// A message pump made of a function, for System::SetMessagePump.
class FunctionPump : public Qel::Core::CallbackArg<int>
{
public:
    explicit FunctionPump(std::function<void(int)> function) : m_Function(std::move(function)) {}
    void operator()(int maxMessages) override { m_Function(maxMessages); }

private:
    std::function<void(int)> m_Function;
};

inline std::shared_ptr<Qel::Core::CallbackArg<int>> MakePump(std::function<void(int)> function)
{
    return std::make_shared<FunctionPump>(std::move(function));
}

// Hands work to the main thread, as a dispatching worker does.
struct Dispatcher : Qel::Core::System::DispatchController
{
    static void Begin() { BeginThreadDispatch(); }
    static void End() { EndThreadDispatch(); }
};

} // namespace QelTest
