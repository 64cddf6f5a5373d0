// qel-demo: a host program that shows what QelCore does, one screen per capability.
#include <Infrastructure/QelCore/QelCore.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

using namespace Qel::Core;

// A host's own error class: a message format with two parameters.
QEL_DEFINE_ERROR(SampleNotReady, LogicError, eERROR, "Sample %1% is not ready after %2% s", std::string, int)
QEL_DEFINE_WARNING(DetectorWarm, Warning, "Detector temperature is %1$.1f C", double)

namespace {

void Heading(const std::string& title)
{
    std::cout << "\n== " << title << " ==\n";
}

// Three levels of calls: the innermost raises, the two above forward.
void Acquire(const std::string& sample)
{
    QEL_RAISE_ERROR(SampleNotReady(sample, 30), "Qel.Demo.Acquire");
}

void RunMethod(const std::string& sample)
{
    int attempt = 1;
    try {
        Acquire(sample);
    }
    QEL_FORWARD_ERROR_WITH(QEL_FORWARD_VARIABLE(attempt))
}

void RunSequence()
{
    try {
        RunMethod("S-17");
    }
    QEL_FORWARD_ERROR
}

// Hears every alert of the process and prints one line for each.
class PrintingListener : public AlertListener
{
public:
    ~PrintingListener() override { RemoveAllNotificationSources(); }
    void ErrorRaised(Error& error) override { std::cout << "  [listener] raised: " << error.GetMessageA() << "\n"; }
    void ErrorHandled(Error& error) override { std::cout << "  [listener] handled: " << error.GetMessageA() << "\n"; }
    void WarningRaised(Warning& warning) override
    {
        std::cout << "  [listener] warning: " << warning.GetMessageA() << "\n";
    }
};

// Takes a SampleNotReady in place: the raising code goes on without a throw.
class RetryLater : public ErrorHandler
{
public:
    bool Handle(Error& error) override
    {
        std::cout << "  [handler] taking \"" << error.GetMessageA() << "\" in place\n";
        return true;
    }
};

void ShowAlertManager()
{
    Heading("The alert manager: a listener and an in-place handler");
    PrintingListener listener;
    AlertManager::Instance()->AddAlertListener(listener);
    try {
        Acquire("S-18");
    } catch (SampleNotReady&) {
        std::cout << "caught after the listener heard it\n";
    }
    auto handler = std::make_shared<RetryLater>();
    AlertManager::Instance()->AddErrorHandler(TypeName(typeid(SampleNotReady)), handler);
    QEL_RAISE_HANDLEABLE_ERROR(SampleNotReady("S-19", 5), "Qel.Demo.Acquire");
    std::cout << "the statement behind the raise runs: no throw\n";
    AlertManager::Instance()->RemoveErrorHandler(TypeName(typeid(SampleNotReady)), handler);
    std::set<ErrorRecord, SSortErrors> records;
    AlertManager::Instance()->GetRaisedErrorRecords(records);
    for (const ErrorRecord& record : records)
        std::cout << "record: " << record.GetClass() << " raised " << record.GetRaisedCount() << " times\n";
    AlertManager::Instance()->RemoveAlertListener(listener);
}

void ShowErrors()
{
    Heading("A typed error, raised three calls down and forwarded twice");
    try {
        RunSequence();
    } catch (SampleNotReady& error) {
        std::cout << "caught " << ReadableTypeName(typeid(error)) << ": " << error.GetMessageA() << "\n";
        std::cout << "data bag:\n";
        StringMap data;
        error.GetAllData(data);
        for (const auto& [key, value] : data) std::cout << "  " << key << " = " << value << "\n";
        std::cout << "unwind trail (raising position first):\n";
        for (const CodeContext& where : *error.GetUnwindStack()) {
            std::cout << "  " << where.Get(CodeContext::sFUNCTION) << " at line " << where.Get(CodeContext::sLINE);
            for (const auto& [name, value] : where.GetVariables()) std::cout << "  [" << name << " = " << value << "]";
            std::cout << "\n";
        }
    }

    Heading("A warning: raised, and the caller goes on");
    DetectorWarm warning(41.25);
    warning.RaiseWarning(QEL_CODE_CONTEXT(), "Qel.Demo.Detector");
    std::cout << "warning raised: " << warning.GetMessageA() << " (severity " << warning.GetData(AlertInfo::sSEVERITY)
              << ", logger " << warning.GetData(AlertInfo::sLOG_NAME) << ")\n";
    std::cout << "as an XML document (pretty print):\n";
    XMLWriter writer;
    std::cout << writer.StartXMLDoc();
    warning.ToXML(writer, std::cout, "Demonstration");
    std::cout << writer.EndXMLDoc();
}

void ShowStrings()
{
    Heading("String tools");
    std::vector<std::string> parts;
    int count = StringTools::Split("Acquire->Process->Report", "->", parts);
    std::cout << "Split into " << count << " parts; joined again with \" | \": " << StringTools::Join(parts, " | ")
              << "\n";
    std::string listed;
    StringTools::Array2Str({"C:\\Data", "a,b", ""}, ',', listed);
    std::cout << "escaped list: " << listed << "\n";
    std::vector<std::string> back;
    StringTools::Str2Array(listed, ',', back);
    std::cout << "read back: " << back.size() << " items, second is \"" << back[1] << "\"\n";
    std::cout << "line breaks at width 20:\n"
              << StringTools::LineBreaks("The quick brown fox jumps over the lazy instrument controller", 20)
              << "\n";
    std::cout << "ToDouble(\"-1.#INF\") = " << StringTools::ToDouble("-1.#INF")
              << ", ToByte(\"0xA5\") = " << static_cast<int>(StringTools::ToByte("0xA5")) << "\n";
}

class Counter
{
public:
    void Add(int amount) { m_iTotal += amount; }
    int Total() const { return m_iTotal; }

private:
    int m_iTotal = 0;
};

void Greet()
{
    std::cout << "global callback called\n";
}

void ShowCallbacks()
{
    Heading("Callbacks");
    Counter counter;
    std::shared_ptr<CallbackArg<int>> add = std::make_shared<MethodCallbackArg<Counter, int>>(&counter, &Counter::Add);
    (*add)(5);
    (*add)(37);
    std::cout << "method callback added up to " << counter.Total() << "\n";
    GlobalCallback greet(&Greet);
    greet();
    MethodCallbackArg<Counter, int> same(&counter, &Counter::Add);
    std::cout << "two callbacks on the same object and method are equal: " << std::boolalpha << (same == *add)
              << "\n";
}

void ShowTimeAndLocks()
{
    Heading("Time and locks with time-outs");
    Time now;
    std::cout << "now: " << now.ToString() << " (" << now.DayName() << ")\n";
    Elapse timeout(250, Elapse::MilliSeconds);
    std::cout << "time-out as text: " << timeout.ToString() << ", as a person reads it: " << timeout << "\n";

    Mutex mutex;
    mutex.Lock(); // this thread holds it; a worker tries with the time-out
    std::thread worker([&] {
        Time start;
        try {
            Lock guard(mutex, timeout);
            std::cout << "worker got the lock (unexpected)\n";
        } catch (LockTimeout& error) {
            std::cout << "worker gave up after " << (Time() - start).GetElapsed(Elapse::MilliSeconds) << " ms: "
                      << error.GetMessageA() << "\n";
            std::cout << "  raised at " << error.GetData(AlertInfo::sTIME_STAMP) << " by logger "
                      << error.GetData(AlertInfo::sLOG_NAME) << "\n";
        }
    });
    worker.join();
    mutex.Unlock();

    ReadersWriterMutex table;
    {
        ReaderLock read(table);
        WriterLock write(table); // the only reader may upgrade
        std::cout << "a reader upgraded to writer and back\n";
    }
}

void ShowSystem()
{
    using Qel::Core::System;
    Heading("where the library keeps its data");
    System::SetCurrentThreadName("qel-demo main");
    std::string threadName;
    System::GetCurrentThreadName(threadName);
    std::cout << "process      " << System::GetProcessPath() << System::GetProcessName() << " (pid "
              << System::GetProcessId() << ", thread \"" << threadName << "\")\n"
              << "machine      " << System::GetHostName() << ", " << System::GetOsName() << ", "
              << System::GetNumProcessors() << " x " << System::GetProcessorType() << "\n"
              << "user         " << System::GetUserAccountName() << " (" << System::GetUserDisplayName() << ")\n";
    std::string settings = System::GetProcessPath() + "SystemInfo.ini";
    Qel::Core::PathName settingsFile(settings);
    std::cout << "settings     " << settings << (settingsFile.Exists() ? ", which says:" : " (none: the defaults hold)") << "\n";
    std::ifstream settingsText(settings);
    for (std::string line; std::getline(settingsText, line);)
        if (!line.empty()) std::cout << "               " << line << "\n";
    std::cout << "sub-dir      " << System::GetAppDataSubDir() << "\n"
              << "common data  " << System::GetCommonDataPath() << "\n"
              << "user data    " << System::GetUserDataPath() << "\n"
              << "log macro    $(CommonDataPath)Logs/ -> " << Qel::Core::ExpandPathMacros("$(CommonDataPath)Logs/") << "\n";
    std::string temp;
    if (System::CreateTempFileName(temp, "~QEL")) std::cout << "a free name  " << temp << "\n";
    Qel::Core::PathName path("/usr/share/doc/libboost-dev/copyright.txt");
    std::cout << "a path       " << static_cast<const std::string&>(path) << ": branch " << path.GetBranch()
              << ", leaf " << path.GetLeaf() << ", ext " << path.GetExt() << "\n";
}

// A named thread drains a queue while a pool of three named threads squares numbers.
class Printer : public Qel::Core::Task
{
public:
    explicit Printer(Qel::Core::Queue<std::string>& queue) : m_Queue(queue) {}
    int Run(Qel::Core::TaskDirective&) override
    {
        int printed = 0;
        std::string line;
        while (m_Queue.Dequeue(line)) { // false once the queue is released and empty
            std::cout << "  printer: " << line << "\n";
            ++printed;
        }
        return printed;
    }

private:
    Qel::Core::Queue<std::string>& m_Queue;
};

class Square : public Qel::Core::CallbackArg<int>
{
public:
    explicit Square(Qel::Core::Queue<std::string>& queue) : m_Queue(queue) {}
    void operator()(int value) override
    {
        std::string thread;
        Qel::Core::System::GetCurrentThreadName(thread);
        QelSleep(20, Qel::Core::Elapse::MilliSeconds); // some work, so the threads share it
        m_Queue.TimedEnqueue(std::to_string(value) + " squared is " + std::to_string(value * value) + " (on " +
                                 thread + ")",
                             Qel::Core::Elapse(1, Qel::Core::Elapse::Seconds));
    }

private:
    Qel::Core::Queue<std::string>& m_Queue;
};

void ShowThreads()
{
    using namespace Qel::Core;
    Heading("a pool of named threads and a queue");
    Queue<std::string> lines("demo lines", nullptr, 1000, 100, 16);
    auto printer = Thread::Create("demo-printer");
    printer->Start(std::make_shared<Printer>(lines), Elapse(5, Elapse::Seconds));
    {
        ThreadPool<int> pool("demo-pool", 3);
        pool.Start();
        auto square = std::make_shared<Square>(lines);
        for (int i = 1; i <= 6; ++i) pool.Enqueue(square, i);
        pool.WaitUntilIdle(Elapse(10, Elapse::Seconds));
    }
    lines.SetReleased(true);
    printer->WaitFor(nullptr);
    std::cout << "the printer thread \"" << printer->GetName() << "\" printed " << printer->GetResult()
              << " lines and ended " << (printer->HasCompleted() ? "completed" : "in error") << "\n";
}

std::string CurrentLocaleName()
{
    std::shared_ptr<Locale> locale = System::GetLocale();
    return locale ? locale->GetName().ToString() : std::string("(none)");
}

// An alert's wording in the current locale: Message keeps the English default, DisplayMessage
// takes the locale's own wording from "de-DE/QelStringTables.xml" beside the program, in the
// table named by the class's type name, key "DisplayFormat".
void ShowLocales()
{
    Heading("Locales");
    std::cout << "current locale: " << CurrentLocaleName() << "\n";
    std::cout << "string table of SampleNotReady: \"" << TypeName(typeid(SampleNotReady)) << "\"\n";
    const bool bGerman = System::SetLocale(LocaleName("de-DE"));
    std::cout << "switched to de-DE: " << std::boolalpha << bGerman << ", current locale: " << CurrentLocaleName()
              << " (" << LocaleName("de-DE").GetLanguageInEnglish() << ", "
              << LocaleName("de-DE").GetNativeRegion() << ")\n";
    try {
        QEL_RAISE_ERROR(SampleNotReady("S-20", 45), "Qel.Demo.Acquire");
    } catch (const SampleNotReady& error) {
        std::cout << "Message:        " << error.GetMessageA() << "\n";
        std::cout << "DisplayMessage: " << error.GetDisplayMessage() << "\n";
    }
    System::SetLocale(LocaleName::USA);
    std::cout << "back to " << CurrentLocaleName() << "\n";
}

// The log: entries go through a queue to the "LogManager Thread", which appends them to
// "DefaultLog.entries" in the log folder (SystemInfo.ini gives the demo a folder of its own).
std::string EntriesFileName()
{
    LogManager* manager = LogManager::Instance();
    return manager != nullptr ? manager->GetLogPath() + "DefaultLog.entries" : std::string();
}

std::string ReadFrom(const std::string& fileName, std::streamoff offset)
{
    std::ifstream file(fileName, std::ios::binary);
    std::ostringstream text;
    file.seekg(0, std::ios::end);
    if (file.tellg() < offset) offset = 0; // rolled over in the meantime: all of the new file
    file.seekg(offset);
    text << file.rdbuf();
    return text.str();
}

std::streamoff FileLength(const std::string& fileName)
{
    std::ifstream file(fileName, std::ios::binary | std::ios::ate);
    return file ? static_cast<std::streamoff>(file.tellg()) : 0;
}

// Waits until the worker has taken every queued entry, then a moment for it to write the last.
void WaitForLogWorker()
{
    LogManager* manager = LogManager::Instance();
    while (manager->GetQueuedCount() > 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
}

int CountEntries(const std::string& text)
{
    int count = 0;
    for (std::size_t at = text.find("<LogEntry"); at != std::string::npos; at = text.find("<LogEntry", at + 1)) ++count;
    return count;
}

void ShowLog(std::streamoff runStart)
{
    Heading("Log");
    LogManager* manager = LogManager::Instance();
    const std::string entriesFile = EntriesFileName();
    std::cout << "log folder   " << manager->GetLogPath() << "\n"
              << "document     " << manager->GetLogPath() << "DefaultLog.xml (open it in a browser or an XML tool)\n"
              << "entries      " << entriesFile << "\n";
    // What the earlier sections raised is in the file already; this section's entries follow.
    WaitForLogWorker();
    const std::streamoff sectionStart = FileLength(entriesFile);

    std::shared_ptr<Logger> logger = manager->GetLogger("Qel.Demo.Log");
    std::cout << "logger \"" << logger->GetName() << "\" (path " << logger->GetPath() << "), filter word "
              << logger->GetSeverityFilters() << ": informational " << std::boolalpha
              << logger->IsEnabledFor(QelLogInformational) << ", debug " << logger->IsEnabledFor(QelLogDebug) << "\n";
    logger->WriteLog(QelLogInformational, "Sequence %s started with %d samples", "S-21..S-24", 4);
    logger->WriteLog(QelLogDebug, "refused by the filter word: never formatted, never queued");
    logger->WriteLog(QelLogWarning, "Detector temperature %.1f C is above the limit of %d C", 43.5, 40);
    try {
        QEL_RAISE_ERROR(SampleNotReady("S-22", 60), "Qel.Demo.Log");
    } catch (SampleNotReady& error) {
        std::cout << "caught (and logged when raised): " << error.GetMessageA() << "\n";
    }
    std::cout << "queued for the log worker right now: " << manager->GetQueuedCount() << "\n";
    WaitForLogWorker();
    // Without buffering an entry is written on the caller's thread before WriteLog returns.
    manager->SetBufferingMode(false);
    logger->WriteLog(QelLogInformational, std::string("Sequence finished: 100% of the samples seen"));
    manager->SetBufferingMode(true);

    const std::string section = ReadFrom(entriesFile, sectionStart);
    std::cout << "entries of this run: " << CountEntries(ReadFrom(entriesFile, runStart)) << ", of this section "
              << CountEntries(section) << ":\n"
              << section;
}

// Hears the fatal error: the folder and stamp of its report.
class FatalListener : public AlertListener
{
public:
    void UncaughtFatalError(Error& error, const std::string& reportPath) override
    {
        std::cout << "  [listener] uncaught: " << error.GetMessageA() << "\n  report: " << reportPath
                  << "ErrorInfo.xml\n"
                  << std::flush;
    }
};

// Dies of an uncaught error: the report, the log entry, the copy on standard error, status 255.
[[noreturn]] void DieOfUncaughtError()
{
    Heading("An error that escapes every catch block");
    std::string folder = AlertManager::Instance()->GetFatalErrorBasePath();
    // The library makes no folder: the host makes the one that SystemInfo.ini names.
    PathName(folder).CreateBranch();
    std::cout << "reports go to " << folder << "\n" << std::flush;
    AlertManager::Instance()->AddFatalErrorInfo("DemoRun", "qel-demo --fatal");
    static FatalListener listener;
    AlertManager::Instance()->AddAlertListener(listener);
    RunSequence(); // throws, and nothing catches it
    std::abort();
}

} // namespace

int main(int argc, char** argv)
{
    std::cout << "qel-demo: QelCore in a host process\n";
    if (argc > 1 && std::string(argv[1]) == "--fatal") {
        InitializeQelCore();
        DieOfUncaughtError();
    }
    const std::streamoff logStart = FileLength(EntriesFileName());
    InitializeQelCore();
    ShowSystem();
    ShowErrors();
    ShowAlertManager();
    ShowLocales();
    ShowStrings();
    ShowCallbacks();
    ShowTimeAndLocks();
    ShowThreads();
    ShowLog(logStart);
    ShutdownQelCore();
    std::cout << "\ndone\n";
    return 0;
}
