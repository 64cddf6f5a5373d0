// The broker of alerts: filtered broadcast, records per class, in-place handlers, each thread's
// last error, and the cache of alert wordings.
#include "Infrastructure/QelCore/AlertManager.h"
#include "Infrastructure/QelCore/Locale.h"

#include "Infrastructure/QelCore/ErrorHandling/CurrentErrors.h"
#include "Infrastructure/QelCore/ErrorHandling/FatalError.h"
#include "Infrastructure/QelCore/ErrorHandling/StandIns.h"
#include "Infrastructure/QelCore/Globals.h"
#include "Infrastructure/QelCore/Logging/LogInternal.h"
#include "Infrastructure/QelCore/Platform/Platform.h"
#include "Infrastructure/QelCore/StringTools.h"
#include "Infrastructure/QelCore/XMLWriter.h"

#include <sstream>
#include <vector>

namespace Qel::Core {

namespace {
std::atomic<AlertManager*> s_pInstance{nullptr};
const char* const sBROADCAST_LOG = "QelCore.AlertManager.AlertBroadcast";
} // namespace

// ---- AlertListener ----

AlertListener::AlertListener() : m_SeverityFilter(7) {}

AlertListener::~AlertListener()
{
    try {
        RemoveAllNotificationSources();
    } catch (...) {
    }
}

bool AlertListener::IsInterestedIn(AlertInfo& alert) const
{
    if ((m_SeverityFilter & static_cast<std::uint32_t>(alert.GetSeverity())) == 0) return false;
    for (const auto& [key, values] : m_DataFilters) {
        if (values.empty()) continue;
        if (values.count(alert.GetData(key)) == 0) return false;
    }
    return true;
}

ErrorHandler::~ErrorHandler() = default;

// ---- records ----

AlertRecord::AlertRecord() : m_sClass("[Unknown]"), m_sCategory("Unknown"), m_iRaisedCount(0) {}

AlertRecord::AlertRecord(const AlertInfo& alert)
    : m_sClass(ReadableTypeName(typeid(alert))), m_sCategory(alert.GetData(AlertInfo::sCATEGORY)), m_iRaisedCount(0)
{
}

AlertRecord::AlertRecord(const std::string& className, const std::string& category)
    : m_sClass(className), m_sCategory(category), m_iRaisedCount(0)
{
}

AlertRecord::~AlertRecord() = default;

ErrorRecord::ErrorRecord() = default;
ErrorRecord::ErrorRecord(const Error& error) : AlertRecord(error), m_sSeverity(error.GetData(AlertInfo::sSEVERITY)) {}

WarningRecord::WarningRecord() : m_iSilencedCount(0), m_iMaxWarnings(0xFFFFFFFFu), m_iWarningCount(0) {}
WarningRecord::WarningRecord(const Warning& warning)
    : AlertRecord(warning), m_iSilencedCount(0), m_iMaxWarnings(0xFFFFFFFFu), m_iWarningCount(0)
{
}

bool WarningRecord::ShouldWarningBeRaised()
{
    if (m_iMaxWarnings == 0xFFFFFFFFu || m_iMaxWarnings > m_iWarningCount) {
        ++m_iWarningCount;
        return true;
    }
    ++m_iSilencedCount;
    return false;
}

bool SSortErrors::operator()(const ErrorRecord& a, const ErrorRecord& b) const
{
    if (a.GetRaisedCount() != b.GetRaisedCount()) return a.GetRaisedCount() > b.GetRaisedCount();
    return a.GetClass() < b.GetClass();
}

bool SSortWarnings::operator()(const WarningRecord& a, const WarningRecord& b) const
{
    unsigned long long totalA = static_cast<unsigned long long>(a.GetRaisedCount()) + a.GetSilencedCount();
    unsigned long long totalB = static_cast<unsigned long long>(b.GetRaisedCount()) + b.GetSilencedCount();
    if (totalA != totalB) return totalA > totalB;
    return a.GetClass() < b.GetClass();
}

// ---- notifications ----

void ErrorRaised::Notify(NotificationListener& listener)
{
    if (auto* alertListener = dynamic_cast<AlertListener*>(&listener))
        if (alertListener->IsInterestedIn(m_Error)) alertListener->ErrorRaised(m_Error);
}

void ErrorHandled::Notify(NotificationListener& listener)
{
    if (auto* alertListener = dynamic_cast<AlertListener*>(&listener))
        if (alertListener->IsInterestedIn(m_Error)) alertListener->ErrorHandled(m_Error);
}

void WarningRaised::Notify(NotificationListener& listener)
{
    if (auto* alertListener = dynamic_cast<AlertListener*>(&listener))
        if (alertListener->IsInterestedIn(m_Warning)) alertListener->WarningRaised(m_Warning);
}

void UncaughtFatalErrorNotification::Notify(NotificationListener& listener)
{
    if (auto* alertListener = dynamic_cast<AlertListener*>(&listener))
        alertListener->UncaughtFatalError(m_Error, m_sReportPath);
}

// ---- AlertManager ----

AlertManager::AlertManager()
    : m_Notifier(NotificationSupport::eLAST_ADDED_FIRST), m_pPreviousTerminate(nullptr),
      m_eDumpPolicy(eDUMP_REFERENCED_MEMORY)
{
    // From here on an error that escapes every catch block ends in the fatal error report.
    m_pPreviousTerminate = std::set_terminate(&FatalErrors::TerminateHandler);
    Globals::Instance().Add<CurrentErrors>("CurrentErrors");
    m_Notifier.AddListener(*this);
    s_pInstance.store(this);
    InitErrorPath();
}

AlertManager::~AlertManager()
{
    std::set_terminate(m_pPreviousTerminate);
    s_pInstance.store(nullptr);
    try {
        m_Notifier.RemoveAllListeners();
    } catch (...) {
    }
}

AlertManager* AlertManager::Instance()
{
    return s_pInstance.load(std::memory_order_acquire);
}

void AlertManager::AddAlertListener(AlertListener& listener)
{
    m_Notifier.AddListener(listener);
}

void AlertManager::RemoveAlertListener(AlertListener& listener)
{
    m_Notifier.RemoveListener(listener);
}

namespace {
// Says on the debug output and in the log that the nesting guard kept this notification back.
// Nothing is broadcast from here, and nothing escapes.
void ReportCutChain(Notification& notification) noexcept
{
    try {
        std::string what;
        AlertInfo* alert = nullptr;
        if (auto* raised = dynamic_cast<ErrorRaised*>(&notification)) {
            what = "error";
            alert = &raised->GetError();
        } else if (auto* handled = dynamic_cast<ErrorHandled*>(&notification)) {
            what = "handled error";
            alert = &handled->GetError();
        } else if (auto* warning = dynamic_cast<WarningRaised*>(&notification)) {
            what = "warning";
            alert = &warning->GetWarning();
        } else {
            what = "notification " + ReadableTypeName(typeid(notification));
        }
        if (alert != nullptr) what += " " + ReadableTypeName(typeid(*alert)) + " \"" + alert->GetMessageA() + "\"";
        std::string text = "Alerts nested " + std::to_string(g_iMAX_ALERT_NESTING) +
                           " deep on this thread, each raised by a listener of the one before: chain cut; the " +
                           what + " was not broadcast or recorded";
        Platform::DebugOutput(text + "\n");
        Detail::WriteLogText(sBROADCAST_LOG, QelLogWarning, text);
    } catch (...) {
    }
}
} // namespace

void AlertManager::Broadcast(Notification& notification)
{
    // A listener that fails on every alert would otherwise answer each warning about its failure
    // with another failure, without end: alert broadcasts nest on a thread only so deep, and the
    // cut is reported.
    static thread_local int t_iDepth = 0;
    if (t_iDepth >= g_iMAX_ALERT_NESTING) {
        ReportCutChain(notification);
        return;
    }
    struct Nesting
    {
        Nesting() { ++t_iDepth; }
        ~Nesting() { --t_iDepth; }
    } nesting;
    try {
        try {
            m_Notifier.Broadcast(notification, true);
        } catch (Error& error) {
            QEL_RAISE_WARNING(ErrorDuringAlertNotification(error.GetMessageA()), sBROADCAST_LOG);
        } catch (...) {
            QEL_RAISE_WARNING(ErrorDuringAlertNotification("Unknown error in alert listener during alert notification"),
                              sBROADCAST_LOG);
        }
    } catch (Error& error) {
        try {
            XMLWriter writer;
            std::ostringstream out;
            out << writer.StartXMLDoc();
            error.ToXML(writer, out, "Error in alert listener during alert notification");
            out << writer.EndXMLDoc();
            Platform::WriteStandardError(out.str());
        } catch (...) {
        }
    } catch (...) {
        try {
            Platform::WriteStandardError("Unkown error in alert listener during alert notification\n");
        } catch (...) {
        }
    }
}

void AlertManager::ErrorRaised(Error& error)
{
    if (!IsUnloading()) {
        if (CurrentErrors* current = Globals::Instance().Get<CurrentErrors>("CurrentErrors")) current->Store(error);
    }
    Lock guard(m_ErrorLock);
    std::string key = TypeName(typeid(error));
    auto found = m_ErrorRecords.find(key);
    if (found == m_ErrorRecords.end()) {
        found = m_ErrorRecords.emplace(key, ErrorRecord(error)).first;
    } else if (found->second.m_iRaisedCount == 0) {
        // Made by AddErrorHandler before the class was first raised.
        ErrorRecord filled(error);
        filled.m_Handlers = std::move(found->second.m_Handlers);
        found->second = std::move(filled);
    }
    if (found->second.m_iRaisedCount != 0xFFFFFFFFu) ++found->second.m_iRaisedCount;
}

void AlertManager::WarningRaised(Warning& warning)
{
    Lock guard(m_WarningLock);
    std::string key = TypeName(typeid(warning));
    auto found = m_WarningRecords.find(key);
    if (found == m_WarningRecords.end()) {
        found = m_WarningRecords.emplace(key, WarningRecord(warning)).first;
    } else if (found->second.m_iRaisedCount == 0 && found->second.m_sClass == "[Unknown]") {
        // Made by SetMaxWarnings before the first broadcast: it keeps its limit and counts.
        found->second.m_sClass = ReadableTypeName(typeid(warning));
        found->second.m_sCategory = warning.GetData(AlertInfo::sCATEGORY);
    }
    if (found->second.m_iRaisedCount != 0xFFFFFFFFu) ++found->second.m_iRaisedCount;
}

bool AlertManager::ShouldDoWarningBroadcast(const std::string& typeName)
{
    Lock guard(m_WarningLock);
    auto found = m_WarningRecords.find(typeName);
    if (found == m_WarningRecords.end()) return true;
    return found->second.ShouldWarningBeRaised();
}

void AlertManager::SetMaxWarnings(const std::string& typeName, unsigned long maxWarnings, bool overwrite)
{
    Lock guard(m_WarningLock);
    auto found = m_WarningRecords.find(typeName);
    if (found != m_WarningRecords.end() && !overwrite) return;
    if (found == m_WarningRecords.end()) found = m_WarningRecords.emplace(typeName, WarningRecord()).first;
    found->second.SetMaxWarnings(maxWarnings);
}

void AlertManager::ResetWarningCount(const std::string& typeName)
{
    Lock guard(m_WarningLock);
    auto found = m_WarningRecords.find(typeName);
    if (found != m_WarningRecords.end()) found->second.ResetWarningCount();
}

int AlertManager::GetRaisedErrorRecords(std::set<ErrorRecord, SSortErrors>& out)
{
    out.clear();
    Lock guard(m_ErrorLock);
    for (const auto& [key, record] : m_ErrorRecords)
        if (record.GetRaisedCount() > 0) out.insert(record);
    return static_cast<int>(out.size());
}

int AlertManager::GetRaisedWarningRecords(std::set<WarningRecord, SSortWarnings>& out)
{
    out.clear();
    Lock guard(m_WarningLock);
    for (const auto& [key, record] : m_WarningRecords)
        if (record.GetRaisedCount() > 0) out.insert(record);
    return static_cast<int>(out.size());
}

void AlertManager::AddErrorHandler(const std::string& typeName, std::shared_ptr<ErrorHandler> handler)
{
    if (!handler) return;
    Lock guard(m_ErrorLock);
    auto& handlers = m_ErrorRecords[typeName].m_Handlers;
    for (const auto& present : handlers)
        if (present == handler) return;
    handlers.push_back(std::move(handler));
}

void AlertManager::RemoveErrorHandler(const std::string& typeName, std::shared_ptr<ErrorHandler> handler)
{
    Lock guard(m_ErrorLock);
    m_ErrorRecords[typeName].m_Handlers.remove(handler);
}

bool AlertManager::UseErrorHandler(Error& error)
{
    // The handler lists of the error's classes, most derived first, copied under m_ErrorLock; the
    // handlers are called after it is released. A handler may do anything an alert listener may
    // (raise, add or remove handlers and listeners), and holding m_ErrorLock across it would
    // close a cycle with a thread that holds the alert source and records an error.
    std::vector<std::list<std::shared_ptr<ErrorHandler>>> lists;
    std::vector<ErrorHandler*> declined; // in the order of asking; told last-asked first
    try {
        std::vector<std::string> classes;
        StringTools::Split(error.GetData(Error::sINHERITANCE), "=>", classes);
        Lock guard(m_ErrorLock);
        lists.reserve(classes.size());
        for (auto it = classes.rbegin(); it != classes.rend(); ++it) {
            auto record = m_ErrorRecords.find(*it);
            if (record != m_ErrorRecords.end() && !record->second.m_Handlers.empty())
                lists.push_back(record->second.m_Handlers);
        }
        std::size_t total = 0;
        for (const auto& handlers : lists) total += handlers.size();
        declined.reserve(total);
    } catch (std::bad_alloc&) {
        // No memory to look the handlers up: the error is thrown as if none took it.
        return false;
    }
    bool handled = false;
    for (const auto& handlers : lists) {
        for (const auto& handler : handlers) {
            if (!handler) continue;
            if (handled) {
                handler->HandledByPrior(error);
                continue;
            }
            Lock handlerGuard(handler->m_HandlerLock);
            if (handler->Handle(error)) handled = true;
            else declined.push_back(handler.get());
        }
        // The first class whose list took the error ends the walk: base classes hear nothing.
        if (handled) break;
    }
    if (handled)
        for (auto it = declined.rbegin(); it != declined.rend(); ++it) (*it)->HandledByLatter(error);
    return handled;
}

std::shared_ptr<Error> AlertManager::GetCurrentError() const
{
    CurrentErrors* current = Globals::Instance().Get<CurrentErrors>("CurrentErrors");
    return current == nullptr ? nullptr : current->Get();
}

std::string AlertManager::CachedDisplayFormat(const std::string& typeName, const std::string& defaultFormat)
{
    ReaderLock read(m_DisplayFormatsLock);
    auto found = m_DisplayFormats.find(typeName);
    if (found != m_DisplayFormats.end()) return found->second;
    std::string format = defaultFormat;
    std::string localized;
    if (Detail::LookupLocaleString(AlertInfo::sALERT_MESSAGE_FORMATS, typeName, localized)) format = localized;
    else Detail::AddRootLocaleString(AlertInfo::sALERT_MESSAGE_FORMATS, typeName, defaultFormat);
    WriterLock write(m_DisplayFormatsLock);
    m_DisplayFormats[typeName] = format;
    return format;
}

} // namespace Qel::Core
