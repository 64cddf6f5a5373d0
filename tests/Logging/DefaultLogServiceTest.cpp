// The default log service: the tree of loggers with its filter words, handlers, saved
// entries and their replay, the hand-over to an installed service, and the manager's use of an
// installed service.
#include "tests/Logging/LogTestSupport.h"

#include <algorithm>
#include <stdexcept>

using namespace Qel::Core;
using namespace LogTest;

namespace {

const unsigned kDEFAULT = 46;
const unsigned kWARNING_BIT = 1u << QelLogWarning;

// A logger of a host, as the service sees it.
class TestLogger : public IQelLogger
{
public:
    explicit TestLogger(std::string path) : m_Path(std::move(path)) {}
    std::string GetPath() override { return m_Path; }
    std::string GetName() override
    {
        std::size_t dot = m_Path.rfind('.');
        return dot == std::string::npos ? m_Path : m_Path.substr(dot + 1);
    }
    unsigned int GetSeverityFilters() const override { return m_Filters; }
    void SetSeverityFilters(unsigned int filters) override { m_Filters = filters; }

private:
    std::string m_Path;
    unsigned int m_Filters = 0xDEAD;
};

// A handler that throws from every call, counting them.
class ThrowingHandler : public IQelLogHandler
{
public:
    void OnLogTreeChange() override
    {
        ++m_iTreeChanges;
        throw std::runtime_error("tree change refused");
    }
    void WriteLog(const QelLogEntry&) override
    {
        ++m_iWrites;
        throw std::runtime_error("entry refused");
    }
    std::atomic<int> m_iWrites{0};
    std::atomic<int> m_iTreeChanges{0};
};

// A service of its own over a folder of its own; the folder can be changed between entries.
class ServiceTest : public ::testing::Test
{
protected:
    ServiceTest()
        : m_Service([this] {
              std::lock_guard<std::mutex> guard(m_FolderMutex);
              return m_sFolder;
          })
    {
        m_sFolder = m_Folder.Path();
    }
    void SetFolder(const std::string& folder)
    {
        std::lock_guard<std::mutex> guard(m_FolderMutex);
        m_sFolder = folder;
    }
    std::string Entries() const { return m_Folder / sDEFAULT_LOG_ENTRIES; }

    TempDir m_Folder;
    std::mutex m_FolderMutex;
    std::string m_sFolder;
    DefaultLogService m_Service;
};

using TreeTest = ServiceTest;

} // namespace

// ---- the tree ----

TEST_F(TreeTest, ExistsForPathsWithAFilterOrALoggerAndTheirAncestors)
{
    EXPECT_FALSE(m_Service.Exists("Qel.Core"));
    m_Service.SetSeverityFilters("Qel.Core.Thread", 0x3E);
    EXPECT_TRUE(m_Service.Exists("Qel.Core.Thread"));
    EXPECT_TRUE(m_Service.Exists("Qel.Core"));
    EXPECT_TRUE(m_Service.Exists("Qel"));
    EXPECT_TRUE(m_Service.Exists(""));
    EXPECT_FALSE(m_Service.Exists("Qel.Core.Mutex"));
    EXPECT_FALSE(m_Service.Exists("Core"));

    TestLogger logger("App.Part.Leaf");
    m_Service.RegisterLogger(&logger);
    EXPECT_TRUE(m_Service.Exists("App.Part.Leaf"));
    EXPECT_TRUE(m_Service.Exists("App.Part"));
    m_Service.UnregisterLogger(&logger);
    EXPECT_TRUE(m_Service.Exists("App.Part.Leaf")); // the node stays
}

TEST_F(TreeTest, GetSeverityFiltersOfANewPathGives46AndMakesTheNode)
{
    CaptureHandler handler;
    m_Service.RegisterHandler(&handler);
    EXPECT_FALSE(m_Service.Exists("New.Path"));
    EXPECT_EQ(m_Service.GetSeverityFilters("New.Path"), kDEFAULT);
    EXPECT_TRUE(m_Service.Exists("New.Path"));
    EXPECT_EQ(handler.TreeChanges(), 1);
    EXPECT_EQ(m_Service.GetSeverityFilters("New.Path"), kDEFAULT);
    EXPECT_EQ(handler.TreeChanges(), 1); // nothing new
    EXPECT_EQ(m_Service.GetSeverityFilters(""), kDEFAULT); // the root
}

TEST_F(TreeTest, MalformedPaths)
{
    for (const std::string path : {"Qel..Core", "Qel.Core.", "..", "Qel.", "A..B.C"}) {
        try {
            m_Service.SetSeverityFilters(path, 1);
            ADD_FAILURE() << "no InvalidLogPath for " << path;
        } catch (InvalidLogPath& error) {
            EXPECT_EQ(std::string(error.what()), "Invalid log path: " + path);
        }
        EXPECT_THROW(m_Service.GetSeverityFilters(path), InvalidLogPath) << path;
        EXPECT_THROW(m_Service.Exists(path), InvalidLogPath) << path;
        std::list<std::string> names;
        EXPECT_THROW(m_Service.EnumLoggers(path, names), InvalidLogPath) << path;
        TestLogger logger(path);
        EXPECT_THROW(m_Service.RegisterLogger(&logger), InvalidLogPath) << path;
    }
    try {
        m_Service.GetSeverityFilters("Qel..Core");
    } catch (InvalidLogPath& error) {
        EXPECT_STREQ(error.what(), "Invalid log path: Qel..Core");
        EXPECT_EQ(error.GetData(AlertInfo::sLOG_NAME), "Qel.Core.DefaultLogService");
    }
    EXPECT_FALSE(m_Service.Exists("Qel"));
}

TEST_F(TreeTest, ALeadingDotStartsAtTheRoot)
{
    m_Service.SetSeverityFilters(".Qel.Core", 0x0E);
    EXPECT_EQ(m_Service.GetSeverityFilters("Qel.Core"), 0x0Eu);
    EXPECT_TRUE(m_Service.Exists(".Qel"));
    std::list<std::string> names;
    m_Service.EnumLoggers("", names);
    EXPECT_EQ(names, std::list<std::string>{"Qel"});
    EXPECT_THROW(m_Service.EnumLoggers(".", names), InvalidLogPath); // a leading dot, then an empty piece
}

TEST_F(TreeTest, EnumLoggersListsTheNamesOfTheChildren)
{
    m_Service.GetSeverityFilters("Qel.Core.Thread");
    m_Service.GetSeverityFilters("Qel.Core.Mutex");
    m_Service.GetSeverityFilters("Qel.Units");
    std::list<std::string> names{"stale"};
    m_Service.EnumLoggers("Qel", names);
    EXPECT_EQ(names, (std::list<std::string>{"Core", "Units"}));
    m_Service.EnumLoggers("Qel.Core", names);
    EXPECT_EQ(names, (std::list<std::string>{"Mutex", "Thread"}));
    m_Service.EnumLoggers("Qel.Core.Thread", names);
    EXPECT_TRUE(names.empty());
    names.push_back("stale");
    m_Service.EnumLoggers("Nowhere", names);
    EXPECT_TRUE(names.empty());
}

TEST_F(TreeTest, ALoggerTakesTheWordsOfItsNodeAndAncestors)
{
    TestLogger plain("Plain.Leaf");
    m_Service.RegisterLogger(&plain);
    EXPECT_EQ(plain.GetSeverityFilters(), kDEFAULT);

    m_Service.SetSeverityFilters("Quiet", kDEFAULT & ~kWARNING_BIT);
    m_Service.SetSeverityFilters("Quiet.Loud", 0xFF);
    // Its own node says warnings; its parent does not.
    m_Service.GetLoggerNode("Quiet.Loud").SetSeverityFilters(0xFF);
    TestLogger below("Quiet.Loud");
    m_Service.RegisterLogger(&below);
    EXPECT_EQ(below.GetSeverityFilters() & kWARNING_BIT, 0u);
    EXPECT_EQ(below.GetSeverityFilters(), 0xFFu & (kDEFAULT & ~kWARNING_BIT));
    TestLogger deeper("Quiet.Loud.Deeper");
    m_Service.RegisterLogger(&deeper);
    EXPECT_EQ(deeper.GetSeverityFilters(), kDEFAULT & ~kWARNING_BIT);
}

TEST_F(TreeTest, ABitSwitchedOffAtANodeIsOffBelowIt)
{
    m_Service.SetSeverityFilters("A.B.C", 0xFF);
    m_Service.SetSeverityFilters("A", kDEFAULT & ~kWARNING_BIT);
    EXPECT_EQ(m_Service.GetSeverityFilters("A.B") & kWARNING_BIT, 0u);
    EXPECT_EQ(m_Service.GetSeverityFilters("A.B.C") & kWARNING_BIT, 0u);
    EXPECT_EQ(m_Service.GetSeverityFilters("A.B.C"), 0xFFu & kDEFAULT & ~kWARNING_BIT);
    // A sibling subtree is untouched.
    m_Service.SetSeverityFilters("Other", 0xFF);
    EXPECT_EQ(m_Service.GetSeverityFilters("Other"), 0xFFu);
}

TEST_F(TreeTest, SettingTheSameWordAgainTellsNoHandler)
{
    CaptureHandler handler;
    m_Service.RegisterHandler(&handler);
    m_Service.GetSeverityFilters("Same.Path");
    int before = handler.TreeChanges();
    m_Service.SetSeverityFilters("Same.Path", 0x3E);
    EXPECT_EQ(handler.TreeChanges(), before + 1);
    m_Service.SetSeverityFilters("Same.Path", 0x3E);
    EXPECT_EQ(handler.TreeChanges(), before + 1);
    m_Service.SetSeverityFilters("Same.Path", 0x3F);
    EXPECT_EQ(handler.TreeChanges(), before + 2);
}

TEST_F(TreeTest, MakingANodeTellsTheHandlers)
{
    CaptureHandler handler;
    m_Service.RegisterHandler(&handler);
    // A new path whose word is already the wanted one: nothing to set, but the node is new.
    m_Service.SetSeverityFilters("Fresh.Path", kDEFAULT);
    EXPECT_TRUE(m_Service.Exists("Fresh.Path"));
    EXPECT_EQ(handler.TreeChanges(), 1);
    TestLogger logger("Fresh.Logger");
    m_Service.RegisterLogger(&logger);
    EXPECT_EQ(handler.TreeChanges(), 2);
    TestLogger again("Fresh.Logger");
    m_Service.RegisterLogger(&again); // the node is there
    EXPECT_EQ(handler.TreeChanges(), 2);
}

TEST_F(TreeTest, AHandlerThatThrowsFromOnLogTreeChangeIsRemoved)
{
    ThrowingHandler throwing;
    CaptureHandler capture;
    m_Service.RegisterHandler(&throwing);
    m_Service.RegisterHandler(&capture);
    EXPECT_EQ(m_Service.GetHandlerCount(), 2u);
    m_Service.SetSeverityFilters("Tree.One", 1);
    m_Service.SetSeverityFilters("Tree.Two", 1);
    EXPECT_EQ(throwing.m_iTreeChanges.load(), 1);
    EXPECT_EQ(capture.TreeChanges(), 2);
    EXPECT_EQ(m_Service.GetHandlerCount(), 1u);
}

// ---- handlers and the file ----

TEST_F(ServiceTest, HandlerCount)
{
    EXPECT_EQ(m_Service.GetHandlerCount(), 1u); // the file stands in for a handler
    CaptureHandler first;
    CaptureHandler second;
    m_Service.RegisterHandler(&first);
    EXPECT_EQ(m_Service.GetHandlerCount(), 1u);
    m_Service.RegisterHandler(&first); // once only
    m_Service.RegisterHandler(nullptr);
    EXPECT_EQ(m_Service.GetHandlerCount(), 1u);
    m_Service.RegisterHandler(&second);
    EXPECT_EQ(m_Service.GetHandlerCount(), 2u);
    m_Service.WriteLog(MakeEntry("to both"));
    EXPECT_EQ(first.Count(), 1u);
    EXPECT_EQ(second.Count(), 1u);
    m_Service.UnregisterHandler(&first);
    m_Service.UnregisterHandler(nullptr);
    EXPECT_EQ(m_Service.GetHandlerCount(), 1u);
    m_Service.UnregisterHandler(&second);
    EXPECT_EQ(m_Service.GetHandlerCount(), 1u);
    EXPECT_EQ(m_Service.GetHandlers().size(), 0u);
}

TEST_F(ServiceTest, AnEntryThatAHandlerTakesLeavesTheFileUntouched)
{
    CaptureHandler handler;
    m_Service.RegisterHandler(&handler);
    m_Service.WriteLog(MakeEntry("taken"));
    EXPECT_EQ(handler.Messages(), std::vector<std::string>{"taken"});
    EXPECT_FALSE(FileExists(Entries()));
    EXPECT_FALSE(FileExists(m_Folder / sDEFAULT_LOG_DOCUMENT));
    EXPECT_FALSE(m_Service.HasSavedEntries());

    m_Service.UnregisterHandler(&handler);
    m_Service.WriteLog(MakeEntry("to the file"));
    std::string text = ReadFile(Entries());
    EXPECT_EQ(CountOf(text, "<LogEntry"), 1u);
    EXPECT_NE(text.find("to the file"), std::string::npos);
    std::uint64_t size = FileSize(Entries());
    m_Service.RegisterHandler(&handler);
    m_Service.WriteLog(MakeEntry("taken again"));
    EXPECT_EQ(FileSize(Entries()), size);
    m_Service.UnregisterHandler(&handler);
}

TEST_F(ServiceTest, AHandlerThatThrowsGetsNoSecondEntry)
{
    ThrowingHandler throwing;
    CaptureHandler capture;
    m_Service.RegisterHandler(&throwing);
    m_Service.RegisterHandler(&capture);
    m_Service.WriteLog(MakeEntry("first"));
    m_Service.WriteLog(MakeEntry("second"));
    EXPECT_EQ(throwing.m_iWrites.load(), 1);
    EXPECT_EQ(capture.Messages(), (std::vector<std::string>{"first", "second"}));
    EXPECT_FALSE(FileExists(Entries())); // the other handler took both

    // The only handler throws: the entry goes on to the file.
    ThrowingHandler alone;
    m_Service.UnregisterHandler(&capture);
    m_Service.RegisterHandler(&alone);
    m_Service.WriteLog(MakeEntry("third"));
    m_Service.WriteLog(MakeEntry("fourth"));
    EXPECT_EQ(alone.m_iWrites.load(), 1);
    std::string text = ReadFile(Entries());
    EXPECT_NE(text.find("third"), std::string::npos);
    EXPECT_NE(text.find("fourth"), std::string::npos);
    EXPECT_EQ(m_Service.GetHandlers().size(), 0u);
}

TEST_F(ServiceTest, Entry1001PushesOutTheOldestAndALaterHandlerGetsTheThousandInOrder)
{
    for (int i = 1; i <= 1001; ++i) m_Service.WriteLog(MakeEntry("saved " + std::to_string(i)));
    EXPECT_EQ(CountOf(ReadFile(Entries()), "<LogEntry"), 1001u);
    ASSERT_TRUE(m_Service.HasSavedEntries());

    CaptureHandler handler;
    m_Service.RegisterHandler(&handler);
    std::uint64_t size = FileSize(Entries());
    m_Service.ReplaySavedEntries(m_Service);
    std::vector<std::string> messages = handler.Messages();
    ASSERT_EQ(messages.size(), 1000u);
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(messages[i], "saved " + std::to_string(i + 2));
    EXPECT_FALSE(m_Service.HasSavedEntries());
    EXPECT_EQ(FileSize(Entries()), size); // replayed to the handlers only
    m_Service.UnregisterHandler(&handler);
}

TEST_F(ServiceTest, ReplayIntoAnotherServiceGivesTheSavedEntriesOldestFirst)
{
    m_Service.WriteLog(MakeEntry("one"));
    m_Service.WriteLog(MakeEntry("two"));
    RecordingService other;
    m_Service.ReplaySavedEntries(other);
    EXPECT_EQ(other.Messages(), (std::vector<std::string>{"one", "two"}));
    EXPECT_FALSE(m_Service.HasSavedEntries());
    m_Service.ReplaySavedEntries(other);
    EXPECT_EQ(other.Messages().size(), 2u);
}

TEST_F(ServiceTest, TheFolderIsReadWhenTheFileIsOpened)
{
    TempDir later;
    // Changed before the first entry: all files go to the new folder, the archive too.
    SetFolder(later.Path());
    {
        RolloverLimit limit(1500);
        m_Service.WriteLog(MakeEntry("first"));
        EXPECT_TRUE(FileExists(later / sDEFAULT_LOG_ENTRIES));
        EXPECT_TRUE(FileExists(later / sDEFAULT_LOG_DOCUMENT));
        for (int i = 0; i < 10 && !FileExists(later / sDEFAULT_LOG_ARCHIVE); ++i)
            m_Service.WriteLog(MakeEntry(std::string(200, 'r')));
        EXPECT_TRUE(FileExists(later / sDEFAULT_LOG_ARCHIVE));
    }
    EXPECT_FALSE(FileExists(Entries()));
    EXPECT_FALSE(FileExists(m_Folder / sDEFAULT_LOG_DOCUMENT));
    EXPECT_FALSE(FileExists(m_Folder / sDEFAULT_LOG_ARCHIVE));

    // Changed after it: no effect while the file is open.
    SetFolder(m_Folder.Path());
    m_Service.WriteLog(MakeEntry("second"));
    EXPECT_FALSE(FileExists(Entries()));
    EXPECT_NE(ReadFile(later / sDEFAULT_LOG_ENTRIES).find("second"), std::string::npos);

    // Opened again: the new folder.
    m_Service.CloseFile();
    m_Service.WriteLog(MakeEntry("third"));
    EXPECT_NE(ReadFile(Entries()).find("third"), std::string::npos);
    EXPECT_TRUE(FileExists(m_Folder / sDEFAULT_LOG_DOCUMENT));
    EXPECT_EQ(ReadFile(later / sDEFAULT_LOG_ENTRIES).find("third"), std::string::npos);
}

TEST_F(ServiceTest, TheWrittenLogIsAWellFormedDocument)
{
    if (!HaveXmlLint()) GTEST_SKIP() << "xmllint is not installed";
    m_Service.WriteLog(MakeEntry("plain 1 < 2 & 3", QelLogWarning));
    m_Service.WriteLog(MakeEntry("<Fragment a=\"1\">x &amp; y</Fragment>", QelLogError, "LogTest.Xml", "xml"));
    m_Service.WriteLog(MakeEntry(std::string("control \x01\x02\x1b[0m and bad \xff\xfe\xc3 bytes"), QelLogAlarm));
    m_Service.WriteLog(MakeEntry(std::string(300, 'l') + "\nsecond line\n\tthird", QelLogVerbose));
    m_Service.WriteLog(MakeEntry("odd severity", static_cast<QelLogSeverityEnum>(9)));
    std::string document = m_Folder / sDEFAULT_LOG_DOCUMENT;
    EXPECT_EQ(XPath(document, "count(/Log/LogEntry)"), "5");
    EXPECT_EQ(XPath(document, "count(/Log/LogEntry[@Severity=\"Warning\"])"), "1");
    EXPECT_EQ(XPath(document, "string(/Log/LogEntry[1]/Message)"), "plain 1 < 2 & 3");
    EXPECT_EQ(XPath(document, "string(/Log/LogEntry[2]/Fragment/@a)"), "1");
    EXPECT_EQ(XPath(document, "count(/Log/LogEntry[2]/Message)"), "0");
    EXPECT_EQ(XPath(document, "count(/Log/LogEntry[5]/@Severity)"), "0");
}

// ---- hand-over ----

TEST_F(ServiceTest, TransferToHandsOverFiltersLoggersAndHandlers)
{
    m_Service.SetSeverityFilters("Qel.Core", 0x0E);
    TestLogger logger("Qel.Core.Thread");
    m_Service.RegisterLogger(&logger);
    CaptureHandler handler;
    ThrowingHandler throwing;
    m_Service.RegisterHandler(&handler);
    m_Service.RegisterHandler(&throwing);
    m_Service.WriteLog(MakeEntry("before")); // taken by the handler: the file stays closed...
    m_Service.UnregisterHandler(&handler);
    m_Service.UnregisterHandler(&throwing);
    m_Service.WriteLog(MakeEntry("to the file")); // ...until now
    m_Service.RegisterHandler(&handler);
    m_Service.RegisterHandler(&throwing);

    int writesBefore = throwing.m_iWrites.load();
    RecordingService installed;
    installed.SetSeverityFilters("Qel", 0x3F); // known there already: not overwritten
    m_Service.TransferTo(installed);
    EXPECT_EQ(installed.m_Filters.at("Qel"), 0x3Fu);
    EXPECT_EQ(installed.m_Filters.at("Qel.Core"), 0x0Eu);
    EXPECT_EQ(installed.m_Filters.at("Qel.Core.Thread"), kDEFAULT); // the node's own word
    EXPECT_EQ(installed.m_RegisteredLoggers, std::multiset<std::string>{"Qel.Core.Thread"});
    EXPECT_EQ(installed.m_Handlers, std::list<IQelLogHandler*>{&handler}); // the throwing one is dropped
    std::vector<QelLogEntry> entries = handler.Entries();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[1].m_Message, "Transfering log handler from default to installed log service.");
    EXPECT_EQ(entries[1].m_Severity, QelLogInformational);
    EXPECT_EQ(entries[1].m_LogName, "Qel.Core.DefaultLogService");
    EXPECT_EQ(entries[1].m_Format, "plain");
    EXPECT_EQ(throwing.m_iWrites.load(), writesBefore + 1);
    // The handlers that did not throw stay here, for a later return.
    EXPECT_EQ(m_Service.GetHandlers(), std::list<IQelLogHandler*>{&handler});

    // The file was closed: the next entry opens it in the folder of that moment.
    TempDir later;
    SetFolder(later.Path());
    m_Service.UnregisterHandler(&handler);
    m_Service.WriteLog(MakeEntry("after"));
    EXPECT_NE(ReadFile(later / sDEFAULT_LOG_ENTRIES).find("after"), std::string::npos);
}

// ---- the manager with an installed service ----

using InstalledTest = ManagerFolderFixture;

TEST_F(InstalledTest, TheInstalledServiceReceivesTheSavedEntriesFirst)
{
    auto logger = Manager().GetLogger("LogTest.Installed.Saved");
    logger->WriteLog(QelLogInformational, std::string("saved marker"));
    ASSERT_TRUE(WaitForFile("saved marker")); // no handler took it: saved, and in the file

    RecordingService service;
    ScopedInstall installed(service);
    logger->WriteLog(QelLogInformational, std::string("new entry"));
    ASSERT_TRUE(Eventually([&] { return service.Holds("new entry"); }));
    std::vector<std::string> messages = service.Messages();
    auto saved = std::find(messages.begin(), messages.end(), "saved marker");
    auto fresh = std::find(messages.begin(), messages.end(), "new entry");
    ASSERT_NE(saved, messages.end());
    EXPECT_LT(saved, fresh);
    EXPECT_EQ(std::count(messages.begin(), messages.end(), "saved marker"), 1);
    EXPECT_EQ(ReadFile(EntriesFile()).find("new entry"), std::string::npos);
}

TEST_F(InstalledTest, InstallHandsOverAndUninstallTakesBack)
{
    const std::string filtered = Unique("LogTest.Installed.Filtered");
    Manager().SetSeverityFilters(filtered, 0x1E);
    auto logger = Manager().GetLogger("LogTest.Installed.Source");
    CaptureHandler handler("LogTest.Installed");
    CaptureHandler transfer("Qel.Core.DefaultLogService");
    ScopedHandler registered(handler);
    ScopedHandler registeredTransfer(transfer);

    RecordingService service;
    {
        ScopedInstall installed(service);
        EXPECT_EQ(service.m_Filters.count(filtered), 1u);
        EXPECT_EQ(service.m_Filters[filtered], 0x1Eu & kDEFAULT); // stored effective by the tree
        EXPECT_EQ(service.m_RegisteredLoggers.count("LogTest.Installed.Source"), 1u);
        EXPECT_EQ(std::count(service.m_Handlers.begin(), service.m_Handlers.end(), &handler), 1);
        EXPECT_TRUE(transfer.Holds("Transfering log handler from default to installed log service."));
        // The manager's operations go to the installed service now.
        EXPECT_TRUE(Manager().Exists(filtered));
        EXPECT_FALSE(Manager().Exists("LogTest.Installed.Nowhere"));
        EXPECT_EQ(Manager().GetSeverityFilters(filtered), 0x1Eu & kDEFAULT);
        Manager().SetSeverityFilters("LogTest.Installed.Elsewhere", 0x2);
        EXPECT_EQ(service.m_Filters["LogTest.Installed.Elsewhere"], 0x2u);

        logger->WriteLog(QelLogInformational, std::string("to the installed service"));
        ASSERT_TRUE(Eventually([&] { return service.Holds("to the installed service"); }));
        EXPECT_FALSE(handler.Holds("to the installed service")); // the service did not pass it on
    }
    EXPECT_EQ(service.m_UnregisteredLoggers.count("LogTest.Installed.Source"), 1u);
    EXPECT_EQ(std::count(service.m_UnregisteredHandlers.begin(), service.m_UnregisteredHandlers.end(), &handler), 1);
    logger->WriteLog(QelLogInformational, std::string("back at the default"));
    EXPECT_TRUE(handler.WaitFor("back at the default"));
    EXPECT_FALSE(service.Holds("back at the default"));
    std::size_t unregistered = service.m_UnregisteredLoggers.size();
    Manager().UninstallLogService(service); // no longer installed: nothing happens
    EXPECT_EQ(service.m_UnregisteredLoggers.size(), unregistered);
}

TEST_F(InstalledTest, AServiceThatThrowsIsReplacedByTheDefaultAtOnce)
{
    auto logger = Manager().GetLogger("LogTest.Installed.Throwing");
    RecordingService service;
    service.m_bThrow = true;
    ScopedInstall installed(service);
    logger->WriteLog(QelLogInformational, std::string("lost entry"));
    ASSERT_TRUE(Eventually([&] { return service.WriteCalls() >= 1; }));
    logger->WriteLog(QelLogInformational, std::string("to the default file"));
    ASSERT_TRUE(WaitForFile("to the default file"));
    std::string text = ReadFile(EntriesFile());
    EXPECT_EQ(text.find("lost entry"), std::string::npos);
    EXPECT_EQ(service.WriteCalls(), 1u);

    // Later entries go to the default service and its handlers.
    CaptureHandler handler("LogTest.Installed.Throwing");
    {
        ScopedHandler registered(handler);
        logger->WriteLog(QelLogInformational, std::string("to the handler"));
        EXPECT_TRUE(handler.WaitFor("to the handler"));
    }
    EXPECT_EQ(service.WriteCalls(), 1u);
    // It is no longer installed: uninstalling it does nothing.
    Manager().UninstallLogService(service);
    EXPECT_TRUE(service.m_UnregisteredLoggers.empty());
}

TEST_F(InstalledTest, AServiceThatThrowsWithoutBufferingIsReplacedToo)
{
    auto logger = Manager().GetLogger("LogTest.Installed.ThrowingDirect");
    Manager().SetBufferingMode(false);
    RecordingService service;
    service.m_bThrow = true;
    ScopedInstall installed(service);
    logger->WriteLog(QelLogInformational, std::string("lost entry"));
    EXPECT_EQ(service.WriteCalls(), 1u);
    logger->WriteLog(QelLogInformational, std::string("to the default file"));
    EXPECT_EQ(service.WriteCalls(), 1u);
    std::string text = ReadFile(EntriesFile());
    EXPECT_NE(text.find("to the default file"), std::string::npos);
    EXPECT_EQ(text.find("lost entry"), std::string::npos);
}

TEST_F(InstalledTest, AServiceWithoutHandlersLeavesTheEntriesToTheDefaultService)
{
    auto logger = Manager().GetLogger("LogTest.Installed.NoHandlers");
    CaptureHandler handler("LogTest.Installed.NoHandlers");
    ScopedHandler registered(handler);
    RecordingService service;
    service.m_iHandlerCount = 0;
    ScopedInstall installed(service);
    logger->WriteLog(QelLogInformational, std::string("to the default service"));
    EXPECT_TRUE(handler.WaitFor("to the default service"));
    EXPECT_EQ(service.WriteCalls(), 0u);
}

TEST_F(InstalledTest, AHandlerRegisteredWhileInstalledGoesToBothServices)
{
    auto logger = Manager().GetLogger("LogTest.Installed.Both");
    CaptureHandler handler("LogTest.Installed.Both");
    RecordingService service;
    {
        ScopedInstall installed(service);
        Manager().RegisterHandler(&handler);
        EXPECT_EQ(std::count(service.m_Handlers.begin(), service.m_Handlers.end(), &handler), 1);
    }
    logger->WriteLog(QelLogInformational, std::string("after uninstall"));
    EXPECT_TRUE(handler.WaitFor("after uninstall"));
    Manager().UnregisterHandler(&handler);
}

TEST_F(ManagerFolderFixture, SetLogPathTakesEffectWhenTheFileIsOpened)
{
    TempDir later;
    auto logger = Manager().GetLogger("LogTest.LogPath");
    // Before the first entry (the file of the manager is closed): the files go to the folder.
    logger->WriteLog(QelLogInformational, std::string("first entry"));
    ASSERT_TRUE(WaitForFile("first entry"));
    EXPECT_TRUE(FileExists(m_Folder / sDEFAULT_LOG_DOCUMENT));

    // After it: no effect while the file is open.
    Manager().SetLogPath(later.Path().substr(0, later.Path().size() - 1)); // without the separator
    EXPECT_EQ(Manager().GetLogPath(), later.Path());
    logger->WriteLog(QelLogInformational, std::string("second entry"));
    ASSERT_TRUE(WaitForFile("second entry"));
    EXPECT_FALSE(FileExists(later / sDEFAULT_LOG_ENTRIES));
    EXPECT_FALSE(FileExists(later / sDEFAULT_LOG_DOCUMENT));

    // A hand-over closes the file; the next entry opens it in the new folder.
    CloseManagerFile();
    logger->WriteLog(QelLogInformational, std::string("third entry"));
    ASSERT_TRUE(WaitForFile("third entry", later / sDEFAULT_LOG_ENTRIES));
    EXPECT_TRUE(FileExists(later / sDEFAULT_LOG_DOCUMENT));
    EXPECT_EQ(ReadFile(EntriesFile()).find("third entry"), std::string::npos);
    // Closed again before `later` goes (TearDown puts the old path back).
    Manager().SetLogPath(m_Folder.Path());
    CloseManagerFile();
}

TEST_F(ManagerFolderFixture, AHandlerRegisteredLaterGetsTheLastThousandEntriesThroughReplay)
{
    auto logger = Manager().GetLogger("LogTest.Replay");
    for (int i = 1; i <= 1001; ++i) logger->WriteLog(QelLogInformational, "replayed %d", i);
    ASSERT_TRUE(WaitForFile("replayed 1001"));

    CaptureHandler handler("LogTest.Replay");
    ScopedHandler registered(handler); // the replay runs on this thread, in the registration
    std::vector<std::string> messages = handler.Messages();
    ASSERT_EQ(messages.size(), 1000u);
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(messages[i], "replayed " + std::to_string(i + 2));
}
