// The built-in log service: the tree of loggers, the handlers, the saved entries and the file.
#include "Infrastructure/QelCore/Logging/DefaultLogService.h"

#include "Infrastructure/QelCore/Globals.h"
#include "Infrastructure/QelCore/Platform/Platform.h"
#include "Infrastructure/QelCore/StringTools.h"

#include <algorithm>
#include <new>
#include <vector>

using namespace Qel::Core;

namespace {

const char* const sSERVICE_LOGGER = "Qel.Core.DefaultLogService";

} // namespace

// ---- the tree ----

DefaultLogService::LoggerTreeNode::LoggerTreeNode(const std::string& path, LoggerTreeNode* parent)
    : Logger(path), m_pParent(parent)
{
}

DefaultLogService::LoggerTreeNode::~LoggerTreeNode() = default;

unsigned int DefaultLogService::LoggerTreeNode::AncestorMask() const
{
    unsigned int mask = 0xFFFF;
    for (const LoggerTreeNode* node = m_pParent; node != nullptr; node = node->m_pParent)
        mask &= node->GetSeverityFilters();
    return mask;
}

void DefaultLogService::LoggerTreeNode::AddLogger(IQelLogger* p_pLogger)
{
    QEL_ASSERT(0 != p_pLogger);
    if (p_pLogger == nullptr) return;
    m_Loggers.insert(p_pLogger);
    unsigned int filters = GetSeverityFilters();
    for (const LoggerTreeNode* node = m_pParent; node != nullptr; node = node->m_pParent)
        filters &= node->GetSeverityFilters();
    p_pLogger->SetSeverityFilters(filters);
}

void DefaultLogService::LoggerTreeNode::Propagate(unsigned int oldValue, unsigned int newValue)
{
    if (oldValue == newValue) return;
    SetSeverityFilters(newValue);
    for (auto& [name, child] : m_Children) {
        unsigned int word = child->GetSeverityFilters();
        child->Propagate(word & oldValue, word & newValue);
    }
}

void DefaultLogService::LoggerTreeNode::TransferLoggers(IQelLogService& service)
{
    if (!service.Exists(GetPath())) service.SetSeverityFilters(GetPath(), GetSeverityFilters());
    std::vector<IQelLogger*> failed;
    for (IQelLogger* pLogger : m_Loggers) {
        try {
            QEL_ASSERT(pLogger->GetPath() == GetPath());
            service.RegisterLogger(pLogger);
        } catch (...) {
            failed.push_back(pLogger);
        }
    }
    for (IQelLogger* pLogger : failed) m_Loggers.erase(pLogger);
    for (auto& [name, child] : m_Children) child->TransferLoggers(service);
}

// ---- the service ----

DefaultLogService::DefaultLogService(DefaultLogEntriesFile::FolderSource folder)
    : m_Root(std::string(), nullptr), m_EntriesFile(std::move(folder))
{
}

DefaultLogService::~DefaultLogService()
{
    try {
        Lock guard(m_FileMutex);
        m_EntriesFile.Close();
    } catch (...) {
    }
}

void DefaultLogService::SplitPath(const std::string& p_sPath, std::vector<std::string>& pieces)
{
    pieces.clear();
    if (p_sPath.empty()) return;
    StringTools::Split(p_sPath, ".", pieces);
    // A leading dot is allowed: the path starts at the root all the same.
    if (!pieces.empty() && pieces.front().empty()) pieces.erase(pieces.begin());
    for (const std::string& piece : pieces)
        if (piece.empty()) QEL_RAISE_ERROR(InvalidLogPath(p_sPath), sSERVICE_LOGGER);
}

DefaultLogService::LoggerTreeNode* DefaultLogService::FindLoggerNode(const std::string& p_sPath)
{
    std::vector<std::string> pieces;
    SplitPath(p_sPath, pieces);
    LoggerTreeNode* node = &m_Root;
    for (const std::string& piece : pieces) {
        auto found = node->m_Children.find(piece);
        if (found == node->m_Children.end()) return nullptr;
        node = found->second.get();
    }
    return node;
}

DefaultLogService::LoggerTreeNode& DefaultLogService::GetLoggerNode(const std::string& p_sPath)
{
    std::vector<std::string> pieces;
    SplitPath(p_sPath, pieces);
    LoggerTreeNode* node = &m_Root;
    for (const std::string& piece : pieces) {
        auto found = node->m_Children.find(piece);
        if (found == node->m_Children.end()) {
            std::string path = node == &m_Root ? piece : node->GetPath() + "." + piece;
            found = node->m_Children.emplace(piece, std::make_unique<LoggerTreeNode>(path, node)).first;
            ++m_iCreatedNodes;
        }
        node = found->second.get();
    }
    return *node;
}

void DefaultLogService::NotifyTreeChange()
{
    std::vector<IQelLogHandler*> failed;
    {
        ReaderLock guard(m_HandlersLock);
        for (IQelLogHandler* handler : m_Handlers) {
            try {
                handler->OnLogTreeChange();
            } catch (...) {
                failed.push_back(handler);
            }
        }
    }
    for (IQelLogHandler* handler : failed) UnregisterHandler(handler);
}

void DefaultLogService::RegisterLogger(IQelLogger* logger)
{
    if (logger != nullptr) ChangeNodeLoggers(logger, true);
}

void DefaultLogService::UnregisterLogger(IQelLogger* logger)
{
    if (logger != nullptr) ChangeNodeLoggers(logger, false);
}

void DefaultLogService::ChangeNodeLoggers(IQelLogger* logger, bool add)
{
    std::string p_sPath = logger->GetPath();
    bool created = false;
    try {
        WriterLock guard(m_TreeLock);
        std::size_t before = m_iCreatedNodes;
        LoggerTreeNode& node = GetLoggerNode(p_sPath);
        if (add) node.AddLogger(logger);
        else node.RemoveLogger(logger);
        created = m_iCreatedNodes != before;
    }
    QEL_FORWARD_ERROR_WITH(QEL_FORWARD_VARIABLE(p_sPath))
    // The handlers hear of new nodes after the tree's lock is given up.
    if (created) NotifyTreeChange();
}

bool DefaultLogService::Exists(const std::string& p_sPath)
{
    bool found = false;
    try {
        ReaderLock guard(m_TreeLock);
        found = FindLoggerNode(p_sPath) != nullptr;
    }
    QEL_FORWARD_ERROR_WITH(QEL_FORWARD_VARIABLE(p_sPath))
    return found;
}

void DefaultLogService::EnumLoggers(const std::string& p_sRootPath, std::list<std::string>& names)
{
    names.clear();
    try {
        ReaderLock guard(m_TreeLock);
        if (LoggerTreeNode* node = FindLoggerNode(p_sRootPath))
            for (const auto& [name, child] : node->m_Children) names.push_back(name);
    }
    QEL_FORWARD_ERROR_WITH(QEL_FORWARD_VARIABLE(p_sRootPath))
}

unsigned int DefaultLogService::GetSeverityFilters(const std::string& p_sPath)
{
    unsigned int filters = 0;
    bool created = false;
    try {
        WriterLock guard(m_TreeLock);
        std::size_t before = m_iCreatedNodes;
        filters = GetLoggerNode(p_sPath).GetSeverityFilters();
        created = m_iCreatedNodes != before;
    }
    QEL_FORWARD_ERROR_WITH(QEL_FORWARD_VARIABLE(p_sPath))
    if (created) NotifyTreeChange();
    return filters;
}

void DefaultLogService::SetSeverityFilters(const std::string& p_sPath, unsigned int filters)
{
    bool created = false;
    bool changed = false;
    try {
        WriterLock guard(m_TreeLock);
        std::size_t before = m_iCreatedNodes;
        LoggerTreeNode& node = GetLoggerNode(p_sPath);
        created = m_iCreatedNodes != before;
        // The same word again changes nothing; a node that the walk made is a change all the same.
        if (node.GetSeverityFilters() != filters) {
            unsigned int mask = node.AncestorMask();
            unsigned int old = node.GetSeverityFilters();
            node.SetSeverityFilters(filters);
            // Afterwards the subtree holds effective values: a bit switched off here is off below.
            node.Propagate(old & mask, filters & mask);
            changed = true;
        }
    }
    QEL_FORWARD_ERROR_WITH(QEL_FORWARD_VARIABLE(p_sPath))
    if (created || changed) NotifyTreeChange();
}

unsigned int DefaultLogService::GetHandlerCount()
{
    ReaderLock guard(m_HandlersLock);
    return m_Handlers.empty() ? 1u : static_cast<unsigned int>(m_Handlers.size());
}

void DefaultLogService::RegisterHandler(IQelLogHandler* handler)
{
    if (handler == nullptr) return;
    WriterLock guard(m_HandlersLock);
    if (std::find(m_Handlers.begin(), m_Handlers.end(), handler) == m_Handlers.end()) m_Handlers.push_back(handler);
}

void DefaultLogService::UnregisterHandler(IQelLogHandler* handler)
{
    if (handler == nullptr) return;
    WriterLock guard(m_HandlersLock);
    m_Handlers.remove(handler);
}

std::list<IQelLogHandler*> DefaultLogService::GetHandlers()
{
    ReaderLock guard(m_HandlersLock);
    return m_Handlers;
}

bool DefaultLogService::OfferToHandlers(const QelLogEntry& entry)
{
    std::vector<IQelLogHandler*> failed;
    bool taken = false;
    {
        ReaderLock guard(m_HandlersLock);
        for (IQelLogHandler* handler : m_Handlers) {
            try {
                handler->WriteLog(entry);
                taken = true;
            } catch (...) {
                failed.push_back(handler);
            }
        }
    }
    for (IQelLogHandler* handler : failed) UnregisterHandler(handler);
    return taken;
}

void DefaultLogService::WriteLog(const QelLogEntry& entry)
{
    if (IsUnloading()) return;
    if (OfferToHandlers(entry)) return; // the file does not see an entry that a handler took

    // Locks in the declared order: the handlers' lock is given up before the saved entries' and
    // the file's are taken, so a slow disk does not hold up the registration of handlers.
    Lock saved(m_SavedEntriesMutex);
    m_SavedEntries.push_back(entry);
    if (m_SavedEntries.size() > sMAX_SAVED_ENTRIES) m_SavedEntries.pop_front();
    std::string text = FormatDefaultLogEntry(entry);
    Lock file(m_FileMutex);
    WriteToFile(text);
}

void DefaultLogService::WriteToFile(const std::string& text)
{
    if (!m_EntriesFile.IsOpen()) CreateLogFiles();
    if (!m_EntriesFile.Write(text)) Platform::WriteStandardError(text);
}

void DefaultLogService::StartAfreshAfterFork()
{
    // Built anew over the old ones, which are not destroyed: what they hold may be half changed.
    // The old file's descriptor stays open in the child, unused.
    DefaultLogEntriesFile::FolderSource folder = m_EntriesFile.GetFolderSource();
    new (&m_SavedEntries) std::list<QelLogEntry>();
    new (&m_EntriesFile) DefaultLogEntriesFile(std::move(folder));
}

void DefaultLogService::CloseFile()
{
    Lock file(m_FileMutex);
    m_EntriesFile.Close();
}

bool DefaultLogService::HasSavedEntries()
{
    Lock saved(m_SavedEntriesMutex);
    return !m_SavedEntries.empty();
}

void DefaultLogService::ReplaySavedEntries(IQelLogService& service)
{
    // The list is taken out under its lock and delivered outside it: delivery takes the
    // handlers' lock, which comes before this one.
    std::list<QelLogEntry> entries;
    {
        Lock saved(m_SavedEntriesMutex);
        entries.swap(m_SavedEntries);
    }
    for (const QelLogEntry& entry : entries) {
        if (&service == this) OfferToHandlers(entry);
        else service.WriteLog(entry);
    }
}

void DefaultLogService::TransferTo(IQelLogService& service)
{
    {
        WriterLock guard(m_TreeLock);
        m_Root.TransferLoggers(service);
    }
    QelLogEntry entry;
    entry.m_TimeStamp = Time();
    entry.m_Severity = QelLogInformational;
    entry.m_LogName = sSERVICE_LOGGER;
    entry.m_Format = "plain";
    entry.m_Message = "Transfering log handler from default to installed log service.";
    std::vector<IQelLogHandler*> failed;
    for (IQelLogHandler* handler : GetHandlers()) {
        try {
            handler->WriteLog(entry);
            service.RegisterHandler(handler);
        } catch (...) {
            failed.push_back(handler);
        }
    }
    for (IQelLogHandler* handler : failed) UnregisterHandler(handler);
    CloseFile();
}
