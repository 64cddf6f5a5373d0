// The process-wide broker of alerts.
//
// Every raised error and warning passes through the AlertManager: it broadcasts alerts to the
// AlertListeners that want them (by severity mask and data filters), keeps a record per alert
// class (how often raised; for warnings how many were let through and how many silenced), holds
// the in-place error handlers by class, and the last error raised on each thread. Listeners run on
// the raising thread, one alert at a time in the process: the alert source's lock is held while
// they are told. In-place handlers run after the broadcast, on the raising thread, with no lock of
// the manager held (the handler lists are copied first) and each Handle under its handler's own
// m_HandlerLock.
//
// What a listener or an in-place handler may do:
// - raise errors and warnings; they go through on the same thread. Alerts raised by listeners
//   of alerts nest up to g_iMAX_ALERT_NESTING deep (the cut past it is reported on the debug
//   output and in the log); errors raised while an error is being raised count up to
//   g_iMAX_ERROR_RECURSION_DEPTH, after which the first of them is thrown.
// - add and remove alert listeners and error handlers, itself included;
// - build, use and end listeners and sources of its own (NotificationListener,
//   NotificationSupport, AlertListener, short-lived or not), while other threads end theirs;
// - throw: from a listener, the exception becomes the warning ListenerErrorOnNotification and the
//   next listener is told; from a handler, it leaves the raising call like any exception.
// What it must not do:
// - wait for another thread that may be raising an alert at that moment: join it, wait for a
//   condition, semaphore or queue that only it will signal, or take a lock of the host's that it
//   holds while it raises. A listener holds the alert source's lock, so the other thread cannot
//   finish its raising, and both wait for good. For the same reason a listener must not add or
//   remove listeners on, broadcast on, or end another source that another thread may be
//   broadcasting on at that moment if that source's listeners raise alerts; and it must not
//   raise a handleable error to a handler shared with threads whose Handle raises alerts (it
//   would wait for the handler's lock while that thread waits for the alert source).
// - end a listener that another thread may be calling at that moment, or a source that another
//   thread is broadcasting on (ending a source during its own broadcast is never allowed).
// A listener class whose methods use members of its own ends its links in its own destructor
// (RemoveAllNotificationSources()): the base destructor runs after those members are gone, and a
// broadcast on another thread could otherwise reach the half-destroyed object.
//
// Fatal errors. The manager installs the process's terminate handler (std::set_terminate) when
// the library loads, so every std::terminate of the host ends here: an error or any other
// exception that escapes every catch block (of main or of any thread), a noexcept function that
// throws, a joinable std::thread destroyed, a direct call of std::terminate. The handler takes
// the error that killed the process (the last error raised on the dying thread, else the first
// one recorded for any thread, else an UnknownError with "No Message"), turns log buffering off
// so that nothing logged from then on is lost, writes the report file, tells the listeners
// (AlertListener::UncaughtFatalError with the report's folder and time stamp), writes the same
// report to the standard error stream and ends the process with FatalExit(-1): exit status 255.
//
// Where reports go: "<folder><stamp>ErrorInfo.xml", the stamp being the local time as
// "YYYY-MM-DD__hh-mm-ss__" (reports within 10 s share it; the second report of a process is
// ErrorInfo3.xml, then ErrorInfo4.xml ...). The folder is ErrorPath of SystemInfo.ini beside the
// executable (the process's own section over [default]; path macros allowed), else
// GetCommonDataPath() + "Errors/"; SetFatalErrorBasePath changes it. No folder is ever made: when
// the folder does not exist the report goes to the current folder, and the warning
// FallbackFatalErrorPath says so. By default only the first fatal error of a process is reported
// (SetMaxFatalErrorReports); 0 turns reports off. The way out takes at most 20 s: a process still
// running then (an exit handler that hangs) is ended at once, and a crash on the way out ends it
// with status 255 too.
#pragma once

#include "Infrastructure/QelCore/Error.h"
#include "Infrastructure/QelCore/Mutex.h"
#include "Infrastructure/QelCore/Notification.h"
#include "Infrastructure/QelCore/ReadersWriterMutex.h"

#include <atomic>
#include <cstdint>
#include <exception>
#include <list>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>

namespace Qel::Core {

QEL_DEFINE_WARNING_API(QEL_CORE_API, ErrorDuringAlertNotification, Warning,
                       "Error occurred during an alert notification:\n%1%", std::string)

// How deep alert broadcasts may nest on one thread: an alert raised by a listener while it is
// told of an alert, raised by a listener while it is told of an alert, and so on. Alerts down to
// this depth are delivered, recorded and logged as any other; the one past it is not broadcast
// (so an endless chain, such as a listener that fails on every alert, ends), and the cut is
// said in one line to the debug output and in the log (a warning line under the logger
// "QelCore.AlertManager.AlertBroadcast"). An error raised in such a chain is still thrown.
constexpr int g_iMAX_ALERT_NESTING = 64;

// ---- fatal error reports ----
QEL_DEFINE_WARNING_API(QEL_CORE_API, InvalidFatalErrorPath, Warning,
                       "Attempted to set an invalid fatal error base path of:\n%1%", std::string)
QEL_DEFINE_WARNING_API(QEL_CORE_API, OpenXMLErrorReportFailed, Warning,
                       "Failed to open file to generate the XML error report named:\n%1%", std::string)
QEL_DEFINE_WARNING_API(QEL_CORE_API, FallbackFatalErrorPath, Warning,
                       "Storing fatal error information in fallback path of\n%1%", std::string)

// Which kind of crash dump a fault writes. Any other value behaves like eDUMP_MINIMAL.
enum EDumpPolicy : std::int32_t
{
    eDUMP_MINIMAL = 0,           // stacks only
    eDUMP_REFERENCED_MEMORY = 1, // stacks and the memory they refer to; the default
    eDUMP_PRIVATE_MEMORY = 2,    // also data segments and private read-write memory
    eDUMP_FULL_MEMORY = 3        // the whole memory
};

// Hears alerts. Link it with AlertManager::AddAlertListener; its destructor unlinks it.
class QEL_CORE_API AlertListener : public NotificationListener
{
public:
    AlertListener();
    ~AlertListener() override;

    // Whether the alert passes the severity mask and every data filter.
    virtual bool IsInterestedIn(AlertInfo& alert) const;
    virtual void ErrorRaised(Error&) {}
    virtual void ErrorHandled(Error&) {}
    virtual void UncaughtFatalError(Error&, const std::string& /*reportPath*/) {}
    virtual void WarningRaised(Warning&) {}

    // A mask of AlertInfo::ESeverity bits; 7 (all) at construction.
    void SetSeverityFilter(unsigned int mask) { m_SeverityFilter = mask; }
    unsigned int GetSeverityFilter() const { return m_SeverityFilter; }
    // The alert's value for `key` must be one of the values added for that key.
    void AddDataFilter(const std::string& key, const std::string& value) { m_DataFilters[key].insert(value); }
    void RemoveDataFilter(const std::string& key) { m_DataFilters.erase(key); }

private:
    std::uint32_t m_SeverityFilter;
    std::unordered_map<std::string, std::unordered_set<std::string>> m_DataFilters;
};

// An in-place handler of errors of one class (and, through Inheritance, of its derived classes).
class QEL_CORE_API ErrorHandler
{
public:
    virtual ~ErrorHandler();
    // True: the error is dealt with and need not be thrown. Called with m_HandlerLock held and
    // no lock of the manager.
    virtual bool Handle(Error& error) = 0;
    // Told when a handler before this one took the error, so this one was not asked.
    virtual void HandledByPrior(Error&) {}
    // Told when this one declined and a later one took the error.
    virtual void HandledByLatter(Error&) {}

    Mutex m_HandlerLock;
};

class QEL_CORE_API AlertRecord
{
public:
    AlertRecord();
    explicit AlertRecord(const AlertInfo& alert);
    AlertRecord(const std::string& className, const std::string& category);
    AlertRecord(const AlertRecord&) = default;
    AlertRecord& operator=(const AlertRecord&) = default;
    virtual ~AlertRecord();

    const std::string& GetClass() const { return m_sClass; }
    const std::string& GetCategory() const { return m_sCategory; }
    unsigned long GetRaisedCount() const { return m_iRaisedCount; }
    static unsigned long GetInfiniteWarnings() { return 0xFFFFFFFFul; }

protected:
    friend class AlertManager;
    std::string m_sClass;
    std::string m_sCategory;
    std::uint32_t m_iRaisedCount;
};

class QEL_CORE_API ErrorRecord : public AlertRecord
{
public:
    ErrorRecord();
    explicit ErrorRecord(const Error& error);
    ErrorRecord(const ErrorRecord&) = default;
    ErrorRecord(ErrorRecord&&) = default;
    ErrorRecord& operator=(const ErrorRecord&) = default;
    const std::string& GetSeverity() const { return m_sSeverity; }

private:
    friend class AlertManager;
    std::string m_sSeverity;
    std::list<std::shared_ptr<ErrorHandler>> m_Handlers;
};

class QEL_CORE_API WarningRecord : public AlertRecord
{
public:
    WarningRecord();
    explicit WarningRecord(const Warning& warning);
    WarningRecord(const WarningRecord&) = default;
    WarningRecord(WarningRecord&&) = default;
    WarningRecord& operator=(const WarningRecord&) = default;

    unsigned long GetMaxWarnings() const { return m_iMaxWarnings; }
    void SetMaxWarnings(unsigned long maxWarnings) { m_iMaxWarnings = static_cast<std::uint32_t>(maxWarnings); }
    unsigned long GetWarningCount() const { return m_iWarningCount; }
    unsigned long GetSilencedCount() const { return m_iSilencedCount; }
    void ResetWarningCount() { m_iWarningCount = 0; }

protected:
    // Counts the warning as broadcast (true) or silenced (false) by the limit.
    bool ShouldWarningBeRaised();

private:
    friend class AlertManager;
    std::uint32_t m_iSilencedCount;
    std::uint32_t m_iMaxWarnings;
    std::uint32_t m_iWarningCount;
};

// Raised count descending, then class name.
struct QEL_CORE_API SSortErrors
{
    bool operator()(const ErrorRecord& a, const ErrorRecord& b) const;
};
// Raised plus silenced count descending, then class name.
struct QEL_CORE_API SSortWarnings
{
    bool operator()(const WarningRecord& a, const WarningRecord& b) const;
};

// The notifications of the broker; each holds a reference to its alert.
class QEL_CORE_API ErrorRaised : public Notification
{
public:
    explicit ErrorRaised(Error& error) : m_Error(error) {}
    void Notify(NotificationListener& listener) override;
    Error& GetError() const { return m_Error; }

private:
    Error& m_Error;
};

class QEL_CORE_API ErrorHandled : public Notification
{
public:
    explicit ErrorHandled(Error& error) : m_Error(error) {}
    void Notify(NotificationListener& listener) override;
    Error& GetError() const { return m_Error; }

private:
    Error& m_Error;
};

class QEL_CORE_API WarningRaised : public Notification
{
public:
    explicit WarningRaised(Warning& warning) : m_Warning(warning) {}
    void Notify(NotificationListener& listener) override;
    Warning& GetWarning() const { return m_Warning; }

private:
    Warning& m_Warning;
};

class QEL_CORE_API UncaughtFatalErrorNotification : public Notification
{
public:
    UncaughtFatalErrorNotification(Error& error, const std::string& reportPath)
        : m_Error(error), m_sReportPath(reportPath)
    {
    }
    void Notify(NotificationListener& listener) override;

private:
    Error& m_Error;
    std::string m_sReportPath;
};

class QEL_CORE_API AlertManager : public AlertListener
{
public:
    // Built by the library at load, with the managed globals.
    AlertManager();
    ~AlertManager() override;

    // The library's manager; null before load and after unload.
    static AlertManager* Instance();

    void AddAlertListener(AlertListener& listener);
    void RemoveAlertListener(AlertListener& listener);
    // Keyed by the type name of the error class (TypeName(typeid(Class))). A null handler is ignored.
    void AddErrorHandler(const std::string& typeName, std::shared_ptr<ErrorHandler> handler);
    void RemoveErrorHandler(const std::string& typeName, std::shared_ptr<ErrorHandler> handler);
    // The records of classes raised at least once, sorted; returns how many.
    int GetRaisedErrorRecords(std::set<ErrorRecord, SSortErrors>& out);
    int GetRaisedWarningRecords(std::set<WarningRecord, SSortWarnings>& out);
    // Lets at most `maxWarnings` warnings of the class be broadcast (until ResetWarningCount);
    // without `overwrite`, a record that is there already keeps its limit.
    void SetMaxWarnings(const std::string& typeName, unsigned long maxWarnings, bool overwrite);
    void ResetWarningCount(const std::string& typeName);

    // The manager hears its own alerts: it keeps the records and each thread's last error.
    void ErrorRaised(Error& error) override;
    void WarningRaised(Warning& warning) override;

    // The last error raised on the calling thread (a plain copy holding no raised status), or
    // null if none was.
    std::shared_ptr<Error> GetCurrentError() const;

    // ---- fatal error reports (see the top of this file) ----
    // Extra elements written ahead of the Error element of every report. Takes no lock: set them
    // while one thread runs.
    void AddFatalErrorInfo(const std::string& key, const std::string& value);
    EDumpPolicy GetDumpPolicy() const { return m_eDumpPolicy; }
    void SetDumpPolicy(EDumpPolicy policy) { m_eDumpPolicy = policy; }
    // The report folder, ending in a separator.
    std::string GetFatalErrorBasePath() const;
    // A syntactically valid path becomes the folder, with the path's own separator appended
    // unless it ends in '/' or '\'; true. Otherwise the warning InvalidFatalErrorPath, false, and
    // the folder stays. The folder need not exist and is not made.
    bool SetFatalErrorBasePath(const std::string& path);
    // How many fatal errors the process reports; 1 at load, 0 for none.
    static int GetMaxFatalErrorReports();
    static void SetMaxFatalErrorReports(int maxReports);
    // Appends the report folder (while the library is not unloading) and the time stamp, made
    // anew when more than 10 s have passed since the last one, to `path`. False when the folder
    // is not an existing folder: the caller then writes into a fallback folder of its own.
    static bool BuildFatalErrorPath(std::string& path);

protected:
    friend class Error;
    friend class Warning;
    friend class AlertInfo;
    // Broadcasts to the listeners; never lets anything out.
    void Broadcast(Notification& notification);
    bool UseErrorHandler(Error& error);
    bool ShouldDoWarningBroadcast(const std::string& typeName);
    // The display-format cache: the format of the class, looked up once per process.
    std::string CachedDisplayFormat(const std::string& typeName, const std::string& defaultFormat);
    // Writes the report of the error that ends the process and tells the listeners; runs on the
    // dying thread and lets nothing out.
    void OnFatalError(Error& error);

private:
    friend class FatalErrorPath;
    // The report folder from SystemInfo.ini or the default; at the end of the constructor.
    void InitErrorPath();

    NotificationSupport m_Notifier;
    std::unordered_map<std::string, WarningRecord> m_WarningRecords;
    std::unordered_map<std::string, ErrorRecord> m_ErrorRecords;
    Mutex m_WarningLock;
    Mutex m_ErrorLock;
    std::string m_sFatalErrorBasePath;
    std::string m_sFatalErrorReportPath;
    std::terminate_handler m_pPreviousTerminate;
    EDumpPolicy m_eDumpPolicy;
    std::unordered_map<std::string, std::string> m_FatalErrorInfo;
    static std::atomic<std::int32_t> sm_iMaxFatalErrorReports;
    std::unordered_map<std::string, std::string> m_DisplayFormats;
    ReadersWriterMutex m_DisplayFormatsLock;
};

} // namespace Qel::Core
