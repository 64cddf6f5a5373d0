// The broker of alerts: filtered broadcast, records per class, in-place handlers, each thread's
// last error, and the cache of alert wordings.
#include "Infrastructure/QelCore/AlertManager.h"
#include "Infrastructure/QelCore/Locale.h"

#include "Infrastructure/QelCore/ErrorHandling/CurrentErrors.h"
#include "Infrastructure/QelCore/ErrorHandling/FatalError.h"
#include "Infrastructure/QelCore/ErrorHandling/StandIns.h"
#include "Infrastructure/QelCore/Globals.h"
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

void AlertManager::Broadcast(Notification& notification)
{
    // A listener that fails on every alert would otherwise answer each warning about its failure
    // with another failure, without end: alert broadcasts nest on a thread only so deep.
    static thread_local int t_iDepth = 0;
    if (t_iDepth >= g_iMAX_ERROR_RECURSION_DEPTH) return;
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
        Platform::WriteStandardError("Unkown error in alert listener during alert notification\n");
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
    std::vector<std::string> classes;
    StringTools::Split(error.GetData(Error::sINHERITANCE), "=>", classes);
    Lock guard(m_ErrorLock);
    bool handled = false;
    std::list<std::shared_ptr<ErrorHandler>> declined;
    for (auto it = classes.rbegin(); it != classes.rend() && !handled; ++it) {
        auto record = m_ErrorRecords.find(*it);
        if (record == m_ErrorRecords.end()) continue;
        // A copy of the list: a handler may add or remove handlers while it runs.
        std::list<std::shared_ptr<ErrorHandler>> handlers = record->second.m_Handlers;
        for (const auto& handler : handlers) {
            if (!handler) continue;
            if (handled) {
                handler->HandledByPrior(error);
                continue;
            }
            Lock handlerGuard(handler->m_HandlerLock);
            if (handler->Handle(error)) handled = true;
            else declined.push_front(handler);
        }
    }
    if (handled)
        for (const auto& handler : declined) handler->HandledByLatter(error);
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
