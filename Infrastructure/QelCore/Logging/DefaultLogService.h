// The library's built-in log service and its default log file.
//
// DefaultLogService keeps the tree of loggers with their filter words, offers every entry to the
// registered handlers, and writes the entries that no handler takes to the default log: an
// append-only file of XML fragments, "DefaultLog.entries", pulled into the small document
// "DefaultLog.xml" as an external entity. The fragments file rolls over above 1,400,000 bytes
// into "DefaultLog.archive". Several processes may log into one folder: a lock named by the
// entries file (a robust lock that a dying holder gives up) covers append and rollover.
//
// Exported for the library's tests; hosts use these through LogManager.
#pragma once

#include "Infrastructure/QelCore/LogManager.h"
#include "Infrastructure/QelCore/Mutex.h"
#include "Infrastructure/QelCore/PathName.h"
#include "Infrastructure/QelCore/Platform/AppendFile.h"
#include "Infrastructure/QelCore/ReadersWriterMutex.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace Qel::Core {
namespace Platform {
class NamedMutex;
}

// The file names of the default log.
QEL_CORE_API extern const char* const sDEFAULT_LOG_DOCUMENT; // "DefaultLog.xml"
QEL_CORE_API extern const char* const sDEFAULT_LOG_ENTRIES;  // "DefaultLog.entries"
QEL_CORE_API extern const char* const sDEFAULT_LOG_ARCHIVE;  // "DefaultLog.archive"
// The line between entries (with its line end).
QEL_CORE_API extern const char* const sDEFAULT_LOG_SEPARATOR;

// The text of a severity in a log file ("Alarm" .. "Verbose"); empty outside 1 to 6.
QEL_CORE_API const char* LogSeverityText(int severity);

// One entry as it stands in "DefaultLog.entries", separator included.
QEL_CORE_API std::string FormatDefaultLogEntry(const QelLogEntry& entry);

// The cross-process lock of one entries file, named by the file's path.
class QEL_CORE_API LogFileMutex
{
public:
    explicit LogFileMutex(const std::string& fileName);
    ~LogFileMutex();
    LogFileMutex(const LogFileMutex&) = delete;
    LogFileMutex& operator=(const LogFileMutex&) = delete;

    // Waits at most the time limit (10 s); false when the lock was not got. A holder that died
    // leaves the lock to the next one who waits.
    bool Acquire();
    void Release();

    // The wait limit, in milliseconds (10000; tests shorten it).
    static void SetTimeLimit(unsigned milliseconds);
    static unsigned GetTimeLimit();

    // What the holders of the lock know of the file, kept beside the lock for all processes:
    // [0] the number of rollovers, [1] the file's length + 1 (0: not known). Null without a lock.
    std::atomic<std::uint64_t>* SharedWords();

private:
    std::shared_ptr<Platform::NamedMutex> m_spMutex; // null if the system refused the lock
};

// Holds a LogFileMutex for a scope, if it could be got in time.
class QEL_CORE_API LogFileMutexGuard
{
public:
    explicit LogFileMutexGuard(std::shared_ptr<LogFileMutex> mutex);
    ~LogFileMutexGuard();
    LogFileMutexGuard(const LogFileMutexGuard&) = delete;
    LogFileMutexGuard& operator=(const LogFileMutexGuard&) = delete;
    bool IsLocked() const { return m_bLocked; }

private:
    std::shared_ptr<LogFileMutex> m_spMutex;
    bool m_bLocked;
};

// The file of fragments, "DefaultLog.entries", in the folder that `folder` gives at each Open.
// Not thread-safe: the service guards it with its m_FileMutex.
class QEL_CORE_API DefaultLogEntriesFile
{
public:
    using FolderSource = std::function<std::string()>;
    explicit DefaultLogEntriesFile(FolderSource folder);
    ~DefaultLogEntriesFile();

    // Makes the folder if it is missing and opens the file for appending; true if it is open.
    bool Open();
    bool IsOpen() const { return m_File.IsOpen(); }
    void Close();
    // Appends the text with one write under the cross-process lock (without it after the time
    // limit), then rolls over if the file is longer than the limit. False when the file could
    // not be opened or written.
    bool Write(const std::string& text);
    // Moves the file to "DefaultLog.archive" and starts a fresh one; the caller holds the lock.
    void Rollover();
    // The full name of the entries file as last opened.
    const PathName& GetPathName() const { return m_PathName; }
    // The folder, ending in a separator, that the next Open uses.
    std::string GetFolder() const;
    // What gives the folder at each Open.
    const FolderSource& GetFolderSource() const { return m_Folder; }

    // The length above which the file rolls over (1,400,000 bytes; tests make it small).
    static void SetRolloverLimit(std::uint64_t bytes);
    static std::uint64_t GetRolloverLimit();

private:
    FolderSource m_Folder;
    std::shared_ptr<LogFileMutex> m_spMutex;
    PathName m_PathName;
    Platform::AppendFile m_File;
    std::string m_sFileName; // m_PathName as the file system takes it
    std::uint64_t m_iRollovers = ~std::uint64_t(0); // the shared rollover count the open file belongs to
    unsigned m_iSinceCheck = 0;                      // entries written since the file was last asked
};

} // namespace Qel::Core

class QEL_CORE_API DefaultLogService : public Qel::Core::LogManager::IDefaultLogService
{
public:
    // A node of the tree of loggers: a path, a name and a filter word of its own.
    class QEL_CORE_API LoggerTreeNode : public Qel::Core::Logger
    {
    public:
        // The name is the path's last component, as for every logger.
        LoggerTreeNode(const std::string& path, LoggerTreeNode* parent);
        ~LoggerTreeNode() override;

        // Asserts "0 != p_pLogger"; the logger gets this node's word ANDed with its ancestors'.
        void AddLogger(IQelLogger* p_pLogger);
        void RemoveLogger(IQelLogger* p_pLogger) { m_Loggers.erase(p_pLogger); }
        // Hands the filters and loggers of this subtree to `service`; loggers that fail are
        // dropped from the tree.
        void TransferLoggers(IQelLogService& service);

        // The word of this node ANDed with those of all its ancestors (0xFFFF above the root).
        unsigned int AncestorMask() const;
        void Propagate(unsigned int oldValue, unsigned int newValue);

        std::set<IQelLogger*> m_Loggers;
        std::map<std::string, std::unique_ptr<LoggerTreeNode>> m_Children;
        LoggerTreeNode* m_pParent;
    };

    // `folder` gives the folder of the log files when the file is opened.
    explicit DefaultLogService(Qel::Core::DefaultLogEntriesFile::FolderSource folder);
    ~DefaultLogService() override;

    void WriteLog(const QelLogEntry& entry) override;
    void RegisterHandler(IQelLogHandler* handler) override;
    void UnregisterHandler(IQelLogHandler* handler) override;
    void RegisterLogger(IQelLogger* logger) override;
    void UnregisterLogger(IQelLogger* logger) override;
    void EnumLoggers(const std::string& p_sRootPath, std::list<std::string>& names) override;
    void SetSeverityFilters(const std::string& p_sPath, unsigned int filters) override;
    unsigned int GetSeverityFilters(const std::string& p_sPath) override;
    // The number of handlers, or 1 without any: the file stands in for a handler.
    unsigned int GetHandlerCount() override;
    bool Exists(const std::string& p_sPath) override;

    // ---- for the manager ----

    bool HasSavedEntries();
    // Gives the saved entries, oldest first, to `service` and forgets them. Replayed into this
    // service itself, they go to its handlers only (the file has them already).
    void ReplaySavedEntries(IQelLogService& service);
    // Hands loggers, filters and handlers to an installed service and closes the file.
    void TransferTo(IQelLogService& service);
    std::list<IQelLogHandler*> GetHandlers();
    // Closes the log file; the next entry opens it again (in the folder of that moment).
    void CloseFile();
    // In the child of a fork, on its one thread: the entries kept for replay and the state of the
    // open file start afresh (a thread of the parent may have been changing them at the fork; the
    // parent's entries are the parent's to replay). The next entry opens the file again.
    void StartAfreshAfterFork();

    // Finds or makes the node of a path (the caller holds m_TreeLock as a writer).
    LoggerTreeNode& GetLoggerNode(const std::string& p_sPath);
    // Finds the node of a path, or null (the caller holds m_TreeLock).
    LoggerTreeNode* FindLoggerNode(const std::string& p_sPath);

    // The number of entries kept for replay: 1000.
    static constexpr std::size_t sMAX_SAVED_ENTRIES = 1000;

private:
    // Splits a path into its pieces; InvalidLogPath for an empty piece.
    static void SplitPath(const std::string& p_sPath, std::vector<std::string>& pieces);
    void NotifyTreeChange();
    // Adds the logger to (or takes it from) the node of its path, making the node if needed.
    void ChangeNodeLoggers(IQelLogger* logger, bool add);
    // Offers the entry to each handler; those that throw are unregistered. Whether one took it.
    bool OfferToHandlers(const QelLogEntry& entry);
    // Writes the text to the file (making the log files first), or to the standard error stream.
    void WriteToFile(const std::string& text);
    void CreateLogFiles();

    LoggerTreeNode m_Root;
    std::list<IQelLogHandler*> m_Handlers;
    Qel::Core::ReadersWriterMutex m_TreeLock;
    Qel::Core::ReadersWriterMutex m_HandlersLock;
    Qel::Core::DefaultLogEntriesFile m_EntriesFile;
    Qel::Core::Mutex m_FileMutex;
    std::list<QelLogEntry> m_SavedEntries;
    Qel::Core::Mutex m_SavedEntriesMutex;
    std::size_t m_iCreatedNodes = 0; // nodes made by GetLoggerNode (under m_TreeLock)
};
