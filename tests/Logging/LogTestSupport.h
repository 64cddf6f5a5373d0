// Helpers of the logging tests: temporary folders, file reading, a capturing handler, a recording
// log service, xmllint checks, and a fixture that restores the state of the process's log manager.
//
// Every test of the LogTests program shares the process's LogManager. A test that changes it
// (filters, handlers, buffering, log path, installed service) restores it before it ends; a test
// that writes files does so in a folder of its own (TempDir).
#pragma once

#include <Infrastructure/QelCore/QelCore.h>

#include "Infrastructure/QelCore/Logging/DefaultLogService.h"
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace LogTest {

// A folder of its own under /tmp, removed (with the cross-process locks of the log files that were
// opened in it or in its sub-folders) when the object goes in the process that made it.
class TempDir
{
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    // The folder, ending in "/".
    const std::string& Path() const { return m_Path; }
    // A file or folder inside it.
    std::string operator/(const std::string& leaf) const { return m_Path + leaf; }

private:
    std::string m_Path;
    int m_Creator = 0; // the process that made it, and alone removes it
};

using QelTest::Eventually;
using QelTest::ReadFile;
using QelTest::WriteFile;

bool FileExists(const std::string& path);
std::uint64_t FileSize(const std::string& path);
// How often `needle` stands in `text`.
std::size_t CountOf(const std::string& text, const std::string& needle);

// A logger path made from `base` that no earlier call gave (tests may run repeatedly in one process,
// and the tree of loggers keeps every node).
std::string Unique(const std::string& base);

// The text with every time stamp replaced by "T".
std::string WithoutTimeStamps(const std::string& text);

// Whether xmllint can be run.
bool HaveXmlLint();
// Whether the text is a well-formed XML document for xmllint (written to a temporary file).
bool WellFormed(const std::string& document, std::string* report = nullptr);
// The result of an XPath expression over a document file, entities expanded ("" on failure).
std::string XPath(const std::string& documentPath, const std::string& expression);

// A handler that keeps every entry it is given (all, or only those of loggers whose path starts
// with a prefix). Not registered by itself.
class CaptureHandler : public IQelLogHandler
{
public:
    explicit CaptureHandler(std::string prefix = std::string()) : m_Prefix(std::move(prefix)) {}
    void OnLogTreeChange() override;
    void WriteLog(const QelLogEntry& entry) override;

    std::vector<QelLogEntry> Entries();
    std::vector<std::string> Messages();
    std::size_t Count();
    int TreeChanges() { return m_iTreeChanges.load(); }
    bool Holds(const std::string& text);
    // Waits until an entry's message holds the text.
    bool WaitFor(const std::string& text, std::chrono::milliseconds limit = std::chrono::seconds(20));
    void Clear();

private:
    std::string m_Prefix;
    std::mutex m_Mutex;
    std::vector<QelLogEntry> m_Entries;
    std::atomic<int> m_iTreeChanges{0};
};

// A handler registered with the process's manager while it lives.
class ManagerCapture : public CaptureHandler
{
public:
    explicit ManagerCapture(std::string prefix = std::string());
    ~ManagerCapture() override;
};

// Registers a handler with the process's manager for a scope (declare it after the handler).
class ScopedHandler
{
public:
    explicit ScopedHandler(IQelLogHandler& handler);
    ~ScopedHandler();
    ScopedHandler(const ScopedHandler&) = delete;
    ScopedHandler& operator=(const ScopedHandler&) = delete;

private:
    IQelLogHandler& m_Handler;
};

// A log service of a host, recording what it is asked. WriteLog throws while m_bThrow is set.
class RecordingService : public IQelLogService
{
public:
    void WriteLog(const QelLogEntry& entry) override;
    void RegisterHandler(IQelLogHandler* handler) override;
    void UnregisterHandler(IQelLogHandler* handler) override;
    void RegisterLogger(IQelLogger* logger) override;
    void UnregisterLogger(IQelLogger* logger) override;
    void EnumLoggers(const std::string& rootPath, std::list<std::string>& names) override;
    void SetSeverityFilters(const std::string& path, unsigned int filters) override;
    unsigned int GetSeverityFilters(const std::string& path) override;
    unsigned int GetHandlerCount() override { return m_iHandlerCount.load(); }
    bool Exists(const std::string& path) override;

    std::vector<QelLogEntry> Entries();
    std::vector<std::string> Messages();
    bool Holds(const std::string& text);
    std::size_t WriteCalls() { return m_iWriteCalls.load(); }

    std::atomic<bool> m_bThrow{false};
    std::atomic<unsigned> m_iHandlerCount{1};

    std::mutex m_Mutex;
    std::vector<QelLogEntry> m_Entries;
    std::list<IQelLogHandler*> m_Handlers;
    std::list<IQelLogHandler*> m_UnregisteredHandlers;
    std::multiset<std::string> m_RegisteredLoggers;
    std::multiset<std::string> m_UnregisteredLoggers;
    std::map<std::string, unsigned int> m_Filters;
    std::atomic<std::size_t> m_iWriteCalls{0};
};

// The process's manager.
Qel::Core::LogManager& Manager();

// Installs a service in the process's manager for a scope (declare it after the service); it is
// uninstalled at the end if it is still installed.
class ScopedInstall
{
public:
    explicit ScopedInstall(IQelLogService& service);
    ~ScopedInstall();
    ScopedInstall(const ScopedInstall&) = delete;
    ScopedInstall& operator=(const ScopedInstall&) = delete;

private:
    IQelLogService& m_Service;
};

// Closes the default log file of the process's manager: a hand-over to a service that is
// installed and uninstalled at once. The next entry opens the file in the log path of that moment.
void CloseManagerFile();

// Keeps the state of the process's log manager that tests change, and puts it back: buffering mode
// and log path; with `ownFolder` the manager logs into a TempDir of the test meanwhile (its file is
// closed before and after).
class ManagerFixture : public ::testing::Test
{
protected:
    explicit ManagerFixture(bool ownFolder = false) : m_bOwnFolder(ownFolder) {}
    void SetUp() override;
    void TearDown() override;

    // The entries file of the manager while the test has its own folder.
    std::string EntriesFile() const { return m_Folder / Qel::Core::sDEFAULT_LOG_ENTRIES; }
    // Waits until the manager's entries file holds the text.
    bool WaitForFile(const std::string& text, const std::string& file = std::string());

    TempDir m_Folder;
    bool m_bOwnFolder;
    std::string m_sOldPath;
    bool m_bOldBuffering = true;
};

class ManagerFolderFixture : public ManagerFixture
{
protected:
    ManagerFolderFixture() : ManagerFixture(true) {}
};

// Sets the rollover limit of the default log file for a scope.
class RolloverLimit
{
public:
    explicit RolloverLimit(std::uint64_t bytes) : m_Old(Qel::Core::DefaultLogEntriesFile::GetRolloverLimit())
    {
        Qel::Core::DefaultLogEntriesFile::SetRolloverLimit(bytes);
    }
    ~RolloverLimit() { Qel::Core::DefaultLogEntriesFile::SetRolloverLimit(m_Old); }

private:
    std::uint64_t m_Old;
};

// An entry as the manager would make it.
QelLogEntry MakeEntry(const std::string& message, QelLogSeverityEnum severity = QelLogInformational,
                      const std::string& logger = "LogTest.Entry", const std::string& format = "plain");

// A gate that handlers can wait on.
class Gate
{
public:
    void Open();
    // Waits until the gate opens; false after the time.
    bool Wait(std::chrono::milliseconds limit);

private:
    std::mutex m_Mutex;
    std::condition_variable m_Opened;
    bool m_bOpen = false;
};

} // namespace LogTest
