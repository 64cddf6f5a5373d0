// The log front end: loggers and their filter words, the four ways to write, FormatOnce,
// the manager's forwarding to the service, errors and warnings as entries, the queue with its
// worker, buffering off, several writers at once, QelGetLogMsgFormat and Shutdown.
#include "tests/Logging/LogTestSupport.h"

#include <atomic>
#include <cstdarg>
#include <thread>

using namespace Qel::Core;
using namespace LogTest;

namespace {

QEL_DEFINE_ERROR(LogTestError, LogicError, eERROR, "log test error %1%", int)
QEL_DEFINE_ERROR(LogTestCritical, LogicError, eCRITICAL, "log test critical %1%", int)
QEL_DEFINE_WARNING(LogTestWarning, Warning, "log test warning %1%", std::string)

const unsigned kDEFAULT = 46;
const unsigned kWARNING_BIT = 1u << QelLogWarning;

class LoggerTest : public ManagerFixture
{
};

std::shared_ptr<Logger> Get(const std::string& path)
{
    std::shared_ptr<Logger> logger = Manager().GetLogger(path);
    if (!logger) throw std::runtime_error("no logger");
    return logger;
}

// FormatOnce over the arguments of this call; its text asked twice.
std::string FormatOnceText(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    std::string first;
    std::string second;
    {
        FormatOnce message(format, args);
        EXPECT_STREQ(message.GetFormat(), format);
        first = message.str();
        second = message.str();
    }
    va_end(args);
    EXPECT_EQ(first, second);
    return first;
}

void WriteV(Logger& logger, QelLogSeverityEnum severity, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    logger.WriteLogV(severity, format, args);
    va_end(args);
}

// The index of the first entry whose message holds the text, or -1.
int IndexOf(const std::vector<QelLogEntry>& entries, const std::string& text)
{
    for (std::size_t i = 0; i < entries.size(); ++i)
        if (entries[i].m_Message.find(text) != std::string::npos) return static_cast<int>(i);
    return -1;
}

} // namespace

// ---- loggers ----

TEST_F(LoggerTest, ANewLoggerHasTheFilterWord46)
{
    auto logger = Get("LogTest.Filter.New");
    EXPECT_EQ(logger->GetSeverityFilters(), kDEFAULT);
    EXPECT_TRUE(logger->IsEnabledFor(QelLogAlarm));
    EXPECT_TRUE(logger->IsEnabledFor(QelLogError));
    EXPECT_TRUE(logger->IsEnabledFor(QelLogWarning));
    EXPECT_FALSE(logger->IsEnabledFor(QelLogDebug));
    EXPECT_TRUE(logger->IsEnabledFor(QelLogInformational));
    EXPECT_FALSE(logger->IsEnabledFor(QelLogVerbose));
}

TEST_F(LoggerTest, IsEnabledForTestsBitSeverityAnd31)
{
    auto logger = Get("LogTest.Filter.Bits");
    EXPECT_FALSE(logger->IsEnabledFor(static_cast<QelLogSeverityEnum>(0)));
    EXPECT_FALSE(logger->IsEnabledFor(static_cast<QelLogSeverityEnum>(7)));
    EXPECT_TRUE(logger->IsEnabledFor(static_cast<QelLogSeverityEnum>(32 + 1))); // bit 1
    EXPECT_FALSE(logger->IsEnabledFor(static_cast<QelLogSeverityEnum>(32 + 4))); // bit 4
    EXPECT_TRUE(logger->IsEnabledFor(static_cast<QelLogSeverityEnum>(64 + 5))); // bit 5

    logger->SetSeverityFilters(1u << QelLogDebug);
    for (int severity = 0; severity < 32; ++severity)
        EXPECT_EQ(logger->IsEnabledFor(static_cast<QelLogSeverityEnum>(severity)), severity == QelLogDebug) << severity;
    logger->SetSeverityFilters(0xFFFFFFFFu);
    for (int severity = 0; severity < 64; ++severity)
        EXPECT_TRUE(logger->IsEnabledFor(static_cast<QelLogSeverityEnum>(severity))) << severity;
    logger->SetSeverityFilters(kDEFAULT);
}

TEST_F(LoggerTest, NamesAndPaths)
{
    auto thread = Get("Qel.Core.Thread");
    EXPECT_EQ(thread->GetPath(), "Qel.Core.Thread");
    EXPECT_EQ(thread->GetName(), "Thread");
    auto top = Get("Top");
    EXPECT_EQ(top->GetPath(), "Top");
    EXPECT_EQ(top->GetName(), "Top");
}

TEST_F(LoggerTest, OnePathGivesOneObject)
{
    auto first = Get("LogTest.Same");
    auto second = Get("LogTest.Same");
    EXPECT_EQ(first.get(), second.get());
    EXPECT_NE(first.get(), Get("LogTest.Other").get());
}

TEST_F(LoggerTest, ACopyHasPathNameAndFilters)
{
    auto logger = Get("LogTest.Copy.Source");
    logger->SetSeverityFilters(0x7);
    Logger copy(*logger);
    EXPECT_EQ(copy.GetPath(), "LogTest.Copy.Source");
    EXPECT_EQ(copy.GetName(), "Source");
    EXPECT_EQ(copy.GetSeverityFilters(), 0x7u);
    Logger assigned(*Get("LogTest.Copy.Other"));
    assigned = copy;
    EXPECT_EQ(assigned.GetPath(), "LogTest.Copy.Source");
    EXPECT_EQ(assigned.GetName(), "Source");
    EXPECT_EQ(assigned.GetSeverityFilters(), 0x7u);
    logger->SetSeverityFilters(kDEFAULT);
}

// ---- writing ----

TEST_F(LoggerTest, RefusedMessagesAreNeitherFormattedNorDelivered)
{
    ManagerCapture capture("LogTest.Refused");
    auto logger = Get("LogTest.Refused");
    int written = -1;
    logger->WriteLog(QelLogDebug, "abc%n", &written);
    EXPECT_EQ(written, -1); // not formatted
    logger->WriteLog(QelLogVerbose, std::string("verbose"));
    logger->WriteLog(QelLogAlarm, std::string("alarm"));
    logger->WriteLog(QelLogError, std::string("error"));
    logger->WriteLog(QelLogWarning, std::string("warning"));
    logger->WriteLog(QelLogDebug, std::string("debug"));
    logger->WriteLog(QelLogInformational, "informational%n", &written);
    EXPECT_EQ(written, 13); // formatted on the caller's thread, once
    ASSERT_TRUE(capture.WaitFor("informational"));
    std::vector<QelLogEntry> entries = capture.Entries();
    ASSERT_EQ(entries.size(), 4u);
    EXPECT_EQ(entries[0].m_Message, "alarm");
    EXPECT_EQ(entries[0].m_Severity, QelLogAlarm);
    EXPECT_EQ(entries[1].m_Severity, QelLogError);
    EXPECT_EQ(entries[2].m_Severity, QelLogWarning);
    EXPECT_EQ(entries[3].m_Severity, QelLogInformational);
}

TEST_F(LoggerTest, AnEntryCarriesTimeLoggerAndFormat)
{
    ManagerCapture capture("LogTest.Fields");
    auto logger = Get("LogTest.Fields.Leaf");
    Time before;
    logger->WriteLog(QelLogWarning, std::string("fields"));
    Time after;
    ASSERT_TRUE(capture.WaitFor("fields"));
    QelLogEntry entry = capture.Entries().at(0);
    EXPECT_EQ(entry.m_LogName, "LogTest.Fields.Leaf");
    EXPECT_EQ(entry.m_Format, "plain");
    EXPECT_EQ(entry.m_Severity, QelLogWarning);
    EXPECT_FALSE(entry.m_TimeStamp < before);
    EXPECT_FALSE(after < entry.m_TimeStamp);
}

TEST_F(LoggerTest, AStringIsTakenUnchangedAndAFormatIsFormatted)
{
    ManagerCapture capture("LogTest.Percent");
    auto logger = Get("LogTest.Percent");
    logger->WriteLog(QelLogInformational, std::string("100%"));
    logger->WriteLog(QelLogInformational, std::string("%s %n"));
    logger->WriteLog(QelLogInformational, "%d%% of %s", 100, "it");
    logger->WriteLogVarArgs(QelLogInformational, std::string("%d-%s"), 5, "five");
    WriteV(*logger, QelLogInformational, "v%03d", 7);
    logger->WriteLog(QelLogInformational, std::string("end"));
    ASSERT_TRUE(capture.WaitFor("end"));
    EXPECT_EQ(capture.Messages(), (std::vector<std::string>{"100%", "%s %n", "100% of it", "5-five", "v007", "end"}));
}

TEST_F(LoggerTest, FormatOnceFormatsEachTryFromFreshArguments)
{
    EXPECT_EQ(FormatOnceText("%d and %s", 42, "text"), "42 and text");
    for (std::size_t length : {std::size_t(4095), std::size_t(4096), std::size_t(5000), std::size_t(8191),
                               std::size_t(8192), std::size_t(12000), std::size_t(16383)}) {
        std::string text(length - 6, 'x');
        // Arguments before and after the long one: a reused argument list shows in either.
        std::string result = FormatOnceText("%d|%s|%d", 12, text.c_str(), 34);
        EXPECT_EQ(result.size(), length) << length;
        EXPECT_EQ(result, "12|" + text + "|34") << length;
    }
}

TEST_F(LoggerTest, FormatOnceGivesUpAbove16383Characters)
{
    EXPECT_EQ(FormatOnceText("%s", std::string(16384, 'y').c_str()), "");
    EXPECT_EQ(FormatOnceText("%s%s", std::string(10000, 'y').c_str(), std::string(10000, 'z').c_str()), "");
}

TEST_F(LoggerTest, FormatOnceFromATextDoesNoFormatting)
{
    FormatOnce message(std::string("100% %s %n"));
    EXPECT_EQ(message.str(), "100% %s %n");
    EXPECT_STREQ(message.GetFormat(), "100% %s %n");
}

TEST_F(LoggerTest, LongFormattedMessagesThroughALogger)
{
    ManagerCapture capture("LogTest.Long");
    auto logger = Get("LogTest.Long");
    std::string long10000(9995, 'a');
    std::string long16384(16384, 'b');
    logger->WriteLog(QelLogInformational, "%s|%d", long10000.c_str(), 1234);
    logger->WriteLog(QelLogInformational, "%s", long16384.c_str());
    logger->WriteLog(QelLogInformational, std::string("end"));
    ASSERT_TRUE(capture.WaitFor("end"));
    std::vector<QelLogEntry> entries = capture.Entries();
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[0].m_Message, long10000 + "|1234");
    EXPECT_EQ(entries[1].m_Message, ""); // too long: an entry with an empty message
    EXPECT_EQ(entries[1].m_Severity, QelLogInformational);
}

TEST_F(LoggerTest, SeveritiesOutsideOneToSixPassAnOpenFilter)
{
    ManagerCapture capture("LogTest.OddSeverity");
    auto logger = Get("LogTest.OddSeverity");
    logger->WriteLog(static_cast<QelLogSeverityEnum>(0), std::string("zero refused"));
    logger->SetSeverityFilters(0xFFu);
    logger->WriteLog(static_cast<QelLogSeverityEnum>(0), std::string("zero"));
    logger->WriteLog(static_cast<QelLogSeverityEnum>(7), std::string("seven"));
    ASSERT_TRUE(capture.WaitFor("seven"));
    std::vector<QelLogEntry> entries = capture.Entries();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].m_Severity, 0);
    EXPECT_EQ(entries[1].m_Severity, 7);
    // In the file such an entry has no Severity attribute.
    EXPECT_EQ(FormatDefaultLogEntry(entries[0]).rfind("<LogEntry>\n", 0), 0u);
    logger->SetSeverityFilters(kDEFAULT);
}

// ---- the manager's forwarding ----

TEST_F(LoggerTest, RegisterHandlerRefusesANullPointer)
{
    try {
        Manager().RegisterHandler(nullptr);
        FAIL() << "no NullPointer";
    } catch (NullPointer& error) {
        EXPECT_STREQ(error.what(), "NULL pointer variable named pHandler");
        EXPECT_EQ(error.GetData(AlertInfo::sLOG_NAME), "Qel.Core.LogManager");
    }
}

TEST_F(LoggerTest, MalformedPathsRaiseInvalidLogPathThroughTheManager)
{
    try {
        Manager().GetLogger("Qel..Core");
        FAIL() << "no InvalidLogPath";
    } catch (InvalidLogPath& error) {
        EXPECT_STREQ(error.what(), "Invalid log path: Qel..Core");
    }
    EXPECT_THROW(Manager().GetLogger("Qel..Core"), InvalidLogPath); // not kept the first time
    EXPECT_THROW(Manager().SetSeverityFilters("Qel.Core.", 1), InvalidLogPath);
    EXPECT_THROW(Manager().GetSeverityFilters("Qel..Core"), InvalidLogPath);
    EXPECT_FALSE(Manager().Exists("Qel..Core"));
    std::list<std::string> names{"stale"};
    Manager().EnumLoggers("Qel..Core", names);
    EXPECT_TRUE(names.empty());
}

TEST_F(LoggerTest, TheManagerForwardsTreeOperations)
{
    const std::string root = Unique("LogTest.Forward");
    EXPECT_FALSE(Manager().Exists(root + ".A.B"));
    EXPECT_EQ(Manager().GetSeverityFilters(root + ".A.B"), kDEFAULT);
    EXPECT_TRUE(Manager().Exists(root + ".A.B"));
    EXPECT_TRUE(Manager().Exists(root));
    std::list<std::string> names{"stale"};
    Manager().EnumLoggers(root, names);
    EXPECT_EQ(names, (std::list<std::string>{"A"}));

    // A logger made below a node takes the node's word ANDed with its ancestors'.
    Manager().SetSeverityFilters(root + ".Pre", 0x16);
    // The tree stores the effective word: the node's ANDed with its ancestors' (the root's is 46).
    EXPECT_EQ(Manager().GetSeverityFilters(root + ".Pre"), 0x16u & kDEFAULT);
    auto child = Get(root + ".Pre.Child");
    EXPECT_EQ(child->GetSeverityFilters(), 0x16u & kDEFAULT);
    // A logger already made keeps its word when the tree changes.
    Manager().SetSeverityFilters(root + ".Pre", 0xFF);
    EXPECT_EQ(child->GetSeverityFilters(), 0x16u & kDEFAULT);
}

TEST_F(LoggerTest, UnregisterLoggerForgetsTheObject)
{
    auto first = Get("LogTest.Unregister.Leaf");
    Manager().UnregisterLogger("LogTest.Unregister.Leaf");
    Manager().UnregisterLogger("LogTest.Unregister.Never"); // unknown: nothing happens
    auto second = Get("LogTest.Unregister.Leaf");
    EXPECT_NE(first.get(), second.get());
    EXPECT_TRUE(Manager().Exists("LogTest.Unregister.Leaf"));
}

TEST_F(LoggerTest, QelGetLogMsgFormatReturnsTheDefaultAndCachesIt)
{
    EXPECT_EQ(QelGetLogMsgFormat("LogTest.Format.Key", "Default %1% format"), "Default %1% format");
    EXPECT_EQ(QelGetLogMsgFormat("LogTest.Format.Key", "Another default"), "Default %1% format");
    EXPECT_EQ(QelGetLogMsgFormat("LogTest.Format.Other", "Another default"), "Another default");
}

// ---- errors and warnings ----

TEST_F(LoggerTest, ARaisedErrorIsLoggedAsXmlEvenIfTheFilterRefusesErrors)
{
    const std::string path = "LogTest.Alerts.Refusing";
    Get(path)->SetSeverityFilters(0);
    Manager().SetSeverityFilters(path, 0);
    ManagerCapture capture(path);
    try {
        QEL_RAISE_ERROR(LogTestError(42), path);
    } catch (LogTestError& error) {
        EXPECT_STREQ(error.what(), "log test error 42");
    }
    ASSERT_TRUE(capture.WaitFor("Error Handled"));
    std::vector<QelLogEntry> entries = capture.Entries();
    int raised = IndexOf(entries, "<Circumstance>Error Raised</Circumstance>");
    int handled = IndexOf(entries, "Error Handled: log test error 42");
    ASSERT_GE(raised, 0);
    ASSERT_GE(handled, 0);
    EXPECT_LT(raised, handled);
    const QelLogEntry& xml = entries[raised];
    EXPECT_EQ(xml.m_Format, "xml");
    EXPECT_EQ(xml.m_Severity, QelLogError);
    EXPECT_EQ(xml.m_LogName, path);
    EXPECT_NE(xml.m_Message.find("log test error 42"), std::string::npos);
    const QelLogEntry& plain = entries[handled];
    EXPECT_EQ(plain.m_Message, "Error Handled: log test error 42");
    EXPECT_EQ(plain.m_Format, "plain");
    EXPECT_EQ(plain.m_Severity, QelLogError);
    EXPECT_EQ(plain.m_LogName, path);
    if (HaveXmlLint()) {
        std::string report;
        EXPECT_TRUE(WellFormed(xml.m_Message, &report)) << report << xml.m_Message;
    }
    Manager().SetSeverityFilters(path, kDEFAULT);
}

TEST_F(LoggerTest, ACriticalErrorIsAnAlarm)
{
    const std::string path = "LogTest.Alerts.Critical";
    ManagerCapture capture(path);
    try {
        QEL_RAISE_ERROR(LogTestCritical(7), path);
    } catch (LogTestCritical&) {
    }
    ASSERT_TRUE(capture.WaitFor("Error Handled"));
    std::vector<QelLogEntry> entries = capture.Entries();
    int raised = IndexOf(entries, "<Circumstance>Error Raised</Circumstance>");
    ASSERT_GE(raised, 0);
    EXPECT_EQ(entries[raised].m_Severity, QelLogAlarm);
    EXPECT_EQ(entries[IndexOf(entries, "Error Handled")].m_Severity, QelLogAlarm);
}

TEST_F(LoggerTest, AWarningIsLoggedOnlyIfItsLoggerTakesWarnings)
{
    Get("LogTest.Alerts.NoWarnings")->SetSeverityFilters(kDEFAULT & ~kWARNING_BIT);
    ManagerCapture capture("LogTest.Alerts.");
    QEL_RAISE_WARNING(LogTestWarning("refused"), "LogTest.Alerts.NoWarnings");
    QEL_RAISE_WARNING(LogTestWarning("taken"), "LogTest.Alerts.Warnings");
    ASSERT_TRUE(capture.WaitFor("log test warning taken"));
    std::vector<QelLogEntry> entries = capture.Entries();
    EXPECT_EQ(IndexOf(entries, "log test warning refused"), -1);
    const QelLogEntry& entry = entries.at(IndexOf(entries, "log test warning taken"));
    EXPECT_EQ(entry.m_Format, "xml");
    EXPECT_EQ(entry.m_Severity, QelLogWarning);
    EXPECT_EQ(entry.m_LogName, "LogTest.Alerts.Warnings");
    Get("LogTest.Alerts.NoWarnings")->SetSeverityFilters(kDEFAULT);
}

// ---- buffering, the queue and the worker ----

namespace {

// Notes the thread of each entry; on "outer" it writes "inner" through the same logger.
class NestingHandler : public CaptureHandler
{
public:
    explicit NestingHandler(std::shared_ptr<Logger> logger) : CaptureHandler(logger->GetPath()), m_spLogger(logger) {}
    void WriteLog(const QelLogEntry& entry) override
    {
        if (entry.m_LogName != m_spLogger->GetPath()) return;
        {
            std::lock_guard<std::mutex> guard(m_ThreadsMutex);
            m_Threads.push_back(std::this_thread::get_id());
        }
        CaptureHandler::WriteLog(entry);
        if (entry.m_Message == "outer") m_spLogger->WriteLog(QelLogInformational, std::string("inner"));
    }
    std::vector<std::thread::id> Threads()
    {
        std::lock_guard<std::mutex> guard(m_ThreadsMutex);
        return m_Threads;
    }

private:
    std::shared_ptr<Logger> m_spLogger;
    std::mutex m_ThreadsMutex;
    std::vector<std::thread::id> m_Threads;
};

} // namespace

TEST_F(LoggerTest, WithBufferingTheWorkerDeliversAndMayLogItself)
{
    ASSERT_TRUE(Manager().GetBufferingMode());
    auto logger = Get("LogTest.Buffering.On");
    NestingHandler handler(logger);
    {
        ScopedHandler registered(handler);
        logger->WriteLog(QelLogInformational, std::string("outer"));
        EXPECT_TRUE(handler.WaitFor("inner"));
    }
    std::vector<std::thread::id> threads = handler.Threads();
    ASSERT_EQ(threads.size(), 2u);
    EXPECT_NE(threads[0], std::this_thread::get_id());
    EXPECT_EQ(threads[0], threads[1]); // one worker
}

TEST_F(LoggerTest, WithoutBufferingTheCallerDeliversAndNestedMessagesAreDropped)
{
    auto logger = Get("LogTest.Buffering.Off");
    NestingHandler handler(logger);
    ScopedHandler registered(handler);
    Manager().SetBufferingMode(false);
    EXPECT_FALSE(Manager().GetBufferingMode());
    logger->WriteLog(QelLogInformational, std::string("outer"));
    // Delivered before WriteLog returned, on this thread; "inner" came during that delivery.
    EXPECT_EQ(handler.Messages(), std::vector<std::string>{"outer"});
    logger->WriteLog(QelLogInformational, std::string("second"));
    EXPECT_EQ(handler.Messages(), (std::vector<std::string>{"outer", "second"}));
    for (std::thread::id id : handler.Threads()) EXPECT_EQ(id, std::this_thread::get_id());

    Manager().SetBufferingMode(true);
    EXPECT_TRUE(Manager().GetBufferingMode());
    logger->WriteLog(QelLogInformational, std::string("buffered again"));
    EXPECT_TRUE(handler.WaitFor("buffered again"));
    EXPECT_NE(handler.Threads().back(), std::this_thread::get_id());
}

namespace {

// Blocks the worker on the entry "block" until the gate opens; keeps the entries of its logger.
class GateHandler : public CaptureHandler
{
public:
    explicit GateHandler(std::string path) : CaptureHandler(path), m_Path(std::move(path)) {}
    ~GateHandler() override { m_Gate.Open(); }
    void WriteLog(const QelLogEntry& entry) override
    {
        if (entry.m_LogName != m_Path) return;
        CaptureHandler::WriteLog(entry);
        if (entry.m_Message == "block") {
            m_bBlocked = true;
            m_Gate.Wait(std::chrono::seconds(120));
            m_bBlocked = false;
        }
    }
    Gate m_Gate;
    std::atomic<bool> m_bBlocked{false};

private:
    std::string m_Path;
};

} // namespace

TEST_F(LoggerTest, AFullQueueDropsEntry3001WithoutDelayingTheCaller)
{
    const std::string path = "LogTest.Queue.Full";
    auto logger = Get(path);
    GateHandler handler(path);
    ScopedHandler registered(handler);
    struct OpenAtEnd
    {
        Gate& gate;
        ~OpenAtEnd() { gate.Open(); } // before the handler is unregistered, which waits for the worker
    } openAtEnd{handler.m_Gate};
    logger->WriteLog(QelLogInformational, std::string("block"));
    ASSERT_TRUE(Eventually([&] { return handler.m_bBlocked.load(); }));
    ASSERT_TRUE(Eventually([&] { return Manager().GetQueuedCount() == 0; }));

    // The queue's watermark reports go to the standard error stream; that is expected here.
    for (int i = 1; i <= 3001; ++i) logger->WriteLog(QelLogInformational, "entry %d", i);
    // The caller came through all of them while the worker was still held.
    EXPECT_TRUE(handler.m_bBlocked.load());
    EXPECT_EQ(Manager().GetQueuedCount(), 3000u);

    handler.m_Gate.Open();
    ASSERT_TRUE(Eventually([&] { return handler.Count() >= 3001; }));
    logger->WriteLog(QelLogInformational, std::string("after"));
    ASSERT_TRUE(handler.WaitFor("after"));
    std::vector<std::string> messages = handler.Messages();
    ASSERT_EQ(messages.size(), 3002u);
    EXPECT_EQ(messages.front(), "block");
    for (int i = 1; i <= 3000; ++i) ASSERT_EQ(messages[i], "entry " + std::to_string(i));
    EXPECT_EQ(messages.back(), "after"); // entry 3001 was dropped
}

TEST_F(LoggerTest, SeveralThreadsWritingThroughOneLogger)
{
    const std::string path = "LogTest.Threads.Shared";
    const int kThreads = 4;
    const int kPerThread = 600;
    auto logger = Get(path);
    ManagerCapture capture(path);
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            while (!go.load()) std::this_thread::yield();
            for (int i = 0; i < kPerThread; ++i) {
                // Paced below the queue's limit.
                while (Manager().GetQueuedCount() > 2000) std::this_thread::sleep_for(std::chrono::milliseconds(1));
                if (i % 2 == 0) logger->WriteLog(QelLogInformational, "t%d n%d", t, i);
                else logger->WriteLog(QelLogWarning, "t" + std::to_string(t) + " n" + std::to_string(i));
            }
        });
    }
    go = true;
    for (std::thread& thread : threads) thread.join();
    ASSERT_TRUE(Eventually([&] { return capture.Count() >= std::size_t(kThreads * kPerThread); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));

    std::vector<std::string> messages = capture.Messages();
    EXPECT_EQ(messages.size(), std::size_t(kThreads * kPerThread));
    std::vector<int> next(kThreads, 0);
    for (const std::string& message : messages) {
        int t = -1;
        int n = -1;
        ASSERT_EQ(std::sscanf(message.c_str(), "t%d n%d", &t, &n), 2) << message;
        ASSERT_GE(t, 0);
        ASSERT_LT(t, kThreads);
        EXPECT_EQ(n, next[t]) << "thread " << t << " out of order or repeated";
        next[t] = n + 1;
    }
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(next[t], kPerThread);
}

// ---- Shutdown ----

// On a manager of its own, in a process of its own: Shutdown sets a process-wide flag, and the
// process's manager must stay for the other tests.
TEST(LogManagerShutdown, ASecondShutdownDoesNothing)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            int failures = 0;
            {
                RecordingService service; // outlives the manager
                LogManager own;
                own.InstallLogService(service);
                auto first = own.GetLogger("LogTest.Shutdown.First");
                failures += service.m_RegisteredLoggers.count("LogTest.Shutdown.First") != 1;
                own.Shutdown();
                failures += service.m_UnregisteredLoggers.count("LogTest.Shutdown.First") != 1;
                auto second = own.GetLogger("LogTest.Shutdown.Second"); // still works
                failures += !second;
                failures += service.m_RegisteredLoggers.count("LogTest.Shutdown.Second") != 1;
                own.Shutdown();
                failures += service.m_UnregisteredLoggers.count("LogTest.Shutdown.Second") != 0;
                failures += service.m_UnregisteredLoggers.count("LogTest.Shutdown.First") != 1;
            }
            std::exit(failures);
        },
        ::testing::ExitedWithCode(0), "");
}
