// The default log file: the entries file with its cross-process lock and rollover, the document
// that includes it, and the layout of one entry.
#include "Infrastructure/QelCore/Logging/DefaultLogService.h"

#include "Infrastructure/QelCore/Platform/NamedMutex.h"
#include "Infrastructure/QelCore/Platform/Platform.h"
#include "Infrastructure/QelCore/XMLWriter.h"

#include <atomic>
#include <sstream>

namespace Qel::Core {

const char* const sDEFAULT_LOG_DOCUMENT = "DefaultLog.xml";
const char* const sDEFAULT_LOG_ENTRIES = "DefaultLog.entries";
const char* const sDEFAULT_LOG_ARCHIVE = "DefaultLog.archive";
const char* const sDEFAULT_LOG_SEPARATOR =
    "<!-- ========================================================================  -->\n";

namespace {

std::atomic<std::uint64_t> s_RolloverLimit{1400000};
std::atomic<unsigned> s_LockTimeLimitMs{10000};

const char* const sSEVERITY_TEXTS[] = {"", "Alarm", "Error", "Warning", "Debug", "Informational", "Verbose"};

} // namespace

const char* LogSeverityText(int severity)
{
    return severity >= 1 && severity <= 6 ? sSEVERITY_TEXTS[severity] : "";
}

// ---- one entry ----

namespace {

// The layout of an entry through XMLWriter and its pretty-print formatter: every entry can take
// this way.
std::string FormatWithWriter(const QelLogEntry& entry)
{
    std::ostringstream out;
    XMLWriter writer; // the default pretty-print layout
    XMLAttributeMap<std::string> attributes;
    const char* severity = LogSeverityText(entry.m_Severity);
    if (*severity != '\0') attributes["Severity"] = XMLAttributeValue<std::string>(severity);
    out << writer.StartTag("LogEntry", attributes);
    out << writer.Tag("TimeStamp", XMLWriter::NO_ATTRIBUTES, entry.m_TimeStamp.ToString());
    out << writer.Tag("LogName", XMLWriter::NO_ATTRIBUTES, entry.m_LogName);
    if (entry.m_Format == "xml") {
        // A ready fragment: written as it is, in place of a Message element. It stands on lines
        // of its own: "</LogEntry>" starts a new line after it.
        out << entry.m_Message;
        if (!entry.m_Message.empty() && entry.m_Message.back() != '\n') out << '\n';
    } else {
        out << writer.Tag("Message", XMLWriter::NO_ATTRIBUTES, entry.m_Message);
    }
    out << writer.EndAllTags();
    out << '\n' << sDEFAULT_LOG_SEPARATOR << '\n';
    return std::move(out).str();
}

// The right margin of the pretty-print formatter.
constexpr std::size_t kLineWidth = 80;

// Whether the pretty printer keeps a child of the entry, with this name and escaped text, on
// one line: "  <name>text</name>". It does for a text that is not empty, has no line end and
// leaves room for the end tag before the margin: 2 (indent) + name + 2 (< >) + text, plus
// name + 3 (</ >), below 80.
bool FitsOnOneLine(std::size_t nameLength, const std::string& escaped)
{
    return !escaped.empty() && escaped.find('\n') == std::string::npos &&
           2 * nameLength + 7 + escaped.size() < kLineWidth;
}

void AppendElement(std::string& out, const char* name, const std::string& escaped)
{
    out += "  <";
    out += name;
    out += '>';
    out += escaped;
    out += "</";
    out += name;
    out += ">\n";
}

} // namespace

std::string FormatDefaultLogEntry(const QelLogEntry& entry)
{
    // Most entries are short one-line texts: those are laid out here directly, with the same
    // bytes as the pretty printer gives them; the others go through the writer.
    const std::string timeStamp = XMLEscape(entry.m_TimeStamp.ToString());
    const std::string logName = XMLEscape(entry.m_LogName);
    const bool xml = entry.m_Format == "xml";
    const std::string message = xml ? std::string() : XMLEscape(entry.m_Message);
    if (!FitsOnOneLine(9, timeStamp) || !FitsOnOneLine(7, logName) || (!xml && !FitsOnOneLine(7, message)))
        return FormatWithWriter(entry);

    const char* severity = LogSeverityText(entry.m_Severity);
    std::string out;
    out.reserve(160 + timeStamp.size() + logName.size() + (xml ? entry.m_Message.size() : message.size()));
    out += "<LogEntry";
    if (*severity != '\0') {
        out += " Severity=\"";
        out += severity;
        out += "\" ";
    }
    out += ">\n";
    AppendElement(out, "TimeStamp", timeStamp);
    AppendElement(out, "LogName", logName);
    if (xml) {
        out += entry.m_Message; // a ready fragment, in place of a Message element, on lines of its own
        if (!entry.m_Message.empty() && entry.m_Message.back() != '\n') out += '\n';
    }
    else AppendElement(out, "Message", message);
    out += "</LogEntry>\n\n";
    out += sDEFAULT_LOG_SEPARATOR;
    out += '\n';
    return out;
}

// ---- the cross-process lock ----

LogFileMutex::LogFileMutex(const std::string& fileName)
{
    // All processes that open the same file get the same lock.
    std::string name = fileName;
    for (char& c : name)
        if (c == '\\') c = '/';
    int error = 0;
    m_spMutex = Platform::NamedMutex::Open(name, error);
}

LogFileMutex::~LogFileMutex() = default;

bool LogFileMutex::Acquire()
{
    if (!m_spMutex) return false;
    Platform::Deadline deadline =
        Platform::DeadlineAfterTicks(static_cast<std::int64_t>(s_LockTimeLimitMs.load()) * 10000);
    int error = 0;
    Platform::NamedMutex::Result result = m_spMutex->LockUntil(&deadline, error);
    // An abandoned lock is ours now: it is released after the write like any other, so that the
    // holder's death costs the others nothing.
    return result == Platform::NamedMutex::eACQUIRED || result == Platform::NamedMutex::eABANDONED;
}

std::atomic<std::uint64_t>* LogFileMutex::SharedWords()
{
    return m_spMutex ? m_spMutex->Words() : nullptr;
}

void LogFileMutex::Release()
{
    if (m_spMutex) m_spMutex->Unlock();
}

void LogFileMutex::SetTimeLimit(unsigned milliseconds)
{
    s_LockTimeLimitMs = milliseconds;
}

unsigned LogFileMutex::GetTimeLimit()
{
    return s_LockTimeLimitMs.load();
}

LogFileMutexGuard::LogFileMutexGuard(std::shared_ptr<LogFileMutex> mutex)
    : m_spMutex(std::move(mutex)), m_bLocked(false)
{
    if (m_spMutex) m_bLocked = m_spMutex->Acquire();
}

LogFileMutexGuard::~LogFileMutexGuard()
{
    if (m_bLocked) m_spMutex->Release();
}

// ---- the entries file ----

DefaultLogEntriesFile::DefaultLogEntriesFile(FolderSource folder) : m_Folder(std::move(folder)) {}

DefaultLogEntriesFile::~DefaultLogEntriesFile()
{
    Close();
}

std::string DefaultLogEntriesFile::GetFolder() const
{
    try {
        return m_Folder ? m_Folder() : std::string();
    } catch (...) {
        return std::string();
    }
}

bool DefaultLogEntriesFile::Open()
{
    if (m_File.IsOpen()) return true;
    PathName path(GetFolder());
    path.ForceAsDir();
    if (!path.IsDir()) path.CreateBranch();
    path.SetLeafAndExt(sDEFAULT_LOG_ENTRIES);
    m_PathName = path;
    m_sFileName = path.ToFileSystemPath();
    m_spMutex = std::make_shared<LogFileMutex>(m_sFileName);
    m_iSinceCheck = 64; // the first entry into a file just opened asks the file system
    return m_File.Open(m_sFileName);
}

void DefaultLogEntriesFile::Close()
{
    if (!m_File.IsOpen()) return;
    m_File.Close();
    m_spMutex.reset();
}

bool DefaultLogEntriesFile::Write(const std::string& text)
{
    if (!m_File.IsOpen() && !Open()) return false;
    LogFileMutexGuard guard(m_spMutex);
    const std::uint64_t limit = s_RolloverLimit.load();
    // What the writers of all processes know of the file lies beside the lock: the number of
    // rollovers so far and the file's length. With the lock held and both known (and this
    // process's file of the current rollover count), an entry costs one write and no question
    // to the file system. Otherwise the file is asked, and every 64 entries anyway, so that a
    // file removed from outside is noticed.
    std::atomic<std::uint64_t>* shared = guard.IsLocked() ? m_spMutex->SharedWords() : nullptr;
    std::uint64_t size = 0;
    bool known = false;
    if (shared != nullptr && ++m_iSinceCheck < 64) {
        std::uint64_t length = shared[1].load(std::memory_order_relaxed);
        if (length != 0 && shared[0].load(std::memory_order_relaxed) == m_iRollovers) {
            size = length - 1;
            known = true;
        }
    }
    if (!known) {
        if (shared != nullptr) m_iRollovers = shared[0].load(std::memory_order_relaxed);
        // Another process may have rolled the file over: then the open file is the archive (or
        // an archive already removed), and the entry belongs in the new file at the path. A
        // rollover only ever moves a file longer than the limit, so the identity of the open
        // file (device and inode against the path) is asked when it is longer than the limit
        // or has lost its name.
        bool removed = false;
        known = m_File.Status(size, removed);
        if (!known || removed || size > limit) {
            if (!m_File.IsFileAt(m_sFileName)) {
                Close();
                if (!Open()) return false;
            }
            known = m_File.Status(size, removed);
        }
        m_iSinceCheck = 0;
    }
    // A write that fits in one page of the file lands whole even when the process is killed
    // in the middle of it; one that crosses a page boundary may be cut at the boundary. So an
    // entry that fits in a page but would cross a boundary starts on the next page, and the
    // rest of the current page is filled with line ends, which the document reads as blank
    // space between entries.
    if (known) {
        const std::uint64_t page = Platform::AppendFile::sATOMIC_WRITE;
        const std::uint64_t used = size % page;
        if (used != 0 && text.size() <= page && used + text.size() > page) {
            std::string padding(static_cast<std::size_t>(page - used), '\n');
            if (m_File.Write(padding.data(), padding.size())) size += padding.size();
        }
    }
    if (!m_File.Write(text.data(), text.size())) {
        if (shared != nullptr) shared[1].store(0, std::memory_order_relaxed);
        return false;
    }
    // Under the lock nobody else appends: the length after the write is known without asking.
    if (known) size += text.size();
    else known = m_File.Size(size);
    if (known && size > limit) {
        Rollover();
        std::uint64_t fresh = 0;
        bool removed = false;
        known = m_File.IsOpen() && m_File.Status(fresh, removed);
        size = fresh;
        if (shared != nullptr) m_iRollovers = shared[0].fetch_add(1, std::memory_order_relaxed) + 1;
    }
    // Without the lock the length is left unknown: other writers may have appended meanwhile.
    if (shared != nullptr) shared[1].store(known ? size + 1 : 0, std::memory_order_relaxed);
    else if (LogFileMutex* mutex = m_spMutex.get()) {
        if (std::atomic<std::uint64_t>* words = mutex->SharedWords()) words[1].store(0, std::memory_order_relaxed);
    }
    return true;
}

void DefaultLogEntriesFile::Rollover()
{
    // The guard keeps its own pointer to the lock, so the lock stays held across the reopening.
    if (m_File.IsOpen()) Close();
    PathName archive(m_PathName);
    archive.SetLeafAndExt(sDEFAULT_LOG_ARCHIVE);
    std::string archiveName = archive.ToFileSystemPath();
    // rename replaces the old archive in the same step.
    if (Platform::RenameReplacing(m_sFileName, archiveName)) {
        QEL_ASSERT(!m_PathName.Exists());
        Open();
        return;
    }
    // The file could not be moved: copy it and cut it.
    if (Platform::CopyFileReplacing(m_sFileName, archiveName) && Open()) m_File.Truncate();
}

void DefaultLogEntriesFile::SetRolloverLimit(std::uint64_t bytes)
{
    s_RolloverLimit = bytes;
}

std::uint64_t DefaultLogEntriesFile::GetRolloverLimit()
{
    return s_RolloverLimit.load();
}

} // namespace Qel::Core

// ---- the service's part of the file ----

void DefaultLogService::CreateLogFiles()
{
    using namespace Qel::Core;
    m_EntriesFile.Open();
    PathName document(m_EntriesFile.GetFolder());
    document.ForceAsDir();
    document.SetLeafAndExt(sDEFAULT_LOG_DOCUMENT);
    std::string name = document.ToFileSystemPath();
    if (document.Exists()) return; // written once, never touched again

    std::ostringstream text;
    XMLWriter writer;
    text << writer.StartXMLDoc() << '\n';
    text << "<!DOCTYPE Log [<!ENTITY entries SYSTEM \"" << sDEFAULT_LOG_ENTRIES << "\">]>" << '\n' << '\n';
    text << "<Log>" << '\n' << "  &entries;" << '\n' << "</Log>" << '\n';
    text << writer.EndXMLDoc();
    if (Platform::CreateFileWithText(name, text.str()) == Platform::CreateResult::Failed)
        Platform::WriteStandardError("WARNING: Failed to create default log file named: \n" + name + "\n");
}
