// Fatal error reports: the report folder, the report file, the terminate handler and the way out.
//
// What happens when the process dies of an uncaught error is told at the top of AlertManager.h.
// The counts and the stamp take no lock: the first thread that enters the terminate handler owns
// the fatal path, and any other thread that gets there is parked until the owner has ended the
// process.
#include "Infrastructure/QelCore/AlertManager.h"

#include "Infrastructure/QelCore/ErrorHandling/CurrentErrors.h"
#include "Infrastructure/QelCore/ErrorHandling/FatalError.h"
#include "Infrastructure/QelCore/Globals.h"
#include "Infrastructure/QelCore/LogManager.h"
#include "Infrastructure/QelCore/PathName.h"
#include "Infrastructure/QelCore/Platform/FatalExit.h"
#include "Infrastructure/QelCore/Platform/Platform.h"
#include "Infrastructure/QelCore/Platform/SystemInfo.h"
#include "Infrastructure/QelCore/Platform/TimePlatform.h"
#include "Infrastructure/QelCore/System.h"
#include "Infrastructure/QelCore/XMLWriter.h"

#include <atomic>
#include <cstdio>
#include <iostream>
#include <sstream>

namespace Qel::Core {
namespace {

const char* const sSET_PATH_LOG = "Qel.Core.AlertManager.SetFatalErrorBasePath";
const char* const sON_FATAL_LOG = "Qel.Core.AlertManager.OnFatalError";
const char* const sOPEN_FAILED_LOG = "Qel.Core.AlertInfo.OnFatalError";
const char* const sCIRCUMSTANCE = "Fatal unhandled error";
const char* const sSETTINGS_FILE = "SystemInfo.ini";
const char* const sERROR_PATH_KEY = "ErrorPath";
const std::int64_t iSTAMP_SECONDS = 10;

// The stamp of report names and when it was made. A plain array: it outlives every destructor,
// so a fatal error during the unload of the library still finds it.
char s_szStamp[32] = "";
std::int64_t s_iStampTime = 0;
// Reports that got as far as naming a file, and entries of the terminate handler.
std::atomic<std::uint32_t> s_iReportCount{0};
std::atomic<std::uint32_t> s_iTerminateEntries{0};
// The thread that owns the fatal path (0: none yet).
std::atomic<std::uint32_t> s_iOwner{0};
std::atomic<FatalErrors::Clock> s_pClock{nullptr};
std::atomic<int> s_iExitLimit{20};

std::int64_t SystemClock()
{
    return (Platform::UtcTicksNow() - Platform::iTICKS_1601_TO_1970) / Platform::iTICKS_PER_SECOND;
}

std::int64_t Now()
{
    FatalErrors::Clock clock = s_pClock.load();
    return clock != nullptr ? clock() : SystemClock();
}

// "YYYY-MM-DD__hh-mm-ss__" of the local time (the machine's zone, TZ honoured).
void MakeStamp(std::int64_t seconds)
{
    std::int64_t ticks = seconds * Platform::iTICKS_PER_SECOND + Platform::iTICKS_1601_TO_1970;
    Platform::CalendarFields fields;
    std::string error;
    if (!Platform::UtcTicksToLocalFields(ticks, fields, error)) fields = Platform::UtcTicksToUtcFields(ticks);
    std::snprintf(s_szStamp, sizeof s_szStamp, "%04d-%02d-%02d__%02d-%02d-%02d__", fields.year, fields.month,
                  fields.day, fields.hour, fields.minute, fields.second);
}

} // namespace

// The terminate handler's way into the manager.
class FatalErrorPath
{
public:
    [[noreturn]] static void Terminate();
};

std::atomic<std::int32_t> AlertManager::sm_iMaxFatalErrorReports{1};

// ---- settings ----

void AlertManager::InitErrorPath()
{
    std::string candidate;
    try {
        PathName settings(System::GetProcessPath());
        settings.SetLeafAndExt(sSETTINGS_FILE);
        candidate = FatalErrors::ErrorPathFromSettings(settings, System::GetProcessName());
        PathName folder(candidate);
        if (candidate.empty()) {
            folder = System::GetCommonDataPath();
            folder.AddBranch("Errors");
        }
        folder.ForceAsDir();
        m_sFatalErrorBasePath = static_cast<const std::string&>(folder);
    } catch (...) {
        // Without a folder the reports go to the fallback folder.
    }
}

std::string AlertManager::GetFatalErrorBasePath() const
{
    return m_sFatalErrorBasePath;
}

bool AlertManager::SetFatalErrorBasePath(const std::string& path)
{
    PathName folder(path);
    if (!folder.IsValid()) {
        QEL_RAISE_WARNING(InvalidFatalErrorPath(path), sSET_PATH_LOG);
        return false;
    }
    folder.ForceAsDir();
    m_sFatalErrorBasePath = static_cast<const std::string&>(folder);
    return true;
}

void AlertManager::AddFatalErrorInfo(const std::string& key, const std::string& value)
{
    m_FatalErrorInfo[key] = value;
}

int AlertManager::GetMaxFatalErrorReports()
{
    return sm_iMaxFatalErrorReports.load();
}

void AlertManager::SetMaxFatalErrorReports(int maxReports)
{
    sm_iMaxFatalErrorReports.store(maxReports);
}

// ---- the report ----

bool AlertManager::BuildFatalErrorPath(std::string& path)
{
    std::int64_t now = Now();
    if (now - s_iStampTime > iSTAMP_SECONDS) {
        MakeStamp(now);
        s_iStampTime = now;
    }
    bool folderExists = false;
    if (!IsUnloading()) {
        if (AlertManager* manager = Instance()) {
            PathName folder(manager->m_sFatalErrorBasePath);
            folder.ForceAsDir();
            path = static_cast<const std::string&>(folder);
            folderExists = folder.IsDir();
        }
    }
    path += s_szStamp;
    return folderExists;
}

void AlertManager::OnFatalError(Error& error)
{
    error.m_bFatal = true;
    try {
        // What is logged from now on goes straight to the log, and what is queued goes first.
        if (LogManager* log = LogManager::Instance()) log->SetBufferingMode(false);

        m_sFatalErrorReportPath.clear();
        if (!BuildFatalErrorPath(m_sFatalErrorReportPath)) {
            // No folder is made: the report goes where the process stands.
            PathName fallback("./");
            fallback.ForceAbsolute();
            m_sFatalErrorReportPath = static_cast<const std::string&>(fallback) + s_szStamp;
            QEL_RAISE_WARNING(FallbackFatalErrorPath(fallback), sON_FATAL_LOG);
        }

        // The first report has no number; from the second on the number is the count plus 1.
        std::uint32_t count = ++s_iReportCount;
        std::string file = m_sFatalErrorReportPath + "ErrorInfo" + (count == 1 ? std::string() : std::to_string(count + 1)) + ".xml";
        Platform::ReportFile report;
        if (!report.Open(PathName(file).ToFileSystemPath())) {
            QEL_RAISE_WARNING(OpenXMLErrorReportFailed(file), sOPEN_FAILED_LOG);
        } else {
            XMLWriter writer;
            std::ostringstream out;
            out << writer.StartXMLDoc();
            for (const auto& [key, value] : m_FatalErrorInfo) out << writer.Tag(key, XMLWriter::NO_ATTRIBUTES, value);
            error.ToXML(writer, out, sCIRCUMSTANCE);
            out << writer.EndXMLDoc();
            report.Write(out.str());
            report.Close();
        }
    } catch (...) {
        // Whatever fails here, the listeners still hear of the error.
    }
    UncaughtFatalErrorNotification notification(error, m_sFatalErrorReportPath);
    Broadcast(notification);
}

// ---- the terminate handler ----

void FatalErrorPath::Terminate()
{
    // One thread ends the process; another one that dies meanwhile waits for it.
    const std::uint32_t self = Platform::CurrentThreadId();
    std::uint32_t owner = 0;
    if (!s_iOwner.compare_exchange_strong(owner, self) && owner != self) Platform::ParkThread();
    Platform::ArmFatalExitGuards(-1, FatalErrors::ExitLimit());

    std::uint32_t entry = s_iTerminateEntries.fetch_add(1);
    if (static_cast<std::int64_t>(AlertManager::sm_iMaxFatalErrorReports.load()) > entry) {
        try {
            UnknownError standBy{std::string()};
            standBy.SetData(AlertInfo::sTYPE_NAME, TypeName(typeid(UnknownError)));
            std::shared_ptr<Error> recorded;
            if (!IsUnloading()) {
                if (CurrentErrors* current = Globals::Instance().Get<CurrentErrors>("CurrentErrors"))
                    recorded = current->GetOrFirst();
            }
            Error& error = recorded ? *recorded : standBy;
            if (!IsUnloading()) {
                if (AlertManager* manager = AlertManager::Instance()) manager->OnFatalError(error);
            }
            XMLWriter writer;
            std::ostringstream out;
            out << writer.StartXMLDoc();
            error.ToXML(writer, out, sCIRCUMSTANCE);
            out << writer.EndXMLDoc();
            Platform::WriteStandardError(out.str());
        } catch (...) {
            static const char sFAILED[] = "Core error handling generated unknown error!  Terminating process...\n";
            Platform::WriteStandardError(sFAILED);
            try {
                std::cout << sFAILED << std::flush;
            } catch (...) {
            }
        }
    }
    FatalExit(-1);
}

// ---- seams ----

namespace FatalErrors {

Clock SetClock(Clock clock)
{
    return s_pClock.exchange(clock);
}

std::string CurrentStamp()
{
    return s_szStamp;
}

void ResetCounts()
{
    s_szStamp[0] = '\0';
    s_iStampTime = 0;
    s_iReportCount = 0;
    s_iTerminateEntries = 0;
    s_iOwner = 0;
}

std::string ErrorPathFromSettings(const std::string& settingsFile, const std::string& processName)
{
    Platform::IniFile settings;
    if (!settings.Load(settingsFile)) return std::string();
    std::string path;
    std::string value;
    if (settings.GetString("default", sERROR_PATH_KEY, value) && !value.empty()) path = ExpandPathMacros(value);
    if (settings.GetString(processName, sERROR_PATH_KEY, value) && !value.empty()) path = ExpandPathMacros(value);
    return path;
}

void SetExitLimit(int seconds)
{
    s_iExitLimit.store(seconds);
}

int ExitLimit()
{
    return s_iExitLimit.load();
}

void TerminateHandler()
{
    FatalErrorPath::Terminate();
}

} // namespace FatalErrors
} // namespace Qel::Core
