// The log front end: loggers, lazily formatted messages, the manager with its queue and worker.
#include "Infrastructure/QelCore/LogManager.h"

#include "Infrastructure/QelCore/Globals.h"
#include "Infrastructure/QelCore/Locale.h"
#include "Infrastructure/QelCore/Logging/DefaultLogService.h"
#include "Infrastructure/QelCore/Logging/LogInternal.h"
#include "Infrastructure/QelCore/PathName.h"
#include "Infrastructure/QelCore/Platform/Platform.h"
#include "Infrastructure/QelCore/Platform/SystemInfo.h"
#include "Infrastructure/QelCore/Platform/Threads.h"
#include "Infrastructure/QelCore/System.h"
#include "Infrastructure/QelCore/XMLWriter.h"

#include <boost/format.hpp>

#include <cstdio>
#include <iostream>
#include <memory>
#include <mutex>
#include <sstream>
#include <thread>

using namespace Qel::Core;

IQelLogger::~IQelLogger() = default;
IQelLogHandler::~IQelLogHandler() = default;
IQelLogService::~IQelLogService() = default;

namespace {

const char* const sMANAGER_LOGGER = "Qel.Core.LogManager";
const char* const sWORKER_NAME = "LogManager Thread";
const char* const sFORMATS_TABLE = "_LogMessageFormats_";
const unsigned int kDEFAULT_FILTERS = 46;

// Process-wide flags of the front end. Atomic bytes: several threads read and set them.
std::atomic<bool> s_bLogManagerShutDown{false};
std::atomic<bool> s_bRegisteringLogger{false};
std::atomic<bool> s_bSendingDirectly{false};
// Whether the calling thread is the one that set each flag (a fork's child keeps only its flags).
thread_local bool t_bRegisteringLogger = false;
thread_local bool t_bSendingDirectly = false;

// Sets a process-wide flag for a scope, if it was clear; whether it was.
class FlagScope
{
public:
    FlagScope(std::atomic<bool>& flag, bool& mine) : m_Flag(flag), m_bMine(mine), m_bOwner(!flag.exchange(true))
    {
        if (m_bOwner) m_bMine = true;
    }
    ~FlagScope()
    {
        if (!m_bOwner) return;
        m_bMine = false;
        m_Flag.store(false);
    }
    FlagScope(const FlagScope&) = delete;
    FlagScope& operator=(const FlagScope&) = delete;
    bool Owner() const { return m_bOwner; }

private:
    std::atomic<bool>& m_Flag;
    bool& m_bMine;
    bool m_bOwner;
};

std::string LastComponent(const std::string& path)
{
    std::size_t dot = path.rfind('.');
    return dot == std::string::npos ? path : path.substr(dot + 1);
}

// The text that stands for a message whose formatting failed.
std::string FormattingErrorText(const std::string& logger, const char* when, FormatOnce& message)
{
    return "A formatting error occurred while writing a log message from logger <" + logger + ">" + when +
           "\nThe formatting string is:\n\t" + message.GetFormat();
}

// The message of a logger while the library unloads or after its manager has gone: to the
// standard output stream.
void WriteWithoutManager(QelLogSeverityEnum severity, FormatOnce& message, const std::string& path)
{
    try {
        const std::string& text = message.str();
        std::cout << "Log message during QelCore.dll shutdown:" << '\n'
                  << "Logger: " << path << '\n'
                  << "Severity: " << static_cast<int>(severity) << '\n'
                  << "Message: " << text << std::flush;
    } catch (...) {
        try {
            std::cout << FormattingErrorText(path, " during QelCore.dll shutdown", message) << std::endl;
        } catch (...) {
        }
    }
}

} // namespace

// ---- FormatOnce ----

FormatOnce::FormatOnce(const std::string& text) : m_sText(text), m_bReady(true), m_pszFormat(nullptr) {}

FormatOnce::FormatOnce(const char* format, va_list args) : m_bReady(false), m_pszFormat(format)
{
    va_copy(m_Args, args);
}

FormatOnce::~FormatOnce()
{
    if (m_pszFormat != nullptr) va_end(m_Args);
}

std::string FormatOnce::Take()
{
    str();
    return std::move(m_sText);
}

const char* FormatOnce::GetFormat() const
{
    return m_pszFormat != nullptr ? m_pszFormat : m_sText.c_str();
}

const std::string& FormatOnce::str()
{
    if (m_bReady) return m_sText;
    m_bReady = true;
    if (m_pszFormat == nullptr) return m_sText;
    // Each try formats from its own copy of the arguments: a va_list is used up by one pass.
    char small[4096];
    va_list args;
    va_copy(args, m_Args);
    int length = std::vsnprintf(small, sizeof small, m_pszFormat, args);
    va_end(args);
    if (length < 0) return m_sText;
    if (static_cast<std::size_t>(length) < sizeof small) {
        m_sText.assign(small, static_cast<std::size_t>(length));
        return m_sText;
    }
    for (std::size_t size : {std::size_t(8192), std::size_t(16384)}) {
        std::unique_ptr<char[]> buffer(new char[size]);
        va_copy(args, m_Args);
        length = std::vsnprintf(buffer.get(), size, m_pszFormat, args);
        va_end(args);
        if (length >= 0 && static_cast<std::size_t>(length) < size) {
            m_sText.assign(buffer.get(), static_cast<std::size_t>(length));
            return m_sText;
        }
    }
    return m_sText; // too long for every buffer: the text stays empty
}

// ---- Logger ----

Logger::Logger(const std::string& path) : m_Path(path), m_Name(LastComponent(path)), m_SeverityFilters(kDEFAULT_FILTERS)
{
}

Logger::Logger(const Logger& other)
    : IQelLogger(), m_Path(other.m_Path), m_Name(other.m_Name), m_SeverityFilters(other.GetSeverityFilters())
{
}

Logger::~Logger() = default;

Logger& Logger::operator=(const Logger& other)
{
    m_Path = other.m_Path;
    m_Name = other.m_Name;
    SetSeverityFilters(other.GetSeverityFilters());
    return *this;
}

Logger& Logger::operator=(const IQelLogger& other)
{
    IQelLogger& source = const_cast<IQelLogger&>(other);
    m_Path = source.GetPath();
    m_Name = source.GetName();
    SetSeverityFilters(source.GetSeverityFilters());
    return *this;
}

void Logger::WriteLog(QelLogSeverityEnum severity, const char* format, ...)
{
    if (!IsEnabledFor(severity)) return;
    va_list args;
    va_start(args, format);
    {
        FormatOnce message(format != nullptr ? format : "", args);
        DoWriteLog(severity, message, m_Path);
    }
    va_end(args);
}

void Logger::WriteLogVarArgs(QelLogSeverityEnum severity, const std::string& format, ...)
{
    if (!IsEnabledFor(severity)) return;
    // The format is read through a pointer: va_start needs a parameter that is not a reference.
    const char* text = format.c_str();
    va_list args;
    va_start(args, format);
    {
        FormatOnce message(text, args);
        DoWriteLog(severity, message, m_Path);
    }
    va_end(args);
}

void Logger::WriteLogV(QelLogSeverityEnum severity, const char* format, va_list args)
{
    if (!IsEnabledFor(severity)) return;
    FormatOnce message(format != nullptr ? format : "", args);
    DoWriteLog(severity, message, m_Path);
}

void Logger::DoWriteText(QelLogSeverityEnum severity, const std::string& message)
{
    FormatOnce text(message);
    DoWriteLog(severity, text, m_Path);
}

void Logger::DoWriteLog(QelLogSeverityEnum severity, FormatOnce& message, const std::string& path)
{
    LogManager* manager = LogManager::Instance();
    if (IsUnloading() || manager == nullptr) {
        WriteWithoutManager(severity, message, path);
        return;
    }
    static const std::string s_Plain("plain");
    manager->WriteLog(severity, message, path, s_Plain);
}

// ---- LogManager ----

LogManager::LogManager()
    : m_pService(nullptr),
      m_pQueue(std::make_unique<Queue<QelLogEntry>>(std::string(), nullptr, 1000, 100, 3000)),
      m_bHasHandlers(true),
      m_bBuffering(true)
{
    static std::once_flag s_ForkHandler;
    std::call_once(s_ForkHandler, [] { Platform::AtForkChild(&LogManager::AfterForkInChild); });
    s_bLogManagerShutDown = false;
    if (AlertManager* alerts = AlertManager::Instance()) alerts->AddAlertListener(*this);
    InitLogPath();
    m_pDefaultService = std::make_unique<DefaultLogService>([this] { return CurrentLogPath(); });
    m_pService = m_pDefaultService.get();
    StartWorker();
}

LogManager::~LogManager()
{
    try {
        // No alert reaches a manager that is going.
        RemoveAllNotificationSources();
        Shutdown();
        StopWorker(Elapse(10, Elapse::Seconds));
        // Whatever destroys the manager, nobody reaches it through Instance() afterwards.
        LogManager* self = this;
        Globals::Instance().m_pLogManager.compare_exchange_strong(self, nullptr);
    } catch (...) {
    }
}

LogManager* LogManager::Instance()
{
    return Globals::Instance().m_pLogManager.load(std::memory_order_acquire);
}

DefaultLogService& LogManager::Default() const
{
    return static_cast<DefaultLogService&>(*m_pDefaultService);
}

std::string LogManager::CurrentLogPath() const
{
    Lock guard(m_LogPathLock);
    return m_sLogPath;
}

void LogManager::AfterForkInChild()
{
    // The flags of the parent's other threads stay with them.
    s_bRegisteringLogger.store(t_bRegisteringLogger);
    s_bSendingDirectly.store(t_bSendingDirectly);
    if (LogManager* manager = Instance()) manager->ContinueInChild();
}

void LogManager::ContinueInChild()
{
    // The worker is a thread of the parent: its object is kept as it is, never stopped or waited
    // for here.
    if (m_spThread) Platform::KeepForever(new std::shared_ptr<Thread>(std::move(m_spThread)));
    // The queued entries are the parent's to deliver. The queue is left as the parent's threads
    // left it (one may have been changing it) and the child starts with an empty one of its own.
    std::string name = m_pQueue->GetName();
    Platform::KeepForever(m_pQueue.release());
    m_pQueue = std::make_unique<Queue<QelLogEntry>>(name, nullptr, 1000, 100, 3000);
    m_iUndelivered = 0;
    Default().StartAfreshAfterFork();
    // The child delivers on the calling thread: no thread is started in a forked child unless
    // its host asks for one (SetBufferingMode(true)).
    m_bBuffering = false;
}

bool LogManager::WorkerIsOurs() const
{
    return m_iWorkerProcess == Platform::ProcessId();
}

void LogManager::StopWorker(const Elapse& timeout)
{
    if (!m_spThread) return;
    if (!WorkerIsOurs()) {
        // A forked child has the object but not the thread: nothing to stop or wait for, and
        // the object must not wait for it either.
        new std::shared_ptr<Thread>(std::move(m_spThread));
        return;
    }
    if (!m_spThread->IsState(Thread::eTHREAD_NOT_RUNNING)) {
        m_spThread->Stop(Elapse(0, Elapse::Seconds));
        m_pQueue->SetReleased(true);
        m_spThread->TimedWaitForState(Thread::eTHREAD_NOT_RUNNING, timeout);
    }
    // The thread lets go of its own pointer to the object on its last instructions. The object
    // goes here, on this thread, which then joins the thread: were the thread left to destroy
    // it, the thread would still be ending while the library unloads.
    Time deadline(Elapse(2, Elapse::Seconds));
    while (m_spThread.use_count() > 1 && deadline.TimeLeft().GetRawTimerTicks() > 0)
        QelSleep(1, Elapse::MilliSeconds, false);
    m_spThread.reset();
}

void LogManager::StartWorker()
{
    m_iWorkerProcess = Platform::ProcessId();
    m_spThread = Thread::Create(sWORKER_NAME);
    // The manager outlives its worker: a non-owning pointer.
    m_spThread->Start(std::shared_ptr<Task>(static_cast<Task*>(this), [](Task*) {}), Elapse(0, Elapse::Seconds));
}

void LogManager::InitLogPath()
{
    std::string path;
    try {
        Platform::IniFile settings;
        std::string processPath = System::GetProcessPath();
        if (settings.Load(processPath + "SystemInfo.ini")) {
            std::string value;
            if (settings.GetString("default", "LogPath", value) && !value.empty()) path = ExpandPathMacros(value);
            if (settings.GetString(System::GetProcessName(), "LogPath", value) && !value.empty())
                path = ExpandPathMacros(value);
        }
        if (path.empty()) path = processPath;
    } catch (...) {
        path = System::GetProcessPath();
    }
    PathName folder(path);
    folder.ForceAsDir();
    Lock guard(m_LogPathLock);
    m_sLogPath = static_cast<const std::string&>(folder);
}

const std::string& LogManager::GetLogPath() const
{
    return m_sLogPath;
}

void LogManager::SetLogPath(const std::string& path)
{
    PathName folder(path);
    folder.ForceAsDir();
    Lock guard(m_LogPathLock);
    m_sLogPath = static_cast<const std::string&>(folder);
}

std::shared_ptr<Logger> LogManager::GetLogger(const std::string& path)
{
    if (IsUnloading()) return nullptr;
    {
        ReaderLock reader(m_LoggersLock);
        auto found = m_Loggers.find(path);
        if (found != m_Loggers.end()) return found->second;
    }
    // The reader's hold is given up before the writer's is asked for: two threads that both
    // held it and both asked would wait for each other for ever.
    WriterLock writer(m_LoggersLock);
    auto found = m_Loggers.find(path);
    if (found != m_Loggers.end()) return found->second;
    std::shared_ptr<Logger> logger(new Logger(path));
    {
        ReaderLock service(m_ServiceLock);
        FlagScope registering(s_bRegisteringLogger, t_bRegisteringLogger);
        if (registering.Owner()) {
            try {
                m_pService.load()->RegisterLogger(logger.get());
            } catch (InvalidLogPath&) {
                throw;
            } catch (...) {
            }
        }
    }
    m_Loggers.emplace(path, logger);
    return logger;
}

void LogManager::UnregisterLogger(const std::string& path)
{
    WriterLock writer(m_LoggersLock);
    auto found = m_Loggers.find(path);
    if (found == m_Loggers.end()) return;
    std::shared_ptr<Logger> logger = found->second;
    ReaderLock service(m_ServiceLock);
    try {
        m_pService.load()->UnregisterLogger(logger.get());
    } catch (InvalidLogPath&) {
        throw;
    } catch (...) {
    }
    m_Loggers.erase(path);
    if (m_pService.load() != m_pDefaultService.get()) {
        try {
            m_pDefaultService->UnregisterLogger(logger.get());
        } catch (...) {
        }
    }
}

bool LogManager::Exists(const std::string& path)
{
    try {
        ReaderLock service(m_ServiceLock);
        return m_pService.load()->Exists(path);
    } catch (...) {
        return false;
    }
}

void LogManager::EnumLoggers(const std::string& rootPath, std::list<std::string>& names)
{
    names.clear();
    try {
        ReaderLock service(m_ServiceLock);
        m_pService.load()->EnumLoggers(rootPath, names);
    } catch (...) {
    }
}

unsigned int LogManager::GetSeverityFilters(const std::string& path)
{
    try {
        ReaderLock service(m_ServiceLock);
        return m_pService.load()->GetSeverityFilters(path);
    } catch (InvalidLogPath&) {
        throw;
    } catch (...) {
        return 0;
    }
}

void LogManager::SetSeverityFilters(const std::string& path, unsigned int filters)
{
    try {
        ReaderLock service(m_ServiceLock);
        m_pService.load()->SetSeverityFilters(path, filters);
    } catch (InvalidLogPath&) {
        throw;
    } catch (...) {
    }
}

void LogManager::RegisterHandler(IQelLogHandler* handler)
{
    if (handler == nullptr) QEL_RAISE_ERROR(NullPointer("pHandler"), sMANAGER_LOGGER);
    {
        ReaderLock service(m_ServiceLock);
        try {
            m_pService.load()->RegisterHandler(handler);
            m_bHasHandlers = true;
        } catch (...) {
        }
        if (m_pService.load() != m_pDefaultService.get()) {
            try {
                m_pDefaultService->RegisterHandler(handler);
            } catch (...) {
            }
        }
    }
    // The entries that nobody took so far go to the handlers now.
    OnLogHandlerChange();
}

void LogManager::UnregisterHandler(IQelLogHandler* handler)
{
    try {
        ReaderLock service(m_ServiceLock);
        if (m_pService.load() != m_pDefaultService.get()) m_pDefaultService->UnregisterHandler(handler);
        m_pService.load()->UnregisterHandler(handler);
        m_bHasHandlers = m_pService.load()->GetHandlerCount() > 0;
    } catch (...) {
    }
}

void LogManager::OnLogHandlerChange()
{
    try {
        ReaderLock service(m_ServiceLock);
        m_bHasHandlers = true;
        if (Default().HasSavedEntries()) Default().ReplaySavedEntries(*m_pService.load());
    } catch (...) {
    }
}

void LogManager::InstallLogService(IQelLogService& service)
{
    WriterLock guard(m_ServiceLock);
    try {
        if (m_pService.load() == m_pDefaultService.get()) Default().TransferTo(service);
        bool hasHandlers = service.GetHandlerCount() > 0;
        m_bHasHandlers = hasHandlers;
        m_pService = &service;
    } catch (...) {
        // The install is given up; nothing changes.
    }
}

void LogManager::UninstallLogService(IQelLogService& service)
{
    // The loggers are copied under their lock, which is given up before the service's lock is
    // taken: a delivery holds the service's lock while a handler may ask for a new logger, so
    // holding both here in either order could wait for ever.
    std::list<std::shared_ptr<Logger>> loggers;
    {
        ReaderLock guard(m_LoggersLock);
        for (auto& [path, logger] : m_Loggers) loggers.push_back(logger);
    }
    WriterLock guard(m_ServiceLock);
    if (m_pService.load() != &service) return;
    try {
        for (auto& logger : loggers) service.UnregisterLogger(logger.get());
    } catch (...) {
    }
    try {
        for (IQelLogHandler* handler : Default().GetHandlers()) service.UnregisterHandler(handler);
    } catch (...) {
    }
    m_bHasHandlers = true;
    m_pService = m_pDefaultService.get();
}

void LogManager::SetBufferingMode(bool buffering)
{
    if (m_bBuffering.load() == buffering) return;
    m_bBuffering = buffering;
    if (buffering) {
        m_pQueue->SetReleased(false);
        StartWorker();
        return;
    }
    m_pQueue->SetReleased(true);
    if (m_pQueue->GetCount() > 0 && m_spThread && WorkerIsOurs()) {
        // A bounded wait for the worker to deliver what is queued.
        for (unsigned counter = 0; m_pQueue->GetCount() > 0 && counter + 1 < m_pQueue->GetCount(); ++counter)
            QelSleep(100, Elapse::MilliSeconds, false);
    }
    StopWorker(Elapse(1, Elapse::Seconds));
    m_pQueue->Clear();
    m_iUndelivered = 0;
}

bool LogManager::GetBufferingMode()
{
    return m_bBuffering.load();
}

void LogManager::Shutdown()
{
    WriterLock loggers(m_LoggersLock);
    if (s_bLogManagerShutDown.load()) return;
    // A worker that is still starting (a shutdown right after load) delivers as well.
    if (m_spThread && WorkerIsOurs() && m_spThread->IsState(Thread::eTHREAD_RUNNING | Thread::eTHREAD_STARTING)) {
        // The worker has a second to deliver what is queued; entries it has not reached by
        // then are dropped. Then the stop, and the release wakes a worker on an empty queue.
        Time deadline(Elapse(1, Elapse::Seconds));
        while (m_iUndelivered.load() > 0 && deadline.TimeLeft().GetRawTimerTicks() > 0)
            QelSleep(1, Elapse::MilliSeconds, false);
        StopWorker(Elapse(10, Elapse::Seconds));
    }
    m_pQueue->Clear();
    m_iUndelivered = 0;
    if (!IsFatalExit() && !IsUnloading()) {
        while (!m_Loggers.empty()) {
            auto first = m_Loggers.begin();
            try {
                ReaderLock service(m_ServiceLock);
                m_pService.load()->UnregisterLogger(first->second.get());
            } catch (...) {
                s_bLogManagerShutDown = true;
                return;
            }
            m_Loggers.erase(first);
        }
    }
    m_Loggers.clear();
    s_bLogManagerShutDown = true;
}

// ---- alerts ----

void LogManager::LogError(Error& error, const std::string& title, bool asXML)
{
    QelLogSeverityEnum severity = error.GetSeverity() == AlertInfo::eCRITICAL ? QelLogAlarm : QelLogError;
    std::string logger = error.GetData(AlertInfo::sLOG_NAME);
    if (asXML) {
        std::ostringstream xml;
        XMLWriter writer;
        error.ToXML(writer, xml, title);
        FormatOnce message(xml.str());
        WriteLog(severity, message, logger, "xml");
    } else {
        FormatOnce message(title + ": " + error.what());
        WriteLog(severity, message, logger, "plain");
    }
}

void LogManager::ErrorRaised(Error& error)
{
    try {
        LogError(error, "Error Raised", true);
    } catch (...) {
    }
}

void LogManager::ErrorHandled(Error& error)
{
    try {
        LogError(error, "Error Handled", false);
    } catch (...) {
    }
}

void LogManager::UncaughtFatalError(Error& error, const std::string&)
{
    try {
        LogError(error, "Uncaught Fatal Error", true);
    } catch (...) {
    }
}

void LogManager::WarningRaised(Warning& warning)
{
    try {
        std::string path = warning.GetData(AlertInfo::sLOG_NAME);
        std::shared_ptr<Logger> logger = GetLogger(path);
        if (!logger || !logger->IsEnabledFor(QelLogWarning)) return;
        std::ostringstream xml;
        XMLWriter writer;
        warning.ToXML(writer, xml, "Warning Raised");
        FormatOnce message(xml.str());
        WriteLog(QelLogWarning, message, path, "xml");
    } catch (...) {
    }
}

// ---- the way of an entry ----

void LogManager::WriteLog(QelLogSeverityEnum severity, FormatOnce& message, const std::string& logger,
                          const std::string& format)
{
    QelLogEntry entry(Time(), severity);
    try {
        // The text moves into the entry: the message is not asked again.
        entry.m_Message = message.Take();
        entry.m_LogName = logger;
        entry.m_Format = format;
    } catch (...) {
        try {
            entry.m_Message = FormattingErrorText(logger, "", message);
            entry.m_Severity = QelLogError;
            entry.m_LogName = sMANAGER_LOGGER;
            entry.m_Format = "plain";
        } catch (...) {
            return;
        }
    }
    Enqueue(entry);
}

void LogManager::Enqueue(QelLogEntry& entry)
{
    try {
        if (m_bBuffering.load(std::memory_order_relaxed)) {
            // A full queue drops the entry (the queue reports its watermarks itself).
            ++m_iUndelivered;
            if (!m_pQueue->Enqueue(std::move(entry))) --m_iUndelivered;
            return;
        }
        // A message written during the direct delivery of another one is dropped.
        FlagScope sending(s_bSendingDirectly, t_bSendingDirectly);
        if (sending.Owner()) SendLogMessage(entry, true);
    } catch (...) {
    }
}

bool LogManager::NextEntry(QelLogEntry& entry)
{
    // Code that logs in a loop refills the queue within microseconds: before the worker sleeps
    // on an empty queue it looks again a few times, giving up the processor in between. So a
    // burst is taken without the worker falling asleep after each entry, which would cost every
    // producer a wake-up call into the kernel.
    static const Elapse s_NoWait(0, Elapse::Seconds);
    for (int look = 0; look < 64; ++look) {
        if (m_pQueue->TimedDequeue(entry, s_NoWait)) return true;
        std::this_thread::yield();
    }
    return m_pQueue->Dequeue(entry);
}

int LogManager::Run(TaskDirective& directive)
{
    while (!directive.MustStop()) {
        QelLogEntry entry;
        while (NextEntry(entry)) {
            if (!directive.MustStop() && !IsUnloading()) SendLogMessage(entry, false);
            --m_iUndelivered;
        }
        // A released queue gives false at once: wait for the stop that follows the release.
        if (!directive.MustStop()) directive.TimedWaitForStopRequest(Elapse(10, Elapse::MilliSeconds));
    }
    m_pQueue->Clear();
    m_iUndelivered = 0;
    return 0;
}

void LogManager::SendLogMessage(const QelLogEntry& entry, bool callerThread)
{
    ReaderLock service(m_ServiceLock);
    IQelLogService* current = m_pService.load();
    bool installed = current != m_pDefaultService.get();
    try {
        if (m_bHasHandlers.load()) {
            if (installed && Default().HasSavedEntries()) Default().ReplaySavedEntries(*current);
            current->WriteLog(entry);
        } else {
            m_pDefaultService->WriteLog(entry);
        }
    } catch (...) {
        if (!installed) return; // a failure of the default service is dropped
        // The installed service is dropped; the entry that failed is lost.
        if (callerThread) {
            if (m_ServiceLock.TryWaitWriterLock()) {
                m_pService = m_pDefaultService.get();
                m_bHasHandlers = true;
                m_ServiceLock.WriterUnlock();
            }
        } else {
            m_pService = m_pDefaultService.get();
            m_bHasHandlers = true;
        }
    }
}

// ---- localisable formats ----

std::string QelGetLogMsgFormat(const std::string& key, const std::string& defaultFormat)
{
    LogManager* manager = LogManager::Instance();
    if (manager != nullptr) {
        ReaderLock guard(manager->m_FormatsLock);
        auto found = manager->m_LogMessageFormats.find(key);
        if (found != manager->m_LogMessageFormats.end()) return found->second;
    }
    std::string result = defaultFormat;
    std::string localized;
    if (Detail::LookupLocaleString(sFORMATS_TABLE, key, localized)) result = localized;
    else Detail::AddRootLocaleString(sFORMATS_TABLE, key, defaultFormat);
    if (manager != nullptr) {
        WriterLock guard(manager->m_FormatsLock);
        manager->m_LogMessageFormats[key] = result;
    }
    return result;
}

// ---- the library's own uses of the log ----

namespace Qel::Core::Detail {

void LogAlert(Error& error)
{
    if (IsUnloading()) return;
    if (LogManager* manager = LogManager::Instance()) manager->ErrorRaised(error);
}

void WriteLogText(const std::string& logger, QelLogSeverityEnum severity, const std::string& text)
{
    try {
        if (IsUnloading()) return;
        LogManager* manager = LogManager::Instance();
        if (manager == nullptr) return;
        if (std::shared_ptr<Logger> target = manager->GetLogger(logger)) target->WriteLog(severity, text);
    } catch (...) {
    }
}

} // namespace Qel::Core::Detail
