// The log: loggers, the process's log manager and the interfaces of log services and handlers.
//
// Code holds a Logger (from LogManager::GetLogger, by dotted path such as "Qel.Core.Thread") and
// writes to it. A message that the logger's filter word refuses costs one bit test. An accepted
// one is stamped and queued; the manager's worker, the "LogManager Thread", hands it to the
// current log service: the built-in one (which offers it to the registered handlers and, if none
// takes it, appends it to "DefaultLog.entries" in the log folder) or one that the host installed.
// Every error and warning raised through the alert manager becomes a log entry as well.
//
// Logging never takes the caller down: no failure of a service, handler or file reaches the
// caller of WriteLog, and with buffering on (the default) the caller never waits for a file. A
// full queue (3000 entries) drops the entry.
//
// Fork without exec. The child has the parent's manager, loggers, filters, handlers, installed
// service and log path, but not its worker: only the thread that forked goes on. So the child
// starts with buffering off: each entry is delivered on the thread that writes it, into the same
// files as the parent's (under the same cross-process lock), and the child may leave through exit
// or ShutdownQelCore at any time without waiting for anything of the parent. SetBufferingMode(true)
// starts a worker of the child's own. Entries that were queued in the parent at the fork are the
// parent's: the parent's worker writes them, the child drops its copy, and so are the entries kept
// for replay to handlers registered later (the child starts without any). A lock of the log that
// another thread of the parent held at the fork (the service's, the handlers', the file's, the
// queue's) is free in the child; handlers registered in the parent are registered in the child
// too, and run there on the child's thread. With buffering off, entries written by several threads
// of the child at once are dropped while another is being delivered: a child that logs from
// several threads switches buffering on.
#pragma once

#include "Infrastructure/QelCore/AlertManager.h"
#include "Infrastructure/QelCore/Error.h"
#include "Infrastructure/QelCore/QelCoreExport.h"
#include "Infrastructure/QelCore/Queue.h"
#include "Infrastructure/QelCore/ReadersWriterMutex.h"
#include "Infrastructure/QelCore/Thread.h"
#include "Infrastructure/QelCore/Time.h"

#include <atomic>
#include <cstdarg>
#include <list>
#include <map>
#include <memory>
#include <string>

// Severities of log entries; the text of each in a log file is its name without "QelLog".
enum QelLogSeverityEnum : std::int32_t {
    QelLogAlarm = 1,
    QelLogError = 2,
    QelLogWarning = 3,
    QelLogDebug = 4,
    QelLogInformational = 5,
    QelLogVerbose = 6,
};

// What travels from a logger through the queue to the services.
struct QEL_CORE_API QelLogEntry
{
    // Stamped now.
    QelLogEntry() = default;
    QelLogEntry(const Qel::Core::Time& timeStamp, QelLogSeverityEnum severity)
        : m_TimeStamp(timeStamp), m_Severity(severity)
    {
    }

    Qel::Core::Time m_TimeStamp;
    QelLogSeverityEnum m_Severity = QelLogInformational;
    std::string m_Message; // the finished text
    std::string m_LogName; // the logger's dotted path
    std::string m_Format;  // "plain" (m_Message is text) or "xml" (a ready XML fragment)
};

// A logger as the services see it.
class QEL_CORE_API IQelLogger
{
public:
    virtual std::string GetPath() = 0;
    virtual std::string GetName() = 0;
    virtual unsigned int GetSeverityFilters() const = 0;
    virtual void SetSeverityFilters(unsigned int filters) = 0;
    virtual ~IQelLogger();
};

// The host's receiver of log entries. A handler that throws from either call is removed by the
// service. Handlers run on the thread that delivers (the log worker, with buffering on) and must
// not install or uninstall a log service.
class QEL_CORE_API IQelLogHandler
{
public:
    virtual void OnLogTreeChange() = 0;
    virtual void WriteLog(const QelLogEntry& entry) = 0;
    virtual ~IQelLogHandler();
};

// A log service: where entries go, and the keeper of the tree of loggers and their filters.
class QEL_CORE_API IQelLogService
{
public:
    virtual void WriteLog(const QelLogEntry& entry) = 0;
    virtual void RegisterHandler(IQelLogHandler* handler) = 0;
    virtual void UnregisterHandler(IQelLogHandler* handler) = 0;
    virtual void RegisterLogger(IQelLogger* logger) = 0;
    virtual void UnregisterLogger(IQelLogger* logger) = 0;
    virtual void EnumLoggers(const std::string& rootPath, std::list<std::string>& names) = 0;
    virtual void SetSeverityFilters(const std::string& path, unsigned int filters) = 0;
    virtual unsigned int GetSeverityFilters(const std::string& path) = 0;
    virtual unsigned int GetHandlerCount() = 0;
    virtual bool Exists(const std::string& path) = 0;
    virtual ~IQelLogService();
};

// The look-up of a localisable log message format: the current locale's text for `key` in the
// table "_LogMessageFormats_", else `defaultFormat` (which is then added to the root locale's
// table for translators). Cached per key for the process.
QEL_CORE_API std::string QelGetLogMsgFormat(const std::string& key, const std::string& defaultFormat);

class DefaultLogService;

namespace Qel::Core {

QEL_DEFINE_ERROR_API(QEL_CORE_API, InvalidLogPath, LogicError, eERROR, "Invalid log path: %1%", std::string)

// A message formatted at most once, and only when somebody asks for its text. A printf-style
// format is formatted into 4096 bytes, then 8192, then 16384; a text that needs more stays empty.
// Built from a finished string, the text is that string: a '%' in it is just a '%'.
class QEL_CORE_API FormatOnce
{
public:
    explicit FormatOnce(const std::string& text);
    // Keeps its own copy of `args` (each try formats from a fresh copy of it); the arguments
    // must outlive the object.
    FormatOnce(const char* format, va_list args);
    FormatOnce(const FormatOnce&) = delete;
    FormatOnce& operator=(const FormatOnce&) = delete;
    ~FormatOnce();

    const std::string& str();
    // The text, moved out: afterwards the object holds the empty text.
    std::string Take();
    // The format string, or the text of a finished message.
    const char* GetFormat() const;

private:
    std::string m_sText;
    bool m_bReady;
    const char* m_pszFormat;
    va_list m_Args;
};

class LogManager;

// What code writes to. Loggers come from LogManager::GetLogger; one path gives one object.
class QEL_CORE_API Logger : public IQelLogger
{
public:
    Logger(const Logger& other);
    ~Logger() override;
    Logger& operator=(const Logger& other);

    std::string GetPath() override { return m_Path; }
    std::string GetName() override { return m_Name; }
    unsigned int GetSeverityFilters() const override { return m_SeverityFilters.load(std::memory_order_relaxed); }
    void SetSeverityFilters(unsigned int filters) override
    {
        m_SeverityFilters.store(filters, std::memory_order_relaxed);
    }

    // Bit `severity & 31` of the filter word.
    bool IsEnabledFor(QelLogSeverityEnum severity) const
    {
        return (GetSeverityFilters() >> (static_cast<unsigned>(severity) & 31u)) & 1u;
    }

    // Each tests the filter first; a refused message is not even formatted. None blocks on a
    // file or throws.
    void WriteLog(QelLogSeverityEnum severity, FormatOnce& message)
    {
        if (IsEnabledFor(severity)) DoWriteLog(severity, message, m_Path);
    }
    // The text is taken unchanged ("100%" stays "100%").
    void WriteLog(QelLogSeverityEnum severity, const std::string& message)
    {
        if (IsEnabledFor(severity)) DoWriteText(severity, message);
    }
    // The format is that of printf.
    void WriteLog(QelLogSeverityEnum severity, const char* format, ...) __attribute__((format(printf, 3, 4)));
    // As the printf form, with the format in a string.
    void WriteLogVarArgs(QelLogSeverityEnum severity, const std::string& format, ...);
    // The printf form with a ready argument list.
    void WriteLogV(QelLogSeverityEnum severity, const char* format, va_list args);

protected:
    explicit Logger(const std::string& path);
    Logger& operator=(const IQelLogger& other);

private:
    friend class LogManager;
    void DoWriteLog(QelLogSeverityEnum severity, FormatOnce& message, const std::string& path);
    void DoWriteText(QelLogSeverityEnum severity, const std::string& message);

    std::string m_Path;
    std::string m_Name;
    std::atomic<unsigned int> m_SeverityFilters;
};

// The process's log manager, a managed global built at load with its worker running and
// buffering on. ShutdownQelCore shuts it down and destroys it; Instance() is null from then on.
class QEL_CORE_API LogManager : public Task, public AlertListener
{
public:
    // The type by which the manager recognises its built-in service.
    class QEL_CORE_API IDefaultLogService : public IQelLogService
    {
    };

    LogManager();
    ~LogManager() override;
    LogManager(const LogManager&) = delete;
    LogManager& operator=(const LogManager&) = delete;

    // The library's manager; null before load and after ShutdownQelCore.
    static LogManager* Instance();

    // The logger of a path, made and registered with the service on first use; one path gives
    // one object. Empty while the library unloads. InvalidLogPath for a malformed path.
    std::shared_ptr<Logger> GetLogger(const std::string& path);
    void UnregisterLogger(const std::string& path);

    // Forwarded to the current service. Failures are dropped (false, 0), except that the two
    // filter operations let InvalidLogPath through.
    bool Exists(const std::string& path);
    void EnumLoggers(const std::string& rootPath, std::list<std::string>& names);
    unsigned int GetSeverityFilters(const std::string& path);
    void SetSeverityFilters(const std::string& path, unsigned int filters);

    // NullPointer for a null handler. Registering replays the entries that no handler took
    // (at most the last 1000) to the current service's handlers.
    void RegisterHandler(IQelLogHandler* handler);
    void UnregisterHandler(IQelLogHandler* handler);
    void OnLogHandlerChange();

    // Blocks until a delivery in progress is done. The built-in service hands its loggers,
    // filters and handlers over to the installed one.
    void InstallLogService(IQelLogService& service);
    void UninstallLogService(IQelLogService& service);

    // Off: waits a bounded time for the queue to drain (about 100 ms per queued entry), stops the
    // worker (at most 2 s) and delivers every later entry on the caller's thread, which then
    // blocks on the file. On: starts a new worker.
    void SetBufferingMode(bool buffering);
    bool GetBufferingMode();

    // The folder of the log files, ending in a separator. A new path affects files opened from
    // then on.
    const std::string& GetLogPath() const;
    void SetLogPath(const std::string& path);

    // Stops the worker (entries it has not reached within a second are dropped; waits at most
    // 10 s) and unregisters the loggers. A second call does nothing.
    void Shutdown();

    // ---- AlertListener: errors are always logged, warnings if their logger takes warnings ----
    void ErrorRaised(Error& error) override;
    void ErrorHandled(Error& error) override;
    void UncaughtFatalError(Error& error, const std::string& reportPath) override;
    void WarningRaised(Warning& warning) override;

    // ---- Task: the worker ----
    int Run(TaskDirective& directive) override;

    // Stamps an entry, fixes its text and queues it (or delivers it, with buffering off).
    void WriteLog(QelLogSeverityEnum severity, FormatOnce& message, const std::string& logger,
                  const std::string& format);

    // Number of entries waiting for the worker (tests, diagnostics).
    unsigned GetQueuedCount() { return m_pQueue->GetCount(); }

private:
    friend std::string(::QelGetLogMsgFormat)(const std::string&, const std::string&);

    void InitLogPath();
    void LogError(Error& error, const std::string& title, bool asXML);
    void SendLogMessage(const QelLogEntry& entry, bool callerThread);
    void StartWorker();
    // In the child of a fork, on its one thread (see above).
    static void AfterForkInChild();
    void ContinueInChild();
    // Whether the worker was started in this process (not in the parent of a fork).
    bool WorkerIsOurs() const;
    // Asks the worker to stop and waits for it at most `timeout`; a worker that a fork left
    // behind in the parent is let go without waiting.
    void StopWorker(const Elapse& timeout);
    void Enqueue(QelLogEntry& entry);
    // The worker's next entry: blocks until there is one (true) or the queue is released (false).
    bool NextEntry(QelLogEntry& entry);
    DefaultLogService& Default() const;
    std::string CurrentLogPath() const;

    std::unique_ptr<IDefaultLogService> m_pDefaultService;
    std::atomic<IQelLogService*> m_pService;
    std::map<std::string, std::shared_ptr<Logger>> m_Loggers;
    ReadersWriterMutex m_LoggersLock;
    ReadersWriterMutex m_ServiceLock;
    std::unique_ptr<Queue<QelLogEntry>> m_pQueue; // replaced in the child of a fork
    std::shared_ptr<Thread> m_spThread;
    std::uint32_t m_iWorkerProcess = 0;   // the process that started m_spThread
    std::atomic<int> m_iUndelivered{0};  // entries queued and not yet handed on by the worker
    std::atomic<bool> m_bHasHandlers;
    std::atomic<bool> m_bBuffering;
    std::string m_sLogPath;
    mutable Mutex m_LogPathLock; // guards m_sLogPath (read by the worker when it opens a file)
    std::map<std::string, std::string> m_LogMessageFormats;
    ReadersWriterMutex m_FormatsLock;
};

} // namespace Qel::Core
