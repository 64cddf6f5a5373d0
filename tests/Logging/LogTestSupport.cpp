// Helpers of the logging tests (see LogTestSupport.h), and the program's environment: the process's
// manager logs into a temporary folder for the whole run, not beside the test program.
#include "tests/Logging/LogTestSupport.h"

#include "Infrastructure/QelCore/Platform/NamedMutex.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>

#include <unistd.h>

using namespace Qel::Core;

namespace LogTest {

// ---- files ----

TempDir::TempDir()
{
    char name[] = "/tmp/LogTests.XXXXXX";
    if (::mkdtemp(name) == nullptr) throw std::runtime_error("mkdtemp failed");
    m_Path = std::string(name) + "/";
    m_Creator = ::getpid();
}

TempDir::~TempDir()
{
    // A forked child that leaves through exit runs the destructors of static ones: the folder is
    // the parent's.
    if (::getpid() != m_Creator) return;
    std::error_code error;
    // The locks of the entries files live in /dev/shm beyond the folder: remove them too.
    std::vector<std::string> folders{m_Path};
    for (auto it = std::filesystem::recursive_directory_iterator(m_Path, error);
         !error && it != std::filesystem::recursive_directory_iterator(); it.increment(error))
        if (it->is_directory(error)) folders.push_back(it->path().string() + "/");
    for (const std::string& folder : folders) Platform::NamedMutex::Remove(folder + sDEFAULT_LOG_ENTRIES);
    std::filesystem::remove_all(m_Path, error);
}

bool FileExists(const std::string& path)
{
    std::error_code error;
    return std::filesystem::exists(path, error);
}

std::uint64_t FileSize(const std::string& path)
{
    std::error_code error;
    auto size = std::filesystem::file_size(path, error);
    return error ? 0 : static_cast<std::uint64_t>(size);
}

std::size_t CountOf(const std::string& text, const std::string& needle)
{
    std::size_t count = 0;
    for (std::size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + needle.size()))
        ++count;
    return count;
}

std::string Unique(const std::string& base)
{
    static std::atomic<int> s_iNext{0};
    return base + std::to_string(++s_iNext);
}

std::string WithoutTimeStamps(const std::string& text)
{
    static const std::regex stamp("<TimeStamp>[^<]*</TimeStamp>");
    return std::regex_replace(text, stamp, "<TimeStamp>T</TimeStamp>");
}

// ---- xmllint ----

bool HaveXmlLint()
{
    static const bool have = std::system("command -v xmllint >/dev/null 2>&1") == 0;
    return have;
}

bool WellFormed(const std::string& document, std::string* report)
{
    TempDir folder;
    std::string file = folder / "document.xml";
    std::string errors = folder / "errors.txt";
    WriteFile(file, document);
    int status = std::system(("xmllint --noout '" + file + "' 2>'" + errors + "'").c_str());
    if (report != nullptr) *report = ReadFile(errors);
    return status == 0;
}

std::string XPath(const std::string& documentPath, const std::string& expression)
{
    std::string command = "xmllint --noent --xpath '" + expression + "' '" + documentPath + "' 2>/dev/null";
    std::string result;
    if (FILE* pipe = ::popen(command.c_str(), "r")) {
        char buffer[4096];
        std::size_t got;
        while ((got = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) result.append(buffer, got);
        ::pclose(pipe);
    }
    while (!result.empty() && (result.back() == '\n' || result.back() == ' ')) result.pop_back();
    return result;
}

// ---- handlers ----

void CaptureHandler::OnLogTreeChange()
{
    ++m_iTreeChanges;
}

void CaptureHandler::WriteLog(const QelLogEntry& entry)
{
    if (entry.m_LogName.compare(0, m_Prefix.size(), m_Prefix) != 0) return;
    std::lock_guard<std::mutex> guard(m_Mutex);
    m_Entries.push_back(entry);
}

std::vector<QelLogEntry> CaptureHandler::Entries()
{
    std::lock_guard<std::mutex> guard(m_Mutex);
    return m_Entries;
}

std::vector<std::string> CaptureHandler::Messages()
{
    std::vector<std::string> messages;
    for (const QelLogEntry& entry : Entries()) messages.push_back(entry.m_Message);
    return messages;
}

std::size_t CaptureHandler::Count()
{
    std::lock_guard<std::mutex> guard(m_Mutex);
    return m_Entries.size();
}

bool CaptureHandler::Holds(const std::string& text)
{
    for (const QelLogEntry& entry : Entries())
        if (entry.m_Message.find(text) != std::string::npos) return true;
    return false;
}

bool CaptureHandler::WaitFor(const std::string& text, std::chrono::milliseconds limit)
{
    return Eventually([&] { return Holds(text); }, limit);
}

void CaptureHandler::Clear()
{
    std::lock_guard<std::mutex> guard(m_Mutex);
    m_Entries.clear();
}

ManagerCapture::ManagerCapture(std::string prefix) : CaptureHandler(std::move(prefix))
{
    Manager().RegisterHandler(this);
}

ManagerCapture::~ManagerCapture()
{
    Manager().UnregisterHandler(this);
}

ScopedHandler::ScopedHandler(IQelLogHandler& handler) : m_Handler(handler)
{
    Manager().RegisterHandler(&m_Handler);
}

ScopedHandler::~ScopedHandler()
{
    Manager().UnregisterHandler(&m_Handler);
}

// ---- the recording service ----

void RecordingService::WriteLog(const QelLogEntry& entry)
{
    ++m_iWriteCalls;
    if (m_bThrow.load()) throw std::runtime_error("the service fails");
    std::lock_guard<std::mutex> guard(m_Mutex);
    m_Entries.push_back(entry);
}

void RecordingService::RegisterHandler(IQelLogHandler* handler)
{
    std::lock_guard<std::mutex> guard(m_Mutex);
    m_Handlers.push_back(handler);
}

void RecordingService::UnregisterHandler(IQelLogHandler* handler)
{
    std::lock_guard<std::mutex> guard(m_Mutex);
    m_Handlers.remove(handler);
    m_UnregisteredHandlers.push_back(handler);
}

void RecordingService::RegisterLogger(IQelLogger* logger)
{
    std::lock_guard<std::mutex> guard(m_Mutex);
    m_RegisteredLoggers.insert(logger->GetPath());
}

void RecordingService::UnregisterLogger(IQelLogger* logger)
{
    std::lock_guard<std::mutex> guard(m_Mutex);
    m_UnregisteredLoggers.insert(logger->GetPath());
}

void RecordingService::EnumLoggers(const std::string&, std::list<std::string>& names)
{
    names.clear();
}

void RecordingService::SetSeverityFilters(const std::string& path, unsigned int filters)
{
    std::lock_guard<std::mutex> guard(m_Mutex);
    m_Filters[path] = filters;
}

unsigned int RecordingService::GetSeverityFilters(const std::string& path)
{
    std::lock_guard<std::mutex> guard(m_Mutex);
    auto found = m_Filters.find(path);
    return found == m_Filters.end() ? 46u : found->second;
}

bool RecordingService::Exists(const std::string& path)
{
    std::lock_guard<std::mutex> guard(m_Mutex);
    return m_Filters.count(path) > 0;
}

std::vector<QelLogEntry> RecordingService::Entries()
{
    std::lock_guard<std::mutex> guard(m_Mutex);
    return m_Entries;
}

std::vector<std::string> RecordingService::Messages()
{
    std::vector<std::string> messages;
    for (const QelLogEntry& entry : Entries()) messages.push_back(entry.m_Message);
    return messages;
}

bool RecordingService::Holds(const std::string& text)
{
    for (const QelLogEntry& entry : Entries())
        if (entry.m_Message.find(text) != std::string::npos) return true;
    return false;
}

// ---- the manager ----

LogManager& Manager()
{
    LogManager* manager = LogManager::Instance();
    if (manager == nullptr) throw std::runtime_error("no log manager");
    return *manager;
}

ScopedInstall::ScopedInstall(IQelLogService& service) : m_Service(service)
{
    Manager().InstallLogService(m_Service);
}

ScopedInstall::~ScopedInstall()
{
    Manager().UninstallLogService(m_Service);
}

void CloseManagerFile()
{
    RecordingService closer;
    Manager().InstallLogService(closer);
    Manager().UninstallLogService(closer);
}

void ManagerFixture::SetUp()
{
    m_sOldPath = Manager().GetLogPath();
    m_bOldBuffering = Manager().GetBufferingMode();
    if (m_bOwnFolder) {
        Manager().SetLogPath(m_Folder.Path());
        CloseManagerFile();
    }
}

void ManagerFixture::TearDown()
{
    Manager().SetBufferingMode(m_bOldBuffering);
    if (m_bOwnFolder || Manager().GetLogPath() != m_sOldPath) {
        Manager().SetLogPath(m_sOldPath);
        CloseManagerFile();
    }
}

bool ManagerFixture::WaitForFile(const std::string& text, const std::string& file)
{
    std::string name = file.empty() ? EntriesFile() : file;
    return Eventually([&] { return ReadFile(name).find(text) != std::string::npos; });
}

QelLogEntry MakeEntry(const std::string& message, QelLogSeverityEnum severity, const std::string& logger,
                      const std::string& format)
{
    QelLogEntry entry;
    entry.m_TimeStamp = Time();
    entry.m_Severity = severity;
    entry.m_Message = message;
    entry.m_LogName = logger;
    entry.m_Format = format;
    return entry;
}

void Gate::Open()
{
    std::lock_guard<std::mutex> guard(m_Mutex);
    m_bOpen = true;
    m_Opened.notify_all();
}

bool Gate::Wait(std::chrono::milliseconds limit)
{
    std::unique_lock<std::mutex> guard(m_Mutex);
    return m_Opened.wait_for(guard, limit, [this] { return m_bOpen; });
}

namespace {

// For the whole run, the process's manager logs into a temporary folder.
class LogFolderEnvironment : public ::testing::Environment
{
public:
    void SetUp() override
    {
        m_pFolder = std::make_unique<TempDir>();
        m_sOldPath = Manager().GetLogPath();
        Manager().SetLogPath(m_pFolder->Path());
        CloseManagerFile();
    }
    void TearDown() override
    {
        Manager().SetLogPath(m_sOldPath);
        m_pFolder.reset();
    }

private:
    std::unique_ptr<TempDir> m_pFolder;
    std::string m_sOldPath;
};

[[maybe_unused]] ::testing::Environment* const s_pEnvironment =
    ::testing::AddGlobalTestEnvironment(new LogFolderEnvironment);

} // namespace

} // namespace LogTest
